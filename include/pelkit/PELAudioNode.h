// Audio content: a play/pause button lying on the recognised image.
#pragma once

#include <pelkit/PELNode.h>
#include <pelkit/foundation/NotificationCenter.h>
#include <pelkit/media/Player.h>
#include <pelkit/scene/Scene2D.h>

namespace pelkit {

/// A transparent plane of the content's size showing a 600x600 2D scene with one button sprite
/// in its middle. A tap (`toggleAudioPlaying`) plays or pauses and swaps the button between
/// "play" and "pause"; at the end of the sound the button returns to "play" and the sound
/// rewinds. When the audio session cannot be set up the node prints why and has no player: it
/// still shows its button, and a tap on it then stops the program.
class PELAudioNode : public PELNode {
public:
    PELAudioNode(std::string appKey, std::string targetId, std::string contentId, double width,
                 double height, std::optional<net::Url> filePath, double x, double y);

    /// Null when the audio session could not be set up.
    const std::shared_ptr<media::Player>& player() const { return player_; }
    const std::shared_ptr<scene::Sprite>& playButton() const { return playButton_; }
    const std::shared_ptr<scene::Scene2D>& scene() const { return scene_; }

    /// Makes an item for `url`, observes its end and, with a player, makes it current (without
    /// playing). Each call does so again.
    void presentContent(const net::Url& url) override;
    /// Pauses the player.
    void stop();
    /// A tap: nothing without an item; pause when playing; play when the item is ready.
    void toggleAudioPlaying();
    /// The end of an item: "play" button, sound rewound.
    void playerDidFinishPlaying(const Notification& note);
    /// Shows the "play" button. Kept for audio players that report their end this way; the
    /// framework's own players report it through `playerDidFinishPlaying`.
    void audioPlayerDidFinishPlaying(bool successfully);

    /// The framework picture `name`.png as a texture; missing or undecodable stops the program.
    static std::shared_ptr<const image::Image> initTextureNamed(std::string_view name);

private:
    void initAudioPlayer();

    std::shared_ptr<media::Player> player_;
    std::shared_ptr<scene::Sprite> playButton_;
    std::shared_ptr<scene::Scene2D> scene_;
};

} // namespace pelkit
