#include "Hamming.h"

#include <gtest/gtest.h>

#include <random>

namespace pelkit::ar::detail {
namespace {

NearestTwo oneByOne(const std::vector<Descriptor>& set, const Descriptor& d) {
    NearestTwo best;
    for (std::size_t i = 0; i < set.size(); ++i)
        best.add(std::uint32_t(i), distance(set[i], d));
    return best;
}

// Sets that fill their last block of eight and sets that do not, with repeated members (ties),
// against members with a few bits changed, strangers, and the all-zero descriptor that the
// unused places of a last block hold.
TEST(DescriptorSetTest, FindsTheNearestTwoAsComparingOneByOneDoes) {
    std::mt19937_64 random(7);
    for (std::size_t size : {1, 2, 7, 8, 9, 63, 500}) {
        std::vector<Descriptor> set(size);
        for (auto& d : set)
            d = {random(), random(), random(), random()};
        for (std::size_t i = 3; i < size; i += 5)
            set[i] = set[i / 2];
        DescriptorSet laidOut(set);
        std::vector<Descriptor> queries = {Descriptor{}};
        for (int q = 0; q < 40; ++q) {
            Descriptor d = set[random() % size];
            for (int flips = int(random() % 12); flips > 0; --flips)
                d[random() % 4] ^= std::uint64_t(1) << (random() % 64);
            queries.push_back(d);
            queries.push_back({random(), random(), random(), random()});
        }
        for (const auto& d : queries) {
            auto expected = oneByOne(set, d), got = laidOut.nearestTwo(d);
            SCOPED_TRACE("a set of " + std::to_string(size));
            EXPECT_EQ(got.first, expected.first);
            EXPECT_EQ(got.firstDistance, expected.firstDistance);
            EXPECT_EQ(got.secondDistance, expected.secondDistance);
            if (expected.secondDistance < NearestTwo::kFar) {
                EXPECT_EQ(got.second, expected.second);
            }
        }
    }
}

} // namespace
} // namespace pelkit::ar::detail
