// Dispatch queues (serial ones, the main queue, the concurrent global queue) and dispatch groups.
// All operations are thread-safe.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace pelkit {

/// A serial queue: work items run one at a time, in the order they were submitted.
///
///     DispatchQueue queue("net.completions");
///     queue.async([] { printLine("on the queue"); });
///
/// A queue made with its constructor runs its work on a thread of its own; destroying it runs the
/// work already submitted, then joins that thread. The main queue has no thread: whoever owns the
/// main thread drains it (`runMainLoop()`, a UI loop woken through `setWakeHandler` or
/// `wakeDescriptor`, or `drain()` in tests). A work item that throws is reported in one diagnostic
/// line naming the queue and the exception; the queue goes on with the next item.
class DispatchQueue {
public:
    explicit DispatchQueue(std::string label);
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    /// The process's main queue, drained by the thread that runs the main loop.
    static DispatchQueue& main();
    /// The process's concurrent queue: a few threads run its items, several at once, in no set
    /// order. For long work that must not hold up the main queue or the HTTP queues.
    static DispatchQueue& global();

    const std::string& label() const;

    void async(std::function<void()> work);
    /// Submits `work` once `delay` has passed. A queue destroyed before then drops it.
    void asyncAfter(std::chrono::steady_clock::duration delay, std::function<void()> work);
    /// Runs `work` on the queue and waits for it. Calling it from the queue itself deadlocks, so
    /// that is a fatal error.
    void sync(const std::function<void()>& work);
    /// True while the calling code runs as a work item of this queue.
    bool isCurrent() const;

    /// Runs the work items queued so far on the calling thread; returns how many ran. Only for the
    /// main queue, as are the operations below.
    std::size_t drain();
    /// Like `drain()`, but blocks for work as it arrives until `done()` holds or `timeout` passes;
    /// returns whether `done()` held. `done()` is asked after each batch of work, so a condition
    /// that other threads change must be announced by submitting work (an empty item will do).
    bool drainUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
    /// Called on the submitting thread after each submission, with no lock held, so that a UI
    /// loop blocked on its own events can wake up and `drain()`. Empty removes it.
    void setWakeHandler(std::function<void()> handler);
    /// An eventfd that polls readable from a submission until the next `drain()`, for loops that
    /// wait in poll(2). Owned by the queue.
    int wakeDescriptor() const;

private:
    struct Impl;
    // Zero threads: drained by its owner, as the main queue is.
    DispatchQueue(std::string label, unsigned threadCount);
    std::shared_ptr<Impl> impl_;
};

/// Runs the main queue on the calling thread until `stopMainLoop()` is called.
void runMainLoop();
void stopMainLoop();

/// Tracks a set of work items: `enter()` before each, `leave()` after; `wait` and `notify` fire
/// when the count returns to zero.
class DispatchGroup {
public:
    DispatchGroup();
    ~DispatchGroup();
    DispatchGroup(const DispatchGroup&) = delete;
    DispatchGroup& operator=(const DispatchGroup&) = delete;

    void enter();
    void leave();
    /// Returns false if the timeout passed before the group emptied.
    bool wait(std::chrono::milliseconds timeout);
    void wait();
    /// Submits `work` to `queue` once the group is empty (at once if it is empty now).
    void notify(DispatchQueue& queue, std::function<void()> work);

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace pelkit
