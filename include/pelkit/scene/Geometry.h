// Shapes that nodes carry, each with its list of materials. Thread-safe (every call takes the
// scene lock).
#pragma once

#include <pelkit/scene/Material.h>

#include <glm/vec2.hpp>

#include <memory>
#include <vector>

namespace pelkit::scene {

/// The base of every shape: an ordered list of materials.
class Geometry {
public:
    virtual ~Geometry();
    Geometry(const Geometry&) = delete;
    Geometry& operator=(const Geometry&) = delete;

    std::vector<std::shared_ptr<Material>> materials() const;
    /// Replaces the whole list. Null entries are a programming error.
    void setMaterials(std::vector<std::shared_ptr<Material>> materials);
    /// The first material, or null when the list is empty.
    std::shared_ptr<Material> firstMaterial() const;

protected:
    Geometry();

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// A flat rectangle of `width` x `height`, centred on its node's origin in the node's x-y plane,
/// its front facing the node's +z axis. It starts with one fresh material.
///
/// Texture coordinates (u, v) run from (0, 0) at the top-left corner, (-width/2, +height/2), to
/// (1, 1) at the bottom-right corner, (+width/2, -height/2): an image's first row lies along the
/// top edge, so a picture shows upright on a plane whose +y points up.
///
/// A negative or non-finite size gives a plane that is neither drawn nor hit.
///
///     auto plane = scene::Plane::create(0.1f, 0.05f);
///     plane->firstMaterial()->setDiffuseContents(image);
///     node->setGeometry(plane);
class Plane : public Geometry {
public:
    static std::shared_ptr<Plane> create(float width, float height);

    float width() const;
    float height() const;
    void setWidth(float width);
    void setHeight(float height);

    /// The point in the node's coordinates (z = 0) that shows texture coordinate `uv`.
    glm::vec2 pointForTextureCoordinate(glm::vec2 uv) const;
    /// The texture coordinate shown at `point` (x, y in the node's coordinates).
    glm::vec2 textureCoordinateForPoint(glm::vec2 point) const;

protected:
    Plane(float width, float height);

private:
    float width_;
    float height_;
};

} // namespace pelkit::scene
