// Shared set-up of the media tests: sound through SDL's dummy driver, fixture URLs, colours of
// decoded pictures, and observers of the end of an item.
#pragma once

#include "Pixels.h"
#include "TestSupport.h"

#include <pelkit/foundation/NotificationCenter.h>
#include <pelkit/media/Player.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace pelkit::test {

/// The file URL of a media fixture (see scripts/make-media-fixtures).
inline std::string mediaFixtureUrl(const std::string& name) {
    return "file://" + (fixturesDirectory() / "media" / name).string();
}

struct Point {
    int x = 0, y = 0;
};

inline Rgb colourAt(const image::Image& frame, Point at) {
    return rgbAt(frame, at.x, at.y);
}

/// Colours within YUV rounding of each other.
inline bool near(const Rgb& a, const Rgb& b) {
    constexpr int tolerance = 4;
    return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
           std::abs(a.b - b.b) <= tolerance;
}

/// Records the end notifications of one item, and does what a content node does when its item
/// ends: from the posting thread, it reads the player, rewinds it and pauses it. A player lock
/// held while posting would deadlock here.
class EndObserver {
public:
    EndObserver(const std::shared_ptr<media::Player>& player,
                const std::shared_ptr<media::PlayerItem>& item)
        : record_(std::make_shared<Record>()) {
        id_ = NotificationCenter::defaultCenter().addObserver(
            media::kPlayerItemDidPlayToEndTime, item.get(),
            [record = record_, weak = std::weak_ptr(player)](const Notification& notification) {
                auto player = weak.lock();
                if (!player)
                    return;
                auto frame = player->currentFrame();
                auto status = player->timeControlStatus();
                player->seekToZero();
                player->pause();
                std::lock_guard lock(record->mutex);
                ++record->count;
                record->object = notification.object;
                record->thread = std::this_thread::get_id();
                record->frame = std::move(frame);
                record->status = status;
            });
    }
    ~EndObserver() { NotificationCenter::defaultCenter().removeObserver(id_); }
    EndObserver(const EndObserver&) = delete;
    EndObserver& operator=(const EndObserver&) = delete;

    struct Seen {
        int count = 0;
        const void* object = nullptr;
        std::thread::id thread;
        std::shared_ptr<const image::Image> frame; ///< the player's picture when the end came
        media::TimeControlStatus status = media::TimeControlStatus::paused;
    };
    Seen seen() const {
        std::lock_guard lock(record_->mutex);
        return *record_;
    }
    bool ended() const { return seen().count > 0; }

private:
    struct Record : Seen {
        std::mutex mutex;
    };
    std::shared_ptr<Record> record_;
    NotificationCenter::ObserverId id_ = 0;
};

} // namespace pelkit::test
