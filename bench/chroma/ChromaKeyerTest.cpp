#include "ChromaKeyer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace pelkit::bench {
namespace {

TEST(ChromaKeyer, AlphaRoundsOpacityToNearestStep) {
    const std::pair<float, int> cases[] = {{0.0f, 0},
                                           {1.0f, 255},
                                           {0.5f, 128},
                                           {0.25f, 64},
                                           {0.001f, 0},
                                           {0.003f, 1},
                                           {0.998f, 254},
                                           {0.999f, 255},
                                           {-0.5f, 0},
                                           {1.5f, 255},
                                           {std::numeric_limits<float>::quiet_NaN(), 0}};
    for (const auto& [opacity, alpha] : cases) {
        EXPECT_EQ(alphaOf(opacity), alpha) << opacity;
    }
}

std::vector<ChromaKeyKernel> kernelsOfThisProcessor() {
    std::vector<ChromaKeyKernel> kernels;
    for (auto k : {ChromaKeyKernel::portable, ChromaKeyKernel::avx2, ChromaKeyKernel::avx512}) {
        if (supportsChromaKeyKernel(k))
            kernels.push_back(k);
    }
    return kernels;
}

KeyColor unitColour(std::uint32_t rgb) {
    return {static_cast<float>(rgb & 0xff) / 255.0f, static_cast<float>((rgb >> 8) & 0xff) / 255.0f,
            static_cast<float>((rgb >> 16) & 0xff) / 255.0f};
}

struct KeyParameters {
    const char* name;
    float threshold;
    float smoothing;
};

// Every neutral colour lies on this distance, so with it as the threshold or as the far end of the
// edge, 256 colours sit exactly on a decision.
const float neutralDistance = chromaKeyDistance({0.5f, 0.5f, 0.5f});

const KeyParameters frameCases[] = {
    {"green screen", greenScreenThresholdSensitivity, greenScreenSmoothing},
    {"wide soft edge", 0.2f, 0.3f},
    {"neutrals on the threshold", neutralDistance, 0.001f},
    {"neutrals at the far end", neutralDistance - 0.01f, 0.01f},
    {"hard edge", 0.3f, 0.0f},
    {"smoothing lost in rounding", 0.7f, 1e-9f},
    {"negative threshold", -0.1f, 0.3f},
};

// All 2^24 colours, each keyed by every kernel this processor has, must get exactly the alpha the
// rule gives, and keep their colour.
TEST(ChromaKeyer, EveryColourGetsTheRulesAlpha) {
    constexpr std::uint32_t colours = 1u << 24;
    std::vector<std::uint8_t> expected(colours);
    std::vector<std::uint8_t> frame(std::size_t{colours} * 4);
    for (const auto& parameters : frameCases) {
        for (std::uint32_t rgb = 0; rgb < colours; ++rgb) {
            expected[rgb] = alphaOf(
                chromaKeyOpacity(unitColour(rgb), parameters.threshold, parameters.smoothing));
        }
        for (const ChromaKeyKernel kernel : kernelsOfThisProcessor()) {
            for (std::uint32_t rgb = 0; rgb < colours; ++rgb) {
                const std::uint32_t pixel = rgb | 0x5a00'0000u; // alpha the keyer must replace
                std::memcpy(&frame[std::size_t{rgb} * 4], &pixel, 4);
            }
            chromaKeyFrame(frame, parameters.threshold, parameters.smoothing, kernel);
            int failures = 0;
            for (std::uint32_t rgb = 0; rgb < colours && failures < 5; ++rgb) {
                std::uint32_t pixel;
                std::memcpy(&pixel, &frame[std::size_t{rgb} * 4], 4);
                if ((pixel & 0xff'ffffu) != rgb || pixel >> 24 != expected[rgb]) {
                    ++failures;
                    ADD_FAILURE() << parameters.name << ", " << chromaKeyKernelName(kernel)
                                  << " kernel: colour 0x" << std::hex << rgb << " became 0x"
                                  << pixel << ", alpha should be " << std::dec
                                  << int(expected[rgb]);
                }
            }
        }
    }
}

// Frames of any length, starting anywhere, are keyed whole and nothing around them is touched.
TEST(ChromaKeyer, KeysFramesOfAnyLengthAndPlacement) {
    const std::size_t lengths[] = {0, 1, 63, 64, 65, 200};
    for (const ChromaKeyKernel kernel : kernelsOfThisProcessor()) {
        for (const std::size_t pixels : lengths) {
            for (const std::size_t offset : {std::size_t{0}, std::size_t{4}, std::size_t{12}}) {
                std::vector<std::uint8_t> buffer(offset + pixels * 4 + 8, 0x77);
                for (std::size_t i = 0; i < pixels * 4; ++i) {
                    buffer[offset + i] = static_cast<std::uint8_t>(i * 37 + pixels);
                }
                const std::vector<std::uint8_t> before = buffer;
                chromaKeyFrame(std::span(buffer).subspan(offset, pixels * 4), 0.4f, 0.2f, kernel);
                const std::string where = std::string(chromaKeyKernelName(kernel)) + ", " +
                                          std::to_string(pixels) + " pixels at offset " +
                                          std::to_string(offset);
                for (std::size_t i = 0; i < buffer.size(); ++i) {
                    const bool inFrame = i >= offset && i < offset + pixels * 4;
                    if (!inFrame || (i - offset) % 4 != 3) {
                        ASSERT_EQ(buffer[i], before[i]) << where << ": byte " << i << " changed";
                        continue;
                    }
                    const std::uint8_t* p = &before[i - 3];
                    const KeyColor colour{p[0] / 255.0f, p[1] / 255.0f, p[2] / 255.0f};
                    ASSERT_EQ(buffer[i], alphaOf(chromaKeyOpacity(colour, 0.4f, 0.2f)))
                        << where << ": pixel " << (i - offset) / 4;
                }
            }
        }
    }
}

TEST(ChromaKeyerDeathTest, RefusesPartialPixels) {
    std::vector<std::uint8_t> bytes(10);
    EXPECT_DEATH(chromaKeyFrame(bytes, 0.5f, 0.001f),
                 "Fatal error: chromaKeyFrame\\(\\): 10 bytes are not a whole number of RGBA "
                 "pixels");
}

} // namespace
} // namespace pelkit::bench
