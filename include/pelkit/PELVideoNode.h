// Video content: a video on a plane lying on the recognised image, with a play button over it.
#pragma once

#include <pelkit/PELNode.h>
#include <pelkit/media/Player.h>
#include <pelkit/scene/Geometry.h>
#include <pelkit/scene/Scene2D.h>

#include <mutex>

namespace pelkit {

/// The plane shows a 1280x720 2D scene holding the video sprite (hidden until the first play);
/// a child node 0.01 in front of it carries the square play button, half the content's smaller
/// side. A tap (`toggleVideoStatus`) plays or pauses in the scene, or for full-screen content
/// hands the video to `PELFullscreenVideoPlayer`. At its end the video rewinds, hides and shows
/// the play button again; it does not loop.
///
///     auto video = PELNode::create<PELVideoNode>(appKey, targetId, contentId, false, false,
///                                                0.3, 0.2, url, 0, 0);
///     video->toggleVideoStatus();   // on the UI thread, after the URL is known
class PELVideoNode : public PELNode {
public:
    /// `loop` is accepted and ignored: videos never loop.
    PELVideoNode(std::string appKey, std::string targetId, std::string contentId, bool loop,
                 bool isFullscreen, double width, double height, std::optional<net::Url> filePath,
                 double x, double y);

    const std::shared_ptr<media::Player>& player() const { return player_; }
    bool isFullscreen() const { return isFullscreen_; }
    /// Absent until the content's address is known.
    std::optional<net::Url> videoUrl() const;
    std::shared_ptr<scene::Plane> playButtonPlane() const { return playButtonPlane_; }
    std::shared_ptr<scene::VideoSprite> videoNode() const { return videoNode_; }

    /// Only remembers the address; nothing loads before the first tap.
    void presentContent(const net::Url& url) override;
    /// A tap: nothing before the URL is known; full screen for full-screen content; otherwise
    /// play (fading the video in over 1 s when it is hidden) or pause. A tap while the player
    /// waits for its item does nothing.
    void toggleVideoStatus();
    /// Pauses, rewinds, hides the video and shows the play button.
    void stop();

private:
    void registerVideoObserver();
    std::shared_ptr<media::Player> player_;
    bool isFullscreen_ = false;
    mutable std::mutex mutex_;
    std::optional<net::Url> videoUrl_;
    std::shared_ptr<scene::Plane> playButtonPlane_;
    std::shared_ptr<scene::VideoSprite> videoNode_;
};

} // namespace pelkit
