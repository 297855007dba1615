// pelkit-viewer: the host application. Presents the AR screen for an app key on a camera, a video
// or a scripted camera, in a window (a mouse click is a tap) or headless, recording an MP4.
#include "ViewerController.h"
#include "common/CommandLine.h"

#include <pelkit/ar/Clock.h>
#include <pelkit/ar/FrameFeed.h>
#include <pelkit/foundation/Bundle.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/image/Image.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/Window.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

using namespace pelkit;

namespace {

constexpr const char* footer = R"(
One of --camera, --video and --script names what the camera sees. The app key's project is synced
from the production server, the staging one (--staging) or the legacy one (--legacy); --server
stands in for all three. In a window a mouse click is a tap, R refreshes the project, Q quits.

--headless draws offscreen on a clock that steps one camera frame at a time, so a run is the same
on every machine: it shows --frames frames, writes the camera view with its content to --out, taps
at script times (--tap 2.5:320,240 taps the view point 320,240 once the frame of 2.5 s is shown)
and saves the window (with any gallery or player over the camera) at script times
(--still 3:out/three.png).
)";

struct TimedTap {
    double time = 0;
    ui::Point point;
};
struct TimedStill {
    double time = 0;
    std::string file;
};

struct Options {
    std::string appKey, server, camera, video, script, documents, out;
    bool staging = false, legacy = false, headless = false;
    long long frames = 0;
    int width = 640, height = 480;
    std::vector<std::string> taps, stills;
};

std::optional<TimedTap> parseTap(const std::string& text) {
    TimedTap tap;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%lf:%f,%f%c", &tap.time, &tap.point.x, &tap.point.y, &tail) != 3)
        return std::nullopt;
    return tap;
}

std::optional<TimedStill> parseStill(const std::string& text) {
    auto colon = text.find(':');
    if (colon == std::string::npos || colon + 1 == text.size())
        return std::nullopt;
    char* end = nullptr;
    double time = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + colon)
        return std::nullopt;
    return TimedStill{time, text.substr(colon + 1)};
}

CLI::Validator formatOf(bool (*valid)(const std::string&), std::string expected) {
    return CLI::Validator(
        [valid, expected](std::string& text) {
            return valid(text) ? std::string() : "needs " + expected + ", got: " + text;
        },
        "");
}

void describe(CLI::App& app, Options& o) {
    app.add_option("--app-key", o.appKey, "the app key of the project")
        ->required()
        ->type_name("KEY")
        ->check(apps::notEmpty());
    app.add_option("--server", o.server, "one server standing in for all three")->type_name("URL");
    auto* camera = app.add_option("--camera", o.camera, "a V4L2 camera")->type_name("/dev/videoN");
    auto* video =
        app.add_option("--video", o.video, "a video file as the camera")->type_name("FILE");
    auto* script = app.add_option("--script", o.script, "a scripted camera")->type_name("FILE");
    camera->excludes(video)->excludes(script);
    video->excludes(script);
    auto* staging = app.add_flag("--staging", o.staging, "use the staging server");
    app.add_flag("--legacy", o.legacy, "use the legacy server")->excludes(staging);
    app.add_option("--documents", o.documents, "where projects are stored")->type_name("DIR");
    auto* headless = app.add_flag("--headless", o.headless, "draw offscreen, no window");
    app.add_option("--frames", o.frames, "camera frames to show headless")
        ->check(apps::wholeNumber(1, 1000000))
        ->needs(headless);
    app.add_option("--out", o.out, "record the camera view to an MP4 file")
        ->type_name("FILE.mp4")
        ->needs(headless);
    app.add_option("--tap", o.taps, "a tap at script time T on view point X,Y")
        ->type_name("T:X,Y")
        ->check(formatOf([](const std::string& t) { return parseTap(t).has_value(); }, "T:X,Y"))
        ->needs(headless);
    app.add_option("--still", o.stills, "a PNG of the window at script time T")
        ->type_name("T:FILE")
        ->check(formatOf([](const std::string& t) { return parseStill(t).has_value(); }, "T:FILE"))
        ->needs(headless);
    app.add_option("--width", o.width, "window width")->check(apps::wholeNumber(64, 4096));
    app.add_option("--height", o.height, "window height")->check(apps::wholeNumber(64, 4096));
    app.footer(footer);
}

// The camera description the frame feed understands.
std::string feedDescription(const Options& o) {
    if (!o.video.empty())
        return "video:" + o.video;
    if (!o.script.empty())
        return "script:" + o.script;
    return o.camera.empty() ? "/dev/video0" : o.camera;
}

// A script's frame rate, which the headless clock steps by; 30 as the scripts' own default.
double frameRate(const Options& o) {
    if (o.script.empty())
        return 30;
    auto bytes = readFile(o.script);
    if (!bytes)
        return 30;
    auto json = nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false);
    if (json.is_object() && json.contains("frameRate") && json["frameRate"].is_number())
        return std::max(1.0, json["frameRate"].get<double>());
    return 30;
}

struct HeadlessRun {
    const Options& options;
    std::shared_ptr<ar::SteppedClock> clock;
    std::shared_ptr<ui::Window> window;
    std::shared_ptr<viewer::ViewerController> controller;
    std::vector<TimedTap> taps;
    std::vector<TimedStill> stills;

    int run();
    bool waitForTracking();
    bool showFrame(double step);
    void act(double time);
    bool saveStill(const std::string& file);
};

bool HeadlessRun::waitForTracking() {
    auto& app = ui::Application::shared();
    auto tracking = [&] {
        auto scene = controller->sceneView();
        return controller->currentProject() && scene && scene->session().configuration();
    };
    if (!app.runUntil(tracking, std::chrono::seconds(120))) {
        std::cerr << "pelkit-viewer: no project to track: " << controller->bannerText() << "\n";
        return false;
    }
    return true;
}

// Lets the next camera frame through, waits until it is drawn and its new content attached.
bool HeadlessRun::showFrame(double step) {
    auto scene = controller->sceneView();
    const auto before = scene->framesDrawn();
    clock->advance(step);
    auto drawn = [&] { return scene->framesDrawn() > before; };
    if (!ui::Application::shared().runUntil(drawn, std::chrono::seconds(10)))
        return false;
    controller->updateQueue().sync([] {});
    return true;
}

bool HeadlessRun::saveStill(const std::string& file) {
    auto picture = window->snapshot();
    if (!picture)
        return false;
    auto png = image::encodePng(*picture);
    return png && writeFileAtomically(file, *png).has_value();
}

void HeadlessRun::act(double time) {
    auto& app = ui::Application::shared();
    app.pump();
    for (auto& tap : taps) {
        if (tap.time >= 0 && tap.time <= time + 1e-9) {
            window->tap(tap.point);
            tap.time = -1;
            app.pump();
        }
    }
    for (auto& still : stills) {
        if (still.time >= 0 && still.time <= time + 1e-9) {
            still.time = -1;
            if (!saveStill(still.file))
                std::cerr << "pelkit-viewer: could not save " << still.file << "\n";
        }
    }
}

int HeadlessRun::run() {
    if (!waitForTracking())
        return 1;
    auto scene = controller->sceneView();
    if (!options.out.empty()) {
        if (auto started = scene->startRecording(options.out); !started) {
            std::cerr << "pelkit-viewer: " << *started.error() << "\n";
            return 1;
        }
    }
    const double step = 1.0 / frameRate(options);
    const long long frames = options.frames > 0 ? options.frames : 1000000;
    // The first frame is at time 0: a nudge lets it through without rounding trouble later.
    clock->advance(1e-6);
    long long shown = 0;
    for (; shown < frames && showFrame(shown == 0 ? 0 : step); ++shown)
        act(static_cast<double>(shown) * step);
    if (!options.out.empty()) {
        auto recording = scene->stopRecording();
        if (!recording) {
            std::cerr << "pelkit-viewer: " << *recording.error() << "\n";
            return 1;
        }
        std::cout << "pelkit-viewer: wrote " << recording->frames << " frames to "
                  << recording->file.string() << "\n";
    }
    for (const auto& url : ui::Application::shared().openedUrls())
        std::cout << "pelkit-viewer: opened " << url.absoluteString() << "\n";
    return shown > 0 ? 0 : 1;
}

int runWindow(const std::shared_ptr<ui::Window>& window,
              const std::shared_ptr<viewer::ViewerController>& controller) {
    window->setKeyHandler([controller](std::string_view key) {
        if (key == "R")
            controller->refresh();
        else if (key == "Q" || key == "Escape")
            ui::Application::shared().stop();
    });
    ui::Application::shared().run();
    std::fflush(stdout);
    // The controller and its synchroniser keep each other alive, and the scene view's threads
    // run to the end: the process ends here rather than in static destructors.
    std::_Exit(0);
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Shows the AR screen of an app key's project.", "pelkit-viewer"};
    Options options;
    describe(app, options);
    if (auto status = apps::parseMain(app, argc, argv))
        return *status;
    if (!options.server.empty()) {
        for (const char* name : {"PELKIT_HOST", "PELKIT_PROD_HOST", "PELKIT_STAGING_HOST"})
            ::setenv(name, options.server.c_str(), 1);
    }
    if (!options.documents.empty())
        ::setenv("PELKIT_DOCUMENTS_DIR", options.documents.c_str(), 1);
    setMainBundleIdentifier("org.pelkit.viewer");

    auto feed = ar::FrameFeed::fromDescription(feedDescription(options));
    auto clock = std::make_shared<ar::SteppedClock>();
    if (options.headless) {
        feed.clock = clock;
        ui::Application::shared().setDisplay(ui::Display::headless);
        // Sound plays in real time without a device, so audio content still works.
        ::setenv("SDL_AUDIODRIVER", "dummy", 0);
    }
    ar::setDefaultFrameFeed(feed);

    auto window = ui::Window::create(
        {static_cast<float>(options.width), static_cast<float>(options.height)}, "PELkit viewer");
    if (!window) {
        std::cerr << "pelkit-viewer: " << *window.error() << "\n";
        return 1;
    }
    auto controller = std::make_shared<viewer::ViewerController>();
    controller->setAppKey(options.appKey);
    controller->setIsStaging(options.staging);
    controller->setIsOldCode(options.legacy);
    (*window)->setRootViewController(controller);
    (*window)->makeKeyAndVisible();
    if (!options.headless)
        return runWindow(*window, controller);

    HeadlessRun run{options, clock, *window, controller, {}, {}};
    for (const auto& tap : options.taps)
        run.taps.push_back(*parseTap(tap));
    for (const auto& still : options.stills)
        run.stills.push_back(*parseStill(still));
    int status = run.run();
    std::fflush(stdout);
    std::_Exit(status);
}
