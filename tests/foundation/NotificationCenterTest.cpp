#include <pelkit/foundation/NotificationCenter.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace pelkit {
namespace {

TEST(NotificationCenter, DeliversByNameAndObjectOnThePostingThread) {
    NotificationCenter center;
    int itemA = 0, itemB = 0;
    std::vector<std::string> seen;
    std::thread::id deliveredOn;
    center.addObserver("didPlayToEnd", &itemA, [&](const Notification& n) {
        seen.push_back("A:" + n.name);
        deliveredOn = std::this_thread::get_id();
    });
    center.addObserver("didPlayToEnd", nullptr,
                       [&](const Notification&) { seen.push_back("any"); });
    center.addObserver("other", nullptr, [&](const Notification&) { seen.push_back("other"); });

    std::thread poster([&] { center.post({"didPlayToEnd", &itemA}); });
    auto posterId = poster.get_id();
    poster.join();
    center.post({"didPlayToEnd", &itemB});
    EXPECT_EQ(seen, (std::vector<std::string>{"A:didPlayToEnd", "any", "any"}));
    EXPECT_EQ(deliveredOn, posterId);
}

TEST(NotificationCenter, RemovedObserversHearNothingAndObserversMayPost) {
    NotificationCenter center;
    int calls = 0;
    auto id = center.addObserver("tick", nullptr, [&](const Notification&) { ++calls; });
    center.addObserver("outer", nullptr, [&](const Notification&) { center.post({"tick"}); });
    center.post({"outer"});
    EXPECT_EQ(calls, 1);
    center.removeObserver(id);
    center.post({"outer"});
    EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace pelkit
