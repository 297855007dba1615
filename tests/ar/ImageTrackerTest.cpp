#include <pelkit/ar/ImageTracker.h>
#include <pelkit/foundation/FileSystem.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <glm/gtc/matrix_access.hpp>

#include <future>
#include <sstream>
#include <thread>
#include <tuple>

namespace pelkit::ar {
namespace {

using test::demoTargets;

std::shared_ptr<const image::Image> load(const std::string& name) {
    return std::make_shared<image::Image>(*image::decode(*readFile(demoTargets() / name)));
}

// A picture of overlapping boxes, different for every seed, with detail all over.
std::shared_ptr<const image::Image> boxes(unsigned seed) {
    auto out = std::make_shared<image::Image>(image::Image::filled(320, 240, 0x404040ffu));
    std::uint32_t state = seed * 2654435761u + 12345;
    auto next = [&](int range) {
        state = state * 1664525u + 1013904223u;
        return int((state >> 8) % std::uint32_t(range));
    };
    for (int n = 0; n < 140; ++n) {
        int x0 = next(300), y0 = next(220), w = 6 + next(40), h = 6 + next(40);
        std::uint8_t colour[] = {std::uint8_t(next(256)), std::uint8_t(next(256)),
                                 std::uint8_t(next(256))};
        for (int y = y0; y < std::min(240, y0 + h); ++y)
            for (int x = x0; x < std::min(320, x0 + w); ++x)
                std::copy_n(colour, 3, out->pixel(x, y));
    }
    return out;
}

using Corners = std::array<glm::dvec2, 4>;

// "{}" takes the next argument; "{{" and "}}" are braces.
template <class... Args> std::string format(std::string_view pattern, const Args&... args) {
    std::vector<std::string> texts;
    ((texts.push_back((std::ostringstream() << args).str())), ...);
    std::string out;
    std::size_t next = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern.substr(i, 2) == "{}")
            out += texts.at(next++), ++i;
        else if (pattern.substr(i, 2) == "{{" || pattern.substr(i, 2) == "}}")
            out += pattern[i++];
        else
            out += pattern[i];
    }
    return out;
}

class ImageTrackerTest : public ::testing::Test {
protected:
    // Runs `json` (whose "targets" place the files in `files`) through a tracker of `references`.
    std::vector<TrackingResult> run(const std::string& json,
                                    const std::vector<ReferenceImagePtr>& references,
                                    int maximum = 4) {
        auto path = dir_ / "script.json";
        EXPECT_TRUE(writeFile(path, Bytes(json.begin(), json.end())));
        auto source = makeScriptedSource(path);
        EXPECT_TRUE(source->start());
        auto tracker = ImageTracker::create(references, maximum, RecognitionMode::inline_);
        std::vector<TrackingResult> results;
        CameraFrame frame;
        while (source->nextFrame(frame, std::chrono::milliseconds(0)) == FrameOutcome::frame) {
            results.push_back(tracker->process(frame));
        }
        return results;
    }

    ReferenceImagePtr demo(const std::string& name, double width = 0.2) {
        return ReferenceImage::create(load(name), ImageOrientation::up, width);
    }

    static std::string cornerKey(double time, const Corners& c) {
        return format(R"({{"time": {}, "corners": [[{},{}],[{},{}],[{},{}],[{},{}]]}})", time,
                      c[0].x, c[0].y, c[1].x, c[1].y, c[2].x, c[2].y, c[3].x, c[3].y);
    }
    std::string target(const std::string& file) const { return (demoTargets() / file).string(); }

    test::TempDir dir_;
};

const char* kCamera =
    R"("resolution": [640, 480], "fieldOfView": 60, "backgroundColor": [90, 80, 70],
    "effects": {"blur": 0.5, "noise": 2, "jpegQuality": 90, "lightingRamp": 0.1})";

TEST_F(ImageTrackerTest, TargetIsFoundWithItsCornersWhereTheScriptPutThem) {
    // A banner four times as wide as it is tall, seen 200 pixels wide: its reference is matched
    // on pyramid levels only a few dozen pixels tall.
    auto picture = load("mandelbrot.jpg");
    auto strip =
        std::make_shared<image::Image>(image::Image::filled(picture->width, picture->width / 4));
    for (int y = 0; y < strip->height; ++y)
        std::copy_n(picture->pixel(0, (picture->height - strip->height) / 2 + y), strip->stride(),
                    strip->pixel(0, y));
    const auto stripFile = dir_ / "strip.png";
    ASSERT_TRUE(writeFile(stripFile, *image::encodePng(*strip)));

    struct Case {
        std::string file;
        ReferenceImagePtr reference;
        Corners corners;
    };
    for (const auto& c : {
             Case{target("mandelbrot.jpg"),
                  demo("mandelbrot.jpg"),
                  {{{200, 120}, {460, 140}, {450, 330}, {190, 350}}}},
             Case{target("cellauto.jpg"),
                  demo("cellauto.jpg"),
                  {{{330, 60}, {600, 200}, {470, 430}, {220, 290}}}},
             Case{target("life.jpg"),
                  demo("life.jpg"),
                  {{{100, 300}, {260, 280}, {270, 400}, {90, 410}}}},
             Case{stripFile.string(),
                  ReferenceImage::create(strip, ImageOrientation::up, 0.2),
                  {{{220, 200}, {420, 214}, {417, 264}, {217, 250}}}},
         }) {
        const bool life = c.file.ends_with("life.jpg");
        auto results = run(format(R"({{{}, "duration": 0, "targets": [{{"image": "{}",
            "keyframes": [{}]}}]}})",
                                  kCamera, c.file, cornerKey(0, c.corners)),
                           {demo(life ? "mandelbrot.jpg" : "life.jpg"), c.reference});
        ASSERT_EQ(results.size(), 1u);
        ASSERT_EQ(results[0].images.size(), 1u) << c.file << " not found";
        const auto& seen = results[0].images[0];
        EXPECT_EQ(seen.referenceImage, c.reference);
        for (int i = 0; i < 4; ++i)
            EXPECT_LT(glm::distance(seen.corners[i], c.corners[i]), 1.0)
                << c.file << " corner " << i << " at " << seen.corners[i].x << ","
                << seen.corners[i].y;
    }
}

TEST_F(ImageTrackerTest, PoseFollowsTheAnchorConvention) {
    struct Case {
        glm::dvec3 position, rotation;
        glm::dvec3 x, y, z; // expected axes in camera coordinates
    };
    for (const auto& c : {
             Case{{0.01, -0.02, -0.4}, {0, 0, 0}, {1, 0, 0}, {0, 0, 1}, {0, -1, 0}},
             Case{{0, 0.01, -0.35}, {-30, 0, 0}, {1, 0, 0}, {0, 0.5, 0.866}, {0, -0.866, 0.5}},
             Case{{-0.02, 0, -0.4}, {0, 0, 90}, {0, 1, 0}, {0, 0, 1}, {1, 0, 0}},
         }) {
        auto reference = demo("cellauto.jpg");
        auto results = run(format(R"({{{}, "duration": 0, "targets": [{{"image": "{}",
            "keyframes": [{{"time": 0, "position": [{}, {}, {}], "rotation": [{}, {}, {}]}}]}}]}})",
                                  kCamera, target("cellauto.jpg"), c.position.x, c.position.y,
                                  c.position.z, c.rotation.x, c.rotation.y, c.rotation.z),
                           {reference});
        ASSERT_EQ(results.at(0).images.size(), 1u);
        const auto& t = results[0].images[0].transform;
        auto axis = [&](int i) { return glm::dvec3(t[i]); };
        EXPECT_LT(glm::distance(glm::dvec3(t[3]), c.position), 0.004)
            << "position, rotation " << c.rotation.x;
        EXPECT_LT(glm::distance(axis(0), c.x), 0.03) << "x axis, rotation " << c.rotation.x;
        EXPECT_LT(glm::distance(axis(1), c.y), 0.03) << "normal, rotation " << c.rotation.x;
        EXPECT_LT(glm::distance(axis(2), c.z), 0.03) << "z axis, rotation " << c.rotation.x;
    }
}

TEST_F(ImageTrackerTest, MovingTargetIsFollowedEveryFrame) {
    Corners from{{{120, 100}, {380, 90}, {390, 290}, {110, 300}}};
    Corners to{{{260, 170}, {540, 200}, {500, 420}, {230, 380}}};
    auto results =
        run(format(R"({{{}, "frameRate": 30, "targets": [{{"image": "{}",
        "keyframes": [{}, {}]}}]}})",
                   kCamera, target("mandelbrot.jpg"), cornerKey(0, from), cornerKey(2, to)),
            {demo("mandelbrot.jpg"), demo("life.jpg")});
    ASSERT_EQ(results.size(), 61u);
    for (std::size_t n = 0; n < results.size(); ++n) {
        ASSERT_EQ(results[n].images.size(), 1u) << "lost at frame " << n;
        double f = n / 60.0;
        for (int i = 0; i < 4; ++i) {
            auto expected = from[i] + f * (to[i] - from[i]);
            ASSERT_LT(glm::distance(results[n].images[0].corners[i], expected), 1.5)
                << "frame " << n << " corner " << i;
        }
    }
}

TEST_F(ImageTrackerTest, NoMoreImagesThanTheMaximumAreTracked) {
    std::vector<ReferenceImagePtr> references;
    std::string placements;
    for (int i = 0; i < 9; ++i) {
        auto picture = boxes(unsigned(i));
        auto file = dir_ / format("boxes{}.png", i);
        ASSERT_TRUE(writeFile(file, *image::encodePng(*picture)));
        references.push_back(ReferenceImage::create(picture, ImageOrientation::up, 0.1));
        double x = 20 + (i % 3) * 420, y = 15 + (i / 3) * 315;
        Corners cell{{{x, y}, {x + 400, y}, {x + 400, y + 300}, {x, y + 300}}};
        placements += format(R"({}{{"image": "{}", "keyframes": [{}, {}]}})", i ? "," : "",
                             file.string(), cornerKey(0, cell), cornerKey(1, cell));
    }
    auto results = run(
        format(
            R"({{"resolution": [1280, 960], "duration": 0.2, "effects": {{"blur": 0.5, "noise": 2}},
        "targets": [{}]}})",
            placements),
        references, 8);
    std::size_t most = 0;
    for (const auto& result : results) {
        EXPECT_LE(result.images.size(), 8u);
        most = std::max(most, result.images.size());
    }
    EXPECT_EQ(most, 8u) << "eight of the nine visible images are tracked";
}

// The cellular automaton's sharp corners outscore every feature of the other two: they are
// found once it is tracked, within a few frames of each other.
TEST_F(ImageTrackerTest, ABusyImageDoesNotHideTheOthers) {
    std::string targets;
    for (auto [file, x, y] :
         {std::tuple{"cellauto.jpg", 0.12, 0.08}, std::tuple{"mandelbrot.jpg", -0.12, 0.08},
          std::tuple{"life.jpg", 0.0, -0.1}})
        targets += format(R"({}{{"image": "{}", "physicalWidth": 0.2, "keyframes": [
            {{"time": 0, "position": [{}, {}, -0.5], "rotation": [-10, 0, 0]}},
            {{"time": 1, "position": [{}, {}, -0.5], "rotation": [-10, 0, 0]}}]}})",
                          targets.empty() ? "" : ",", target(file), x, y, x, y);
    auto results = run(
        format(R"({{{}, "frameRate": 30, "duration": 0.2, "targets": [{}]}})", kCamera, targets),
        {demo("cellauto.jpg"), demo("mandelbrot.jpg"), demo("life.jpg")});
    ASSERT_FALSE(results.empty());
    EXPECT_EQ(results.back().images.size(), 3u);
}

std::shared_ptr<const image::Image> noise(int width, int height) {
    auto out = std::make_shared<image::Image>(image::Image::filled(width, height, 0x000000ffu));
    std::uint32_t state = 12345;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            state = state * 1664525u + 1013904223u;
            auto* p = out->pixel(x, y);
            p[0] = p[1] = p[2] = std::uint8_t(80 + (state >> 24) * 96 / 256);
        }
    return out;
}

TEST(ReferenceImageValidation, RejectsWhatCannotBeTrackedAndAcceptsAPhoto) {
    struct Case {
        std::shared_ptr<const image::Image> image;
        std::string error; // empty: accepted
    };
    for (const auto& c : {
             Case{std::make_shared<image::Image>(image::Image::filled(40, 30, 0x808080ffu)),
                  "the image is 40x30 pixels; at least 64 pixels are needed on each side"},
             Case{std::make_shared<image::Image>(image::Image::filled(640, 480, 0x808080ffu)),
                  "the image has too little detail to track: 0 features, at least 60 needed"},
             // Pixel-sized detail: plenty of features up close, a flat grey from afar.
             Case{noise(640, 480),
                  "the image's detail is too fine to recognise it from afar: 0 corners "
                  "when it is 200 pixels across, at least 50 needed"},
             Case{load("mandelbrot.jpg"), ""},
         }) {
        auto reference = ReferenceImage::create(c.image, ImageOrientation::up, 0.2);
        std::promise<std::pair<ErrorPtr, std::thread::id>> done;
        reference->validate([&](ErrorPtr error) {
            done.set_value({error, std::this_thread::get_id()});
        });
        auto [error, thread] = done.get_future().get();
        EXPECT_NE(thread, std::this_thread::get_id());
        EXPECT_EQ(error ? error->description() : "", c.error);
    }
}

} // namespace
} // namespace pelkit::ar
