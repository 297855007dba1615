#include <pelkit/ar/FrameSource.h>
#include <pelkit/foundation/FileSystem.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace pelkit::ar {
namespace {

using test::demoTargets;

class ScriptedSourceTest : public ::testing::Test {
protected:
    std::filesystem::path write(const std::string& json) {
        auto path = dir_ / "script.json";
        EXPECT_TRUE(writeFile(path, Bytes(json.begin(), json.end())));
        return path;
    }
    std::string targets() const { return demoTargets().string(); }

    test::TempDir dir_;
};

std::vector<CameraFrame> readAll(FrameSource& source) {
    std::vector<CameraFrame> frames;
    EXPECT_TRUE(source.start());
    CameraFrame frame;
    while (source.nextFrame(frame, std::chrono::milliseconds(0)) == FrameOutcome::frame)
        frames.push_back(frame);
    source.stop();
    return frames;
}

TEST_F(ScriptedSourceTest, SameScriptGivesTheSameFramesAtTheScriptsTimes) {
    auto path = write(R"({"resolution": [160, 120], "frameRate": 10, "duration": 0.5, "seed": 3,
        "effects": {"blur": 0.8, "noise": 4, "jpegQuality": 70},
        "targets": [{"image": ")" +
                      targets() + R"(/life.jpg", "keyframes": [
            {"time": 0, "position": [0, 0, -0.4]}, {"time": 1, "position": [0.1, 0, -0.3]}]}]})");
    auto first = readAll(*makeScriptedSource(path));
    auto second = readAll(*makeScriptedSource(path));
    ASSERT_EQ(first.size(), 6u) << "frames 0 to 0.5 s at 10 per second";
    ASSERT_EQ(second.size(), first.size());
    for (std::size_t i = 0; i < first.size(); ++i) {
        EXPECT_DOUBLE_EQ(first[i].timestamp, i / 10.0);
        EXPECT_EQ(*first[i].image, *second[i].image) << "frame " << i << " differs between runs";
    }
    EXPECT_NE(*first[0].image, *first[1].image) << "the target moves and the noise changes";
}

TEST_F(ScriptedSourceTest, IntrinsicsFollowTheFieldOfView) {
    auto path = write(R"({"resolution": [200, 100], "fieldOfView": 90, "duration": 0,
        "targets": []})");
    auto frames = readAll(*makeScriptedSource(path));
    ASSERT_EQ(frames.size(), 1u);
    const auto& k = frames[0].intrinsics;
    EXPECT_EQ(k.imageResolution, glm::ivec2(200, 100));
    EXPECT_NEAR(k.matrix[0][0], 100.0, 1e-9) << "fx = half the width / tan(45 degrees)";
    EXPECT_NEAR(k.matrix[1][1], 100.0, 1e-9);
    EXPECT_DOUBLE_EQ(k.matrix[2][0], 99.5) << "cx is the middle of the pixel centres";
    EXPECT_DOUBLE_EQ(k.matrix[2][1], 49.5);
    EXPECT_EQ(frames[0].image->width, 200);
}

TEST_F(ScriptedSourceTest, PictureIsDrawnWithinItsCornersAndOnlyWhileKeyed) {
    auto path = write(R"({"resolution": [100, 100], "frameRate": 1, "duration": 2,
        "backgroundColor": [0, 0, 255],
        "targets": [{"image": ")" +
                      targets() + R"(/mandelbrot.jpg", "keyframes": [
            {"time": 1, "corners": [[20, 20], [60, 20], [60, 50], [20, 50]]}]}]})");
    auto frames = readAll(*makeScriptedSource(path));
    ASSERT_EQ(frames.size(), 3u);
    auto isBackground = [](const image::Image& image, int x, int y) {
        auto* p = image.pixel(x, y);
        return p[0] == 0 && p[1] == 0 && p[2] == 255;
    };
    struct Case {
        int frame, x, y;
        bool background;
    };
    for (auto c : {Case{0, 40, 35, true}, Case{1, 40, 35, false}, Case{1, 22, 22, false},
                   Case{1, 18, 35, true}, Case{1, 62, 35, true}, Case{1, 40, 52, true},
                   Case{2, 40, 35, true}})
        EXPECT_EQ(isBackground(*frames[c.frame].image, c.x, c.y), c.background)
            << "frame " << c.frame << " at " << c.x << "," << c.y;
}

TEST_F(ScriptedSourceTest, BadScriptsFailToStartWithWhatIsWrong) {
    struct Case {
        std::string json, error;
    };
    for (const auto& c : {
             Case{R"({"duration": 1})", "keyNotFound \"targets\""},
             Case{R"({"resolution": [640], "targets": []})",
                  "dataCorrupted at resolution: Expected 2 numbers but found 1."},
             Case{R"({"targets": [{"image": "missing.png", "keyframes": []}]})",
                  "open(" + (dir_ / "missing.png").string() + "): No such file or directory (2)"},
             Case{R"({"targets": [{"image": ")" + targets() +
                      R"(/life.jpg", "keyframes": [{"time": 0}]}]})",
                  "dataCorrupted at targets[0].keyframes[0].position: A keyframe needs a "
                  "position or corners."},
         }) {
        auto path = write(c.json);
        auto started = makeScriptedSource(path)->start();
        ASSERT_FALSE(started) << c.json;
        EXPECT_EQ(started.error()->description(), "script " + path.string() + ": " + c.error);
    }
}

TEST(FrameSources, AMissingDeviceOrFileFailsToStartWithAReadableError) {
    auto camera = makeCameraSource("/dev/video-that-is-not-there");
    auto video = makeVideoFileSource("/nonexistent/clip.mp4");
    for (auto [source, message] : {
             std::pair{camera.get(), "camera /dev/video-that-is-not-there: cannot be opened: "
                                     "No such file or directory"},
             std::pair{video.get(), "video /nonexistent/clip.mp4: cannot be opened: no such file"},
         }) {
        auto started = source->start();
        ASSERT_FALSE(started);
        EXPECT_EQ(started.error()->description(), message);
        CameraFrame frame;
        EXPECT_FALSE(source->nextFrame(frame, std::chrono::milliseconds(1)));
    }
}

} // namespace
} // namespace pelkit::ar
