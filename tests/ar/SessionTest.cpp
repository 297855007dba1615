// Scripted sessions through a scene view: anchors as images come, move, leave and return; the
// limit on tracked images; restarts; camera failures and interruptions.
#include "SessionTestSupport.h"

#include <glm/gtc/matrix_transform.hpp>
#include <glm/trigonometric.hpp>

#include <algorithm>
#include <atomic>
#include <set>

namespace pelkit::ar::test {
namespace {

// The script's pose of a picture at `time` between two keyframes: position and the normal of
// the picture (its anchor's y axis), turned about the camera's x, then y, then z axes.
struct Keyframe {
    double time;
    glm::dvec3 position, rotation;
};

std::pair<glm::dvec3, glm::dvec3> scriptPose(const Keyframe& a, const Keyframe& b, double time) {
    const double f = std::clamp((time - a.time) / (b.time - a.time), 0.0, 1.0);
    const glm::dvec3 position = glm::mix(a.position, b.position, f);
    const glm::dvec3 r = glm::radians(glm::mix(a.rotation, b.rotation, f));
    const glm::dmat4 turn = glm::rotate(glm::dmat4(1.0), r.z, {0, 0, 1}) *
                            glm::rotate(glm::dmat4(1.0), r.y, {0, 1, 0}) *
                            glm::rotate(glm::dmat4(1.0), r.x, {1, 0, 0});
    return {position, glm::dvec3(turn * glm::dvec4(0, 0, 1, 0))};
}

ImageTrackingConfiguration configurationOf(std::vector<ReferenceImagePtr> images, int maximum) {
    ImageTrackingConfiguration configuration;
    configuration.maximumNumberOfTrackedImages = maximum;
    configuration.trackingImages = std::move(images);
    return configuration;
}

constexpr RunOptions kRestart = RunOptions::resetTracking | RunOptions::removeExistingAnchors;

// Mandelbrot in view from 0.5 s to 1.5 s while it moves and turns, gone until 2.2 s, then back.
constexpr const char* kEnterLeaveReturn = R"({"resolution": [640, 480], "frameRate": 10,
    "duration": 3, "backgroundColor": [60, 60, 60], "seed": 2, "effects": {"noise": 1},
    "targets": [
      {"image": "TARGETS/mandelbrot.jpg", "physicalWidth": 0.2, "keyframes": [
        {"time": 0.5, "position": [0, 0, -0.4], "rotation": [0, 0, 0]},
        {"time": 1.5, "position": [0.05, 0.02, -0.35], "rotation": [-20, 10, 5]}]},
      {"image": "TARGETS/mandelbrot.jpg", "physicalWidth": 0.2, "keyframes": [
        {"time": 2.2, "position": [-0.03, 0, -0.4], "rotation": [10, 0, 0]},
        {"time": 3, "position": [-0.03, 0, -0.4], "rotation": [10, 0, 0]}]}]})";

TEST_F(SessionTest, ImageIsAddedOnceFollowedLostAndFoundAgain) {
    auto view = makeView(scriptFeed(writeScript(kEnterLeaveReturn), Clock::fastForward()));
    auto mandelbrot = loadReference(demoTargets() / "mandelbrot.jpg", 0.2);
    view->session().run(configurationOf({mandelbrot}, 8), kRestart);
    ASSERT_TRUE(log_->waitForEvent("ended"));

    auto added = log_->events("added");
    ASSERT_EQ(added.size(), 1u) << "one anchor per reference image, however often it is seen";
    EXPECT_TRUE(added[0].tracked);
    EXPECT_GE(added[0].time, 0.5) << "not before the picture is in view";
    EXPECT_LE(added[0].time, 0.8) << "recognised within a few frames";
    EXPECT_TRUE(log_->events("removed").empty()) << "a lost image keeps its anchor";

    const Keyframe first{0.5, {0, 0, -0.4}, {0, 0, 0}},
        last{1.5, {0.05, 0.02, -0.35}, {-20, 10, 5}};
    int followed = 0, lost = 0, found = 0;
    for (const auto& event : log_->events("updated")) {
        EXPECT_EQ(event.anchor, added[0].anchor) << "updates keep the anchor's identifier";
        if (event.time > 0.5 && event.time <= 1.5) {
            ASSERT_TRUE(event.tracked) << "lost at " << event.time << " while in view";
            auto [position, normal] = scriptPose(first, last, event.time);
            EXPECT_LT(glm::distance(glm::dvec3(event.transform[3]), position), 0.01)
                << "position at " << event.time;
            EXPECT_GT(glm::dot(glm::normalize(glm::dvec3(event.transform[1])), normal),
                      std::cos(glm::radians(4.0)))
                << "the anchor's y axis is the picture's normal, at " << event.time;
            ++followed;
        } else if (event.time > 1.5 && event.time < 2.2) {
            lost += !event.tracked;
            EXPECT_FALSE(event.tracked) << "found at " << event.time << " while out of view";
        } else if (event.time >= 2.2) {
            found += event.tracked;
        }
    }
    EXPECT_GE(followed, 8) << "updated every frame while tracked";
    EXPECT_EQ(lost, 1) << "one update says the image is lost, then none until it changes";
    EXPECT_GE(found, 5) << "found again when it returns";

    auto frame = view->session().currentFrame();
    ASSERT_TRUE(frame);
    ASSERT_EQ(frame->anchors.size(), 1u);
    EXPECT_EQ(frame->anchors[0]->identifier(), added[0].anchor);
    std::set<std::thread::id> threads;
    for (const auto& event : log_->events())
        threads.insert(event.thread);
    EXPECT_EQ(threads.size(), 1u) << "every callback comes on the renderer's thread";
    EXPECT_FALSE(threads.contains(std::this_thread::get_id()));
}

TEST_F(SessionTest, NoMoreImagesAreTrackedThanTheMaximum) {
    // Nine pictures in a 3x3 grid, all in view for the whole script.
    std::vector<ReferenceImagePtr> images;
    std::string targets;
    for (int i = 0; i < 9; ++i) {
        auto file = writeGeneratedTarget(dir_.path(), i + 1);
        images.push_back(loadReference(file, 0.1));
        const std::string x = std::to_string(20 + (i % 3) * 420),
                          y = std::to_string(20 + (i / 3) * 315),
                          x2 = std::to_string(420 + (i % 3) * 420),
                          y2 = std::to_string(320 + (i / 3) * 315);
        const std::string corners = "[[" + x + "," + y + "],[" + x2 + "," + y + "],[" + x2 + "," +
                                    y2 + "],[" + x + "," + y2 + "]]";
        targets += std::string(i ? "," : "") + R"({"image": ")" + file.string() +
                   R"(", "keyframes": [{"time": 0, "corners": )" + corners +
                   R"(}, {"time": 2, "corners": )" + corners + "}]}";
    }
    auto script = writeScript(R"({"resolution": [1280, 960], "frameRate": 10, "duration": 2,
        "targets": [)" + targets +
                              "]}");
    auto view = makeView(scriptFeed(script, Clock::fastForward()));
    view->session().run(configurationOf(images, 8));
    ASSERT_TRUE(log_->waitForEvent("ended"));

    auto added = log_->events("added");
    EXPECT_EQ(added.size(), 8u) << "eight of the nine pictures get anchors";
    auto frame = view->session().currentFrame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->anchors.size(), added.size());
    for (std::size_t i = 0; i < std::min(frame->anchors.size(), added.size()); ++i)
        EXPECT_EQ(frame->anchors[i]->identifier(), added[i].anchor) << "anchors in added order";
    int tracked = 0;
    for (const auto& anchor : frame->anchors)
        tracked += std::static_pointer_cast<const ImageAnchor>(anchor)->isTracked();
    EXPECT_EQ(tracked, 8) << "the eight keep being tracked; the ninth waits";
}

TEST_F(SessionTest, RunWithRemoveExistingAnchorsRemovesEveryAnchorFirst) {
    auto view = makeView(scriptFeed(writeScript(R"({"frameRate": 10, "duration": 3,
        "targets": [{"image": "TARGETS/mandelbrot.jpg", "physicalWidth": 0.2, "keyframes": [
          {"time": 0, "position": [0, 0, -0.4]}, {"time": 3, "position": [0, 0.02, -0.4]}]}]})"),
                                    Clock::fastForward()));
    auto configuration = configurationOf({loadReference(demoTargets() / "mandelbrot.jpg", 0.2)}, 8);
    // The restart comes from the renderer's thread itself, which must not stall it.
    std::atomic<int> restarts = 0;
    log_->onAdd = [&](SceneView& v, const std::shared_ptr<scene::Node>&, const AnchorPtr&) {
        if (restarts++ == 0)
            v.session().run(configuration, kRestart);
    };
    view->session().run(configuration, kRestart);
    ASSERT_TRUE(log_->waitForEvent("ended"));

    auto events = log_->events();
    auto added = log_->events("added");
    auto removed = log_->events("removed");
    ASSERT_EQ(added.size(), 2u) << "found again after the restart, as a new anchor";
    ASSERT_EQ(removed.size(), 1u);
    EXPECT_EQ(removed[0].anchor, added[0].anchor);
    EXPECT_NE(added[1].anchor, added[0].anchor);
    auto at = [&](const std::string& what, std::uint64_t anchor) {
        return std::ranges::find_if(
                   events, [&](const Event& e) { return e.what == what && e.anchor == anchor; }) -
               events.begin();
    };
    EXPECT_LT(at("removed", added[0].anchor), at("added", added[1].anchor));
    EXPECT_EQ(view->scene()->childNodes().size(), 1u) << "the removed anchor's node left the scene";
}

TEST_F(SessionTest, CameraThatCannotBeOpenedFailsTheSessionWithReasonAndSuggestion) {
    struct Case {
        const char* environment; // PELKIT_CAMERA for a view made with the default feed
        std::string reason;
    };
    const std::string suggestion = "Check that the camera is connected and that no other program "
                                   "uses it, then run the session again.";
    for (const auto& c : {
             Case{"/dev/video-not-there",
                  "camera /dev/video-not-there: cannot be opened: No such file or directory"},
             Case{"webcam", "\"webcam\" names no camera: use /dev/videoN, video:FILE or "
                            "script:FILE"},
             Case{"script:/nonexistent/demo.json",
                  "script /nonexistent/demo.json: open(/nonexistent/demo.json): No such file or "
                  "directory (2)"},
         }) {
        ScopedEnv camera("PELKIT_CAMERA", c.environment);
        auto log = std::make_shared<EventLog>();
        auto view = SceneView::create();
        view->setDelegate(log);
        view->session().run(configurationOf({}, 8));
        ASSERT_TRUE(log->waitForEvent("failed")) << c.environment;
        auto error = std::dynamic_pointer_cast<const SessionError>(log->events("failed")[0].error);
        ASSERT_TRUE(error) << "a session failure is a SessionError";
        EXPECT_EQ(error->domain(), "ar.session");
        EXPECT_EQ(error->code(), static_cast<int>(SessionError::Code::cameraUnavailable));
        EXPECT_EQ(error->description(), "The session could not open its camera.");
        EXPECT_EQ(error->failureReason(), c.reason);
        EXPECT_EQ(error->recoverySuggestion(), suggestion);
        EXPECT_TRUE(log->events("state").empty()) << "a camera never opened never tracked";
    }
}

// A camera whose cable can be pulled: while out, it delivers nothing, as a silent device does.
class UnpluggableCamera final : public FrameSource {
public:
    UnpluggableCamera(std::unique_ptr<FrameSource> inner, std::atomic<bool>& plugged)
        : inner_(std::move(inner)), plugged_(plugged) {}
    Result<void> start() override { return inner_->start(); }
    Result<FrameOutcome> nextFrame(CameraFrame& frame, std::chrono::milliseconds wait) override {
        if (!plugged_) {
            std::this_thread::sleep_for(wait);
            return FrameOutcome::timedOut;
        }
        return inner_->nextFrame(frame, wait);
    }
    void stop() override { inner_->stop(); }
    std::string description() const override { return inner_->description(); }

private:
    std::unique_ptr<FrameSource> inner_;
    std::atomic<bool>& plugged_;
};

TEST_F(SessionTest, CameraThatStopsDeliveringInterruptsTheSessionUntilItReturns) {
    std::atomic<bool> plugged = true;
    auto script = writeScript(R"({"frameRate": 10, "duration": 4, "targets": [
        {"image": "TARGETS/mandelbrot.jpg", "physicalWidth": 0.2, "keyframes": [
          {"time": 0, "position": [0, 0, -0.3]}, {"time": 4, "position": [0, 0, -0.3]}]}]})");
    FrameFeed feed{[&plugged, script] {
                       return std::make_unique<UnpluggableCamera>(makeScriptedSource(script),
                                                                  plugged);
                   },
                   SourceKind::recording, Clock::fastForward()};
    log_->onAdd = [&](SceneView&, const std::shared_ptr<scene::Node>&, const AnchorPtr&) {
        plugged = false;
    };
    log_->onInterrupted = [&] { plugged = true; };
    auto view = makeView(feed);
    view->session().run(configurationOf({loadReference(demoTargets() / "mandelbrot.jpg", 0.2)}, 8));
    ASSERT_TRUE(log_->waitForEvent("ended"));

    // The tracker decides when tracking is normal; the session decides the rest, in this order.
    std::vector<std::string> sequence;
    for (const auto& event : log_->events()) {
        auto what = event.what;
        if (what == "updated")
            what += event.tracked ? " tracked" : " lost";
        if (what == "state")
            what += event.state == TrackingState::notAvailable()                ? " not available"
                    : event.state.status == TrackingState::Status::normal       ? " normal"
                    : event.state.reason == TrackingState::Reason::relocalizing ? " relocalizing"
                                                                                : " other";
        sequence.push_back(what);
    }
    const std::vector<std::string> expected = {"added",
                                               "updated lost",
                                               "state not available",
                                               "interrupted",
                                               "interruption ended",
                                               "relocalize?",
                                               "state relocalizing",
                                               "updated tracked",
                                               "state normal",
                                               "ended"};
    auto next = sequence.begin();
    for (const auto& step : expected) {
        next = std::find(next, sequence.end(), step);
        ASSERT_NE(next, sequence.end()) << "no \"" << step << "\" in its place";
    }
    EXPECT_EQ(std::ranges::count(sequence, "interrupted"), 1);
}

} // namespace
} // namespace pelkit::ar::test
