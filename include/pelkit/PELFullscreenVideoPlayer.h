// Plays a video full screen over whatever the host application shows. Main thread only.
#pragma once

#include <pelkit/media/Player.h>
#include <pelkit/net/Url.h>
#include <pelkit/ui/PlayerViewController.h>

#include <memory>

namespace pelkit {

/// The process's one full-screen player: one player screen and one player, reused for every
/// video. Each call replaces the current item, so the previous video stops at once; the user
/// closes the screen with its own control, and the player keeps its last item afterwards.
///
///     PELFullscreenVideoPlayer::shared().playVideo(*net::Url::parse("https://example.com/a.mp4"));
class PELFullscreenVideoPlayer {
public:
    /// Made on first use, once, whichever thread gets there first.
    static PELFullscreenVideoPlayer& shared();

    /// Plays `url` full screen on the key window's visible view controller. When that is the
    /// player screen already, the video switches in place; otherwise the screen is presented,
    /// animated, and playback starts once it has arrived. Without a key window, a root view
    /// controller or a visible view controller, nothing happens.
    void playVideo(const net::Url& url);

    const std::shared_ptr<ui::PlayerViewController>& playerViewController() const {
        return playerViewController_;
    }
    const std::shared_ptr<media::Player>& player() const { return player_; }

private:
    PELFullscreenVideoPlayer();
    void startNewVideo(ui::ViewController& topViewController, const net::Url& url);

    std::shared_ptr<ui::PlayerViewController> playerViewController_;
    std::shared_ptr<media::Player> player_;
};

} // namespace pelkit
