// The chroma-key rule of the green-screen material: which pixels of a video are keyed out. The
// material's shader applies it per fragment; these functions give it per colour. Any thread; the
// functions keep no state, so they are thread-safe.
#pragma once

namespace pelkit {

/// An RGB colour with components in 0...1.
struct KeyColor {
    float r;
    float g;
    float b;
};

/// The colour that is keyed out: pure green, whatever background colour a material names.
inline constexpr KeyColor chromaKeyColor{0.0f, 1.0f, 0.0f};

/// The parameters the green-screen node keys its video with.
inline constexpr float greenScreenThresholdSensitivity = 0.5f;
inline constexpr float greenScreenSmoothing = 0.001f;

/// Luma and the two chroma components of a colour, by the keying rule's weights, in 32-bit float.
struct KeyChroma {
    float y;
    float cr;
    float cb;
};

constexpr KeyChroma keyChromaOf(KeyColor c) noexcept {
    const float y = 0.2989f * c.r + 0.5866f * c.g + 0.1145f * c.b;
    return {y, 0.7132f * (c.r - y), 0.5647f * (c.b - y)};
}

/// The chroma of the key colour: y 0.5866, cr -0.418363, cb -0.331253.
inline constexpr KeyChroma chromaKeyChroma = keyChromaOf(chromaKeyColor);

/// The chroma distance of a colour from the key colour; luma does not enter it. Every neutral
/// colour (black, grey, white) lies at 0.533630.
float chromaKeyDistance(KeyColor color) noexcept;

/// The opacity the keying rule gives a colour: 0 (see-through) where its chroma distance `d` from
/// the key colour is at most `thresholdSensitivity`, 1 from `thresholdSensitivity + smoothing`
/// on, and smoothstep in between, computed in 32-bit float in the order a fragment shader does.
/// A `smoothing` of 0 gives a hard edge: 0 for d <= threshold, 1 above.
///
///     chromaKeyOpacity({0.0f, 0.5f, 0.0f}, 0.5f, 0.001f);   // dark green: 0
float chromaKeyOpacity(KeyColor color, float thresholdSensitivity, float smoothing) noexcept;

} // namespace pelkit
