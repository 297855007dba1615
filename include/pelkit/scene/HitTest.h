// Finding the nodes under a point of the view: the geometry a ray from the camera meets. Any
// thread; the search holds the scene lock while it walks the tree.
#pragma once

#include <pelkit/scene/Camera.h>
#include <pelkit/scene/Node.h>

#include <glm/vec2.hpp>
#include <glm/vec3.hpp>

#include <memory>
#include <vector>

namespace pelkit::scene {

/// Whether a search returns every hit or only the nearest.
enum class HitResults { all, nearestOnly };
/// Whether hidden nodes (and everything below them) are searched.
enum class HiddenNodes { skip, include };

struct HitTestOptions {
    HitResults results = HitResults::all;
    HiddenNodes hiddenNodes = HiddenNodes::skip;
};

/// One place where the ray meets a node's geometry.
struct HitResult {
    std::shared_ptr<Node> node;
    glm::vec3 worldCoordinates{0};
    glm::vec3 localCoordinates{0}; ///< in the node's own coordinates
    glm::vec2 textureCoordinates{0};
    float distance = 0; ///< along the ray, from the near plane
};

/// The hits of `ray` on the planes of `root`'s subtree (root included), nearest first; hits at
/// equal distance keep tree order. A plane is hit from the front (the side its +z axis points to)
/// always, and from behind only when its first material shows both faces. Hidden nodes and their
/// subtrees are skipped unless the options say otherwise; opacity plays no part, so a fully
/// faded node is still hit. Nodes whose transform squashes them flat (a scale of 0) are not hit.
std::vector<HitResult> hitTest(const std::shared_ptr<Node>& root, const Ray& ray,
                               HitTestOptions options = {});

/// The hits under view point `point` (pixels) seen through `camera`.
///
///     auto hits = scene::hitTest(root, camera, touch.location);
///     if (!hits.empty()) handleTap(hits.front().node);
std::vector<HitResult> hitTest(const std::shared_ptr<Node>& root, const Camera& camera,
                               glm::vec2 point, HitTestOptions options = {});

} // namespace pelkit::scene
