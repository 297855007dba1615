#include <pelkit/scene/HitTest.h>

#include <pelkit/scene/SceneLock.h>

#include <glm/matrix.hpp>

#include <algorithm>
#include <cmath>

namespace pelkit::scene {
namespace {

bool isFinite(const glm::mat4& m) {
    for (int column = 0; column < 4; ++column) {
        for (int row = 0; row < 4; ++row) {
            if (!std::isfinite(m[column][row]))
                return false;
        }
    }
    return true;
}

std::optional<HitResult> hitPlane(const std::shared_ptr<Node>& node, const Plane& plane,
                                  const Ray& ray) {
    const float halfWidth = plane.width() / 2;
    const float halfHeight = plane.height() / 2;
    if (!(halfWidth > 0 && halfHeight > 0) || !std::isfinite(halfWidth * halfHeight)) {
        return std::nullopt;
    }
    const glm::mat4 world = node->worldTransform();
    const float determinant = glm::determinant(world);
    if (!(std::abs(determinant) > 0) || !isFinite(world))
        return std::nullopt;
    const glm::mat4 worldToLocal = glm::inverse(world);
    if (!isFinite(worldToLocal))
        return std::nullopt;

    // Intersect in the node's own coordinates, where the plane is z = 0. The direction is mapped
    // without normalising, so a step of 1 along it is still 1 world unit along the ray.
    const glm::vec3 from = glm::vec3(worldToLocal * glm::vec4(ray.origin, 1));
    const glm::vec3 direction = glm::mat3(worldToLocal) * ray.direction;
    if (direction.z == 0)
        return std::nullopt;
    const float distance = -from.z / direction.z;
    if (!(distance >= 0 && distance <= ray.length))
        return std::nullopt;
    const glm::vec3 local = from + direction * distance;
    if (!(std::abs(local.x) <= halfWidth && std::abs(local.y) <= halfHeight))
        return std::nullopt;

    // Moving towards -z means arriving from the +z side, the front.
    const bool fromBehind = direction.z > 0;
    if (fromBehind) {
        auto material = plane.firstMaterial();
        if (!material || !material->isDoubleSided())
            return std::nullopt;
    }
    return HitResult{
        .node = node,
        .worldCoordinates = glm::vec3(world * glm::vec4(local, 1)),
        .localCoordinates = local,
        .textureCoordinates = plane.textureCoordinateForPoint(glm::vec2(local)),
        .distance = distance,
    };
}

void collectHits(const std::shared_ptr<Node>& node, const Ray& ray, const HitTestOptions& options,
                 std::vector<HitResult>& hits) {
    if (options.hiddenNodes == HiddenNodes::skip && node->isHidden())
        return;
    if (auto plane = std::dynamic_pointer_cast<Plane>(node->geometry())) {
        if (auto hit = hitPlane(node, *plane, ray))
            hits.push_back(std::move(*hit));
    }
    for (const auto& child : node->childNodes())
        collectHits(child, ray, options, hits);
}

} // namespace

std::vector<HitResult> hitTest(const std::shared_ptr<Node>& root, const Ray& ray,
                               HitTestOptions options) {
    std::vector<HitResult> hits;
    if (!root || !(ray.length > 0))
        return hits;
    {
        SceneLock lock;
        collectHits(root, ray, options, hits);
    }
    std::ranges::stable_sort(hits, {}, &HitResult::distance);
    if (options.results == HitResults::nearestOnly && hits.size() > 1)
        hits.resize(1);
    return hits;
}

std::vector<HitResult> hitTest(const std::shared_ptr<Node>& root, const Camera& camera,
                               glm::vec2 point, HitTestOptions options) {
    return hitTest(root, camera.ray(point), options);
}

} // namespace pelkit::scene
