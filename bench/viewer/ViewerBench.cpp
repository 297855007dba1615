// The AR screen on a scripted 640x480 camera that shows the three demo targets side by side: how
// many frames a second the headless screen draws with every target's content attached and its
// video and sound playing, against the same screen tracking the same targets with no content
// (their items removed from the served project), in the same run. Then how long content takes to
// appear once a target comes into view.
//
//     viewer_bench PROJECT_DIR [frames]     # PROJECT_DIR: examples/demo-project
//
// The camera runs on a clock stepped one frame at a time, as fast as the screen draws; each step
// waits until the frame is drawn and its new content built, as the headless viewer does. Frame
// rates are those of the median frame.
#include <pelkit/PELAudioNode.h>
#include <pelkit/PELNode.h>
#include <pelkit/PELVideoNode.h>
#include <pelkit/PELViewController.h>
#include <pelkit/ar/Clock.h>
#include <pelkit/ar/FrameFeed.h>
#include <pelkit/foundation/Bundle.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/Window.h>

#include "devserver/DevServer.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

using namespace pelkit;
namespace fs = std::filesystem;
using WallClock = std::chrono::steady_clock;

namespace {

constexpr double kFrameRate = 30;
constexpr double kEnter = 1.0; // script time at which the targets come into view

std::string script(const fs::path& project) {
    auto target = [&](const char* file, double x, double y) {
        nlohmann::json pose = {{"position", {x, y, -0.5}}, {"rotation", {-10, 0, 0}}};
        auto first = pose, last = pose;
        first["time"] = kEnter;
        last["time"] = 600;
        return nlohmann::json{{"image", (project / "targets" / file).string()},
                              {"physicalWidth", 0.2},
                              {"keyframes", {first, last}}};
    };
    nlohmann::json walk = {{"resolution", {640, 480}},
                           {"fieldOfView", 60},
                           {"frameRate", kFrameRate},
                           {"duration", 600},
                           {"backgroundColor", {70, 66, 60}},
                           {"seed", 1},
                           {"targets",
                            {target("mandelbrot.jpg", -0.12, 0.08),
                             target("cellauto.jpg", 0.12, 0.08), target("life.jpg", 0, -0.1)}}};
    return walk.dump(2);
}

enum class Content { none, still, playing };

struct Run {
    double framesPerSecond = 0;
    // Per target, frames from the first frame showing the targets to its content attached, and
    // to its content having begun to grow in.
    std::vector<long long> attached, growing;
};

class Bench {
public:
    Bench(fs::path project, fs::path stage, devserver::DevServer& server)
        : project_(std::move(project)), stage_(std::move(stage)), server_(server) {}

    Run measure(const std::string& appKey, Content content, int frames);

private:
    bool showFrame();
    template <class T> std::shared_ptr<T> find() const;
    void tap(const std::shared_ptr<scene::Node>& node);

    fs::path project_, stage_;
    devserver::DevServer& server_;
    std::shared_ptr<ar::SteppedClock> clock_;
    std::shared_ptr<ui::Window> window_;
    std::shared_ptr<PELViewController> screen_;
};

bool Bench::showFrame() {
    auto view = screen_->sceneView();
    const auto before = view->framesDrawn();
    clock_->advance(1 / kFrameRate);
    if (!ui::Application::shared().runUntil([&] { return view->framesDrawn() > before; },
                                            std::chrono::seconds(10)))
        return false;
    screen_->updateQueue().sync([] {});
    ui::Application::shared().pump();
    return true;
}

template <class T> std::shared_ptr<T> Bench::find() const {
    std::deque<std::shared_ptr<scene::Node>> open{screen_->sceneView()->scene()};
    while (!open.empty()) {
        auto node = open.front();
        open.pop_front();
        if (auto match = std::dynamic_pointer_cast<T>(node))
            return match;
        for (auto& child : node->childNodes())
            open.push_back(child);
    }
    return nullptr;
}

void Bench::tap(const std::shared_ptr<scene::Node>& node) {
    auto frame = screen_->sceneView()->session().currentFrame();
    if (!node || !frame)
        return;
    auto camera = ar::cameraForIntrinsics(frame->camera.intrinsics, {640, 480});
    if (auto point = camera.project(node->worldPosition()))
        window_->tap({point->x, point->y});
    ui::Application::shared().pump();
}

Run Bench::measure(const std::string& appKey, Content content, int frames) {
    const bool withContent = content != Content::none;
    auto bytes = readFile(project_ / "configuration.json");
    auto config = nlohmann::json::parse(bytes->begin(), bytes->end());
    for (auto& target : config["targets"]) {
        if (!withContent)
            target["items"] = nlohmann::json::array();
        for (auto& item : target["items"])
            item["isFullscreen"] = false; // played where it lies
    }
    std::ofstream(stage_ / "project" / "configuration.json") << config.dump(2);

    clock_ = std::make_shared<ar::SteppedClock>();
    std::ofstream(stage_ / "walk.json") << script(project_);
    auto feed = ar::FrameFeed::fromDescription("script:" + (stage_ / "walk.json").string());
    feed.clock = clock_;
    ar::setDefaultFrameFeed(feed);

    window_ = *ui::Window::create({640, 480});
    screen_ = std::make_shared<PELViewController>();
    screen_->setAppKey(appKey);
    window_->setRootViewController(screen_);
    window_->makeKeyAndVisible();
    auto& app = ui::Application::shared();
    Run run;
    if (!app.runUntil(
            [&] {
                return screen_->currentProject() &&
                       screen_->sceneView()->session().configuration().has_value();
            },
            std::chrono::seconds(60))) {
        std::fprintf(stderr, "viewer_bench: no project was tracked\n");
        return run;
    }
    // Up to the targets' entry, then until every target's content has begun to grow in.
    clock_->advance(1e-6);
    long long shown = 0;
    while (clock_->now() < kEnter - 1e-3 && showFrame())
        ++shown;
    std::map<const scene::Node*, std::pair<long long, long long>> seen; // per anchor node
    for (long long since = 0; since < 60 && showFrame(); ++since) {
        for (const auto& anchorNode : screen_->sceneView()->scene()->childNodes()) {
            auto& [attached, growing] = seen.try_emplace(anchorNode.get(), -1, -1).first->second;
            const auto& content = anchorNode->childNodes();
            if (attached < 0 && !content.empty())
                attached = since;
            if (growing < 0 && !content.empty() && content.front()->scale().x > 0)
                growing = since;
        }
        const bool done = seen.size() == 3 && std::ranges::all_of(seen, [&](const auto& entry) {
                              return withContent ? entry.second.second >= 0 : true;
                          });
        if (done)
            break;
    }
    for (const auto& [node, frames] : seen) {
        run.attached.push_back(frames.first);
        run.growing.push_back(frames.second);
    }
    std::ranges::sort(run.attached);
    std::ranges::sort(run.growing);
    if (content == Content::playing) {
        for (int i = 0; i < 20; ++i) // grown to full size
            showFrame();
        if (auto video = find<PELVideoNode>(); video && !video->childNodes().empty())
            tap(video->childNodes().front());
        tap(find<PELAudioNode>());
    }
    // The median frame: a shared machine's bursts of other work move it least.
    std::vector<double> times;
    for (int drawn = 0; drawn < frames; ++drawn) {
        const auto start = WallClock::now();
        if (!showFrame())
            break;
        times.push_back(std::chrono::duration<double>(WallClock::now() - start).count());
    }
    if (!times.empty()) {
        std::ranges::nth_element(times, times.begin() + times.size() / 2);
        run.framesPerSecond = 1 / times[times.size() / 2];
    }
    // Quiet before the next screen: no frames, nothing being built.
    screen_->sceneView()->session().pause();
    (void)screen_->sceneView()->snapshot();
    screen_->updateQueue().sync([] {});
    window_.reset();
    app.pump();
    return run;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: viewer_bench PROJECT_DIR [frames]\n");
        return 2;
    }
    const fs::path project = fs::absolute(argv[1]);
    const int frames = argc > 2 ? std::max(10, std::atoi(argv[2])) : 150;

    char pattern[] = "/tmp/pelkit-viewer-bench-XXXXXX";
    if (!::mkdtemp(pattern)) {
        std::perror("viewer_bench: mkdtemp");
        return 1;
    }
    const fs::path stage = pattern;
    fs::copy(project, stage / "project", fs::copy_options::recursive);
    devserver::DevServer server({.project = stage / "project"});
    if (auto started = server.start(); !started) {
        std::fprintf(stderr, "viewer_bench: %s\n", started.error()->description().c_str());
        return 1;
    }
    for (const char* name : {"PELKIT_HOST", "PELKIT_PROD_HOST", "PELKIT_STAGING_HOST"})
        ::setenv(name, server.baseUrl().c_str(), 1);
    ::setenv("PELKIT_DOCUMENTS_DIR", (stage / "Documents").c_str(), 1);
    ::setenv("SDL_AUDIODRIVER", "dummy", 0);
    setMainBundleIdentifier("org.pelkit.viewer-bench");
    ui::Application::shared().setDisplay(ui::Display::headless);

    Bench bench(project, stage, server);
    // Each run syncs its own project: the app keys differ in their first 20 characters.
    auto bare = bench.measure("bench-bare-0000000000000000", Content::none, frames);
    auto still = bench.measure("bench-still-000000000000000", Content::still, frames);
    auto full = bench.measure("bench-full-0000000000000000", Content::playing, frames);
    auto cost = [&](const Run& run) {
        return (1 - run.framesPerSecond / bare.framesPerSecond) * 100;
    };
    std::printf("headless AR screen, 640x480, 3 targets in view, %d frames each:\n", frames);
    std::printf("  tracking only (no content):         %6.1f frames/s\n", bare.framesPerSecond);
    std::printf("  content attached, nothing playing:  %6.1f frames/s  (content costs %.0f%%)\n",
                still.framesPerSecond, cost(still));
    std::printf("  content with video and sound on:    %6.1f frames/s  (content costs %.0f%%)\n",
                full.framesPerSecond, cost(full));
    std::printf("  target: content costs <= 25%%\n");
    const long long budget = 2 + static_cast<long long>(0.2 * kFrameRate + 0.5);
    auto list = [](const std::vector<long long>& frames) {
        std::string text;
        for (auto f : frames)
            text += (text.empty() ? "" : ", ") + std::to_string(f);
        return text;
    };
    std::printf("frames from the first frame showing the targets (%.0f fps camera) to each "
                "target's content\n  attached: %s\n  growing in: %s   (target <= %lld = 2 frames "
                "+ 0.2 s)\n",
                kFrameRate, list(full.attached).c_str(), list(full.growing).c_str(), budget);
    std::fflush(stdout);
    server.stop();
    std::error_code ignored;
    fs::remove_all(stage, ignored);
    // The screens and their synchronisers keep each other alive to the end: leave from here
    // rather than through static destructors.
    std::_Exit(
        full.framesPerSecond > 0 && still.framesPerSecond > 0 && bare.framesPerSecond > 0 ? 0 : 1);
}
