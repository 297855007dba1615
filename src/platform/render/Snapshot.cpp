#include "Snapshot.h"

#include <pelkit/scene/Geometry.h>
#include <pelkit/scene/SceneLock.h>

#include <glm/matrix.hpp>

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace pelkit::render {
namespace {

class Collector {
public:
    Collector(const glm::mat4& view, const glm::mat4& viewProjection)
        : view_(view), viewProjection_(viewProjection) {}

    void collect(const scene::Node& node, float parentOpacity);
    std::vector<PlaneSnapshot> planes;

private:
    ContentsSnapshot contentsOf(const scene::MaterialContents& contents);
    void readMaterial(const scene::Material& material, PlaneSnapshot& plane);

    glm::mat4 view_;
    glm::mat4 viewProjection_;
    // A scene that several planes show is read once.
    std::unordered_map<const scene::Scene2D*, std::shared_ptr<const SceneSnapshot>> scenes_;
};

void Collector::collect(const scene::Node& node, float parentOpacity) {
    if (node.isHidden())
        return;
    const float opacity = parentOpacity * node.opacity();
    if (!(opacity > 0))
        return; // nothing below can show either
    if (auto plane = std::dynamic_pointer_cast<scene::Plane>(node.geometry())) {
        const glm::vec2 size{plane->width(), plane->height()};
        if (std::isfinite(size.x) && std::isfinite(size.y) && size.x > 0 && size.y > 0) {
            const glm::mat4 world = node.worldTransform();
            PlaneSnapshot snapshot;
            snapshot.modelViewProjection = viewProjection_ * world;
            snapshot.size = size;
            snapshot.opacity = std::min(opacity, 1.0f);
            snapshot.depth = (view_ * world * glm::vec4(0, 0, 0, 1)).z;
            if (auto material = plane->firstMaterial())
                readMaterial(*material, snapshot);
            planes.push_back(std::move(snapshot));
        }
    }
    for (const auto& child : node.childNodes())
        collect(*child, opacity);
}

void Collector::readMaterial(const scene::Material& material, PlaneSnapshot& plane) {
    plane.contents = contentsOf(material.diffuseContents());
    auto modifiers = material.shaderModifiers();
    if (auto surface = modifiers.find(scene::ShaderEntryPoint::surface); surface != modifiers.end())
        plane.surfaceModifier = std::move(surface->second);
    plane.faces = material.faces();
    plane.values = material.values();
}

ContentsSnapshot Collector::contentsOf(const scene::MaterialContents& contents) {
    return std::visit(
        [&]<class T>(const T& value) -> ContentsSnapshot {
            if constexpr (std::is_same_v<T, std::shared_ptr<scene::Scene2D>>) {
                if (!value)
                    return std::monostate{};
                auto& read = scenes_[value.get()];
                if (!read) {
                    SceneSnapshot scene{value, value->size(), value->backgroundColor(), {}};
                    for (const auto& sprite : value->children()) {
                        if (!sprite->isHidden() && sprite->alpha() > 0)
                            scene.sprites.push_back({sprite->imageToScene(),
                                                     std::min(sprite->alpha(), 1.0f),
                                                     sprite->picture()});
                    }
                    read = std::make_shared<const SceneSnapshot>(std::move(scene));
                }
                return read;
            } else {
                return value;
            }
        },
        contents);
}

} // namespace

std::vector<PlaneSnapshot> snapshotScene(const Frame& frame, const glm::mat4& clipFlip) {
    if (!frame.scene)
        return {};
    const glm::mat4 view = glm::inverse(frame.camera.transform);
    Collector collector(view, clipFlip * frame.camera.projection * view);
    scene::SceneLock lock;
    if (frame.time)
        frame.scene->updateActions(*frame.time);
    collector.collect(*frame.scene, 1.0f);
    return std::move(collector.planes);
}

} // namespace pelkit::render
