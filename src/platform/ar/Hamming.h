// Binary descriptors and their distances: the bits two descriptors differ in.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <span>
#include <vector>

namespace pelkit::ar::detail {

using Descriptor = std::array<std::uint64_t, 4>; // 256 bits, as ORB makes them

inline int distance(const Descriptor& a, const Descriptor& b) {
    return std::popcount(a[0] ^ b[0]) + std::popcount(a[1] ^ b[1]) + std::popcount(a[2] ^ b[2]) +
           std::popcount(a[3] ^ b[3]);
}

/// The nearest and second nearest of a set to a descriptor: positions in the set and distances,
/// the earlier position on a tie. A set of one has no second: its distance is `kFar`.
struct NearestTwo {
    static constexpr int kFar = 1 << 20;
    std::uint32_t first = 0, second = 0;
    int firstDistance = kFar, secondDistance = kFar;

    /// Takes the set's members in order of position.
    void add(std::uint32_t at, int dist) {
        if (dist < firstDistance) {
            second = first;
            secondDistance = firstDistance;
            first = at;
            firstDistance = dist;
        } else if (dist < secondDistance) {
            second = at;
            secondDistance = dist;
        }
    }
    /// Whether the nearest is within `farthest` and clearly nearer than the second: a ratio test.
    bool distinct(double ratio, int farthest) const {
        return firstDistance <= farthest && firstDistance < ratio * secondDistance;
    }
};

/// One reference's descriptors laid out for comparing each of a frame's with all of them: eight
/// at a time, word by word, where the processor can count the bits of eight words at once.
class DescriptorSet {
public:
    DescriptorSet() = default;
    explicit DescriptorSet(std::span<const Descriptor> descriptors);

    NearestTwo nearestTwo(const Descriptor& d) const;
    std::size_t bytes() const { return words_.size() * sizeof(std::uint64_t); }

private:
    std::size_t count_ = 0;
    std::vector<std::uint64_t> words_; // in blocks of eight descriptors, word by word
};

} // namespace pelkit::ar::detail
