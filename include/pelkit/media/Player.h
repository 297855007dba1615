// Players of video and sound from file and http(s) URLs. Thread-safe: any thread may call any
// operation; each item decodes on a thread of its own, so no call blocks on decoding or on the
// network.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/scene/VideoFrameSource.h>

#include <memory>
#include <string>

namespace pelkit::media {

/// Posted through `NotificationCenter::defaultCenter()` when an item has played to its end, with
/// the `PlayerItem` as object. It comes on the item's own thread, with no lock of the player held,
/// so an observer may take its own locks and call the player back (rewind it, play it again).
inline constexpr const char* kPlayerItemDidPlayToEndTime = "PlayerItemDidPlayToEndTime";

/// Whether an item (and a player, through its current item) can play.
enum class Status {
    unknown,     ///< still opening, or no item
    readyToPlay, ///< opened, and its first frame decoded
    failed,      ///< cannot be opened or decoded; `error()` says why
};

/// What a player is doing about its rate.
enum class TimeControlStatus {
    paused = 0,                       ///< the rate is 0
    waitingToPlayAtSpecifiedRate = 1, ///< asked to play, but no item is ready to play
    playing = 2,
};

/// One piece of media at a URL: "file:///absolute/path" (percent-escapes decoded), "http://..."
/// or "https://..." (certificates verified against the system's trust store). Creating an item
/// starts opening its URL on the item's own thread.
///
///     auto item = media::PlayerItem::create("file:///srv/media/intro.mp4");
class PlayerItem {
public:
    static std::shared_ptr<PlayerItem> create(std::string url);
    /// Stops the item's thread without waiting for it: blocking I/O is interrupted and the thread
    /// releases the decoder and the audio device on its way out.
    ~PlayerItem();
    PlayerItem(const PlayerItem&) = delete;
    PlayerItem& operator=(const PlayerItem&) = delete;

    const std::string& url() const;
    Status status() const;
    /// Why the item failed (naming the FFmpeg or SDL call and its message); null otherwise.
    ErrorPtr error() const;

    struct Core;

private:
    explicit PlayerItem(std::string url);
    std::shared_ptr<Core> core_;
    friend class Player;
};

/// Plays one item at a time. Sound goes to the default audio device and sets the clock that the
/// pictures follow; without sound, the pictures follow the steady clock. A player is a video
/// frame source, so a material or a video sprite shows its pictures: the renderer takes the
/// latest picture without a mutex and without waiting on decoding.
///
///     auto player = std::make_shared<media::Player>();
///     player->replaceCurrentItem(media::PlayerItem::create(url));
///     player->play();                       // plays once the item is ready
///     material->setDiffuseContents(std::shared_ptr<scene::VideoFrameSource>(player));
class Player final : public scene::VideoFrameSource {
public:
    Player();
    /// Drops the current item (see `~PlayerItem`); returns at once.
    ~Player() override;
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    std::shared_ptr<PlayerItem> currentItem() const;
    /// Makes `item` (or nothing) current. The previous item stops; the new one plays as soon as
    /// it is ready if the rate is not 0. An item belongs to one player at most: giving one player
    /// another player's item is a fatal error.
    void replaceCurrentItem(std::shared_ptr<PlayerItem> item);

    /// Sets the rate to 1: plays from the current position. At the end of the item the rate
    /// returns to 0 and the item stays at its end until `seekToZero()`.
    void play();
    /// Sets the rate to 0; the position and the picture shown are kept.
    void pause();
    /// Moves the current item back to its start and shows its first picture, without changing
    /// the rate.
    void seekToZero();

    float rate() const;
    TimeControlStatus timeControlStatus() const;
    /// The current item's status; `unknown` without an item.
    Status status() const;
    /// The current item's error; null without an item or failure.
    ErrorPtr error() const;

    /// The current item's latest picture, or null before it has one. Takes no mutex: a pointer
    /// copy under a spin lock. A new picture is a new object, and its pixels return to the
    /// item's buffer pool when the last holder lets go.
    std::shared_ptr<const image::Image> currentFrame() const override;

    struct State;

private:
    std::shared_ptr<State> state_;
};

} // namespace pelkit::media
