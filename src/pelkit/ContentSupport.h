// What the content nodes share: the framework's pictures, the placeholder, reading a picture,
// the fade that shows a video, and observing the end of an item.
#pragma once

#include <pelkit/media/Player.h>
#include <pelkit/net/Url.h>
#include <pelkit/scene/Action.h>
#include <pelkit/scene/Geometry.h>
#include <pelkit/scene/Node.h>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace pelkit::content {

/// What a content plane shows before its picture arrives.
inline constexpr scene::Color kPlaceholder{0, 0, 0, 0.7f};
/// What a play button shows while its video plays: nothing, the plane staying in place.
inline constexpr scene::Color kClear{0, 0, 0, 0};
/// How far a play button lies in front of its video plane.
inline constexpr float kPlayButtonOffset = 0.01f;

/// The framework picture `name`.png, read and decoded once per process. A missing or
/// undecodable picture is a packaging fault and stops the program.
std::shared_ptr<const image::Image> frameworkImage(std::string_view name);

/// The outcome of reading a picture: nothing when the read failed; otherwise the decoded
/// picture, or null when the bytes are no picture.
using PictureRead = std::optional<std::shared_ptr<const image::Image>>;
PictureRead readPicture(const net::Url& url);

/// The plane of a picture node: `width` x `height`, showing the placeholder.
std::shared_ptr<scene::Plane> placeholderPlane(double width, double height);
/// Shows a read picture on `plane`: the picture, or nothing when the bytes were no picture.
void showPicture(scene::Plane& plane, const std::shared_ptr<const image::Image>& picture);

/// A child of `parent` carrying a square plane, half the smaller of `width` and `height` on a
/// side, showing the "play" picture, `kPlayButtonOffset` in front of `parent`.
std::shared_ptr<scene::Plane> addPlayButton(scene::Node& parent, double width, double height);

/// Shows the "play" picture on a play button, or clears it while its video plays.
void showPlayButton(scene::Plane& button, bool visible);

/// Shows a hidden video: fade out at once, unhide, fade in over 1 s.
scene::ActionPtr fadeInFromHidden();

/// A tap on an in-scene video, by the player's status: pause and show the play button; play,
/// clear the button and fade the video in when it is hidden; nothing while the player waits.
/// `Video` is the node or sprite that shows the video.
template <class Video>
void togglePlayback(media::Player& player, Video& video, scene::Plane& playButton) {
    switch (player.timeControlStatus()) {
    case media::TimeControlStatus::playing:
        player.pause();
        showPlayButton(playButton, true);
        break;
    case media::TimeControlStatus::waitingToPlayAtSpecifiedRate:
        break;
    case media::TimeControlStatus::paused:
        player.play();
        showPlayButton(playButton, false);
        if (video.isHidden())
            video.runAction(fadeInFromHidden());
        break;
    }
}

/// The end of an in-scene video, and a stop: rewind, hide the video, show the play button. A
/// stop pauses first.
enum class Rewind { atEnd, stop };
template <class Video>
void rewind(Rewind why, media::Player& player, Video& video, scene::Plane& playButton) {
    if (why == Rewind::stop)
        player.pause();
    player.seekToZero();
    video.setHidden(true);
    showPlayButton(playButton, true);
}

/// Calls `onEnd` on the item's thread each time `item` plays to its end. The registration is
/// never removed.
void observeEnd(const std::shared_ptr<media::PlayerItem>& item, std::function<void()> onEnd);

/// `value`, or a stop naming a value that must be present.
template <class T> T& required(const std::shared_ptr<T>& value) {
    if (!value)
        fatalError("Unexpectedly found nil while unwrapping an Optional value");
    return *value;
}

} // namespace pelkit::content
