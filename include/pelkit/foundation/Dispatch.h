// Serial dispatch queues, the main queue and dispatch groups. All operations are thread-safe.
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
/// main thread drains it (`runMainLoop()`, or `drain()` in tests).
class DispatchQueue {
public:
    explicit DispatchQueue(std::string label);
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    /// The process's main queue, drained by the thread that runs the main loop.
    static DispatchQueue& main();

    const std::string& label() const;

    void async(std::function<void()> work);
    /// Runs `work` on the queue and waits for it. Calling it from the queue itself deadlocks, so
    /// that is a fatal error.
    void sync(const std::function<void()>& work);
    /// True while the calling code runs as a work item of this queue.
    bool isCurrent() const;

    /// Runs the work items queued so far on the calling thread; returns how many ran. Only for a
    /// queue without a thread of its own (the main queue).
    std::size_t drain();
    /// Like `drain()`, but keeps running work as it arrives until `done()` holds or `timeout`
    /// passes; returns whether `done()` held.
    bool drainUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    class Impl;

private:
    struct ManualTag {};
    DispatchQueue(std::string label, ManualTag);
    std::unique_ptr<Impl> impl_;
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
