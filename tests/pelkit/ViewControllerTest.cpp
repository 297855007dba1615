// The AR screen: the road from the first synchronisation to content on recognised targets and
// taps on it, server selection, the startup decision, overlays, messages and fatal stops.
#include "ViewControllerTestSupport.h"

#include <pelkit/PELAudioNode.h>
#include <pelkit/PELImageNode.h>
#include <pelkit/PELLinkNode.h>
#include <pelkit/PELStorage.h>
#include <pelkit/PELSyncSupervisor.h>
#include <pelkit/PELVideoNode.h>
#include <pelkit/foundation/Bundle.h>
#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/UserDefaults.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/Button.h>

namespace pelkit::test {
namespace {

using media::TimeControlStatus;

// The cellular automaton (video, audio) in view until 6 s, then out of view (lost); the
// Mandelbrot target (image, link) from 7 s on, left of where the automaton left: a lost target's
// content stays where it was last seen and would take taps meant for the other.
constexpr const char* walk = R"({
  "resolution": [640, 480], "fieldOfView": 60, "frameRate": 5, "duration": 60,
  "backgroundColor": [70, 66, 60], "seed": 1,
  "targets": [
    {"image": "CELL", "physicalWidth": 0.2, "keyframes": [
      {"time": 0, "position": [0, 0, -0.4], "rotation": [-10, 0, 0]},
      {"time": 6, "position": [0, 0, -0.4], "rotation": [-10, 0, 0]},
      {"time": 6.6, "position": [0.6, 0, -0.4], "rotation": [-10, 0, 0]}]},
    {"image": "MANDEL", "physicalWidth": 0.2, "keyframes": [
      {"time": 7, "position": [-0.1, 0, -0.4], "rotation": [-10, 0, 0]},
      {"time": 60, "position": [-0.1, 0, -0.4], "rotation": [-10, 0, 0]}]}]})";

TimeControlStatus status(const std::shared_ptr<media::Player>& player) {
    return player->timeControlStatus();
}

std::shared_ptr<ui::Button> closeButtonOf(ui::PhotoGalleryViewController& gallery) {
    for (auto& view : gallery.view()->subviews()) {
        if (auto button = std::dynamic_pointer_cast<ui::Button>(view))
            return button;
    }
    return nullptr;
}

// The content of both targets, attached and grown to full size.
class RoadTest : public ViewControllerTest {
protected:
    void reachContent() {
        writeScript(walk);
        present();
        waitForTracking();
        ASSERT_TRUE(stepUntil([&] { return find<PELVideoNode>() && find<PELLinkNode>(); }, 15))
            << "the targets' content never came";
        ASSERT_TRUE(stepUntil([&] { return find<PELLinkNode>()->parent()->scale().x == 1; }));
        ASSERT_TRUE(stepUntil([&] { return find<PELVideoNode>()->parent()->scale().x == 1; }));
    }
};

TEST_F(RoadTest, FromFirstSyncToContentTapsLossAndRefresh) {
    writeScript(walk);
    present();
    waitForTracking();
    ASSERT_FALSE(server->requests().empty());
    EXPECT_FALSE(server->requests().back().header("lastupdated")) << "a first synchronisation";
    EXPECT_TRUE(pumpUntil([&] { return count("Finished all validations: 3") == 1; }));
    ASSERT_EQ(controller->sceneView()->session().configuration()->trackingImages.size(), 3u);
    EXPECT_EQ(controller->sceneView()->session().configuration()->maximumNumberOfTrackedImages, 8);

    // Content grows in: nothing for 0.2 s, then to full size over 0.5 s.
    ASSERT_TRUE(stepUntil([&] { return find<PELVideoNode>() != nullptr; }));
    auto root = find<PELVideoNode>()->parent();
    EXPECT_EQ(root->scale(), glm::vec3(0));
    step(0.2);
    EXPECT_EQ(root->scale(), glm::vec3(0)) << "the grow-in waits 0.2 s";
    step(0.8);
    EXPECT_EQ(root->scale(), glm::vec3(1));
    EXPECT_FALSE(root->hasActions());

    // A tap on the video's play button reaches the video through its parents.
    auto video = find<PELVideoNode>();
    ASSERT_TRUE(pumpUntil([&] { return video->videoUrl().has_value(); }));
    tapOn(video->childNodes().front());
    EXPECT_TRUE(pumpUntil([&] { return status(video->player()) == TimeControlStatus::playing; }));

    // Losing the image stops its video.
    EXPECT_TRUE(stepUntil([&] { return clock->now() > 7; }));
    EXPECT_EQ(status(video->player()), TimeControlStatus::paused);
    EXPECT_TRUE(video->videoNode()->isHidden());

    ASSERT_TRUE(stepUntil([&] { return find<PELLinkNode>() != nullptr; }));
    step(1.0);
    auto link = find<PELLinkNode>();
    tapOn(link);
    ASSERT_EQ(ui::Application::shared().openedUrls().size(), 1u);
    EXPECT_EQ(ui::Application::shared().openedUrls().back().absoluteString(),
              "https://example.com/pelkit-demo");

    // The image opens the gallery; the session runs on behind it.
    auto picture = find<PELImageNode>();
    ASSERT_TRUE(pumpUntil([&] { return picture->url().has_value(); }));
    const auto syncs = synchronisations();
    tapOn(picture);
    auto gallery = controller->gallery();
    ASSERT_TRUE(gallery);
    EXPECT_TRUE(controller->showsOverlay());
    EXPECT_TRUE(pumpUntil([&] { return gallery->isAppeared(); }));
    EXPECT_FALSE(controller->isAppeared());
    EXPECT_EQ(controller->presentedViewController(), gallery);
    EXPECT_EQ(gallery->backgroundColor(), ui::colors::black);
    EXPECT_TRUE(gallery->hidePageControl());
    EXPECT_EQ(gallery->numberOfImages(), 1);
    EXPECT_TRUE(gallery->currentImage());
    auto close = closeButtonOf(*gallery);
    ASSERT_TRUE(close);
    EXPECT_EQ(close->title(), "Close");
    gallery->view()->layoutIfNeeded();
    EXPECT_EQ(close->frame(), (ui::Rect{{640 - 16 - 50, 10}, {50, 25}}));
    EXPECT_TRUE(step(0.2)) << "the session runs on behind the gallery";

    window->tap({close->frame().midX(), close->frame().midY()});
    EXPECT_TRUE(pumpUntil([&] { return controller->isAppeared(); }));
    EXPECT_FALSE(controller->showsOverlay());
    EXPECT_EQ(count("Did remove node"), 0) << "coming back from the gallery keeps the anchors";
    EXPECT_EQ(synchronisations(), syncs) << "and does not synchronise";

    // A newer project: tracking restarts, anchors go, and content comes back from the new one.
    auto config = configuration();
    config["lastUpdated"] = "2024-06-01T00:00:00Z";
    config["targets"][0]["items"][1]["linkToOpenOnClick"] = "https://example.com/second";
    serve(config);
    controller->refresh();
    EXPECT_TRUE(stepUntil([&] { return count("Did remove node") == 2; }));
    EXPECT_TRUE(pumpUntil([&] { return count("Finished all validations: 3") == 2; }));
    EXPECT_EQ(controller->currentProject()->lastUpdated, "2024-06-01T00:00:00Z");
    // The camera goes on where it was: the Mandelbrot target is found again.
    ASSERT_TRUE(stepUntil([&] { return find<PELLinkNode>() != nullptr; })) << "at " << clock->now();
    EXPECT_NE(find<PELLinkNode>(), link);
    EXPECT_EQ(find<PELLinkNode>()->linkToOpen(), "https://example.com/second");
    EXPECT_EQ(count("invalid image found: "), 0);
}

// With both players going, each call stops only the first video or audio in anchor order.
TEST_F(RoadTest, StopCurrentPlayersStopsTheFirstPlayerOnly) {
    auto config = configuration();
    auto audioItem = config["targets"][1]["items"][1];
    config["targets"][0]["items"] = nlohmann::json::array({audioItem});
    config["targets"][0]["items"][0]["id"] = "demo-audio";
    serve(config);
    writeScript(R"({
      "resolution": [640, 480], "fieldOfView": 60, "frameRate": 5, "duration": 40,
      "backgroundColor": [70, 66, 60], "seed": 1,
      "targets": [
        {"image": "MANDEL", "physicalWidth": 0.2, "keyframes": [
          {"time": 0, "position": [0, 0, -0.4], "rotation": [-10, 0, 0]},
          {"time": 3, "position": [0, 0, -0.4], "rotation": [-10, 0, 0]},
          {"time": 3.6, "position": [-0.6, 0, -0.4], "rotation": [-10, 0, 0]}]},
        {"image": "CELL", "physicalWidth": 0.2, "keyframes": [
          {"time": 4, "position": [0, 0, -0.4], "rotation": [-10, 0, 0]},
          {"time": 40, "position": [0, 0, -0.4], "rotation": [-10, 0, 0]}]}]})");
    present();
    waitForTracking();
    ASSERT_TRUE(stepUntil([&] { return find<PELAudioNode>() && find<PELVideoNode>(); }, 20));
    step(1.0);
    auto sound = find<PELAudioNode>();
    auto video = find<PELVideoNode>();
    ASSERT_TRUE(pumpUntil([&] { return sound->player()->currentItem() && video->videoUrl(); }));
    tapOn(video->childNodes().front());
    // The first target is out of view by now: its audio is reached as a tap would reach it.
    PELViewControllerTestAccess::handleNodeClick(*controller, sound);
    ASSERT_TRUE(pumpUntil([&] {
        return status(video->player()) == TimeControlStatus::playing &&
               status(sound->player()) == TimeControlStatus::playing;
    }));
    for (int call = 0; call < 2; ++call) {
        PELViewControllerTestAccess::stopCurrentPlayers(*controller);
        EXPECT_EQ(status(sound->player()), TimeControlStatus::paused) << "call " << call;
        EXPECT_EQ(status(video->player()), TimeControlStatus::playing)
            << "the second target's video is never reached, call " << call;
    }
}

// Any screen but an overlay presented over the AR screen pauses the session; coming back
// restarts tracking and synchronises.
TEST_F(RoadTest, AnotherScreenOverItPausesTheSessionAndComingBackRestartsIt) {
    reachContent();
    const auto syncs = synchronisations();
    controller->present(std::make_shared<ui::ViewController>(), ui::Animated::yes);
    ASSERT_TRUE(pumpUntil([&] {
        auto shown = controller->presentedViewController();
        return shown && shown->isAppeared();
    }));
    const auto frames = controller->sceneView()->framesDrawn();
    clock->advance(0.4);
    pumpUntil([&] { return controller->sceneView()->framesDrawn() > frames; },
              std::chrono::seconds(2));
    EXPECT_EQ(controller->sceneView()->framesDrawn(), frames) << "a paused session draws nothing";

    controller->dismiss(ui::Animated::yes);
    ASSERT_TRUE(pumpUntil([&] { return controller->isAppeared(); }));
    EXPECT_TRUE(stepUntil([&] { return count("Did remove node") == 2; }));
    EXPECT_TRUE(pumpUntil([&] { return synchronisations() > syncs; }))
        << "coming back checks the server";
}

// A tap's node kind decides what happens; other nodes pass the tap to their parent.
TEST_F(ViewControllerTest, TapDispatch) {
    writeScript(walk);
    present();
    // The first synchronisation reads the stored targets: let it end before the files go.
    waitForTracking();
    auto& opened = ui::Application::shared().openedUrls();
    auto link = [](std::optional<std::string> text) {
        return PELNode::create<PELLinkNode>(appKey, "t", "c", 0.1, 0.1, std::move(text),
                                            std::nullopt, 0, 0);
    };
    auto deep = link("https://example.com/deep");
    auto inner = scene::Node::create();
    deep->addChildNode(inner);
    struct Case {
        const char* name;
        std::shared_ptr<scene::Node> node;
        std::optional<std::string> opens;
    };
    const Case cases[] = {
        {"link", link("https://example.com/a"), "https://example.com/a"},
        {"child of a link", inner, "https://example.com/deep"},
        {"link without text", link(std::nullopt), std::nullopt},
        {"link text that is no URL", link("https://exa mple.com"), std::nullopt},
        {"node outside any content", scene::Node::create(), std::nullopt},
        {"image not loaded yet",
         PELNode::create<PELImageNode>(appKey, "t", "none", 0.1, 0.1, std::nullopt, 0, 0),
         std::nullopt},
    };
    for (const auto& c : cases) {
        const auto before = opened.size();
        PELViewControllerTestAccess::handleNodeClick(*controller, c.node);
        ui::Application::shared().pump();
        ASSERT_EQ(opened.size(), before + (c.opens ? 1 : 0)) << c.name;
        if (c.opens) {
            EXPECT_EQ(opened.back().absoluteString(), *c.opens) << c.name;
        }
        EXPECT_FALSE(controller->gallery()) << c.name;
        EXPECT_FALSE(controller->showsOverlay()) << c.name;
    }
}

struct ServerCase {
    bool staging, oldCode;
    const char* server;
    std::vector<std::string> lines;
};

TEST_F(ViewControllerTest, ServerSelection) {
    writeScript(walk);
    const std::string staging = "Connecting to the staging server";
    const std::string legacy = "Connecting to legacy api server at http://127.0.0.1:1";
    const ServerCase cases[] = {
        {false, false, "http://127.0.0.1:2", {}},
        {true, false, "http://127.0.0.1:3", {staging}},
        {false, true, "http://127.0.0.1:1", {legacy}},
        {true, true, "http://127.0.0.1:1", {staging, legacy}},
    };
    for (const auto& c : cases) {
        lines.emplace();
        auto screen = std::make_shared<PELViewController>();
        controller = screen;
        screen->setAppKey(appKey);
        screen->setHOST("http://127.0.0.1:1");
        screen->setPROD_HOST("http://127.0.0.1:2");
        screen->setSTAGING_HOST("http://127.0.0.1:3");
        screen->setIsStaging(c.staging);
        screen->setIsOldCode(c.oldCode);
        (void)screen->view();
        EXPECT_EQ(screen->syncSupervisor()->host(), c.server);
        std::vector<std::string> connecting;
        for (auto& line : lines->lines()) {
            if (line.starts_with("Connecting"))
                connecting.push_back(line);
        }
        EXPECT_EQ(connecting, c.lines) << "staging " << c.staging << ", old " << c.oldCode;
        quiesce(*screen);
    }
}

// A stored project is shown at once only with its remembered revision; a key sharing the first
// 20 characters shares both.
TEST_F(ViewControllerTest, StartupDecision) {
    writeScript(walk);
    const std::string sharing = std::string(appKey).substr(0, 20) + "-other-ending";
    struct Case {
        const char* name;
        std::optional<std::string> stored;
        std::optional<std::string> revisionKey;
        bool adopted;
    };
    auto config = configuration().dump();
    const Case cases[] = {
        {"nothing stored", std::nullopt, std::nullopt, false},
        {"configuration without revision", config, std::nullopt, false},
        {"undecodable configuration", "{\"id\": 1}", appKey, false},
        {"configuration and revision", config, appKey, true},
        {"revision of a key sharing the prefix", config, sharing, true},
    };
    for (const auto& c : cases) {
        std::filesystem::remove_all(dir / "Documents");
        auto& defaults = UserDefaults::standard();
        (void)defaults.set(PELSyncSupervisor::lastUpdatedKey(appKey), std::nullopt);
        if (c.stored) {
            ASSERT_TRUE(PELStorage(appKey).saveConfigurationDataToFile(bytesOf(*c.stored)));
        }
        if (c.revisionKey)
            (void)defaults.set(PELSyncSupervisor::lastUpdatedKey(*c.revisionKey), "2024");
        server->clearRequests();
        auto screen = std::make_shared<PELViewController>();
        screen->setAppKey(appKey);
        (void)screen->view();
        EXPECT_EQ(screen->currentProject().has_value(), c.adopted) << c.name;
        // A first synchronisation ends in a tracking restart that reads the stored files: let it
        // finish before the next case removes them.
        // No window wakes the main loop here: poll.
        EXPECT_TRUE(waitUntil(
            [&] { return c.adopted || screen->sceneView()->session().configuration().has_value(); },
            std::chrono::seconds(30)))
            << c.name;
        // Only synchronisations count: content of earlier tests may still ask this server.
        EXPECT_EQ(synchronisations() == 0, c.adopted) << c.name;
        quiesce(*screen);
    }
}

// Only a completed update is acted on; an unreadable configuration changes nothing.
TEST_F(ViewControllerTest, StatusesOtherThanUpdateCompletedChangeNothing) {
    writeScript(walk);
    auto screen = std::make_shared<PELViewController>();
    screen->setAppKey(appKey);
    screen->setPROD_HOST("http://127.0.0.1:2");
    (void)screen->view();
    waitUntil([&] { return !screen->syncSupervisor()->isSynching(); });
    for (const auto& status : {PELStatus::updateStarted(false), PELStatus::alreadyUpToDate(),
                               PELStatus::downloadStarted(), PELStatus::downloadCompleted(),
                               PELStatus::downloadProgress(0.5f), PELStatus::updateCompleted()}) {
        screen->statusDidChange(status);
        EXPECT_FALSE(screen->currentProject()) << status;
        EXPECT_FALSE(screen->sceneView()->session().configuration()) << status;
    }
    quiesce(*screen);
}

TEST(ViewControllerMessages, TrackingStatesAndSessionEvents) {
    using State = ar::TrackingState;
    using Reason = State::Reason;
    const std::pair<State, std::string> texts[] = {
        {State::notAvailable(), "TRACKING UNAVAILABLE"},
        {State::normal(), "TRACKING NORMAL"},
        {State::limited(Reason::initializing), "Initializing"},
        {State::limited(Reason::excessiveMotion), "TRACKING LIMITED\nExcessive motion"},
        {State::limited(Reason::insufficientFeatures), "TRACKING LIMITED\nLow detail"},
        {State::limited(Reason::relocalizing), "Recovering from session interruption"},
        {State::limited(Reason::none), "TRACKING UNAVAILABLE"},
    };
    setMainBundleIdentifier("org.pelkit.tests");
    auto screen = std::make_shared<PELViewController>();
    auto session = ar::Session::create(ar::FrameFeed::fromDescription("none"));
    LineCapture lines;
    for (const auto& [state, text] : texts) {
        EXPECT_EQ(presentationString(state), text);
        screen->cameraDidChangeTrackingState(*session, state);
    }
    using Code = ar::SessionError::Code;
    screen->didFailWithError(*session,
                             std::make_shared<ar::SessionError>(Code::cameraFailed, "no frames",
                                                                std::nullopt, std::nullopt));
    screen->didFailWithError(*session, std::make_shared<ar::SessionError>(Code::cameraUnavailable,
                                                                          "no camera", "unplugged",
                                                                          "plug it in"));
    screen->didFailWithError(*session, Error::make("other", 1, "not a session error"));
    screen->wasInterrupted(*session);
    screen->interruptionEnded(*session);
    EXPECT_TRUE(screen->shouldAttemptRelocalization(*session));
    DispatchQueue::main().drain();
    std::vector<std::string> expected;
    for (const auto& [state, text] : texts)
        expected.push_back("CameraDiDChangeTrackingState: " + text);
    expected.insert(expected.end(),
                    {"SESSION INTERRUPTED\nThe session will be reset after the interruption has "
                     "ended.",
                     "RESETTING SESSION", "THE AR Session failed no frames",
                     "THE AR Session failed no camera\nunplugged\nplug it in"});
    EXPECT_EQ(lines.lines(), expected);
}

TEST(ViewControllerDeathTest, BrokenPreconditionsStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setMainBundleIdentifier("org.pelkit.tests");
    EXPECT_DEATH((void)std::make_shared<PELViewController>()->view(),
                 "Fatal error: Missing app key. Please provide a valid pelora app key in "
                 "prepareForSegue before navigating to the PELViewController");
    EXPECT_DEATH(std::make_shared<PELViewController>()->refresh(), "Fatal error: .*no sync");
    EXPECT_DEATH(std::make_shared<PELViewController>()->cancelSync(), "Fatal error: .*no sync");
    EXPECT_DEATH(
        {
            setMainBundleIdentifier("");
            PELViewController screen;
        },
        "Fatal error: PELViewController: the main bundle has no identifier");
}

} // namespace
} // namespace pelkit::test
