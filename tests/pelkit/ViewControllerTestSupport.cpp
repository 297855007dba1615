#include "ViewControllerTestSupport.h"

#include <pelkit/PELSyncSupervisor.h>
#include <pelkit/ar/FrameFeed.h>
#include <pelkit/foundation/Bundle.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/UserDefaults.h>
#include <pelkit/ui/Application.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace pelkit::test {
namespace fs = std::filesystem;
namespace {

struct Stage {
    TempDir root;
    std::unique_ptr<devserver::DevServer> server;
};

Stage* staged = nullptr;

Stage& stage() {
    static Stage* const made = [] {
        auto* s = new Stage;
        fs::copy(demoProject(), s->root / "project", fs::copy_options::recursive);
        s->server = std::make_unique<devserver::DevServer>(
            devserver::DevServerOptions{.project = s->root / "project"});
        if (auto started = s->server->start(); !started) {
            std::fprintf(stderr, "the dev server did not start: %s\n",
                         started.error()->description().c_str());
            std::abort();
        }
        for (const char* name : {"PELKIT_HOST", "PELKIT_PROD_HOST", "PELKIT_STAGING_HOST"})
            ::setenv(name, s->server->baseUrl().c_str(), 1);
        ::setenv("PELKIT_DOCUMENTS_DIR", (s->root / "Documents").c_str(), 1);
        ::setenv("SDL_AUDIODRIVER", "dummy", 1);
        ::setenv("PELKIT_DISPLAY", "headless", 1);
        staged = s;
        return s;
    }();
    return *made;
}

// The server stops and the folder goes once every test has run, before static destruction takes
// the server library's own data away; screens still alive then only see requests and files fail.
struct RemoveStage : ::testing::Environment {
    void TearDown() override {
        if (!staged)
            return;
        staged->server->stop();
        std::error_code ignored;
        fs::remove_all(staged->root.path(), ignored);
    }
};
[[maybe_unused]] auto* const removeStage = ::testing::AddGlobalTestEnvironment(new RemoveStage);

} // namespace

ViewControllerTest::ViewControllerTest() : dir(stage().root.path()), server(stage().server.get()) {}

void ViewControllerTest::SetUpTestSuite() {
    (void)stage();
    if (ui::Application::shared().display() != ui::Display::headless)
        ui::Application::shared().setDisplay(ui::Display::headless);
    setMainBundleIdentifier("org.pelkit.tests");
}

void ViewControllerTest::SetUp() {
    // A fresh project and no stored state; ctest runs each test in a process of its own, so
    // this only matters when the tests run together.
    fs::remove_all(dir / "Documents");
    fs::remove_all(dir / "project");
    fs::copy(demoProject(), dir / "project", fs::copy_options::recursive);
    (void)UserDefaults::standard().set(PELSyncSupervisor::lastUpdatedKey(appKey), std::nullopt);
    auto config = configuration();
    // In the scene, not full screen, so that a tap plays it where it lies.
    config["targets"][1]["items"][0]["isFullscreen"] = false;
    serve(config);
    server->clearRequests();
    lines.emplace();
    auto made = ui::Window::create({640, 480});
    ASSERT_TRUE(made) << *made.error();
    window = *made;
}

void ViewControllerTest::TearDown() {
    if (controller)
        quiesce(*controller);
    window.reset();
    ui::Application::shared().pump();
    ar::setDefaultFrameFeed({});
    lines.reset();
}

void ViewControllerTest::quiesce(PELViewController& screen) {
    if (!screen.sceneView())
        return;
    // Nothing of the screen may run on once the next test changes the environment: no frames,
    // no anchor callbacks still on their way, no content being built.
    screen.sceneView()->session().pause();
    (void)screen.sceneView()->snapshot();
    screen.updateQueue().sync([] {});
}

nlohmann::json ViewControllerTest::configuration() const {
    auto bytes = readFile(dir / "project" / "configuration.json");
    return nlohmann::json::parse(bytes->begin(), bytes->end());
}

void ViewControllerTest::serve(const nlohmann::json& configuration) {
    std::ofstream(dir / "project" / "configuration.json") << configuration.dump(2);
}

void ViewControllerTest::writeScript(std::string json) {
    const auto targets = (demoProject() / "targets").string();
    json = replaced(json, "MANDEL", targets + "/mandelbrot.jpg");
    json = replaced(json, "CELL", targets + "/cellauto.jpg");
    std::ofstream(dir / "walk.json") << replaced(json, "LIFE", targets + "/life.jpg");
    auto feed = ar::FrameFeed::fromDescription("script:" + (dir / "walk.json").string());
    feed.clock = clock;
    ar::setDefaultFrameFeed(feed);
}

std::shared_ptr<PELViewController> ViewControllerTest::present(const std::string& key) {
    controller = std::make_shared<PELViewController>();
    controller->setAppKey(key);
    window->setRootViewController(controller);
    window->makeKeyAndVisible();
    ui::Application::shared().pump();
    return controller;
}

void ViewControllerTest::waitForTracking() {
    ASSERT_TRUE(pumpUntil([&] {
        return controller->currentProject() &&
               controller->sceneView()->session().configuration().has_value();
    })) << "no project tracked: "
        << testing::PrintToString(lines->lines());
    // The first frame is at time 0; the nudge keeps later steps clear of rounding.
    clock->advance(1e-6);
}

bool ViewControllerTest::step(double seconds) {
    auto view = controller->sceneView();
    bool shownAny = false;
    for (int frames = std::max(1, static_cast<int>(seconds / kFrameInterval + 0.5)); frames > 0;
         --frames) {
        const auto before = view->session().currentFrame();
        clock->advance(kFrameInterval);
        // Each interval brings one frame, except once where a tracking restart drops the frame
        // the camera had already read: a short wait passes over that gap.
        shownAny |= pumpUntil([&] { return view->session().currentFrame() != before; },
                              std::chrono::seconds(3));
        // A read-back waits for the renderer thread to draw what it was given.
        (void)view->snapshot();
        controller->updateQueue().sync([] {});
        ui::Application::shared().pump();
    }
    return shownAny;
}

bool ViewControllerTest::stepUntil(const std::function<bool()>& done, double limit) {
    for (double time = 0; time <= limit; time += 0.2) {
        if (done())
            return true;
        step(kFrameInterval);
    }
    return done();
}

void ViewControllerTest::tapOn(const std::shared_ptr<scene::Node>& node) {
    auto frame = controller->sceneView()->session().currentFrame();
    ASSERT_TRUE(frame);
    auto camera = ar::cameraForIntrinsics(frame->camera.intrinsics, {640, 480});
    auto point = camera.project(node->worldPosition());
    ASSERT_TRUE(point) << "the node is not in view";
    window->tap({point->x, point->y});
    ui::Application::shared().pump();
}

bool ViewControllerTest::pumpUntil(const std::function<bool()>& done,
                                   std::chrono::milliseconds limit) {
    return ui::Application::shared().runUntil(done, limit);
}

long ViewControllerTest::synchronisations() const {
    auto all = server->requests();
    return std::ranges::count(all, std::string("/configuration"), &devserver::LoggedRequest::path);
}

int ViewControllerTest::count(const std::string& line) const {
    auto all = lines->lines();
    return static_cast<int>(std::ranges::count(all, line));
}

} // namespace pelkit::test

// A screen and its synchroniser hold each other for good, as in a host application, and the
// screen's threads run on to the process's end. Like pelkit-viewer, the process ends here, not in
// static destructors: those take the GL driver's and OpenCV's data away under a frame still
// being drawn.
int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
}
