#include "FramePool.h"

namespace pelkit::media {

std::shared_ptr<FramePool> FramePool::create(std::size_t spares) {
    return std::shared_ptr<FramePool>(new FramePool(spares));
}

std::unique_ptr<image::Image> FramePool::take(int width, int height) {
    {
        std::lock_guard lock(mutex_);
        while (!free_.empty()) {
            auto frame = std::move(free_.back());
            free_.pop_back();
            if (frame->width == width && frame->height == height)
                return frame;
        }
    }
    auto frame = std::make_unique<image::Image>();
    frame->width = width;
    frame->height = height;
    frame->rgba.resize(frame->stride() * static_cast<std::size_t>(height));
    return frame;
}

std::shared_ptr<const image::Image> FramePool::share(std::unique_ptr<image::Image> frame) {
    return std::shared_ptr<const image::Image>(
        frame.release(), [pool = shared_from_this()](const image::Image* returned) {
            // The pool handed the buffer out as mutable; sharing made it read-only only while
            // it was shared.
            pool->giveBack(const_cast<image::Image*>(returned));
        });
}

void FramePool::giveBack(image::Image* frame) {
    std::unique_ptr<image::Image> owned(frame);
    std::lock_guard lock(mutex_);
    if (free_.size() < spares_)
        free_.push_back(std::move(owned));
}

} // namespace pelkit::media
