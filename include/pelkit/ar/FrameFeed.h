// Which camera an AR session looks through, and the process-wide default that a scene view made
// without one uses. Thread-safe.
#pragma once

#include <pelkit/ar/Clock.h>
#include <pelkit/ar/FrameSource.h>

#include <functional>
#include <memory>
#include <string_view>

namespace pelkit::ar {

/// How a source's frames are timed.
enum class SourceKind {
    /// A live camera: each frame is shown when it comes, new images are recognised in the
    /// background so tracked ones keep moving, and a camera that goes quiet interrupts the
    /// session.
    camera,
    /// A file or a script: each frame is shown when the clock reaches its time, and recognition
    /// runs with every frame, so the same recording gives the same anchors on every run.
    recording,
};

/// A session's camera: how to open its source (a session opens its own on every run), what
/// kind it is, and the clock that paces it.
struct FrameFeed {
    std::function<std::unique_ptr<FrameSource>()> makeSource;
    SourceKind kind = SourceKind::camera;
    /// Null for the machine's steady clock.
    std::shared_ptr<Clock> clock;

    /// The feed that `description` names: "/dev/videoN" (a camera), "video:FILE" or
    /// "script:FILE". Any other text gives a feed whose source fails to start with an error
    /// that quotes it, so a session reports it as a camera failure.
    static FrameFeed fromDescription(std::string_view description);
};

/// Sets the feed that scene views made without one use; a host sets it before it makes its
/// first view (a test hands in a script and a stepped clock this way). A feed without a source
/// restores the built-in default, the camera /dev/video0.
void setDefaultFrameFeed(FrameFeed feed);

/// The feed for a new scene view: the one named by the environment variable PELKIT_CAMERA when
/// it is set and not empty (keeping the default clock), else the one set by
/// `setDefaultFrameFeed`, else the camera /dev/video0.
FrameFeed defaultFrameFeed();

} // namespace pelkit::ar
