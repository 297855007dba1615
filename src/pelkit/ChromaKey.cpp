// The keying rule. This file is compiled with -ffp-contract=off so that no multiply-add is fused
// behind our back: the rule computes term for term as the material's shader does.
#include <pelkit/ChromaKey.h>

#include <cmath>

namespace pelkit {
namespace {

// GLSL's clamp(x, 0.0, 1.0), written so that NaN (0/0 from a zero smoothing) comes out as 0.
float clamp01(float x) {
    const float low = x > 0.0f ? x : 0.0f;
    return low < 1.0f ? low : 1.0f;
}

// GLSL's smoothstep, term for term.
float smoothstep(float edge0, float edge1, float x) {
    const float t = clamp01((x - edge0) / (edge1 - edge0));
    return t * t * (3.0f - 2.0f * t);
}

} // namespace

float chromaKeyDistance(KeyColor color) noexcept {
    const KeyChroma mask = keyChromaOf(chromaKeyColor);
    const KeyChroma pixel = keyChromaOf(color);
    const float dx = pixel.cr - mask.cr;
    const float dy = pixel.cb - mask.cb;
    return std::sqrt(dx * dx + dy * dy);
}

float chromaKeyOpacity(KeyColor color, float thresholdSensitivity, float smoothing) noexcept {
    return smoothstep(thresholdSensitivity, thresholdSensitivity + smoothing,
                      chromaKeyDistance(color));
}

} // namespace pelkit
