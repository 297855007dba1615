// What an item shares between its owners (the PlayerItem and its player) and its own thread.
#pragma once

#include "SharedSlot.h"

#include <pelkit/media/Player.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace pelkit::media {

/// What the item's owners ask of its thread; the thread works from a snapshot.
struct ItemCommands {
    bool playing = false;
    std::uint64_t seeks = 0; ///< seek-to-zero requests so far

    friend bool operator==(const ItemCommands&, const ItemCommands&) = default;
};

struct PlayerItem::Core {
    explicit Core(std::string url) : url(std::move(url)) {}

    const std::string url;
    std::weak_ptr<PlayerItem> item; ///< set at creation; the end notification's object
    std::atomic<bool> cancelled{false};
    std::atomic<Status> status{Status::unknown};
    SharedSlot<const image::Image> frame; ///< the latest picture shown
    std::thread thread; ///< touched only by the PlayerItem's creation and destruction
    /// Who is done first: the thread (finished) or the PlayerItem (stopping the thread).
    enum class Exit { running, finished, stopping };
    std::atomic<Exit> exit{Exit::running};

    /// Runs on the item's thread when it reaches its end, before the notification; the owning
    /// player sets its rate to 0 there. It must leave `playing` false unless it plays again.
    using EndHook = std::function<void(Core&)>;

    // The owners' side.
    void attach(const void* owner, EndHook hook, bool playing);
    void detach();
    const void* owner() const;
    void setPlaying(bool playing);
    void requestSeekToZero();
    void cancel();
    ErrorPtr error() const;

    // The thread's side.
    ItemCommands commands() const;
    /// Returns when the commands differ from `applied`, the item is cancelled, or `deadline`
    /// passes.
    void waitForChange(const ItemCommands& applied,
                       std::optional<std::chrono::steady_clock::time_point> deadline);
    void fail(ErrorPtr error);
    /// Stops playing (through the end hook) and posts the end notification, holding no lock.
    void reachEnd();

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    ItemCommands commands_;
    ErrorPtr error_;
    const void* owner_ = nullptr;
    EndHook endHook_;
};

/// The body of an item's thread: opens the URL, then plays as commanded until cancelled or
/// failed.
void runItem(PlayerItem::Core& core);

} // namespace pelkit::media
