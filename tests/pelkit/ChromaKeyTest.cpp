#include <pelkit/ChromaKey.h>

#include <gtest/gtest.h>

namespace pelkit {
namespace {

struct KeyCase {
    const char* name;
    KeyColor color;
    float distance;
    float opacity; // with the green-screen parameters
};

// Distances as the keying rule gives them to six decimals. Pure green at 0 and black, grey and
// white at one distance pin the key colour and its chroma, and show that luma plays no part.
const KeyCase keyCases[] = {
    {"pure green", {0, 1, 0}, 0.0f, 0},  {"dark green", {0, 0.5f, 0}, 0.266812f, 0},
    {"black", {0, 0, 0}, 0.533630f, 1},  {"grey", {0.5f, 0.5f, 0.5f}, 0.533630f, 1},
    {"white", {1, 1, 1}, 0.533630f, 1},  {"cyan", {0, 1, 1}, 0.506672f, 1},
    {"yellow", {1, 1, 0}, 0.527736f, 1}, {"red", {1, 0, 0}, 0.932650f, 1},
    {"blue", {0, 0, 1}, 0.896891f, 1},
};

TEST(ChromaKey, DistancesAndOpacitiesOfNamedColours) {
    for (const auto& c : keyCases) {
        EXPECT_NEAR(chromaKeyDistance(c.color), c.distance, 1e-5f) << c.name;
        EXPECT_EQ(chromaKeyOpacity(c.color, greenScreenThresholdSensitivity, greenScreenSmoothing),
                  c.opacity)
            << c.name;
    }
}

TEST(ChromaKey, SoftEdgeIsSmoothstepOfTheDistance) {
    const KeyColor grey{0.5f, 0.5f, 0.5f};
    const float d = chromaKeyDistance(grey);
    struct {
        float threshold, smoothing, opacity;
    } const cases[] = {
        {d, 0.1f, 0.0f},              // on the threshold: keyed out
        {d - 0.05f, 0.1f, 0.5f},      // half way: smoothstep(0.5)
        {d - 0.025f, 0.1f, 0.15625f}, // a quarter in: 3/16 - 2/64
        {d - 0.1f, 0.1f, 1.0f},       // at the far end: opaque
        {d, 0.0f, 0.0f},              // no smoothing: a hard edge, keyed on it
        {d - 1e-6f, 0.0f, 1.0f},      // and opaque just past it
    };
    for (const auto& c : cases) {
        EXPECT_NEAR(chromaKeyOpacity(grey, c.threshold, c.smoothing), c.opacity, 1e-5f)
            << "threshold " << c.threshold << " smoothing " << c.smoothing;
    }
}

} // namespace
} // namespace pelkit
