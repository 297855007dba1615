#include <pelkit/foundation/Dispatch.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <numeric>
#include <poll.h>
#include <stdexcept>
#include <thread>
#include <vector>

namespace pelkit {
namespace {

using namespace std::chrono_literals;

TEST(DispatchQueue, RunsWorkOneAtATimeInSubmissionOrder) {
    std::vector<int> order, expected(1000);
    std::iota(expected.begin(), expected.end(), 0);
    {
        DispatchQueue queue("test.serial");
        for (int i : expected)
            queue.async([&order, i] { order.push_back(i); }); // a race if two ran at once
    } // destruction runs what was submitted, then joins
    EXPECT_EQ(order, expected) << "work ran out of order";
}

TEST(DispatchQueue, ThrowingWorkIsReportedAndTheQueueGoesOn) {
    test::LineCapture lines;
    DispatchQueue queue("test.throwing");
    queue.async([] { throw std::runtime_error("disk on fire"); });
    queue.sync([] { throw 42; }); // returns although the item threw
    bool ranAfter = false;
    queue.sync([&] { ranAfter = queue.isCurrent(); });
    DispatchQueue::main().async([] { throw std::logic_error("bad state"); });
    DispatchQueue::main().drain();
    EXPECT_TRUE(ranAfter) << "the queue stopped, or sync ran its work elsewhere";
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_EQ(lines.lines(),
              (std::vector<std::string>{
                  "DispatchQueue 'test.throwing': a work item threw: disk on fire",
                  "DispatchQueue 'test.throwing': a work item threw a value that is not a "
                  "std::exception",
                  "DispatchQueue 'main': a work item threw: bad state"}));
}

TEST(DispatchQueue, AsyncAfterRunsNoEarlierThanTheDelayAndOnlyOnALiveQueue) {
    DispatchQueue queue("test.delayed");
    std::atomic<bool> ran{false}, droppedRan{false};
    auto submitted = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point ranAt;
    queue.asyncAfter(30ms, [&] {
        ranAt = std::chrono::steady_clock::now();
        ran = true;
    });
    // Due first, but its queue is gone by then (unless this machine took longer to destroy it).
    auto dropDue = std::chrono::steady_clock::now() + 10ms;
    DispatchQueue("test.dropped").asyncAfter(10ms, [&] { droppedRan = true; });
    bool destroyedInTime = std::chrono::steady_clock::now() < dropDue;
    ASSERT_TRUE(test::waitUntil([&] { return ran.load(); }));
    EXPECT_GE(ranAt - submitted, 30ms);
    EXPECT_FALSE(destroyedInTime && droppedRan) << "delayed work ran after its queue was destroyed";
}

TEST(DispatchQueue, GlobalQueueRunsItemsAtTheSameTime) {
    // Each item waits for the other: on a serial queue the first would wait in vain.
    std::latch bothStarted(2);
    std::atomic<int> metTheOther{0};
    for (int i = 0; i < 2; ++i)
        DispatchQueue::global().async([&] {
            bothStarted.count_down();
            metTheOther += test::waitUntil([&] { return bothStarted.try_wait(); });
        });
    EXPECT_TRUE(test::waitUntil([&] { return metTheOther == 2; }));
}

TEST(DispatchQueueDeathTest, SyncOnItsOwnQueueIsAFatalError) {
    EXPECT_DEATH(
        {
            DispatchQueue queue("test.deadlock");
            queue.sync([&] { queue.sync([] {}); });
        },
        "Fatal error: DispatchQueue::sync\\(\\): called on queue 'test.deadlock' from that queue");
}

class MainQueue : public testing::Test {
protected:
    void SetUp() override { main.drain(); }
    void TearDown() override { main.setWakeHandler(nullptr); }
    bool readable() const {
        pollfd entry{main.wakeDescriptor(), POLLIN, 0};
        return ::poll(&entry, 1, 0) == 1;
    }
    DispatchQueue& main = DispatchQueue::main();
};

TEST_F(MainQueue, WakesItsOwnerOnEachSubmissionAndRunsOnlyWhenDrained) {
    std::atomic<int> wakes{0};
    main.setWakeHandler([&] { ++wakes; });
    EXPECT_FALSE(readable());
    bool ranOnMain = false;
    std::jthread([&] { main.async([&] { ranOnMain = DispatchQueue::main().isCurrent(); }); });
    EXPECT_EQ(wakes, 1);
    EXPECT_TRUE(readable());
    EXPECT_EQ(main.drain(), 1u);
    EXPECT_TRUE(ranOnMain);
    EXPECT_FALSE(readable()) << "a drained queue still announces work";

    // A loop that sleeps on its own events hears of delayed work when it falls due.
    main.asyncAfter(1ms, [] {});
    EXPECT_TRUE(test::waitUntil([&] { return wakes == 2 && readable(); }));
}

TEST_F(MainQueue, LoopsBlockForWorkInsteadOfPolling) {
    std::atomic<bool> done{false};
    DispatchQueue::global().asyncAfter(30ms, [&] { main.async([&] { done = true; }); });
    EXPECT_TRUE(main.drainUntil([&] { return done.load(); }, 10s));

    int asked = 0;
    EXPECT_FALSE(main.drainUntil([&] { return ++asked > 100; }, 50ms));
    EXPECT_LE(asked, 2) << "drainUntil asked its condition without any work arriving";

    main.async([] { DispatchQueue::main().async([] { stopMainLoop(); }); });
    runMainLoop(); // returns only because the work above stops it
}

TEST(DispatchGroup, NotifiesOnceEveryMemberLeft) {
    DispatchGroup group;
    DispatchQueue queue("test.group");
    std::atomic<int> finished{0}, finishedWhenNotified{-1};
    for (int i = 0; i < 3; ++i) {
        group.enter();
        queue.async([&] {
            ++finished;
            group.leave();
        });
    }
    group.notify(queue, [&] { finishedWhenNotified = finished.load(); });
    EXPECT_TRUE(group.wait(10s));
    EXPECT_TRUE(test::waitUntil([&] { return finishedWhenNotified == 3; }));
}

// A waiter may destroy the group as soon as its wait returns, while the last leave() is still on
// its way out: the sanitizers catch a leave() that touches the group after its unlock.
TEST(DispatchGroup, MayBeDestroyedAsSoonAsTheWaitReturns) {
    DispatchQueue queue("test.group");
    for (int round = 0; round < 500; ++round) {
        auto group = std::make_unique<DispatchGroup>();
        group->enter();
        queue.async([member = group.get()] { member->leave(); });
        group->wait();
        group.reset();
    }
    queue.sync([] {});
}

} // namespace
} // namespace pelkit
