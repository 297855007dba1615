// Green-screen content: a video filmed against green, keyed out so that only its subject shows.
#pragma once

#include <pelkit/PELNode.h>
#include <pelkit/media/Player.h>
#include <pelkit/scene/Geometry.h>

#include <mutex>

namespace pelkit {

/// Children, in order: the play button (half the content's smaller side, 0.01 in front of the
/// node) and the video node, hidden, which gets a plane of the content's size keyed by a
/// `ChromaKeyMaterial` (pure green, threshold 0.5, smoothing 0.001, the player as its contents)
/// once the address is known. The configuration's key colour is not used. A tap plays (fading
/// the video in over 1 s when hidden) or pauses; at its end the video rewinds, hides and shows
/// the play button again.
class PELGreenScreenNode : public PELNode {
public:
    /// `loop` is accepted and ignored: videos never loop.
    PELGreenScreenNode(std::string appKey, std::string targetId, std::string contentId, bool loop,
                       double width, double height, std::optional<net::Url> filePath, double x,
                       double y);

    const std::shared_ptr<media::Player>& player() const { return player_; }
    std::optional<net::Url> videoUrl() const;
    std::shared_ptr<scene::Plane> playButtonPlane() const { return playButtonPlane_; }
    std::shared_ptr<scene::Node> videoNode() const { return videoNode_; }

    /// Remembers the address; the first call also loads the video into the player and builds
    /// the keyed plane. Later calls change the address only.
    void presentContent(const net::Url& url) override;
    /// A tap: play or pause, by the player's status (also while it has no item yet).
    void toggleVideoStatus();
    /// Pauses, rewinds, hides the video and shows the play button.
    void stop();

private:
    std::shared_ptr<media::Player> player_;
    mutable std::mutex mutex_;
    std::optional<net::Url> videoUrl_;
    std::shared_ptr<scene::Plane> playButtonPlane_;
    std::shared_ptr<scene::Node> videoNode_;
};

} // namespace pelkit
