#include "Textures.h"

#include <iterator>

namespace pelkit::render {
namespace {

// Frames a texture stays cached while its image lives on but is not drawn (a hidden node).
constexpr std::uint64_t idleFrames = 120;
// Spare textures kept for new images; a video needs one or two.
constexpr std::size_t maxSpare = 4;

bool usable(const image::Image& image, int largest) {
    return !image.empty() && image.width <= largest && image.height <= largest &&
           image.rgba.size() == image.stride() * static_cast<std::size_t>(image.height);
}

bool sameOwner(const std::weak_ptr<const image::Image>& a,
               const std::shared_ptr<const image::Image>& b) {
    return !a.owner_before(b) && !b.owner_before(a);
}

} // namespace

Result<gl::Texture> ImageTextures::takeTexture(int width, int height) {
    if (auto spare = spare_.find({width, height}); spare != spare_.end()) {
        gl::Texture texture = std::move(spare->second);
        spare_.erase(spare);
        return texture;
    }
    ++allocations;
    if (kind_ == Kind::integer)
        return gl::createTexture(GL_RGBA8UI, width, height);
    return gl::createTexture(GL_RGBA8, width, height, GL_LINEAR);
}

Result<GLuint> ImageTextures::textureFor(const std::shared_ptr<const image::Image>& image) {
    if (largest_ == 0)
        largest_ = gl::maxTextureSize();
    if (!image || !usable(*image, largest_))
        return 0;
    auto [it, added] = entries_.try_emplace(image.get());
    Entry& entry = it->second;
    entry.lastUsed = frame_;
    // The weak pointer keeps the control block of the image it saw, so a new image made at the
    // address of a dead one never passes for it.
    const bool current = !added && sameOwner(entry.image, image) && !entry.image.expired() &&
                         entry.data == image->rgba.data() && entry.width == image->width &&
                         entry.height == image->height;
    if (current)
        return entry.texture.get();

    if (entry.texture && (entry.width != image->width || entry.height != image->height))
        spare_.emplace(std::pair{entry.width, entry.height}, std::move(entry.texture));
    if (!entry.texture) {
        auto texture = takeTexture(image->width, image->height);
        if (!texture) {
            entries_.erase(it);
            return std::unexpected(texture.error());
        }
        entry.texture = std::move(*texture);
    }
    entry.image = image;
    entry.data = image->rgba.data();
    entry.width = image->width;
    entry.height = image->height;

    glBindTexture(GL_TEXTURE_2D, entry.texture.get());
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, image->width, image->height,
                    kind_ == Kind::integer ? GL_RGBA_INTEGER : GL_RGBA, GL_UNSIGNED_BYTE,
                    image->rgba.data());
    ++uploads;
    if (auto checked = gl::check("glTexSubImage2D"); !checked) {
        entries_.erase(it);
        return std::unexpected(checked.error());
    }
    return entry.texture.get();
}

void ImageTextures::endFrame() {
    for (auto it = entries_.begin(); it != entries_.end();) {
        Entry& entry = it->second;
        if (entry.image.expired() || frame_ - entry.lastUsed >= idleFrames) {
            spare_.emplace(std::pair{entry.width, entry.height}, std::move(entry.texture));
            it = entries_.erase(it);
        } else {
            ++it;
        }
    }
    while (spare_.size() > maxSpare)
        spare_.erase(std::prev(spare_.end()));
    ++frame_;
}

} // namespace pelkit::render
