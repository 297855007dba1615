#include <pelkit/ChromaKeyMaterial.h>

#include <pelkit/foundation/Error.h>
#include <pelkit/scene/SceneLock.h>

#include <glm/vec3.hpp>

namespace pelkit {
namespace {

constexpr std::string_view colorToReplaceKey = "c_colorToReplace";
constexpr std::string_view thresholdSensitivityKey = "c_thresholdSensitivity";
constexpr std::string_view smoothingKey = "c_smoothing";

// The key colour is pure green whatever colour the material is given.
constexpr glm::vec3 colorToReplace{0.0f, 1.0f, 0.0f};

// No line feed after the last line: the text is kept exactly as the shader was written.
constexpr std::string_view surfaceShader = R"glsl(uniform vec3 c_colorToReplace;
uniform float c_thresholdSensitivity;
uniform float c_smoothing;

#pragma transparent
#pragma body

vec3 textureColor = _surface.diffuse.rgb;

float maskY = 0.2989 * c_colorToReplace.r + 0.5866 * c_colorToReplace.g + 0.1145 * c_colorToReplace.b;
float maskCr = 0.7132 * (c_colorToReplace.r - maskY);
float maskCb = 0.5647 * (c_colorToReplace.b - maskY);

float Y = 0.2989 * textureColor.r + 0.5866 * textureColor.g + 0.1145 * textureColor.b;
float Cr = 0.7132 * (textureColor.r - Y);
float Cb = 0.5647 * (textureColor.b - Y);

float blendValue = smoothstep(c_thresholdSensitivity, c_thresholdSensitivity + c_smoothing, distance(vec2(Cr, Cb), vec2(maskCr, maskCb)));

float a = blendValue;
_surface.transparent.a = a;)glsl";

} // namespace

struct ChromaKeyMaterial::State {
    scene::Color backgroundColor;
    float thresholdSensitivity;
    float smoothing;
};

ChromaKeyMaterial::ChromaKeyMaterial(scene::Color backgroundColor, float thresholdSensitivity,
                                     float smoothing)
    : state_(std::make_unique<State>(backgroundColor, thresholdSensitivity, smoothing)) {
    setValue(colorToReplaceKey, colorToReplace);
    setValue(thresholdSensitivityKey, state_->thresholdSensitivity);
    setValue(smoothingKey, state_->smoothing);
    setShaderModifiers({{scene::ShaderEntryPoint::surface, std::string(surfaceShader)}});
}

ChromaKeyMaterial::~ChromaKeyMaterial() = default;

std::shared_ptr<ChromaKeyMaterial> ChromaKeyMaterial::create(scene::Color backgroundColor,
                                                             float thresholdSensitivity,
                                                             float smoothing) {
    return std::shared_ptr<ChromaKeyMaterial>(
        new ChromaKeyMaterial(backgroundColor, thresholdSensitivity, smoothing));
}

std::shared_ptr<ChromaKeyMaterial> ChromaKeyMaterial::create() {
    fatalError("Use of unimplemented initializer 'init()' for class 'PELkit.ChromaKeyMaterial'");
}

std::shared_ptr<ChromaKeyMaterial> ChromaKeyMaterial::decode(const Bytes&) {
    fatalError("init(coder:) has not been implemented");
}

std::string_view ChromaKeyMaterial::surfaceShaderModifier() {
    return surfaceShader;
}

scene::Color ChromaKeyMaterial::backgroundColor() const {
    scene::SceneLock lock;
    return state_->backgroundColor;
}

void ChromaKeyMaterial::setBackgroundColor(scene::Color color) {
    scene::SceneLock lock;
    state_->backgroundColor = color;
    setValue(colorToReplaceKey, colorToReplace);
}

void ChromaKeyMaterial::modifyBackgroundColor(const std::function<void(scene::Color&)>& change) {
    scene::Color color = backgroundColor();
    change(color);
    setBackgroundColor(color);
}

float ChromaKeyMaterial::thresholdSensitivity() const {
    scene::SceneLock lock;
    return state_->thresholdSensitivity;
}

void ChromaKeyMaterial::setThresholdSensitivity(float value) {
    scene::SceneLock lock;
    state_->thresholdSensitivity = value;
    setValue(thresholdSensitivityKey, value);
}

void ChromaKeyMaterial::modifyThresholdSensitivity(const std::function<void(float&)>& change) {
    float value = thresholdSensitivity();
    change(value);
    setThresholdSensitivity(value);
}

float ChromaKeyMaterial::smoothing() const {
    scene::SceneLock lock;
    return state_->smoothing;
}

void ChromaKeyMaterial::setSmoothing(float value) {
    scene::SceneLock lock;
    state_->smoothing = value;
    setValue(smoothingKey, value);
}

void ChromaKeyMaterial::modifySmoothing(const std::function<void(float&)>& change) {
    float value = smoothing();
    change(value);
    setSmoothing(value);
}

} // namespace pelkit
