#include <pelkit/ChromaKeyMaterial.h>

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

using namespace pelkit;

namespace {

constexpr scene::Color green{0, 1, 0, 1};
constexpr scene::Color red{1, 0, 0, 1};
const scene::ShaderValue keyColor = glm::vec3(0, 1, 0);
// Bound over a uniform before a write: only a push of the write replaces it.
const scene::ShaderValue stale = glm::vec4(9);

} // namespace

TEST(ChromaKeyMaterial, ConstructionBindsTheKeyAndBothParametersAndTheShader) {
    auto material = ChromaKeyMaterial::create(red, 0.25f, 0.125f);

    const std::map<std::string, scene::ShaderValue, std::less<>> expected{
        {"c_colorToReplace", keyColor},
        {"c_thresholdSensitivity", 0.25f},
        {"c_smoothing", 0.125f},
    };
    EXPECT_EQ(material->values(), expected) << "the key colour is pure green, not the red given";
    const std::map<scene::ShaderEntryPoint, std::string> modifiers{
        {scene::ShaderEntryPoint::surface,
         std::string(ChromaKeyMaterial::surfaceShaderModifier())}};
    EXPECT_EQ(material->shaderModifiers(), modifiers);
    EXPECT_EQ(ChromaKeyMaterial::surfaceShaderModifier().size(), 747u)
        << "the shader text is kept whole, with no line feed after its last line";

    EXPECT_EQ(material->backgroundColor(), red);
    // Everything else keeps the plain material's defaults.
    EXPECT_EQ(material->faces(), scene::Faces::front);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(material->diffuseContents()));
}

// Each write runs twice, with the uniform made stale before each: both must bind it again, even
// when the value does not change.
TEST(ChromaKeyMaterial, EveryCompletedWriteBindsItsUniformAgain) {
    struct Case {
        const char* name;
        std::function<void(ChromaKeyMaterial&)> write;
        const char* key;
        scene::ShaderValue bound;
    };
    const Case cases[] = {
        {"colour", [](auto& m) { m.setBackgroundColor(red); }, "c_colorToReplace", keyColor},
        {"equal colour", [](auto& m) { m.setBackgroundColor(green); }, "c_colorToReplace",
         keyColor},
        {"equal threshold", [](auto& m) { m.setThresholdSensitivity(0.5f); },
         "c_thresholdSensitivity", 0.5f},
        {"smoothing", [](auto& m) { m.setSmoothing(0.02f); }, "c_smoothing", 0.02f},
        {"in-place colour",
         [](auto& m) { m.modifyBackgroundColor([](scene::Color& c) { c.alpha = 0.5f; }); },
         "c_colorToReplace", keyColor},
        {"in-place threshold",
         [](auto& m) { m.modifyThresholdSensitivity([](float& t) { t = 0.75f; }); },
         "c_thresholdSensitivity", 0.75f},
        {"in-place smoothing", [](auto& m) { m.modifySmoothing([](float& s) { s = 0.002f; }); },
         "c_smoothing", 0.002f},
    };
    for (const auto& c : cases) {
        auto material = ChromaKeyMaterial::create(green, 0.5f, 0.001f);
        for (int write = 1; write <= 2; ++write) {
            material->setValue(c.key, stale);
            c.write(*material);
            EXPECT_EQ(material->value(c.key), c.bound) << c.name << ", write " << write;
        }
    }
    auto material = ChromaKeyMaterial::create(green, 0.5f, 0.001f);
    material->modifyBackgroundColor([](scene::Color& c) { c = red; });
    EXPECT_EQ(material->backgroundColor(), red) << "the getter returns the colour set";
}

TEST(ChromaKeyMaterial, AbandonedInPlaceChangeStoresAndBindsNothing) {
    auto material = ChromaKeyMaterial::create(green, 0.5f, 0.001f);
    for (const char* key : {"c_colorToReplace", "c_thresholdSensitivity", "c_smoothing"})
        material->setValue(key, stale);
    auto abandon = [](auto& value) {
        value = {};
        throw std::runtime_error("abandoned");
    };
    EXPECT_THROW(material->modifyBackgroundColor(abandon), std::runtime_error);
    EXPECT_THROW(material->modifyThresholdSensitivity(abandon), std::runtime_error);
    EXPECT_THROW(material->modifySmoothing(abandon), std::runtime_error);

    for (const auto& [key, value] : material->values())
        EXPECT_EQ(value, stale) << key << " was bound";
    EXPECT_EQ(material->backgroundColor(), green);
    EXPECT_EQ(material->thresholdSensitivity(), 0.5f);
    EXPECT_EQ(material->smoothing(), 0.001f);
}

TEST(ChromaKeyMaterialDeathTest, UnsupportedInitialisersStopTheProgram) {
    EXPECT_DEATH(ChromaKeyMaterial::create(),
                 "Fatal error: Use of unimplemented initializer 'init\\(\\)' for class "
                 "'PELkit.ChromaKeyMaterial'");
    EXPECT_DEATH(ChromaKeyMaterial::decode(bytesOf("archive")),
                 "Fatal error: init\\(coder:\\) has not been implemented");
}
