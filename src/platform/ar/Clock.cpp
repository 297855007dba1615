#include <pelkit/ar/Clock.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace pelkit::ar {

Clock::~Clock() = default;

namespace {

class SteadyClock final : public Clock {
public:
    double now() const override {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    bool waitUntil(double time, std::stop_token stop) override {
        auto deadline = std::chrono::steady_clock::time_point(
            std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                std::chrono::duration<double>(time)));
        std::unique_lock lock(mutex_);
        // Nothing notifies the variable: it only sleeps until the deadline or the stop request.
        wake_.wait_until(lock, stop, deadline, [] { return false; });
        return !stop.stop_requested();
    }

private:
    std::mutex mutex_;
    std::condition_variable_any wake_;
};

class FastForwardClock final : public Clock {
public:
    double now() const override {
        std::lock_guard lock(mutex_);
        return time_;
    }

    bool waitUntil(double time, std::stop_token stop) override {
        std::lock_guard lock(mutex_);
        time_ = std::max(time_, time);
        return !stop.stop_requested();
    }

private:
    mutable std::mutex mutex_;
    double time_ = 0;
};

} // namespace

std::shared_ptr<Clock> Clock::steady() {
    static const auto clock = std::make_shared<SteadyClock>();
    return clock;
}

std::shared_ptr<Clock> Clock::fastForward() {
    return std::make_shared<FastForwardClock>();
}

struct SteppedClock::State {
    mutable std::mutex mutex;
    std::condition_variable_any advanced;
    double time = 0;
};

SteppedClock::SteppedClock() : state_(std::make_unique<State>()) {}
SteppedClock::~SteppedClock() = default;

double SteppedClock::now() const {
    std::lock_guard lock(state_->mutex);
    return state_->time;
}

bool SteppedClock::waitUntil(double time, std::stop_token stop) {
    std::unique_lock lock(state_->mutex);
    return state_->advanced.wait(lock, stop, [&] { return state_->time >= time; });
}

void SteppedClock::advance(double seconds) {
    {
        std::lock_guard lock(state_->mutex);
        state_->time += std::max(seconds, 0.0);
    }
    state_->advanced.notify_all();
}

} // namespace pelkit::ar
