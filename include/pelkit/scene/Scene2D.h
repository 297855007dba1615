// Flat 2D scenes of sprites that serve as a material's texture (a play button, a video), with
// their own actions. Thread-safe: every call takes the scene lock (see SceneLock).
#pragma once

#include <pelkit/image/Image.h>
#include <pelkit/scene/Action.h>
#include <pelkit/scene/Material.h>
#include <pelkit/scene/VideoFrameSource.h>

#include <glm/mat3x3.hpp>
#include <glm/vec2.hpp>

#include <memory>
#include <variant>
#include <vector>

namespace pelkit::scene {

class Sprite;

/// A 2D scene: a size in points, a background colour and sprites drawn in the order they were
/// added. Scene coordinates have their origin at the bottom-left corner and y pointing up.
///
/// As a texture. A 2D scene shown by a material becomes a texture of one texel per point (a
/// renderer may use fewer where the scene's pictures hold less detail than that), and
/// its rows run with scene y: texel row 0 holds scene y = 0..1, the bottom of the scene, and the
/// first texture row lies along the plane's top edge (see `Plane`). A scene's bottom therefore
/// shows at the top of the plane: a picture comes out upright on the plane only from a sprite
/// with a vertical scale of -1. `texelForScenePoint` is this mapping.
///
///     auto button = scene::Sprite::create(playImage);
///     button->setPosition({300, 300});
///     button->setYScale(-1);
///     auto overlay = scene::Scene2D::create({600, 600});
///     overlay->setBackgroundColor({0, 0, 0, 0});
///     overlay->addChild(button);
///     plane->firstMaterial()->setDiffuseContents(overlay);
class Scene2D : public std::enable_shared_from_this<Scene2D> {
public:
    /// A scene of `size` points with an opaque dark grey background.
    static std::shared_ptr<Scene2D> create(glm::vec2 size);
    ~Scene2D();
    Scene2D(const Scene2D&) = delete;
    Scene2D& operator=(const Scene2D&) = delete;

    glm::vec2 size() const;
    void setSize(glm::vec2 size);
    Color backgroundColor() const;
    void setBackgroundColor(Color color);

    /// Appends `sprite`, first taking it from the scene that held it. Null is a programming error.
    void addChild(std::shared_ptr<Sprite> sprite);
    std::vector<std::shared_ptr<Sprite>> children() const;

    /// Advances the actions of every sprite to `time` (seconds). `Node::updateActions` calls this
    /// for the scenes its materials show; calling it twice with the same time changes nothing.
    void updateActions(double time);

private:
    Scene2D();
    struct State;
    std::unique_ptr<State> state_;
    friend class Sprite;
};

/// The texel (column, row) of a 2D scene's texture that shows scene point `point`; rows count
/// from the texture's first row, which the plane shows at its top edge. One texel per point, row
/// index equal to scene y: the texture is the scene read bottom row first.
glm::vec2 texelForScenePoint(glm::vec2 point);

/// What a sprite shows: a still picture, or the source of a video's frames.
using SpritePicture =
    std::variant<std::shared_ptr<const image::Image>, std::shared_ptr<VideoFrameSource>>;

/// A picture placed in a 2D scene: centred on `position` (its anchor point is its centre), `size`
/// points wide and high before its x and y scales, drawn with `alpha`.
class Sprite {
public:
    /// A sprite showing `texture` at the texture's own size in points (one point per pixel).
    static std::shared_ptr<Sprite> create(std::shared_ptr<const image::Image> texture);
    virtual ~Sprite();
    Sprite(const Sprite&) = delete;
    Sprite& operator=(const Sprite&) = delete;

    std::shared_ptr<const image::Image> texture() const;
    /// Changes the picture; the size stays as it is.
    void setTexture(std::shared_ptr<const image::Image> texture);
    /// What the sprite shows, without fetching a frame: its texture, or a video sprite's source.
    /// A renderer reads it with the rest of the scene under the scene lock and asks the source
    /// for its frame after releasing the lock.
    SpritePicture picture() const;
    /// The picture to draw now: the texture, or for a video sprite the source's latest frame.
    std::shared_ptr<const image::Image> currentImage() const;

    glm::vec2 position() const;
    void setPosition(glm::vec2 position);
    glm::vec2 size() const;
    void setSize(glm::vec2 size);
    float xScale() const;
    void setXScale(float scale);
    float yScale() const;
    void setYScale(float scale);
    bool isHidden() const;
    void setHidden(bool hidden);
    float alpha() const;
    void setAlpha(float alpha);

    /// The scene holding the sprite, or null.
    std::shared_ptr<Scene2D> scene() const;
    void removeFromParent();

    /// Maps picture coordinates (s, t, 1), with s from the picture's left edge (0) to its right
    /// edge (1) and t from its first row (0) to its last (1), to scene points. With positive
    /// scales the first row is at the sprite's top (highest y); a negative y scale mirrors it.
    glm::mat3 imageToScene() const;

    /// Runs `action` from the next `updateActions` of the sprite's scene; several run side by side.
    void runAction(ActionPtr action);
    bool hasActions() const;
    void removeAllActions();

protected:
    Sprite(std::shared_ptr<const image::Image> texture, glm::vec2 size);
    /// What `picture()` returns: the texture unless a subclass shows something else.
    virtual SpritePicture doPicture() const;

private:
    void updateActions(double time);
    struct State;
    std::unique_ptr<State> state_;
    friend class Scene2D;
};

/// A sprite that shows the latest frame of a video source, stretched to its size.
///
///     auto video = scene::VideoSprite::create(player, {1280, 720});
class VideoSprite : public Sprite {
public:
    static std::shared_ptr<VideoSprite> create(std::shared_ptr<VideoFrameSource> source,
                                               glm::vec2 size);
    std::shared_ptr<VideoFrameSource> source() const;

protected:
    VideoSprite(std::shared_ptr<VideoFrameSource> source, glm::vec2 size);
    SpritePicture doPicture() const override;

private:
    std::shared_ptr<VideoFrameSource> source_; // never changes after construction
};

} // namespace pelkit::scene
