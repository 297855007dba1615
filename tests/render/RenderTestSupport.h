// Shared pieces of the rendering tests: a headless renderer that fails the test loudly when EGL
// is missing, pictures made in code, and a camera that maps a plane onto pixels one to one.
#pragma once

#include <pelkit/render/Renderer.h>
#include <pelkit/scene/Geometry.h>

#include <gtest/gtest.h>

#include <glm/gtc/matrix_transform.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

namespace pelkit::test {

/// One 8-bit RGBA pixel, as ints so that tests can compute with it.
using Rgba = std::array<int, 4>;

/// A headless renderer, or a failed test that says what is missing.
inline std::unique_ptr<render::Renderer> makeRenderer(glm::ivec2 size) {
    auto renderer = render::Renderer::createOffscreen(size);
    if (!renderer) {
        ADD_FAILURE() << "headless rendering needs Mesa's EGL with the surfaceless platform "
                         "(Debian: libegl-mesa0 libgl1-mesa-dri): "
                      << *renderer.error();
        return nullptr;
    }
    return std::move(*renderer);
}

inline void setPixel(image::Image& image, int x, int y, Rgba c) {
    std::copy(c.begin(), c.end(), image.pixel(x, y));
}

/// An image of four quadrants: top-left, top-right, bottom-left, bottom-right.
inline std::shared_ptr<image::Image> quadrantImage(int width, int height,
                                                   const std::array<Rgba, 4>& colors) {
    auto image = std::make_shared<image::Image>(image::Image::filled(width, height));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            setPixel(*image, x, y, colors[(y < height / 2 ? 0 : 2) + (x < width / 2 ? 0 : 1)]);
    return image;
}

inline std::shared_ptr<image::Image> solidImage(int width, int height, Rgba c) {
    return quadrantImage(width, height, {c, c, c, c});
}

/// `over` blended over `under` at `alpha`, rounded as the framebuffer stores it.
inline Rgba mix(Rgba over, Rgba under, float alpha) {
    Rgba mixed{0, 0, 0, 255};
    for (int c = 0; c < 3; ++c)
        mixed[c] = static_cast<int>(std::lround(over[c] * alpha + under[c] * (1 - alpha)));
    return mixed;
}

inline Rgba pixelAt(const image::Image& image, int x, int y) {
    const std::uint8_t* p = image.pixel(x, y);
    return {p[0], p[1], p[2], p[3]};
}

/// Looks down -z at the x-y plane with one world unit per pixel, the origin at the view's
/// centre: a plane of the view's size at the origin covers it exactly.
inline scene::Camera pixelCamera(glm::ivec2 size) {
    scene::Camera camera;
    camera.viewportSize = size;
    camera.projection =
        glm::ortho(-size.x / 2.0f, size.x / 2.0f, -size.y / 2.0f, size.y / 2.0f, -100.0f, 100.0f);
    return camera;
}

/// A frame of `scene` over `background` seen through `camera`.
inline render::Frame frameOf(std::shared_ptr<const image::Image> background,
                             std::shared_ptr<scene::Node> scene, scene::Camera camera) {
    render::Frame frame;
    frame.background = std::move(background);
    frame.scene = std::move(scene);
    frame.camera = camera;
    return frame;
}

/// A node carrying a plane of `size` whose first material shows `contents`.
inline std::shared_ptr<scene::Node> planeNode(glm::vec2 size, scene::MaterialContents contents) {
    auto plane = scene::Plane::create(size.x, size.y);
    plane->firstMaterial()->setDiffuseContents(std::move(contents));
    auto node = scene::Node::create();
    node->setGeometry(plane);
    return node;
}

inline std::shared_ptr<scene::Material> materialOf(const scene::Node& node) {
    return node.geometry()->firstMaterial();
}

} // namespace pelkit::test
