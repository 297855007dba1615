// The renderer's textures of images, kept across frames so that an unchanged image is uploaded
// once. Used on the rendering thread with the renderer's context current.
#pragma once

#include "Gl.h"

#include <pelkit/image/Image.h>

#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

namespace pelkit::render {

class ImageTextures {
public:
    /// How the textures hold pixels: the image's bytes as unsigned integers (GL_RGBA8UI, read
    /// with texelFetch, filtered by the shader), or normalised (GL_RGBA8) and filtered by GL.
    enum class Kind { integer, normalised };
    explicit ImageTextures(Kind kind) : kind_(kind) {}

    /// The texture holding `image`, uploaded when the image is new to the cache or has changed
    /// since. An image that is a different object is a
    /// different image, even with equal pixels; its vector's buffer and its size serve as the
    /// version of one object. Gives 0 for an image that cannot be a texture (empty, inconsistent,
    /// larger than GL allows); fails only on GL errors.
    Result<GLuint> textureFor(const std::shared_ptr<const image::Image>& image);

    /// Ends a frame: textures of images that are gone, or that have not been drawn for a while,
    /// are kept for reuse by new images of their size (a video's next frames) or deleted.
    void endFrame();

    std::uint64_t uploads = 0;
    std::uint64_t allocations = 0;

private:
    struct Entry {
        std::weak_ptr<const image::Image> image;
        const std::uint8_t* data = nullptr; // with width and height: the image's version
        int width = 0;
        int height = 0;
        std::uint64_t lastUsed = 0;
        gl::Texture texture;
    };
    Result<gl::Texture> takeTexture(int width, int height);

    Kind kind_;
    std::uint64_t frame_ = 0;
    int largest_ = 0; // GL's largest texture side, asked once
    std::unordered_map<const image::Image*, Entry> entries_;
    std::multimap<std::pair<int, int>, gl::Texture> spare_;
};

} // namespace pelkit::render
