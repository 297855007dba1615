// The view that shows an AR scene view inside a controller's view tree. Main thread only.
#pragma once

#include <pelkit/ar/SceneView.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/View.h>

#include <glm/vec2.hpp>

#include <cstdint>
#include <memory>
#include <optional>

namespace pelkit {

/// Draws the scene view's latest frame stretched over its bounds. The scene view renders on its
/// own thread into its own output (an EGL context can be current on one thread only), so each
/// new frame is read back and drawn as a picture; a display link asks for a redraw whenever the
/// scene view has drawn another frame.
class SceneViewHost final : public ui::View {
public:
    explicit SceneViewHost(std::shared_ptr<ar::SceneView> sceneView);
    ~SceneViewHost() override;

    /// `point` (in this view's coordinates) in the scene view's output pixels, where its hit
    /// test looks.
    glm::vec2 scenePoint(ui::Point point) const;

protected:
    void draw(ui::DrawContext& context) override;
    void didMoveToWindow() override;

private:
    void refreshPicture();

    std::shared_ptr<ar::SceneView> sceneView_;
    std::shared_ptr<const image::Image> picture_;
    std::uint64_t pictureFrame_ = 0;
    std::optional<ui::Application::DisplayLinkId> link_;
};

} // namespace pelkit
