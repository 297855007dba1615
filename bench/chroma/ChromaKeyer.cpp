// The frame keyer. This file is compiled with -ffp-contract=off so that no multiply-add is fused
// behind our back: the keyer's results must equal the rule's to the bit, whichever instruction set
// each copy of the kernel is built for.
#include "ChromaKeyer.h"

#include <pelkit/foundation/Error.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace pelkit::bench {
namespace {

static_assert(std::endian::native == std::endian::little,
              "the keyer reads RGBA pixels as little-endian 32-bit words");

#define PELKIT_INLINE [[gnu::always_inline]] inline

// GLSL's clamp(x, 0.0, 1.0), written so that NaN (0/0 from a zero smoothing) comes out as 0.
PELKIT_INLINE float clamp01(float x) {
    const float low = x > 0.0f ? x : 0.0f;
    return low < 1.0f ? low : 1.0f;
}

// GLSL's smoothstep, term for term.
PELKIT_INLINE float smoothstep(float edge0, float edge1, float x) {
    const float t = clamp01((x - edge0) / (edge1 - edge0));
    return t * t * (3.0f - 2.0f * t);
}

PELKIT_INLINE std::uint8_t alphaFromOpacity(float opacity) {
    return static_cast<std::uint8_t>(clamp01(opacity) * 255.0f + 0.5f);
}

// The squared chroma distance from the key colour, as the rule computes it before its sqrt.
PELKIT_INLINE float squaredKeyDistance(float r, float g, float b) {
    const KeyChroma mask = keyChromaOf(chromaKeyColor);
    const KeyChroma pixel = keyChromaOf({r, g, b});
    const float dx = pixel.cr - mask.cr;
    const float dy = pixel.cb - mask.cb;
    return dx * dx + dy * dy;
}

// Exact path: per pixel, the rule's own arithmetic. Its sqrt and division dominate the cost, and
// they matter only for pixels inside the soft edge, which in a keyed video are few. So the fast
// path estimates the squared distance q with six multiply-adds straight from the channel bytes
// and decides pixels that are certainly keyed out (alpha 0) or certainly kept (alpha 255); a
// block of pixels with any pixel too close to either end of the edge is redone on the exact path.

// v / 255 for a channel byte, correctly rounded but without a division: 1/255 split into a head
// short enough that v * head is exact, plus a tail; the sum then rounds once, to v / 255.0f.
constexpr float inverse255Head =
    std::bit_cast<float>(std::bit_cast<std::uint32_t>(1.0f / 255.0f) & 0xffff'ff00u);
constexpr float inverse255Tail = static_cast<float>(1.0 / 255.0 - double{inverse255Head});

PELKIT_INLINE constexpr float unitOf(std::uint32_t v) {
    const auto f = static_cast<float>(v);
    return f * inverse255Head + f * inverse255Tail;
}

constexpr bool unitOfIsExact() {
    for (std::uint32_t v = 0; v < 256; ++v) {
        if (unitOf(v) != static_cast<float>(v) / 255.0f) {
            return false;
        }
    }
    return true;
}
static_assert(unitOfIsExact());

PELKIT_INLINE float exactSquaredDistance(std::uint32_t pixel) {
    return squaredKeyDistance(unitOf(pixel & 0xffu), unitOf((pixel >> 8) & 0xffu),
                              unitOf((pixel >> 16) & 0xffu));
}

// The estimate: dx and dy are affine in the channel bytes, so fold the /255, the luma weights and
// the key chroma into one coefficient per byte. Coefficients are derived in double from the very
// float weights the rule uses.
constexpr double lumaR = 0.2989f, lumaG = 0.5866f, lumaB = 0.1145f;
constexpr double scaleCr = 0.7132f, scaleCb = 0.5647f;
constexpr float crOfR = static_cast<float>(scaleCr * (1.0 - lumaR) / 255.0);
constexpr float crOfG = static_cast<float>(-scaleCr * lumaG / 255.0);
constexpr float crOfB = static_cast<float>(-scaleCr * lumaB / 255.0);
constexpr float cbOfR = static_cast<float>(-scaleCb * lumaR / 255.0);
constexpr float cbOfG = static_cast<float>(-scaleCb * lumaG / 255.0);
constexpr float cbOfB = static_cast<float>(scaleCb * (1.0 - lumaB) / 255.0);

// The estimate and the exact value differ by under 5e-7 for every colour (float rounding of two
// short affine chains, with or without fused multiply-adds); a pixel is decided by the estimate
// only when it lies more than this margin, 120 times that, beyond an end of the edge.
constexpr float estimateMargin = 1.0f / 16384.0f;

enum class Fused { no, yes };

template <Fused fused> PELKIT_INLINE float multiplyAdd(float a, float b, float c) {
    if constexpr (fused == Fused::yes) {
        return std::fma(a, b, c);
    } else {
        return a * b + c;
    }
}

template <Fused fused> PELKIT_INLINE float estimatedSquaredDistance(std::uint32_t pixel) {
    const auto r = static_cast<float>(pixel & 0xffu);
    const auto g = static_cast<float>((pixel >> 8) & 0xffu);
    const auto b = static_cast<float>((pixel >> 16) & 0xffu);
    const KeyChroma key = chromaKeyChroma;
    const float dx = multiplyAdd<fused>(
        crOfB, b, multiplyAdd<fused>(crOfG, g, multiplyAdd<fused>(crOfR, r, -key.cr)));
    const float dy = multiplyAdd<fused>(
        cbOfB, b, multiplyAdd<fused>(cbOfG, g, multiplyAdd<fused>(cbOfR, r, -key.cb)));
    return multiplyAdd<fused>(dx, dx, dy * dy);
}

struct KeyParameters {
    float threshold;
    float edge1;     // threshold + smoothing, rounded once as the shader does
    float keptAbove; // the largest q that is keyed out; an estimate above it means alpha 255
    float edgeBelow; // an estimate strictly between these two is too close to the edge to trust
    float edgeAbove;
};

constexpr std::size_t blockPixels = 64;

PELKIT_INLINE std::uint32_t withAlpha(std::uint32_t pixel, std::uint32_t alpha) {
    return (pixel & 0x00ff'ffffu) | (alpha << 24);
}

template <Fused fused, std::size_t count>
PELKIT_INLINE void keyBlock(std::uint8_t* pixels, KeyParameters p) {
    std::uint32_t nearEdge = 0;
    for (std::size_t i = 0; i < count; ++i) {
        std::uint32_t pixel;
        std::memcpy(&pixel, pixels + 4 * i, 4);
        const float q = estimatedSquaredDistance<fused>(pixel);
        nearEdge |= static_cast<std::uint32_t>(q > p.edgeBelow) & (q < p.edgeAbove);
        pixel = withAlpha(pixel, q > p.keptAbove ? 0xffu : 0u);
        std::memcpy(pixels + 4 * i, &pixel, 4);
    }
    if (nearEdge == 0) {
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        std::uint32_t pixel;
        std::memcpy(&pixel, pixels + 4 * i, 4);
        const float d = std::sqrt(exactSquaredDistance(pixel));
        pixel = withAlpha(pixel, alphaFromOpacity(smoothstep(p.threshold, p.edge1, d)));
        std::memcpy(pixels + 4 * i, &pixel, 4);
    }
}

template <Fused fused>
PELKIT_INLINE void keyPixels(std::uint8_t* pixels, std::size_t count, KeyParameters p) {
    std::size_t i = 0;
    for (; i + blockPixels <= count; i += blockPixels) {
        keyBlock<fused, blockPixels>(pixels + 4 * i, p);
    }
    for (; i < count; ++i) {
        keyBlock<fused, 1>(pixels + 4 * i, p);
    }
}

using KernelFunction = void (*)(std::uint8_t*, std::size_t, KeyParameters);

void keyPortable(std::uint8_t* pixels, std::size_t count, KeyParameters p) {
    keyPixels<Fused::no>(pixels, count, p);
}

#if defined(__x86_64__)
[[gnu::target("arch=x86-64-v3")]] void keyAvx2(std::uint8_t* pixels, std::size_t count,
                                               KeyParameters p) {
    keyPixels<Fused::yes>(pixels, count, p);
}

[[gnu::target("arch=x86-64-v4")]] void keyAvx512(std::uint8_t* pixels, std::size_t count,
                                                 KeyParameters p) {
    keyPixels<Fused::yes>(pixels, count, p);
}
#endif

KernelFunction kernelFunction(ChromaKeyKernel kernel) {
    switch (kernel) {
#if defined(__x86_64__)
    case ChromaKeyKernel::avx512:
        return keyAvx512;
    case ChromaKeyKernel::avx2:
        return keyAvx2;
#endif
    default:
        return keyPortable;
    }
}

// The largest q whose float sqrt is at most `edge`: q <= it exactly when sqrt(q) <= edge.
float largestSquareAtMost(float edge) {
    if (!(edge >= 0.0f)) {
        return -1.0f;
    }
    const float infinity = std::numeric_limits<float>::infinity();
    float q = edge * edge;
    while (q > 0.0f && std::sqrt(q) > edge) {
        q = std::nextafter(q, 0.0f);
    }
    while (std::sqrt(std::nextafter(q, infinity)) <= edge) {
        q = std::nextafter(q, infinity);
    }
    return q;
}

// The smallest q whose float sqrt is at least `edge`.
float smallestSquareAtLeast(float edge) {
    if (!(edge > 0.0f)) {
        return 0.0f;
    }
    const float infinity = std::numeric_limits<float>::infinity();
    float q = edge * edge;
    while (std::sqrt(q) < edge) {
        q = std::nextafter(q, infinity);
    }
    while (q > 0.0f && std::sqrt(std::nextafter(q, 0.0f)) >= edge) {
        q = std::nextafter(q, 0.0f);
    }
    return q;
}

KeyParameters keyParameters(float threshold, float smoothing) {
    const float edge1 = threshold + smoothing;
    const float infinity = std::numeric_limits<float>::infinity();
    // Without a positive edge width (zero or negative smoothing, NaN, or a smoothing lost in
    // rounding) every pixel takes the exact path.
    KeyParameters p{threshold, edge1, 0.0f, -infinity, infinity};
    if (edge1 - threshold > 0.0f) {
        // With a positive width, d <= threshold gives opacity 0 and d >= edge1 gives exactly 1.
        const float keyedUpTo = largestSquareAtMost(threshold);
        p.keptAbove = keyedUpTo;
        p.edgeBelow = keyedUpTo - estimateMargin;
        p.edgeAbove = smallestSquareAtLeast(edge1) + estimateMargin;
    }
    return p;
}

} // namespace

std::uint8_t alphaOf(float opacity) noexcept {
    return alphaFromOpacity(opacity);
}

bool supportsChromaKeyKernel(ChromaKeyKernel kernel) noexcept {
    switch (kernel) {
    case ChromaKeyKernel::portable:
        return true;
#if defined(__x86_64__)
    case ChromaKeyKernel::avx2:
        return __builtin_cpu_supports("x86-64-v3");
    case ChromaKeyKernel::avx512:
        return __builtin_cpu_supports("x86-64-v4");
#endif
    default:
        return false;
    }
}

ChromaKeyKernel bestChromaKeyKernel() noexcept {
    static const ChromaKeyKernel best = [] {
        for (auto kernel : {ChromaKeyKernel::avx512, ChromaKeyKernel::avx2}) {
            if (supportsChromaKeyKernel(kernel)) {
                return kernel;
            }
        }
        return ChromaKeyKernel::portable;
    }();
    return best;
}

void chromaKeyFrame(std::span<std::uint8_t> rgba, float thresholdSensitivity,
                    float smoothing) noexcept {
    chromaKeyFrame(rgba, thresholdSensitivity, smoothing, bestChromaKeyKernel());
}

void chromaKeyFrame(std::span<std::uint8_t> rgba, float thresholdSensitivity, float smoothing,
                    ChromaKeyKernel kernel) noexcept {
    if (rgba.size() % 4 != 0) {
        fatalError("chromaKeyFrame(): " + std::to_string(rgba.size()) +
                   " bytes are not a whole number of RGBA pixels");
    }
    if (!supportsChromaKeyKernel(kernel)) {
        fatalError("chromaKeyFrame(): this processor cannot run the requested kernel");
    }
    kernelFunction(kernel)(rgba.data(), rgba.size() / 4,
                           keyParameters(thresholdSensitivity, smoothing));
}

const char* chromaKeyKernelName(ChromaKeyKernel kernel) noexcept {
    switch (kernel) {
    case ChromaKeyKernel::portable:
        return "portable";
    case ChromaKeyKernel::avx2:
        return "avx2";
    case ChromaKeyKernel::avx512:
        return "avx512";
    }
    return "?";
}

} // namespace pelkit::bench
