#include <pelkit/scene/Geometry.h>
#include <pelkit/scene/Scene2D.h>

#include <gtest/gtest.h>

#include <mutex>

using namespace pelkit;
using namespace pelkit::scene;

namespace {

std::shared_ptr<const image::Image> picture(int width, int height) {
    return std::make_shared<const image::Image>(
        image::Image{width, height, std::vector<uint8_t>(width * height * 4)});
}

// Where a point of a sprite's picture shows on a 1 x 1 plane whose material shows the scene.
glm::vec2 onPlane(const Scene2D& scene, const Sprite& sprite, glm::vec2 pictureCoordinate) {
    const glm::vec2 scenePoint = glm::vec2(sprite.imageToScene() * glm::vec3(pictureCoordinate, 1));
    const glm::vec2 uv = texelForScenePoint(scenePoint) / scene.size();
    return Plane::create(1, 1)->pointForTextureCoordinate(uv);
}

class FrameHolder : public VideoFrameSource {
public:
    std::shared_ptr<const image::Image> currentFrame() const override {
        std::lock_guard lock(mutex_);
        return frame_;
    }
    void show(std::shared_ptr<const image::Image> frame) {
        std::lock_guard lock(mutex_);
        frame_ = std::move(frame);
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const image::Image> frame_;
};

} // namespace

TEST(Scene2D, SceneRowsRunUpTheTextureSoOnlyAFlippedSpriteShowsUpright) {
    const struct {
        float yScale;
        bool upright;
    } cases[] = {{-1, true}, {1, false}};
    for (auto c : cases) {
        auto scene = Scene2D::create({600, 600});
        auto button = Sprite::create(picture(100, 100));
        button->setPosition({300, 300});
        button->setYScale(c.yScale);
        scene->addChild(button);
        const glm::vec2 top = onPlane(*scene, *button, {0.5f, 0});
        const glm::vec2 bottom = onPlane(*scene, *button, {0.5f, 1});
        EXPECT_EQ(top.y > bottom.y, c.upright) << "yScale " << c.yScale;
        EXPECT_NEAR(std::abs(top.y - bottom.y), 100.0f / 600, 1e-6);
        EXPECT_NEAR(top.x, 0, 1e-6) << "the centred sprite stays centred";
    }
}

TEST(Scene2D, TextureCornersMapToPlaneCorners) {
    const struct {
        glm::vec2 scenePoint;
        glm::vec2 texel;
        glm::vec2 planePoint;
    } cases[] = {
        {{0, 0}, {0, 0}, {-1, 0.5f}}, // scene bottom-left: first row, plane top-left
        {{1280, 720}, {1280, 720}, {1, -0.5f}},
        {{640, 180}, {640, 180}, {0, 0.25f}},
    };
    auto plane = Plane::create(2, 1);
    for (auto c : cases) {
        const glm::vec2 texel = texelForScenePoint(c.scenePoint);
        EXPECT_EQ(texel, c.texel);
        const glm::vec2 point = plane->pointForTextureCoordinate(texel / glm::vec2(1280, 720));
        EXPECT_EQ(point, c.planePoint);
        EXPECT_EQ(plane->textureCoordinateForPoint(point) * glm::vec2(1280, 720), texel);
    }
}

TEST(Scene2D, SpriteScaleAndSizePlaceThePictureAroundItsCentre) {
    auto sprite = Sprite::create(picture(40, 20));
    EXPECT_EQ(sprite->size(), glm::vec2(40, 20)) << "a sprite takes its texture's size";
    sprite->setPosition({100, 50});
    sprite->setXScale(2);
    const glm::mat3 m = sprite->imageToScene();
    EXPECT_EQ(glm::vec2(m * glm::vec3(0, 0, 1)), glm::vec2(60, 60));  // top-left of the picture
    EXPECT_EQ(glm::vec2(m * glm::vec3(1, 1, 1)), glm::vec2(140, 40)); // bottom-right
}

TEST(Scene2D, VideoSpriteShowsTheSourcesLatestFrame) {
    auto source = std::make_shared<FrameHolder>();
    std::shared_ptr<Sprite> video = VideoSprite::create(source, {1280, 720});
    EXPECT_EQ(video->currentImage(), nullptr) << "no frame before the first one is decoded";
    auto frame = picture(1280, 720);
    source->show(frame);
    EXPECT_EQ(video->currentImage(), frame);
    EXPECT_EQ(video->size(), glm::vec2(1280, 720));
}

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
