#include "RenderTestSupport.h"

#include <pelkit/ChromaKey.h>
#include <pelkit/ChromaKeyMaterial.h>
#include <pelkit/render/Renderer.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

using namespace pelkit;
using namespace pelkit::test;

namespace {

constexpr int patch = 8; // pixels per colour patch side
constexpr int patchesPerRow = 16;
constexpr Rgba backdrop{180, 60, 150, 255};

struct Sample {
    std::string name;
    Rgba color;
};

KeyColor keyColorOf(Rgba c) {
    return {c[0] / 255.0f, c[1] / 255.0f, c[2] / 255.0f};
}

std::vector<Sample> referenceColors() {
    return {{"pure green", {0, 255, 0, 255}}, {"dark green", {0, 128, 0, 255}},
            {"black", {0, 0, 0, 255}},        {"grey", {128, 128, 128, 255}},
            {"white", {255, 255, 255, 255}},  {"cyan", {0, 255, 255, 255}},
            {"yellow", {255, 255, 0, 255}},   {"red", {255, 0, 0, 255}},
            {"blue", {0, 0, 255, 255}}};
}

// Colours inside the soft edge, and colours just outside either end of it.
std::vector<Sample> edgeColors(float threshold, float smoothing) {
    std::vector<Sample> inside, below, above;
    const float margin = 0.004f;
    for (int g = 0; g < 256; g += 7)
        for (int r = 0; r < 256; r += 3)
            for (int b = 0; b < 256; b += 5) {
                const Rgba c{r, g, b, 255};
                const float d = chromaKeyDistance(keyColorOf(c));
                const float opacity = chromaKeyOpacity(keyColorOf(c), threshold, smoothing);
                const std::string name = "(" + std::to_string(r) + ", " + std::to_string(g) + ", " +
                                         std::to_string(b) + ")";
                if (opacity > 0 && opacity < 1 && inside.size() < 24)
                    inside.push_back({"inside the edge " + name, c});
                else if (d < threshold - 1e-5f && d > threshold - margin && below.size() < 8)
                    below.push_back({"just below the edge " + name, c});
                else if (d > threshold + smoothing + 1e-5f && d < threshold + smoothing + margin &&
                         above.size() < 8)
                    above.push_back({"just above the edge " + name, c});
            }
    EXPECT_GE(inside.size(), 4u) << "colours inside the soft edge";
    EXPECT_EQ(below.size(), 8u);
    EXPECT_EQ(above.size(), 8u);
    inside.insert(inside.end(), below.begin(), below.end());
    inside.insert(inside.end(), above.begin(), above.end());
    return inside;
}

std::shared_ptr<image::Image> patchImage(const std::vector<Sample>& samples) {
    const int rows = (static_cast<int>(samples.size()) + patchesPerRow - 1) / patchesPerRow;
    auto image = std::make_shared<image::Image>(
        image::Image::filled(patchesPerRow * patch, rows * patch, 0x000000ffu));
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const int left = static_cast<int>(i % patchesPerRow) * patch;
        const int top = static_cast<int>(i / patchesPerRow) * patch;
        for (int y = top; y < top + patch; ++y)
            for (int x = left; x < left + patch; ++x)
                std::copy(samples[i].color.begin(), samples[i].color.end(), image->pixel(x, y));
    }
    return image;
}

} // namespace

// The keyed plane over a backdrop: at every colour, the picture is the keying rule's blend of the
// colour over the backdrop: exact where the rule gives 0 or 1, within one step inside the edge.
TEST(ChromaKeyRendering, KeyedPlaneBlendsEachColourAsTheKeyingRuleSays) {
    struct Case {
        const char* name;
        scene::Color backgroundColor;
        float threshold, smoothing;
        std::function<void(ChromaKeyMaterial&)> change; // after construction
        bool asVideo;
        int scale = 1; // view pixels per texel: 1 reads texels whole, 2 filters between them
    };
    const Case cases[] = {
        {"green-screen values", {0, 1, 0, 1}, 0.5f, 0.001f, nullptr, false},
        {"green-screen values on a video", {0, 1, 0, 1}, 0.5f, 0.001f, nullptr, true},
        {"green-screen values, magnified", {0, 1, 0, 1}, 0.5f, 0.001f, nullptr, false, 2},
        {"a red background colour still keys green", {1, 0, 0, 1}, 0.5f, 0.001f, nullptr, false},
        {"a wide soft edge", {0, 1, 0, 1}, 0.3f, 0.2f, nullptr, false},
        {"a wide soft edge set after construction",
         {0, 1, 0, 1},
         0.3f,
         0.2f,
         [](ChromaKeyMaterial& m) {
             m.setThresholdSensitivity(0.9f);
             m.modifyThresholdSensitivity([](float& t) { t = 0.3f; });
             m.setSmoothing(0.2f);
             m.setBackgroundColor({1, 0, 0, 1});
         },
         false},
        {"a wide soft edge, magnified", {0, 1, 0, 1}, 0.3f, 0.2f, nullptr, false, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Sample> samples = referenceColors();
        for (auto& sample : edgeColors(c.threshold, c.smoothing))
            samples.push_back(std::move(sample));
        auto picture = patchImage(samples);
        const glm::ivec2 size = glm::ivec2{picture->width, picture->height} * c.scale;
        auto renderer = makeRenderer(size);
        ASSERT_TRUE(renderer);

        auto material =
            c.change ? ChromaKeyMaterial::create({0, 1, 0, 1}, 0.5f, 0.001f)
                     : ChromaKeyMaterial::create(c.backgroundColor, c.threshold, c.smoothing);
        if (c.change)
            c.change(*material);
        if (c.asVideo) {
            auto source = std::make_shared<FrameSource>();
            source->frame = picture;
            material->setDiffuseContents(std::shared_ptr<scene::VideoFrameSource>(source));
        } else
            material->setDiffuseContents(std::shared_ptr<const image::Image>(picture));
        auto plane = scene::Plane::create(static_cast<float>(size.x), static_cast<float>(size.y));
        plane->setMaterials({material});
        auto node = scene::Node::create();
        node->setGeometry(plane);

        render::Frame frame = frameOf(solidImage(8, 8, backdrop), node, pixelCamera(size));
        auto drawn = renderer->render(frame);
        ASSERT_TRUE(drawn) << *drawn.error();
        const image::Image result = renderer->snapshot().value();

        for (std::size_t i = 0; i < samples.size(); ++i) {
            const Sample& sample = samples[i];
            const float opacity =
                chromaKeyOpacity(keyColorOf(sample.color), c.threshold, c.smoothing);
            const bool onEdge = opacity > 0 && opacity < 1;
            Rgba expected{0, 0, 0, 255};
            for (int k = 0; k < 3; ++k)
                expected[k] = static_cast<std::uint8_t>(
                    std::lround(sample.color[k] * opacity + backdrop[k] * (1 - opacity)));
            // The patch's border pixels may mix in a neighbour; its inside may not.
            const int side = patch * c.scale;
            const int left = static_cast<int>(i % patchesPerRow) * side;
            const int top = static_cast<int>(i / patchesPerRow) * side;
            int wrong = 0;
            for (int y = top + c.scale; y < top + side - c.scale; ++y)
                for (int x = left + c.scale; x < left + side - c.scale; ++x) {
                    const Rgba actual = pixelAt(result, x, y);
                    for (int k = 0; k < 4; ++k)
                        wrong += std::abs(actual[k] - expected[k]) > (onEdge ? 1 : 0);
                }
            EXPECT_EQ(wrong, 0) << sample.name << " at opacity " << opacity << ": got "
                                << pixelAt(result, left + side / 2, top + side / 2) << ", expected "
                                << expected;
        }
    }
}
