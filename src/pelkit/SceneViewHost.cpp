#include "SceneViewHost.h"

#include <pelkit/ui/Window.h>

namespace pelkit {

SceneViewHost::SceneViewHost(std::shared_ptr<ar::SceneView> sceneView)
    : sceneView_(std::move(sceneView)) {
    setBackgroundColor(ui::colors::black);
}

SceneViewHost::~SceneViewHost() {
    if (link_)
        ui::Application::shared().removeDisplayLink(*link_);
}

glm::vec2 SceneViewHost::scenePoint(ui::Point point) const {
    auto size = bounds().size;
    if (!picture_ || size.width <= 0 || size.height <= 0)
        return {point.x, point.y};
    return {point.x * static_cast<float>(picture_->width) / size.width,
            point.y * static_cast<float>(picture_->height) / size.height};
}

void SceneViewHost::refreshPicture() {
    auto drawn = sceneView_->framesDrawn();
    if (drawn == pictureFrame_)
        return;
    // A failed read-back keeps the previous picture; the next frame tries again.
    if (auto picture = sceneView_->snapshot()) {
        picture_ = std::make_shared<const image::Image>(std::move(*picture));
        pictureFrame_ = drawn;
    }
}

void SceneViewHost::draw(ui::DrawContext& context) {
    View::draw(context);
    refreshPicture();
    if (picture_)
        context.drawImage(picture_, bounds(), this, ui::Blend::opaque);
}

void SceneViewHost::didMoveToWindow() {
    auto& app = ui::Application::shared();
    if (window() && !link_) {
        link_ = app.addDisplayLink([weak = std::weak_ptr<View>(shared_from_this()), this](double) {
            if (auto alive = weak.lock(); alive && sceneView_->framesDrawn() != pictureFrame_)
                setNeedsDisplay();
        });
    } else if (!window() && link_) {
        app.removeDisplayLink(*link_);
        link_.reset();
    }
}

} // namespace pelkit
