// The scene view's drawing: the camera's projection, hit tests on anchored content, snapshots,
// recordings, and the default camera with a stepped clock.
#include "SessionTestSupport.h"

#include <pelkit/scene/Geometry.h>
#include <pelkit/scene/Material.h>

#include <glm/gtc/constants.hpp>

#include <atomic>

namespace pelkit::ar::test {
namespace {

TEST(CameraForIntrinsics, PointsLandWhereTheCameraSawThemInTheCoveredView) {
    auto intrinsics = CameraIntrinsics::fromFieldOfView(1.0, {640, 480});
    intrinsics.matrix[2][0] += 12; // a principal point off the middle must be kept
    intrinsics.matrix[2][1] -= 7;
    struct Case {
        glm::vec2 view;
        const char* what;
    };
    for (auto c : {Case{{640, 480}, "the camera's size"}, Case{{320, 240}, "half the size"},
                   Case{{800, 450}, "wider: top and bottom cut"},
                   Case{{300, 400}, "taller: the sides cut"}}) {
        auto camera = cameraForIntrinsics(intrinsics, c.view);
        const double s = std::max(c.view.x / 640.0, c.view.y / 480.0);
        for (glm::dvec3 p :
             {glm::dvec3(0, 0, -1), glm::dvec3(0.1, 0.05, -0.5), glm::dvec3(-0.2, -0.1, -0.8)}) {
            const auto& k = intrinsics.matrix;
            // Image pixel (centres at whole numbers, y down), then the view's edge coordinates.
            const glm::dvec2 pixel(k[0][0] * p.x / -p.z + k[2][0], -k[1][1] * p.y / -p.z + k[2][1]);
            const glm::dvec2 expected =
                s * (pixel + 0.5) - (s * glm::dvec2(640, 480) - glm::dvec2(c.view)) / 2.0;
            auto projected = camera.project(glm::vec3(p));
            ASSERT_TRUE(projected) << c.what;
            EXPECT_NEAR(projected->x, expected.x, 1e-3) << c.what;
            EXPECT_NEAR(projected->y, expected.y, 1e-3) << c.what;
        }
        EXPECT_FALSE(camera.project({0, 0, 1})) << "behind the camera: " << c.what;
    }
}

// Mandelbrot held still in front of the camera for the whole script.
constexpr const char* kStill = R"({"resolution": [640, 480], "frameRate": 10, "duration": 1,
    "backgroundColor": [60, 60, 60], "targets": [
      {"image": "TARGETS/mandelbrot.jpg", "physicalWidth": 0.2, "keyframes": [
        {"time": 0, "position": [0.02, 0.01, -0.4], "rotation": [-15, 10, 0]},
        {"time": 1, "position": [0.02, 0.01, -0.4], "rotation": [-15, 10, 0]}]}]})";

ImageTrackingConfiguration mandelbrotConfiguration() {
    ImageTrackingConfiguration configuration;
    configuration.maximumNumberOfTrackedImages = 8;
    configuration.trackingImages = {loadReference(demoTargets() / "mandelbrot.jpg", 0.2)};
    return configuration;
}

// A red plane laid on the image, as content is, and one step of the clock per frame until a
// frame with the plane has been drawn.
class AnchoredPlaneTest : public SessionTest {
protected:
    void SetUp() override {
        log_->onAdd = [this](SceneView&, const std::shared_ptr<scene::Node>& node,
                             const AnchorPtr&) {
            auto plane = scene::Node::create();
            auto geometry = scene::Plane::create(0.1f, 0.075f);
            geometry->firstMaterial()->setDiffuseContents(scene::Color{1, 0, 0, 1});
            plane->setGeometry(geometry);
            plane->setEulerAngles({-glm::half_pi<float>(), 0, 0});
            node->addChildNode(plane);
            added_ = true;
        };
        view_ = makeView(scriptFeed(writeScript(kStill), clock_));
        view_->session().run(mandelbrotConfiguration());
        // A frame's anchors are added before it is drawn, and the next frame waits for the clock.
        for (int frame = 1; frame <= 10; ++frame) {
            ASSERT_TRUE(waitUntil([&] { return view_->framesDrawn() == std::uint64_t(frame); }))
                << "frame " << frame << " was not drawn";
            if (added_)
                break;
            clock_->advance(0.1);
        }
        ASSERT_TRUE(added_) << "the image was not recognised";
        anchor_ = view_->session().currentFrame()->anchors.at(0);
        plane_ = view_->node(*anchor_)->childNodes().at(0);
    }

    std::shared_ptr<SteppedClock> clock_ = std::make_shared<SteppedClock>();
    std::shared_ptr<SceneView> view_;
    std::atomic<bool> added_ = false;
    std::shared_ptr<scene::Node> plane_;
    AnchorPtr anchor_;
};

TEST_F(AnchoredPlaneTest, PlaneIsDrawnOverTheCameraImageAndHitAtTheAnchorNearestFirst) {
    auto camera =
        cameraForIntrinsics(view_->session().currentFrame()->camera.intrinsics, {640, 480});
    auto centre = camera.project(glm::vec3(anchor_->transform()[3]));
    ASSERT_TRUE(centre);
    auto hits = view_->hitTest(*centre);
    ASSERT_FALSE(hits.empty()) << "nothing under the anchor's centre";
    EXPECT_EQ(hits.front().node, plane_);
    EXPECT_EQ(view_->node(*anchor_), plane_->parent()) << "the plane hangs under the anchor's node";
    EXPECT_EQ(view_->anchor(*plane_->parent())->identifier(), anchor_->identifier());
    EXPECT_TRUE(view_->hitTest({5, 5}).empty()) << "a corner of the view shows only the camera";

    auto picture = view_->snapshot();
    ASSERT_TRUE(picture) << *picture.error();
    ASSERT_EQ(std::pair(picture->width, picture->height), std::pair(640, 480));
    auto* red = picture->pixel(static_cast<int>(centre->x), static_cast<int>(centre->y));
    EXPECT_EQ(red[0], 255) << "the plane is drawn at the anchor";
    EXPECT_EQ(red[1], 0);
    auto* background = picture->pixel(5, 5);
    EXPECT_NEAR(background[0], 60, 2) << "the camera image is the background";
    EXPECT_NEAR(background[1], 60, 2);
    EXPECT_EQ(view_->renderError(), nullptr);
}

TEST_F(SessionTest, RecordingHoldsEveryFrameDrawnAndDecodes) {
    auto view = makeView(scriptFeed(writeScript(R"({"resolution": [320, 240], "frameRate": 10,
        "duration": 1.4, "targets": [{"image": "TARGETS/life.jpg", "keyframes": [
          {"time": 0, "position": [0, 0, -0.4]}, {"time": 1.4, "position": [0.1, 0, -0.5]}]}]})"),
                                    Clock::fastForward()));
    auto file = dir_ / "session.mp4";
    ASSERT_TRUE(view->startRecording(file));
    auto again = view->startRecording(dir_ / "other.mp4");
    ASSERT_FALSE(again);
    EXPECT_EQ(again.error()->description(),
              "SceneView::startRecording: already recording to " + file.string());
    view->session().run({});
    ASSERT_TRUE(log_->waitForEvent("ended"));
    ASSERT_TRUE(waitUntil([&] { return view->framesDrawn() == 15; }));
    EXPECT_FALSE(std::filesystem::exists(file)) << "the file appears only when complete";
    auto recording = view->stopRecording();
    ASSERT_TRUE(recording) << *recording.error();
    EXPECT_EQ(recording->frames, 15u);

    auto video = makeVideoFileSource(file);
    ASSERT_TRUE(video->start());
    CameraFrame frame;
    int decoded = 0;
    while (video->nextFrame(frame, std::chrono::milliseconds(0)) == FrameOutcome::frame) {
        EXPECT_EQ(std::pair(frame.image->width, frame.image->height), std::pair(320, 240));
        ++decoded;
    }
    EXPECT_EQ(decoded, 15) << "every frame drawn is in the file";
    EXPECT_NEAR(frame.timestamp, 1.4, 0.05) << "timed by the script's clock";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 2)
        << "the script and the video, no temporary file left";
}

TEST_F(SessionTest, ViewsMadeWithoutAFeedUseTheDefaultOneAndItsClock) {
    auto clock = std::make_shared<SteppedClock>();
    setDefaultFrameFeed(scriptFeed(writeScript(R"({"resolution": [160, 120], "frameRate": 4,
        "duration": 1, "targets": []})"),
                                   clock));
    auto view = SceneView::create();
    setDefaultFrameFeed({});
    view->setDelegate(log_);
    view->session().run({});
    for (int frame = 1; frame <= 3; ++frame) {
        ASSERT_TRUE(waitUntil([&] { return view->framesDrawn() == std::uint64_t(frame); }));
        EXPECT_EQ(view->session().currentFrame()->camera.image->width, 160);
        EXPECT_DOUBLE_EQ(view->session().currentFrame()->clockTime, (frame - 1) * 0.25)
            << "frame " << frame << " waits for the clock to reach its time";
        clock->advance(0.25);
    }
}

} // namespace
} // namespace pelkit::ar::test
