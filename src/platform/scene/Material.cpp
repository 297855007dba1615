#include <pelkit/scene/Material.h>

#include <pelkit/foundation/Error.h>
#include <pelkit/scene/SceneLock.h>

namespace pelkit::scene {

struct Material::State {
    MaterialContents diffuse;
    Faces faces = Faces::front;
    std::map<ShaderEntryPoint, std::string> shaderModifiers;
    std::map<std::string, ShaderValue, std::less<>> values;
};

Material::Material() : state_(std::make_unique<State>()) {}

Material::~Material() = default;

std::shared_ptr<Material> Material::create() {
    return std::shared_ptr<Material>(new Material);
}

MaterialContents Material::diffuseContents() const {
    SceneLock lock;
    return state_->diffuse;
}

void Material::setDiffuseContents(MaterialContents contents) {
    SceneLock lock;
    state_->diffuse = std::move(contents);
}

Faces Material::faces() const {
    SceneLock lock;
    return state_->faces;
}

void Material::setFaces(Faces faces) {
    SceneLock lock;
    state_->faces = faces;
}

std::map<ShaderEntryPoint, std::string> Material::shaderModifiers() const {
    SceneLock lock;
    return state_->shaderModifiers;
}

void Material::setShaderModifiers(std::map<ShaderEntryPoint, std::string> modifiers) {
    SceneLock lock;
    state_->shaderModifiers = std::move(modifiers);
}

void Material::setValue(std::string_view key, ShaderValue value) {
    if (key.empty())
        fatalError("Material::setValue: the key is empty");
    SceneLock lock;
    // Rebinding a known key, the common case, allocates nothing.
    if (auto it = state_->values.find(key); it != state_->values.end()) {
        it->second = value;
    } else {
        state_->values.emplace(std::string(key), value);
    }
}

std::optional<ShaderValue> Material::value(std::string_view key) const {
    SceneLock lock;
    if (auto it = state_->values.find(key); it != state_->values.end())
        return it->second;
    return std::nullopt;
}

std::map<std::string, ShaderValue, std::less<>> Material::values() const {
    SceneLock lock;
    return state_->values;
}

} // namespace pelkit::scene
