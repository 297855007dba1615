#include "Hamming.h"

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace pelkit::ar::detail {
namespace {

// Descriptors go in blocks of eight: the first words of the eight, then their second words, ...
constexpr std::size_t kLanes = 8;
constexpr std::size_t kWords = std::tuple_size_v<Descriptor>;
constexpr std::size_t kBlock = kWords * kLanes; // words a block takes

// Where word `w` of descriptor `i` is kept.
constexpr std::size_t placeOf(std::size_t i, std::size_t w) {
    return i / kLanes * kBlock + w * kLanes + i % kLanes;
}

NearestTwo nearestTwoPortable(const std::uint64_t* words, std::size_t count, const Descriptor& d) {
    NearestTwo best;
    for (std::size_t i = 0; i < count; ++i) {
        int dist = 0;
        for (std::size_t w = 0; w < kWords; ++w)
            dist += std::popcount(words[placeOf(i, w)] ^ d[w]);
        best.add(std::uint32_t(i), dist);
    }
    return best;
}

#if defined(__x86_64__) && defined(__GNUC__)
#define PELKIT_HAMMING_AVX512 1

static_assert(kLanes == 8 && kWords == 4, "a block is four registers of eight words");

// Each lane keeps the nearest two of the descriptors it sees (every eighth); the lanes' sixteen
// are merged at the end. Padding lanes of the last block are never taken.
__attribute__((target("avx512f,avx512vpopcntdq"))) NearestTwo
nearestTwoAvx512(const std::uint64_t* words, std::size_t count, const Descriptor& d) {
    const __m512i d0 = _mm512_set1_epi64(std::int64_t(d[0])),
                  d1 = _mm512_set1_epi64(std::int64_t(d[1])),
                  d2 = _mm512_set1_epi64(std::int64_t(d[2])),
                  d3 = _mm512_set1_epi64(std::int64_t(d[3]));
    const __m512i far = _mm512_set1_epi64(NearestTwo::kFar);
    __m512i first = far, second = far, firstAt = _mm512_setzero_si512(), secondAt = firstAt;
    __m512i at = _mm512_set_epi64(7, 6, 5, 4, 3, 2, 1, 0);
    const __m512i step = _mm512_set1_epi64(8);
    std::size_t blocks = (count + kLanes - 1) / kLanes;
    for (std::size_t b = 0; b < blocks; ++b, at = _mm512_add_epi64(at, step)) {
        const std::uint64_t* block = words + b * kBlock;
        __m512i dist = _mm512_add_epi64(
            _mm512_add_epi64(
                _mm512_popcnt_epi64(_mm512_xor_si512(_mm512_loadu_si512(block), d0)),
                _mm512_popcnt_epi64(_mm512_xor_si512(_mm512_loadu_si512(block + kLanes), d1))),
            _mm512_add_epi64(
                _mm512_popcnt_epi64(_mm512_xor_si512(_mm512_loadu_si512(block + 2 * kLanes), d2)),
                _mm512_popcnt_epi64(_mm512_xor_si512(_mm512_loadu_si512(block + 3 * kLanes), d3))));
        if (std::size_t left = count - b * kLanes; left < kLanes)
            dist = _mm512_mask_mov_epi64(dist, __mmask8(0xff << left), far);
        __mmask8 nearer = _mm512_cmplt_epi64_mask(dist, first);
        __mmask8 nearerThanSecond = _mm512_cmplt_epi64_mask(dist, second);
        // Nearer than the first: the first becomes the second. Else nearer than the second: it is.
        second = _mm512_mask_mov_epi64(second, nearerThanSecond, dist);
        secondAt = _mm512_mask_mov_epi64(secondAt, nearerThanSecond, at);
        second = _mm512_mask_mov_epi64(second, nearer, first);
        secondAt = _mm512_mask_mov_epi64(secondAt, nearer, firstAt);
        first = _mm512_mask_mov_epi64(first, nearer, dist);
        firstAt = _mm512_mask_mov_epi64(firstAt, nearer, at);
    }
    alignas(64) std::int64_t lanes[4][8];
    _mm512_store_si512(lanes[0], first);
    _mm512_store_si512(lanes[1], firstAt);
    _mm512_store_si512(lanes[2], second);
    _mm512_store_si512(lanes[3], secondAt);
    // Merged in the order of the descriptors, so that ties go as they would one by one.
    std::array<std::pair<std::int64_t, int>, 16> seen;
    for (int lane = 0; lane < 8; ++lane) {
        seen[2 * lane] = {lanes[1][lane], int(lanes[0][lane])};
        seen[2 * lane + 1] = {lanes[3][lane], int(lanes[2][lane])};
    }
    std::sort(seen.begin(), seen.end());
    NearestTwo best;
    for (auto [position, dist] : seen)
        if (dist < NearestTwo::kFar)
            best.add(std::uint32_t(position), dist);
    return best;
}

bool hasAvx512() {
    static const bool has =
        __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vpopcntdq");
    return has;
}
#endif

} // namespace

DescriptorSet::DescriptorSet(std::span<const Descriptor> descriptors)
    : count_(descriptors.size()), words_((descriptors.size() + kLanes - 1) / kLanes * kBlock) {
    for (std::size_t i = 0; i < descriptors.size(); ++i)
        for (std::size_t w = 0; w < kWords; ++w)
            words_[placeOf(i, w)] = descriptors[i][w];
}

NearestTwo DescriptorSet::nearestTwo(const Descriptor& d) const {
#ifdef PELKIT_HAMMING_AVX512
    if (hasAvx512())
        return nearestTwoAvx512(words_.data(), count_, d);
#endif
    return nearestTwoPortable(words_.data(), count_, d);
}

} // namespace pelkit::ar::detail
