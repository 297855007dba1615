// The clocks that pace an AR session's recorded frames and time its scene's actions. Thread-safe.
#pragma once

#include <memory>
#include <stop_token>

namespace pelkit::ar {

/// A source of time in seconds. A session waits on it before it shows a recorded frame (one
/// from a file or a script) whose time has not come, and the scene view advances the scene's
/// actions to it. Live cameras bring their own pace; their frames are only stamped with it.
class Clock {
public:
    virtual ~Clock();

    /// Seconds since an origin of the clock's choosing; never decreasing.
    virtual double now() const = 0;
    /// Blocks until `now() >= time` or `stop` is requested; returns whether the time came.
    virtual bool waitUntil(double time, std::stop_token stop) = 0;

    /// The steady clock of the machine: recorded frames play at their own speed.
    static std::shared_ptr<Clock> steady();
    /// A clock that is always already at the time it is asked to wait for, so a recorded run
    /// goes as fast as its frames can be tracked and drawn, and its scene's actions still run at
    /// the frames' own times. For headless runs that write a video.
    static std::shared_ptr<Clock> fastForward();
};

/// A clock that moves only when told to, so that a test decides which frame comes next.
///
///     auto clock = std::make_shared<ar::SteppedClock>();
///     feed.clock = clock;
///     ...
///     clock->advance(1.0 / 30);   // lets the next frame of a 30 fps script through
class SteppedClock final : public Clock {
public:
    SteppedClock();
    ~SteppedClock() override;

    double now() const override;
    bool waitUntil(double time, std::stop_token stop) override;

    /// Moves the time on by `seconds` (negative values are ignored) and wakes the waiters.
    void advance(double seconds);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace pelkit::ar
