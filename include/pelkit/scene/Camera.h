// The camera that views a scene: a projection, a placement in the world and a viewport in view
// pixels. A plain value; any thread.
#pragma once

#include <glm/mat4x4.hpp>
#include <glm/vec2.hpp>
#include <glm/vec3.hpp>

#include <optional>

namespace pelkit::scene {

/// A half-line in world coordinates: points origin + t * direction for t in 0..length, with
/// `direction` of unit length.
struct Ray {
    glm::vec3 origin{0};
    glm::vec3 direction{0, 0, -1};
    float length = 0;
};

/// A camera. It looks down its own -z axis with +y up; `transform` places it in the world (the
/// world transform of the node that carries it); `projection` maps its coordinates to clip space
/// as OpenGL does. View points are in pixels with the origin at the top-left corner of the
/// viewport and y pointing down, as touch locations are.
///
///     auto camera = scene::Camera::perspective(glm::radians(60.0f), {1280, 720});
///     camera.transform = cameraNode->worldTransform();
struct Camera {
    glm::mat4 projection{1};
    glm::mat4 transform{1};
    glm::vec2 viewportSize{1, 1};

    /// A perspective camera at the origin; `verticalFieldOfView` in radians, the aspect ratio from
    /// the viewport.
    static Camera perspective(float verticalFieldOfView, glm::vec2 viewportSize,
                              float nearDistance = 0.001f, float farDistance = 1000.0f);

    /// The ray through view point `point`, from the near plane to the far plane.
    Ray ray(glm::vec2 point) const;
    /// Where `worldPoint` shows in the view, or nothing when it lies behind the camera.
    std::optional<glm::vec2> project(glm::vec3 worldPoint) const;
};

} // namespace pelkit::scene
