// The green-screen material: keys pure green out of its diffuse contents with a surface shader
// modifier. Built and changed on the thread that builds content; thread-safe like every scene
// material (each call takes the scene lock).
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/scene/Material.h>

#include <functional>
#include <memory>
#include <string_view>

namespace pelkit {

/// A material whose surface shader makes every fragment transparent whose chroma lies within
/// `thresholdSensitivity` of pure green, opaque from `thresholdSensitivity + smoothing` on, with
/// a smooth edge between (the rule `chromaKeyOpacity` computes). The parameters reach the shader
/// as the named values "c_thresholdSensitivity" and "c_smoothing"; the key colour bound as
/// "c_colorToReplace" is always pure green (0, 1, 0): `backgroundColor` is kept and returned
/// but never sent. Every completed write of a property binds its value again, even an equal one.
///
///     auto material = ChromaKeyMaterial::create(scene::Color{0, 1, 0, 1}, 0.5f, 0.001f);
///     material->setDiffuseContents(player);
///     videoPlane->setMaterials({material});
class ChromaKeyMaterial : public scene::Material {
public:
    static std::shared_ptr<ChromaKeyMaterial> create(scene::Color backgroundColor,
                                                     float thresholdSensitivity, float smoothing);

    /// Not supported: a material without its parameters stops the program.
    [[noreturn]] static std::shared_ptr<ChromaKeyMaterial> create();
    /// Not supported: restoring a material from an archive stops the program.
    [[noreturn]] static std::shared_ptr<ChromaKeyMaterial> decode(const Bytes& archive);

    /// The surface shader modifier the material carries, byte for byte.
    static std::string_view surfaceShaderModifier();

    scene::Color backgroundColor() const;
    void setBackgroundColor(scene::Color color);
    /// Lets `change` edit the colour in place; the result is stored and bound when `change`
    /// returns. If it throws, nothing is stored or bound.
    void modifyBackgroundColor(const std::function<void(scene::Color&)>& change);

    float thresholdSensitivity() const;
    void setThresholdSensitivity(float value);
    void modifyThresholdSensitivity(const std::function<void(float&)>& change);

    float smoothing() const;
    void setSmoothing(float value);
    void modifySmoothing(const std::function<void(float&)>& change);

    ~ChromaKeyMaterial() override;

private:
    ChromaKeyMaterial(scene::Color backgroundColor, float thresholdSensitivity, float smoothing);
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace pelkit
