#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/Error.h>
#include <pelkit/foundation/FileDescriptor.h>
#include <pelkit/foundation/Log.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <sys/eventfd.h>
#include <thread>
#include <utility>
#include <vector>

namespace pelkit {
namespace {

// Runs `body`, turning an exception into one diagnostic line: a throwing work item or wake
// handler must not take its queue's thread, or the thread that submitted, down with it.
template <class Body>
void runReporting(const std::string& label, std::string_view what, Body&& body) {
    try {
        body();
    } catch (const std::exception& error) {
        printLine("DispatchQueue '" + label + "': " + std::string(what) +
                  " threw: " + error.what());
    } catch (...) {
        printLine("DispatchQueue '" + label + "': " + std::string(what) +
                  " threw a value that is not a std::exception");
    }
}

// One thread for every queue's delayed work: at its time an item is submitted like any other, so
// it wakes the main queue's owner as `async` does.
class Timers {
public:
    static Timers& shared() {
        // Never destroyed, like its thread: delayed work may be pending while the process exits.
        static auto* timers = new Timers;
        return *timers;
    }

    void schedule(std::chrono::steady_clock::time_point due, std::function<void()> submit) {
        {
            std::lock_guard lock(mutex_);
            pending_.emplace(due, std::move(submit));
        }
        changed_.notify_one();
    }

private:
    Timers() {
        std::thread([this] { run(); }).detach();
    }

    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (pending_.empty()) {
                changed_.wait(lock);
                continue;
            }
            auto first = pending_.begin();
            if (std::chrono::steady_clock::now() < first->first) {
                changed_.wait_until(lock, first->first);
                continue;
            }
            auto submit = std::move(first->second);
            pending_.erase(first);
            lock.unlock();
            submit();
            submit = nullptr; // the work it dropped, if any, goes away without the lock
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> pending_;
};

std::atomic<bool> mainLoopStopped{false};

} // namespace

struct DispatchQueue::Impl {
    Impl(std::string label, unsigned threadCount)
        : label(std::move(label)),
          wakeFd(threadCount == 0 ? ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1) {
        for (unsigned i = 0; i < threadCount; ++i)
            threads.emplace_back([this] { runUntilStopped(); });
    }

    void stopThreads() {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        ready.notify_all();
        for (auto& thread : threads)
            thread.join();
    }

    void push(std::function<void()> item) {
        std::shared_ptr<const std::function<void()>> handler;
        {
            std::lock_guard lock(mutex);
            work.push_back(std::move(item));
            handler = wakeHandler;
        }
        ready.notify_all();
        if (wakeFd.get() >= 0) {
            const std::uint64_t one = 1;
            // Fails only when the counter is full, and then it is readable already.
            [[maybe_unused]] auto written = ::write(wakeFd.get(), &one, sizeof one);
        }
        if (handler)
            runReporting(label, "the wake handler", *handler);
    }

    // Waits until work is queued or `deadline` passes; returns whether work is queued.
    bool waitForWork(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock lock(mutex);
        return ready.wait_until(lock, deadline, [this] { return !work.empty(); });
    }

    std::size_t drainQueued() {
        // Reset the descriptor before taking the batch: work that arrives after the reset sets it
        // again, so none of it can wait unannounced.
        std::uint64_t count = 0;
        [[maybe_unused]] auto got =
            wakeFd.get() >= 0 ? ::read(wakeFd.get(), &count, sizeof count) : 0;
        std::deque<std::function<void()>> batch;
        {
            std::lock_guard lock(mutex);
            batch.swap(work);
        }
        for (auto& item : batch)
            run(item);
        return batch.size();
    }

    void run(std::function<void()>& item) {
        const Impl* outer = std::exchange(current, this);
        runReporting(label, "a work item", item);
        current = outer;
    }

    void runUntilStopped() {
        for (;;) {
            std::function<void()> item;
            {
                std::unique_lock lock(mutex);
                ready.wait(lock, [this] { return stopping || !work.empty(); });
                // Work submitted before destruction still runs; only an empty queue ends the
                // thread.
                if (work.empty())
                    return;
                item = std::move(work.front());
                work.pop_front();
            }
            run(item);
        }
    }

    static thread_local const Impl* current;

    const std::string label;
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<std::function<void()>> work;
    bool stopping = false;
    std::shared_ptr<const std::function<void()>> wakeHandler;
    FileDescriptor wakeFd;
    std::vector<std::thread> threads;
};

thread_local const DispatchQueue::Impl* DispatchQueue::Impl::current = nullptr;

DispatchQueue::DispatchQueue(std::string label) : DispatchQueue(std::move(label), 1) {}

DispatchQueue::DispatchQueue(std::string label, unsigned threadCount)
    : impl_(std::make_shared<Impl>(std::move(label), threadCount)) {}

DispatchQueue::~DispatchQueue() {
    if (isCurrent())
        fatalError("DispatchQueue::~DispatchQueue(): queue '" + impl_->label +
                   "' destroyed from its own work item");
    impl_->stopThreads();
}

DispatchQueue& DispatchQueue::main() {
    // Never destroyed: work may still be posted to it while the process exits.
    static auto* queue = new DispatchQueue("main", 0);
    return *queue;
}

DispatchQueue& DispatchQueue::global() {
    // At least two threads, so that one long item never holds up all the others.
    static auto* queue =
        new DispatchQueue("global", std::max(2u, std::thread::hardware_concurrency()));
    return *queue;
}

const std::string& DispatchQueue::label() const {
    return impl_->label;
}

void DispatchQueue::async(std::function<void()> work) {
    impl_->push(std::move(work));
}

void DispatchQueue::asyncAfter(std::chrono::steady_clock::duration delay,
                               std::function<void()> work) {
    Timers::shared().schedule(
        std::chrono::steady_clock::now() + delay,
        [queue = std::weak_ptr<Impl>(impl_), work = std::move(work)]() mutable {
            if (auto alive = queue.lock())
                alive->push(std::move(work));
        });
}

void DispatchQueue::sync(const std::function<void()>& work) {
    if (isCurrent())
        fatalError("DispatchQueue::sync(): called on queue '" + impl_->label +
                   "' from that queue, which would deadlock");
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    impl_->push([&] {
        // Set even when `work` throws (the queue reports it), or the caller would wait forever.
        struct Finish {
            std::mutex& mutex;
            std::condition_variable& done;
            bool& finished;
            ~Finish() {
                std::lock_guard lock(mutex);
                finished = true;
                done.notify_all();
            }
        } finish{mutex, done, finished};
        work();
    });
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return finished; });
}

bool DispatchQueue::isCurrent() const {
    return Impl::current == impl_.get();
}

std::size_t DispatchQueue::drain() {
    return impl_->drainQueued();
}

bool DispatchQueue::drainUntil(const std::function<bool()>& done,
                               std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        drain();
        if (done())
            return true;
        if (!impl_->waitForWork(deadline))
            return done();
    }
}

void DispatchQueue::setWakeHandler(std::function<void()> handler) {
    auto shared =
        handler ? std::make_shared<const std::function<void()>>(std::move(handler)) : nullptr;
    std::lock_guard lock(impl_->mutex);
    impl_->wakeHandler = std::move(shared);
}

int DispatchQueue::wakeDescriptor() const {
    return impl_->wakeFd.get();
}

void runMainLoop() {
    mainLoopStopped = false;
    while (!DispatchQueue::main().drainUntil([] { return mainLoopStopped.load(); },
                                             std::chrono::hours(24))) {
    }
}

void stopMainLoop() {
    mainLoopStopped = true;
    DispatchQueue::main().async([] {});
}

struct DispatchGroup::State {
    std::mutex mutex;
    std::condition_variable empty;
    long count = 0;
    std::vector<std::pair<DispatchQueue*, std::function<void()>>> notifications;
};

DispatchGroup::DispatchGroup() : state_(std::make_shared<State>()) {}
DispatchGroup::~DispatchGroup() = default;

void DispatchGroup::enter() {
    std::lock_guard lock(state_->mutex);
    ++state_->count;
}

void DispatchGroup::leave() {
    // The last leave lets a waiter return and destroy the group at once: what follows the
    // unlock must not reach it through `this`.
    const auto state = state_;
    decltype(State::notifications) due;
    {
        std::lock_guard lock(state->mutex);
        if (state->count == 0)
            fatalError("DispatchGroup::leave(): unbalanced call, the group is already empty");
        if (--state->count > 0)
            return;
        due.swap(state->notifications);
    }
    state->empty.notify_all();
    for (auto& [queue, work] : due)
        queue->async(std::move(work));
}

bool DispatchGroup::wait(std::chrono::milliseconds timeout) {
    std::unique_lock lock(state_->mutex);
    return state_->empty.wait_for(lock, timeout, [this] { return state_->count == 0; });
}

void DispatchGroup::wait() {
    std::unique_lock lock(state_->mutex);
    state_->empty.wait(lock, [this] { return state_->count == 0; });
}

void DispatchGroup::notify(DispatchQueue& queue, std::function<void()> work) {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->count > 0) {
            state_->notifications.emplace_back(&queue, std::move(work));
            return;
        }
    }
    queue.async(std::move(work));
}

} // namespace pelkit
