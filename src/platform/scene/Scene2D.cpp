#include <pelkit/scene/Scene2D.h>

#include "ActionRunner.h"

#include <pelkit/foundation/Error.h>
#include <pelkit/scene/SceneLock.h>

#include <algorithm>

namespace pelkit::scene {

struct Scene2D::State {
    glm::vec2 size{0};
    Color background{0.15f, 0.15f, 0.15f, 1};
    std::vector<std::shared_ptr<Sprite>> sprites;
};

struct Sprite::State {
    Scene2D* scene = nullptr; // cleared by the scene when it lets go of this sprite
    std::shared_ptr<const image::Image> texture;
    glm::vec2 position{0};
    glm::vec2 size{0};
    float xScale = 1;
    float yScale = 1;
    bool hidden = false;
    float alpha = 1;
    ActionList actions;
};

namespace {

class SpriteTarget final : public ActionTarget {
public:
    explicit SpriteTarget(Sprite& sprite) : sprite_(sprite) {}
    glm::vec3 scale() const override { return {sprite_.xScale(), sprite_.yScale(), 1}; }
    void setScale(glm::vec3 scale) override {
        sprite_.setXScale(scale.x);
        sprite_.setYScale(scale.y);
    }
    float opacity() const override { return sprite_.alpha(); }
    void setOpacity(float opacity) override { sprite_.setAlpha(opacity); }
    void setHidden(bool hidden) override { sprite_.setHidden(hidden); }
    void setTexture(std::shared_ptr<const image::Image> texture) override {
        sprite_.setTexture(std::move(texture));
    }

private:
    Sprite& sprite_;
};

} // namespace

glm::vec2 texelForScenePoint(glm::vec2 point) {
    return {point.x, point.y};
}

Scene2D::Scene2D() : state_(std::make_unique<State>()) {}

std::shared_ptr<Scene2D> Scene2D::create(glm::vec2 size) {
    auto scene = std::shared_ptr<Scene2D>(new Scene2D);
    scene->state_->size = size;
    return scene;
}

Scene2D::~Scene2D() {
    SceneLock lock;
    for (auto& sprite : state_->sprites)
        sprite->state_->scene = nullptr;
}

glm::vec2 Scene2D::size() const {
    SceneLock lock;
    return state_->size;
}

void Scene2D::setSize(glm::vec2 size) {
    SceneLock lock;
    state_->size = size;
}

Color Scene2D::backgroundColor() const {
    SceneLock lock;
    return state_->background;
}

void Scene2D::setBackgroundColor(Color color) {
    SceneLock lock;
    state_->background = color;
}

void Scene2D::addChild(std::shared_ptr<Sprite> sprite) {
    if (!sprite)
        fatalError("Scene2D::addChild: the sprite is null");
    SceneLock lock;
    sprite->removeFromParent();
    sprite->state_->scene = this;
    state_->sprites.push_back(std::move(sprite));
}

std::vector<std::shared_ptr<Sprite>> Scene2D::children() const {
    SceneLock lock;
    return state_->sprites;
}

void Scene2D::updateActions(double time) {
    SceneLock lock;
    for (const auto& sprite : std::vector(state_->sprites))
        sprite->updateActions(time);
}

Sprite::Sprite(std::shared_ptr<const image::Image> texture, glm::vec2 size)
    : state_(std::make_unique<State>()) {
    state_->texture = std::move(texture);
    state_->size = size;
}

Sprite::~Sprite() = default;

std::shared_ptr<Sprite> Sprite::create(std::shared_ptr<const image::Image> texture) {
    const glm::vec2 size = texture ? glm::vec2(texture->width, texture->height) : glm::vec2(0);
    return std::shared_ptr<Sprite>(new Sprite(std::move(texture), size));
}

std::shared_ptr<const image::Image> Sprite::texture() const {
    SceneLock lock;
    return state_->texture;
}

void Sprite::setTexture(std::shared_ptr<const image::Image> texture) {
    SceneLock lock;
    state_->texture = std::move(texture);
}

SpritePicture Sprite::picture() const {
    return doPicture();
}

std::shared_ptr<const image::Image> Sprite::currentImage() const {
    auto picture = doPicture();
    if (auto* source = std::get_if<std::shared_ptr<VideoFrameSource>>(&picture))
        return (*source)->currentFrame();
    return std::get<std::shared_ptr<const image::Image>>(std::move(picture));
}

SpritePicture Sprite::doPicture() const {
    return texture();
}

glm::vec2 Sprite::position() const {
    SceneLock lock;
    return state_->position;
}

void Sprite::setPosition(glm::vec2 position) {
    SceneLock lock;
    state_->position = position;
}

glm::vec2 Sprite::size() const {
    SceneLock lock;
    return state_->size;
}

void Sprite::setSize(glm::vec2 size) {
    SceneLock lock;
    state_->size = size;
}

float Sprite::xScale() const {
    SceneLock lock;
    return state_->xScale;
}

void Sprite::setXScale(float scale) {
    SceneLock lock;
    state_->xScale = scale;
}

float Sprite::yScale() const {
    SceneLock lock;
    return state_->yScale;
}

void Sprite::setYScale(float scale) {
    SceneLock lock;
    state_->yScale = scale;
}

bool Sprite::isHidden() const {
    SceneLock lock;
    return state_->hidden;
}

void Sprite::setHidden(bool hidden) {
    SceneLock lock;
    state_->hidden = hidden;
}

float Sprite::alpha() const {
    SceneLock lock;
    return state_->alpha;
}

void Sprite::setAlpha(float alpha) {
    SceneLock lock;
    state_->alpha = alpha;
}

std::shared_ptr<Scene2D> Sprite::scene() const {
    SceneLock lock;
    return state_->scene ? state_->scene->weak_from_this().lock() : nullptr;
}

void Sprite::removeFromParent() {
    std::shared_ptr<Sprite> keepAlive; // released after the lock, once nothing here touches `this`
    SceneLock lock;
    Scene2D* scene = state_->scene;
    if (!scene)
        return;
    auto& sprites = scene->state_->sprites;
    auto it = std::ranges::find_if(sprites, [this](auto& sprite) { return sprite.get() == this; });
    keepAlive = std::move(*it);
    sprites.erase(it);
    state_->scene = nullptr;
}

glm::mat3 Sprite::imageToScene() const {
    SceneLock lock;
    const glm::vec2 extent{state_->size.x * state_->xScale, state_->size.y * state_->yScale};
    // x = position.x + extent.x * (s - 0.5), y = position.y + extent.y * (0.5 - t): the anchor
    // is the centre, and the picture's rows run downwards from its top.
    return glm::mat3(
        glm::vec3(extent.x, 0, 0), glm::vec3(0, -extent.y, 0),
        glm::vec3(state_->position.x - 0.5f * extent.x, state_->position.y + 0.5f * extent.y, 1));
}

void Sprite::runAction(ActionPtr action) {
    if (!action)
        fatalError("Sprite::runAction: the action is null");
    SceneLock lock;
    state_->actions.add(std::move(action));
}

bool Sprite::hasActions() const {
    SceneLock lock;
    return !state_->actions.empty();
}

void Sprite::removeAllActions() {
    SceneLock lock;
    state_->actions.clear();
}

void Sprite::updateActions(double time) {
    SceneLock lock;
    SpriteTarget target(*this);
    state_->actions.advance(target, time);
}

VideoSprite::VideoSprite(std::shared_ptr<VideoFrameSource> source, glm::vec2 size)
    : Sprite(nullptr, size), source_(std::move(source)) {}

std::shared_ptr<VideoSprite> VideoSprite::create(std::shared_ptr<VideoFrameSource> source,
                                                 glm::vec2 size) {
    if (!source)
        fatalError("VideoSprite::create: the video source is null");
    return std::shared_ptr<VideoSprite>(new VideoSprite(std::move(source), size));
}

std::shared_ptr<VideoFrameSource> VideoSprite::source() const {
    return source_;
}

SpritePicture VideoSprite::doPicture() const {
    return source_;
}

} // namespace pelkit::scene
