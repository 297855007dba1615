// Recycled RGBA buffers for decoded pictures, so that playing a video does not allocate a
// picture's worth of memory per frame. Thread-safe: pictures come back from the renderer's thread.
#pragma once

#include <pelkit/image/Image.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace pelkit::media {

class FramePool : public std::enable_shared_from_this<FramePool> {
public:
    /// Keeps up to `spares` returned buffers for reuse; more are freed.
    static std::shared_ptr<FramePool> create(std::size_t spares = 3);

    /// A buffer of `width` x `height` pixels (contents unspecified), reused when one of that size
    /// has come back.
    std::unique_ptr<image::Image> take(int width, int height);
    /// Shares a filled buffer read-only; it comes back to the pool when its last holder lets go,
    /// even after the pool's owner has gone.
    std::shared_ptr<const image::Image> share(std::unique_ptr<image::Image> frame);

private:
    explicit FramePool(std::size_t spares) : spares_(spares) {}
    void giveBack(image::Image* frame);

    std::mutex mutex_;
    std::vector<std::unique_ptr<image::Image>> free_;
    std::size_t spares_;
};

} // namespace pelkit::media
