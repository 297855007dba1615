#include <pelkit/foundation/Dispatch.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace pelkit {
namespace {

TEST(DispatchQueue, RunsWorkOneAtATimeInSubmissionOrder) {
    std::vector<int> order;
    std::atomic<int> running{0};
    bool overlapped = false;
    {
        DispatchQueue queue("test.serial");
        for (int i = 0; i < 1000; ++i)
            queue.async([&, i] {
                if (running.fetch_add(1) != 0)
                    overlapped = true;
                order.push_back(i);
                running.fetch_sub(1);
            });
    } // destruction runs what was submitted, then joins
    ASSERT_EQ(order.size(), 1000u);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(order[static_cast<std::size_t>(i)], i) << "work ran out of order";
    EXPECT_FALSE(overlapped) << "a serial queue ran two items at once";
}

TEST(DispatchQueue, KnowsWhetherTheCallerRunsOnIt) {
    DispatchQueue queue("test.current");
    DispatchQueue other("test.other");
    bool onQueue = false, onOther = true;
    queue.sync([&] {
        onQueue = queue.isCurrent();
        onOther = other.isCurrent();
    });
    EXPECT_TRUE(onQueue);
    EXPECT_FALSE(onOther);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(DispatchQueue, SyncFromManyThreadsSeesEveryEarlierItemDone) {
    DispatchQueue queue("test.sync");
    int counter = 0; // touched only on the queue
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i)
                queue.sync([&] { ++counter; });
        });
    for (auto& thread : threads)
        thread.join();
    int seen = 0;
    queue.sync([&] { seen = counter; });
    EXPECT_EQ(seen, 400);
}

TEST(DispatchQueueDeathTest, SyncOnItsOwnQueueIsAFatalError) {
    EXPECT_DEATH(
        {
            DispatchQueue queue("test.deadlock");
            queue.sync([&] { queue.sync([] {}); });
        },
        "Fatal error: DispatchQueue::sync\\(\\): called on queue 'test.deadlock' from that queue");
}

TEST(MainQueue, RunsOnlyWhenDrainedAndOnTheDrainingThread) {
    auto& main = DispatchQueue::main();
    main.drain();
    std::atomic<bool> ran{false};
    bool wasCurrent = false;
    std::thread poster([&] {
        main.async([&] {
            wasCurrent = DispatchQueue::main().isCurrent();
            ran = true;
        });
    });
    poster.join();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(ran) << "the main queue ran work without being drained";
    EXPECT_EQ(main.drain(), 1u);
    EXPECT_TRUE(ran);
    EXPECT_TRUE(wasCurrent);
}

TEST(MainQueue, DrainUntilRunsWorkArrivingLater) {
    auto& main = DispatchQueue::main();
    std::atomic<int> done{0};
    DispatchQueue worker("test.worker");
    worker.async([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        DispatchQueue::main().async([&] { done = 1; });
    });
    EXPECT_TRUE(main.drainUntil([&] { return done == 1; }, std::chrono::seconds(10)));
    EXPECT_FALSE(main.drainUntil([] { return false; }, std::chrono::milliseconds(10)));
}

TEST(MainQueue, RunMainLoopStopsWhenAskedFromWork) {
    DispatchQueue::main().async([] { DispatchQueue::main().async([] { stopMainLoop(); }); });
    runMainLoop(); // returns only because the work above stops it
    SUCCEED();
}

TEST(DispatchGroup, NotifiesOnceEveryMemberLeft) {
    DispatchGroup group;
    DispatchQueue queue("test.group");
    std::atomic<int> finished{0};
    std::atomic<int> finishedWhenNotified{-1};
    for (int i = 0; i < 3; ++i) {
        group.enter();
        queue.async([&] {
            ++finished;
            group.leave();
        });
    }
    group.notify(queue, [&] { finishedWhenNotified = finished.load(); });
    EXPECT_TRUE(group.wait(std::chrono::seconds(10)));
    ASSERT_TRUE(test::waitUntil([&] { return finishedWhenNotified != -1; }));
    EXPECT_EQ(finishedWhenNotified, 3);

    DispatchGroup busy;
    busy.enter();
    EXPECT_FALSE(busy.wait(std::chrono::milliseconds(10)));
    busy.leave();
}

} // namespace
} // namespace pelkit
