// The producer of video frames that a material or a video sprite shows. Implemented by the media
// module's players; called by the renderer on its own thread.
#pragma once

#include <pelkit/image/Image.h>

#include <memory>

namespace pelkit::scene {

/// Something that has a latest video frame to show. Implementations must be thread-safe: the
/// renderer asks for frames on its thread while playback runs on another. The renderer may call
/// `currentFrame()` while holding the scene lock, so an implementation must not call into the
/// scene from it, nor hold a lock of its own while it calls into the scene elsewhere.
class VideoFrameSource {
public:
    virtual ~VideoFrameSource() = default;

    /// The frame to show now, or nothing before the first frame has been decoded. A new frame is a
    /// new object, so the renderer can skip re-uploading a frame it has already seen.
    virtual std::shared_ptr<const image::Image> currentFrame() const = 0;
};

} // namespace pelkit::scene
