#include <pelkit/scene/Camera.h>

#include <glm/geometric.hpp>
#include <glm/gtc/matrix_transform.hpp>
#include <glm/matrix.hpp>

namespace pelkit::scene {

Camera Camera::perspective(float verticalFieldOfView, glm::vec2 viewportSize, float nearDistance,
                           float farDistance) {
    Camera camera;
    camera.viewportSize = viewportSize;
    camera.projection = glm::perspective(verticalFieldOfView, viewportSize.x / viewportSize.y,
                                         nearDistance, farDistance);
    return camera;
}

Ray Camera::ray(glm::vec2 point) const {
    const glm::vec2 ndc{2 * point.x / viewportSize.x - 1, 1 - 2 * point.y / viewportSize.y};
    const glm::mat4 clipToWorld = glm::inverse(projection * glm::inverse(transform));
    auto unproject = [&](float depth) {
        const glm::vec4 p = clipToWorld * glm::vec4(ndc, depth, 1);
        return glm::vec3(p) / p.w;
    };
    const glm::vec3 nearPoint = unproject(-1);
    const glm::vec3 farPoint = unproject(1);
    const float length = glm::distance(nearPoint, farPoint);
    return Ray{nearPoint, (farPoint - nearPoint) / length, length};
}

std::optional<glm::vec2> Camera::project(glm::vec3 worldPoint) const {
    const glm::vec4 clip = projection * glm::inverse(transform) * glm::vec4(worldPoint, 1);
    if (clip.w <= 0)
        return std::nullopt;
    const glm::vec2 ndc = glm::vec2(clip) / clip.w;
    return glm::vec2{(ndc.x + 1) / 2 * viewportSize.x, (1 - ndc.y) / 2 * viewportSize.y};
}

} // namespace pelkit::scene
