#include <pelkit/scene/Geometry.h>

#include <pelkit/foundation/Error.h>
#include <pelkit/scene/SceneLock.h>

namespace pelkit::scene {

struct Geometry::State {
    std::vector<std::shared_ptr<Material>> materials;
};

Geometry::Geometry() : state_(std::make_unique<State>()) {}

Geometry::~Geometry() = default;

std::vector<std::shared_ptr<Material>> Geometry::materials() const {
    SceneLock lock;
    return state_->materials;
}

void Geometry::setMaterials(std::vector<std::shared_ptr<Material>> materials) {
    for (const auto& material : materials) {
        if (!material)
            fatalError("Geometry::setMaterials: a material is null");
    }
    SceneLock lock;
    state_->materials = std::move(materials);
}

std::shared_ptr<Material> Geometry::firstMaterial() const {
    SceneLock lock;
    return state_->materials.empty() ? nullptr : state_->materials.front();
}

Plane::Plane(float width, float height) : width_(width), height_(height) {
    setMaterials({Material::create()});
}

std::shared_ptr<Plane> Plane::create(float width, float height) {
    return std::shared_ptr<Plane>(new Plane(width, height));
}

float Plane::width() const {
    SceneLock lock;
    return width_;
}

float Plane::height() const {
    SceneLock lock;
    return height_;
}

void Plane::setWidth(float width) {
    SceneLock lock;
    width_ = width;
}

void Plane::setHeight(float height) {
    SceneLock lock;
    height_ = height;
}

glm::vec2 Plane::pointForTextureCoordinate(glm::vec2 uv) const {
    SceneLock lock;
    return {(uv.x - 0.5f) * width_, (0.5f - uv.y) * height_};
}

glm::vec2 Plane::textureCoordinateForPoint(glm::vec2 point) const {
    SceneLock lock;
    return {point.x / width_ + 0.5f, 0.5f - point.y / height_};
}

} // namespace pelkit::scene
