// A keyer that applies the chroma-key rule to whole RGBA8 frames on the CPU, with one kernel per
// instruction set. The renderer keys in the material's shader instead: keying texels before they
// are filtered gives the rule's picture only where a plane shows its texture texel for pixel,
// which a plane laid on a tracked image never does (there the shader keys each filtered fragment,
// while a pre-keyed texture blends keyed-out green into its neighbours). chroma_gl_bench shows
// what keying on the CPU would save on llvmpipe; this keyer is the CPU figure the benchmarks set
// the other paths against. Any thread; the functions keep no state.
#pragma once

#include <pelkit/ChromaKey.h>

#include <cstdint>
#include <span>

namespace pelkit::bench {

/// An opacity in 0...1 as an 8-bit alpha, rounded to nearest; NaN counts as 0.
std::uint8_t alphaOf(float opacity) noexcept;

/// The versions of the frame keyer, one per instruction set.
enum class ChromaKeyKernel { portable, avx2, avx512 };

/// The kernel `chromaKeyFrame` uses on this processor: the widest it supports.
ChromaKeyKernel bestChromaKeyKernel() noexcept;
/// "portable", "avx2" or "avx512", for reports.
const char* chromaKeyKernelName(ChromaKeyKernel kernel) noexcept;
/// Whether this processor can run `kernel`.
bool supportsChromaKeyKernel(ChromaKeyKernel kernel) noexcept;

/// Keys a frame in place: sets the alpha byte of every RGBA8 pixel to `alphaOf` the opacity of
/// its colour (channel value v read as v / 255.0f), leaving red, green and blue as they are. The
/// result is what keying each pixel with `chromaKeyOpacity` gives. `rgba.size()` must be a
/// multiple of 4.
///
///     chromaKeyFrame(frame.rgba, greenScreenThresholdSensitivity, greenScreenSmoothing);
void chromaKeyFrame(std::span<std::uint8_t> rgba, float thresholdSensitivity,
                    float smoothing) noexcept;
/// The same with a chosen kernel, which the processor must support.
void chromaKeyFrame(std::span<std::uint8_t> rgba, float thresholdSensitivity, float smoothing,
                    ChromaKeyKernel kernel) noexcept;

} // namespace pelkit::bench
