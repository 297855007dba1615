#include <pelkit/ChromaKeyMaterial.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

using namespace pelkit;

namespace {

constexpr scene::Color green{0, 1, 0, 1};
constexpr scene::Color red{1, 0, 0, 1};
const scene::ShaderValue keyColor = glm::vec3(0, 1, 0);

// 64-bit FNV-1a, enough to tell any change to the shader text.
std::uint64_t fnv1a(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325u;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 0x100000001b3u;
    }
    return hash;
}

struct Push {
    std::string key;
    scene::ShaderValue value;
    friend bool operator==(const Push&, const Push&) = default;
};

// Records every push the material makes after construction.
class WatchedMaterial : public ChromaKeyMaterial {
public:
    WatchedMaterial() : ChromaKeyMaterial(green, 0.5f, 0.001f) {}
    std::vector<Push> pushes;

protected:
    void pushValue(std::string_view key, scene::ShaderValue value) override {
        pushes.push_back({std::string(key), value});
        ChromaKeyMaterial::pushValue(key, value);
    }
};

} // namespace

TEST(ChromaKeyMaterial, ConstructionBindsTheKeyAndBothParametersAndTheShader) {
    auto material = ChromaKeyMaterial::create(red, 0.25f, 0.125f);

    const std::map<std::string, scene::ShaderValue, std::less<>> expected{
        {"c_colorToReplace", keyColor},
        {"c_thresholdSensitivity", 0.25f},
        {"c_smoothing", 0.125f},
    };
    EXPECT_EQ(material->values(), expected) << "the key colour is pure green, not the red given";
    const auto modifiers = material->shaderModifiers();
    ASSERT_EQ(modifiers.size(), 1u);
    ASSERT_TRUE(modifiers.contains(scene::ShaderEntryPoint::surface));
    EXPECT_EQ(modifiers.at(scene::ShaderEntryPoint::surface),
              ChromaKeyMaterial::surfaceShaderModifier());

    EXPECT_EQ(material->backgroundColor(), red);
    EXPECT_EQ(material->thresholdSensitivity(), 0.25f);
    EXPECT_EQ(material->smoothing(), 0.125f);
    // Everything else keeps the plain material's defaults.
    EXPECT_EQ(material->faces(), scene::Faces::front);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(material->diffuseContents()));
}

TEST(ChromaKeyMaterial, ShaderTextIsKeptByteForByte) {
    const std::string_view text = ChromaKeyMaterial::surfaceShaderModifier();
    EXPECT_EQ(text.size(), 747u);
    EXPECT_EQ(fnv1a(text), 0xd004e20547133d18u);
    EXPECT_TRUE(text.starts_with("uniform vec3 c_colorToReplace;\n"));
    EXPECT_TRUE(text.ends_with("_surface.transparent.a = a;"))
        << "no line feed after the last line";
}

TEST(ChromaKeyMaterial, EveryCompletedWritePushesItsUniform) {
    struct Case {
        const char* name;
        std::function<void(ChromaKeyMaterial&)> write;
        std::vector<Push> pushes;
    };
    const Case cases[] = {
        {"colour", [](auto& m) { m.setBackgroundColor(red); }, {{"c_colorToReplace", keyColor}}},
        {"equal colour twice",
         [](auto& m) {
             m.setBackgroundColor(green);
             m.setBackgroundColor(green);
         },
         {{"c_colorToReplace", keyColor}, {"c_colorToReplace", keyColor}}},
        {"threshold",
         [](auto& m) { m.setThresholdSensitivity(0.3f); },
         {{"c_thresholdSensitivity", 0.3f}}},
        {"equal threshold",
         [](auto& m) { m.setThresholdSensitivity(0.5f); },
         {{"c_thresholdSensitivity", 0.5f}}},
        {"smoothing", [](auto& m) { m.setSmoothing(0.02f); }, {{"c_smoothing", 0.02f}}},
        {"in-place colour",
         [](auto& m) { m.modifyBackgroundColor([](scene::Color& c) { c.alpha = 0.5f; }); },
         {{"c_colorToReplace", keyColor}}},
        {"in-place threshold",
         [](auto& m) { m.modifyThresholdSensitivity([](float& t) { t += 0.25f; }); },
         {{"c_thresholdSensitivity", 0.75f}}},
        {"in-place smoothing",
         [](auto& m) { m.modifySmoothing([](float& s) { s *= 2; }); },
         {{"c_smoothing", 0.002f}}},
    };
    for (const auto& c : cases) {
        auto material = std::make_shared<WatchedMaterial>();
        c.write(*material);
        EXPECT_EQ(material->pushes, c.pushes) << c.name;
        for (const auto& push : c.pushes)
            EXPECT_EQ(material->value(push.key), push.value) << c.name << ": " << push.key;
    }
}

TEST(ChromaKeyMaterial, AbandonedInPlaceChangeStoresAndPushesNothing) {
    auto material = std::make_shared<WatchedMaterial>();
    auto abandon = [](auto& value) {
        value = {};
        throw std::runtime_error("abandoned");
    };
    EXPECT_THROW(material->modifyBackgroundColor(abandon), std::runtime_error);
    EXPECT_THROW(material->modifyThresholdSensitivity(abandon), std::runtime_error);
    EXPECT_THROW(material->modifySmoothing(abandon), std::runtime_error);

    EXPECT_TRUE(material->pushes.empty());
    EXPECT_EQ(material->backgroundColor(), green);
    EXPECT_EQ(material->thresholdSensitivity(), 0.5f);
    EXPECT_EQ(material->smoothing(), 0.001f);
    EXPECT_EQ(material->value("c_smoothing"), scene::ShaderValue(0.001f));
}

TEST(ChromaKeyMaterialDeathTest, UnsupportedInitialisersStopTheProgram) {
    EXPECT_DEATH(ChromaKeyMaterial::create(),
                 "Fatal error: Use of unimplemented initializer 'init\\(\\)' for class "
                 "'PELkit.ChromaKeyMaterial'");
    EXPECT_DEATH(ChromaKeyMaterial::decode(bytesOf("archive")),
                 "Fatal error: init\\(coder:\\) has not been implemented");
}
