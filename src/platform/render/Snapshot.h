// What one frame draws, read from the scene in one step under the scene lock. The renderer then
// asks video sources for their frames, uploads textures and draws from the snapshot without the
// lock, so threads that change the scene never wait for a frame's uploads or a frame source.
#pragma once

#include <pelkit/render/Renderer.h>
#include <pelkit/scene/Material.h>
#include <pelkit/scene/Scene2D.h>

#include <glm/mat3x3.hpp>
#include <glm/mat4x4.hpp>
#include <glm/vec2.hpp>

#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace pelkit::render {

/// A visible sprite of a 2D scene.
struct SpriteSnapshot {
    glm::mat3 imageToScene{1};
    float alpha = 1;
    scene::SpritePicture picture;
};

/// A 2D scene shown by a material. The scene object is kept as the identity of its texture.
struct SceneSnapshot {
    std::shared_ptr<scene::Scene2D> scene;
    glm::vec2 size{0};
    scene::Color background;
    std::vector<SpriteSnapshot> sprites; // the visible ones, in drawing order
};

/// A material's diffuse contents, with a 2D scene read out.
using ContentsSnapshot =
    std::variant<std::monostate, scene::Color, std::shared_ptr<const image::Image>,
                 std::shared_ptr<const SceneSnapshot>, std::shared_ptr<scene::VideoFrameSource>>;

/// A visible plane with its first material's parameters.
struct PlaneSnapshot {
    glm::mat4 modelViewProjection{1};
    glm::vec2 size{0};
    float opacity = 1;
    float depth = 0; // view-space z of the plane's centre; more negative is farther
    ContentsSnapshot contents;
    std::string surfaceModifier; // empty without one
    scene::Faces faces = scene::Faces::front;
    std::map<std::string, scene::ShaderValue, std::less<>> values;
};

/// Takes the scene lock, advances the frame's scene to its time when it has one, and reads the
/// planes to draw in tree order. `clipFlip` follows the projection (it turns a top-down output's
/// picture upside down).
std::vector<PlaneSnapshot> snapshotScene(const Frame& frame, const glm::mat4& clipFlip);

} // namespace pelkit::render
