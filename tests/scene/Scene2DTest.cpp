#include <pelkit/scene/Geometry.h>
#include <pelkit/scene/Scene2D.h>

#include <gtest/gtest.h>

using namespace pelkit;
using namespace pelkit::scene;

namespace {

std::shared_ptr<const image::Image> picture(int width, int height) {
    return std::make_shared<const image::Image>(
        image::Image{width, height, std::vector<uint8_t>(width * height * 4)});
}

} // namespace

TEST(Scene2D, SpritesMoveBetweenScenesAndForgetAGoneScene) {
    auto sprite = Sprite::create(picture(1, 1));
    auto first = Scene2D::create({10, 10});
    first->addChild(sprite);
    {
        auto second = Scene2D::create({10, 10});
        second->addChild(sprite);
        EXPECT_TRUE(first->children().empty());
        EXPECT_EQ(sprite->scene(), second);
    }
    EXPECT_EQ(sprite->scene(), nullptr);
}

TEST(Material, NamedValuesAreReplacedByKeyWhateverTheirType) {
    auto material = Plane::create(1, 1)->firstMaterial();
    ASSERT_NE(material, nullptr) << "a plane starts with one material";
    EXPECT_FALSE(material->isDoubleSided());
    material->setValue("c_smoothing", 0.001f);
    material->setValue("c_colorToReplace", glm::vec3(0, 1, 0));
    material->setValue("c_smoothing", glm::vec2(1, 2));
    EXPECT_EQ(material->value("c_smoothing"), ShaderValue(glm::vec2(1, 2)));
    EXPECT_EQ(material->value("c_colorToReplace"), ShaderValue(glm::vec3(0, 1, 0)));
    EXPECT_EQ(material->value("missing"), std::nullopt);
    EXPECT_EQ(material->values().size(), 2u);
    EXPECT_DEATH(material->setValue("", 1.0f), "Fatal error: Material::setValue: the key is empty");
}
