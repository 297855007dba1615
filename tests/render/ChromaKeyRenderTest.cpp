#include "RenderTestSupport.h"

#include <pelkit/ChromaKey.h>
#include <pelkit/ChromaKeyMaterial.h>

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

KeyColor keyColorOf(Rgba c) {
    return {c[0] / 255.0f, c[1] / 255.0f, c[2] / 255.0f};
}

// The colours the rule names, then colours inside the soft edge and just outside either end of it.
std::vector<Rgba> sampleColors(float threshold, float smoothing) {
    std::vector<Rgba> named{{0, 255, 0, 255},     {0, 128, 0, 255},     {0, 0, 0, 255},
                            {128, 128, 128, 255}, {255, 255, 255, 255}, {0, 255, 255, 255},
                            {255, 255, 0, 255},   {255, 0, 0, 255},     {0, 0, 255, 255}};
    std::vector<Rgba> inside, below, above;
    const float edge1 = threshold + smoothing;
    for (int g = 0; g < 256; g += 7)
        for (int r = 0; r < 256; r += 3)
            for (int b = 0; b < 256; b += 5) {
                const Rgba c{r, g, b, 255};
                const float d = chromaKeyDistance(keyColorOf(c));
                const float opacity = chromaKeyOpacity(keyColorOf(c), threshold, smoothing);
                if (opacity > 0 && opacity < 1 && inside.size() < 24)
                    inside.push_back(c);
                else if (d < threshold - 1e-5f && d > threshold - 0.004f && below.size() < 8)
                    below.push_back(c);
                else if (d > edge1 + 1e-5f && d < edge1 + 0.004f && above.size() < 8)
                    above.push_back(c);
            }
    EXPECT_GE(inside.size(), 4u) << "colours inside the soft edge";
    EXPECT_EQ(below.size() + above.size(), 16u) << "colours just outside the edge";
    for (const auto* more : {&inside, &below, &above})
        named.insert(named.end(), more->begin(), more->end());
    return named;
}

std::shared_ptr<image::Image> patchImage(const std::vector<Rgba>& colors) {
    const int rows = (static_cast<int>(colors.size()) + patchesPerRow - 1) / patchesPerRow;
    auto image = std::make_shared<image::Image>(
        image::Image::filled(patchesPerRow * patch, rows * patch, 0x000000ffu));
    for (std::size_t i = 0; i < colors.size(); ++i)
        for (int y = 0; y < patch; ++y)
            for (int x = 0; x < patch; ++x)
                setPixel(*image, static_cast<int>(i % patchesPerRow) * patch + x,
                         static_cast<int>(i / patchesPerRow) * patch + y, colors[i]);
    return image;
}

// Draws a plane of `material` showing `picture` over the backdrop, `scale` view pixels per texel.
image::Image drawKeyed(const std::shared_ptr<ChromaKeyMaterial>& material,
                       const std::shared_ptr<const image::Image>& picture, int scale) {
    const glm::ivec2 size = glm::ivec2{picture->width, picture->height} * scale;
    auto renderer = makeRenderer(size);
    if (!renderer)
        return {};
    material->setDiffuseContents(picture);
    auto node = planeNode(size, picture);
    node->geometry()->setMaterials({material});
    auto drawn = renderer->render(frameOf(solidImage(8, 8, backdrop), node, pixelCamera(size)));
    EXPECT_TRUE(drawn) << *drawn.error();
    return renderer->snapshot().value();
}

} // namespace

// The keyed plane over a backdrop: at every colour, the picture is the keying rule's blend of the
// colour over the backdrop: exact where the rule gives 0 or 1, within one step inside the edge.
TEST(ChromaKeyRendering, KeyedPlaneBlendsEachColourAsTheKeyingRuleSays) {
    struct Case {
        const char* name;
        float threshold, smoothing;
        std::function<void(ChromaKeyMaterial&)> change; // after construction
        int scale;                                      // 1 reads texels whole, 2 filters
    };
    const Case cases[] = {
        {"green-screen values", 0.5f, 0.001f, nullptr, 1},
        {"green-screen values, magnified", 0.5f, 0.001f, nullptr, 2},
        {"a wide soft edge, magnified", 0.3f, 0.2f, nullptr, 2},
        {"a wide soft edge and a red background colour set after construction", 0.3f, 0.2f,
         [](ChromaKeyMaterial& m) {
             m.setThresholdSensitivity(0.9f);
             m.modifyThresholdSensitivity([](float& t) { t = 0.3f; });
             m.setSmoothing(0.2f);
             m.setBackgroundColor({1, 0, 0, 1});
         },
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<Rgba> colors = sampleColors(c.threshold, c.smoothing);
        auto material = c.change
                            ? ChromaKeyMaterial::create({0, 1, 0, 1}, 0.5f, 0.001f)
                            : ChromaKeyMaterial::create({0, 1, 0, 1}, c.threshold, c.smoothing);
        if (c.change)
            c.change(*material);
        const image::Image result = drawKeyed(material, patchImage(colors), c.scale);
        ASSERT_FALSE(result.empty());

        for (std::size_t i = 0; i < colors.size(); ++i) {
            const float opacity = chromaKeyOpacity(keyColorOf(colors[i]), c.threshold, c.smoothing);
            const Rgba expected = mix(colors[i], backdrop, opacity);
            const int tolerance = opacity > 0 && opacity < 1 ? 1 : 0;
            // The patch's border pixels may mix in a neighbour; its inside may not.
            const int side = patch * c.scale;
            const int left = static_cast<int>(i % patchesPerRow) * side;
            const int top = static_cast<int>(i / patchesPerRow) * side;
            int wrong = 0;
            for (int y = top + c.scale; y < top + side - c.scale; ++y)
                for (int x = left + c.scale; x < left + side - c.scale; ++x)
                    for (int k = 0; k < 4; ++k)
                        wrong += std::abs(pixelAt(result, x, y)[k] - expected[k]) > tolerance;
            EXPECT_EQ(wrong, 0) << testing::PrintToString(colors[i]) << " at opacity " << opacity
                                << ": got "
                                << testing::PrintToString(
                                       pixelAt(result, left + side / 2, top + side / 2));
        }
    }
}
