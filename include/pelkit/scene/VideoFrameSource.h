// The producer of video frames that a material or a video sprite shows. Implemented by the media
// module's players; called by the renderer on its own thread, without the scene lock.
#pragma once

#include <pelkit/image/Image.h>

#include <memory>

namespace pelkit::scene {

/// Something that has a latest video frame to show. Implementations must be thread-safe: the
/// renderer asks for frames on its thread while playback runs on another. The renderer reads the
/// scene under the scene lock and calls `currentFrame()` only after releasing it, so a source may
/// publish frames from a thread that itself waits for the scene lock. `currentFrame()` should
/// return at once: the media module's players publish their latest frame through an atomic
/// shared pointer, never decoding on the caller's thread.
class VideoFrameSource {
public:
    virtual ~VideoFrameSource() = default;

    /// The frame to show now, or nothing before the first frame has been decoded. A new frame is a
    /// new object, so the renderer can skip re-uploading a frame it has already seen.
    virtual std::shared_ptr<const image::Image> currentFrame() const = 0;
};

} // namespace pelkit::scene
