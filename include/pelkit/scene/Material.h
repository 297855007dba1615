// Surface appearance of geometry: what the surface shows (its diffuse contents), which faces it
// has, and the shader modifiers and named shader values that the renderer applies. Thread-safe
// (every call takes the scene lock).
#pragma once

#include <pelkit/image/Image.h>
#include <pelkit/scene/VideoFrameSource.h>

#include <glm/vec2.hpp>
#include <glm/vec3.hpp>
#include <glm/vec4.hpp>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace pelkit::scene {

class Scene2D;

/// A colour with straight (not premultiplied) alpha, each component in 0..1.
struct Color {
    float red = 0;
    float green = 0;
    float blue = 0;
    float alpha = 1;

    friend bool operator==(const Color&, const Color&) = default;
};

/// The stages of the renderer's shading where a material's own shader text is spliced in.
/// `geometry` edits vertices, `surface` edits the surface values (diffuse, transparency) before
/// lighting, `lightingModel` replaces the lighting, `fragment` edits the final colour.
enum class ShaderEntryPoint { geometry, surface, lightingModel, fragment };

/// A value for a uniform that a shader modifier declares, bound by the uniform's name.
using ShaderValue = std::variant<float, glm::vec2, glm::vec3, glm::vec4>;

/// Which faces of a surface are drawn and hit: the front only (the default), or both.
enum class Faces { front, both };

/// What a surface shows. Nothing (the default) is drawn as opaque white; a colour fills the
/// surface; an image, a 2D scene or a video source is stretched over it as a texture whose first
/// row lies along the geometry's top edge (see `Plane`).
using MaterialContents = std::variant<std::monostate, Color, std::shared_ptr<const image::Image>,
                                      std::shared_ptr<Scene2D>, std::shared_ptr<VideoFrameSource>>;

/// A material. Geometry holds materials by shared pointer, so one material can dress several
/// surfaces and a change shows on all of them. Subclasses add properties of their own and keep
/// them in the named values and shader modifiers that the renderer reads.
///
///     auto material = scene::Material::create();
///     material->setDiffuseContents(scene::Color{0, 0, 0, 0.7f});
///     material->setValue("c_smoothing", 0.001f);
class Material {
public:
    static std::shared_ptr<Material> create();
    virtual ~Material();
    Material(const Material&) = delete;
    Material& operator=(const Material&) = delete;

    MaterialContents diffuseContents() const;
    void setDiffuseContents(MaterialContents contents);

    Faces faces() const;
    void setFaces(Faces faces);
    bool isDoubleSided() const { return faces() == Faces::both; }

    /// Shader text by entry point; setting replaces the whole map.
    std::map<ShaderEntryPoint, std::string> shaderModifiers() const;
    void setShaderModifiers(std::map<ShaderEntryPoint, std::string> modifiers);

    /// Binds `value` to the uniform `key` (replacing an earlier value of the key). An empty key
    /// is a programming error.
    void setValue(std::string_view key, ShaderValue value);
    /// The value bound to `key`, or nothing.
    std::optional<ShaderValue> value(std::string_view key) const;
    /// Every bound value by key, for the renderer.
    std::map<std::string, ShaderValue, std::less<>> values() const;

protected:
    Material();

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace pelkit::scene
