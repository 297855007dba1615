#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/Error.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace pelkit {

class DispatchQueue::Impl {
public:
    explicit Impl(std::string label) : label_(std::move(label)) {}

    void startThread() {
        thread_ = std::thread([this] { runUntilStopped(); });
    }

    void stopThread() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        ready_.notify_all();
        if (thread_.joinable())
            thread_.join();
    }

    void push(std::function<void()> work) {
        {
            std::lock_guard lock(mutex_);
            work_.push_back(std::move(work));
        }
        ready_.notify_all();
    }

    // Runs one item if one is queued, or waits for one until `deadline`.
    bool runOne(std::chrono::steady_clock::time_point deadline) {
        std::function<void()> item;
        {
            std::unique_lock lock(mutex_);
            if (!ready_.wait_until(lock, deadline, [this] { return !work_.empty(); }))
                return false;
            item = std::move(work_.front());
            work_.pop_front();
        }
        run(item);
        return true;
    }

    std::size_t drainQueued() {
        std::deque<std::function<void()>> batch;
        {
            std::lock_guard lock(mutex_);
            batch.swap(work_);
        }
        for (auto& item : batch)
            run(item);
        return batch.size();
    }

    void wake() { ready_.notify_all(); }

    bool isCurrent() const { return current == this; }
    const std::string& label() const { return label_; }

private:
    void run(std::function<void()>& item) {
        const Impl* outer = std::exchange(current, this);
        item();
        current = outer;
    }

    void runUntilStopped() {
        for (;;) {
            std::function<void()> item;
            {
                std::unique_lock lock(mutex_);
                ready_.wait(lock, [this] { return stopping_ || !work_.empty(); });
                // Work submitted before destruction still runs; only an empty queue ends the
                // thread.
                if (work_.empty())
                    return;
                item = std::move(work_.front());
                work_.pop_front();
            }
            run(item);
        }
    }

    static thread_local const Impl* current;

    std::string label_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> work_;
    bool stopping_ = false;
    std::thread thread_;
};

thread_local const DispatchQueue::Impl* DispatchQueue::Impl::current = nullptr;

DispatchQueue::DispatchQueue(std::string label) : impl_(std::make_unique<Impl>(std::move(label))) {
    impl_->startThread();
}

DispatchQueue::DispatchQueue(std::string label, ManualTag)
    : impl_(std::make_unique<Impl>(std::move(label))) {}

DispatchQueue::~DispatchQueue() {
    if (impl_->isCurrent())
        fatalError("DispatchQueue::~DispatchQueue(): queue '" + impl_->label() +
                   "' destroyed from its own work item");
    impl_->stopThread();
}

DispatchQueue& DispatchQueue::main() {
    // Never destroyed: work may still be posted to it while the process exits.
    static auto* queue = new DispatchQueue("main", ManualTag{});
    return *queue;
}

const std::string& DispatchQueue::label() const {
    return impl_->label();
}

void DispatchQueue::async(std::function<void()> work) {
    impl_->push(std::move(work));
}

void DispatchQueue::sync(const std::function<void()>& work) {
    if (impl_->isCurrent())
        fatalError("DispatchQueue::sync(): called on queue '" + impl_->label() +
                   "' from that queue, which would deadlock");
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    impl_->push([&] {
        work();
        std::lock_guard lock(mutex);
        finished = true;
        done.notify_all();
    });
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return finished; });
}

bool DispatchQueue::isCurrent() const {
    return impl_->isCurrent();
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
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        // Wake at least every few milliseconds: `done` may turn true without new work arriving.
        impl_->runOne(
            std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(5)));
    }
}

namespace {
std::atomic<bool> mainLoopStopped{false};
}

void runMainLoop() {
    mainLoopStopped = false;
    while (!mainLoopStopped) {
        DispatchQueue::main().drainUntil([] { return mainLoopStopped.load(); },
                                         std::chrono::hours(24));
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
    decltype(State::notifications) due;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->count == 0)
            fatalError("DispatchGroup::leave(): unbalanced call, the group is already empty");
        if (--state_->count > 0)
            return;
        due.swap(state_->notifications);
    }
    state_->empty.notify_all();
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
