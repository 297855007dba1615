// What a view draws with: filled rectangles, images and text in its own coordinates, and, for a
// view that draws a 3D scene, the window's renderer. Main thread only, during a window's drawing.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>
#include <pelkit/render/Renderer.h>
#include <pelkit/ui/Geometry.h>

#include <memory>
#include <string_view>

namespace pelkit::ui {

/// How an image meets what lies under it: blended by its alpha, or copied over it (an opaque
/// picture such as a video frame, which draws much faster on a software renderer).
enum class Blend { alpha, opaque };

class DrawContext {
public:
    virtual ~DrawContext();

    /// Blends `color` over `rect`.
    virtual void fillRect(const Rect& rect, Color color) = 0;
    /// Draws `image` stretched over `rect`, filtered bilinearly. An image object is uploaded
    /// once and kept while it is drawn each frame; a picture that changes every frame (video)
    /// passes a `slot` of its own (any stable address, e.g. the view), so that one texture is
    /// reused and a new picture is uploaded only when it is another object.
    virtual void drawImage(const std::shared_ptr<const image::Image>& image, const Rect& rect,
                           const void* slot = nullptr, Blend blend = Blend::alpha) = 0;
    /// Draws one line of `text` in DejaVu Sans at `pointSize`, centred in `rect`. Text that
    /// cannot be drawn (no font) is left out; the first such failure is printed once.
    virtual void drawText(std::string_view text, const Rect& rect, float pointSize,
                          Color color) = 0;

    /// A renderer drawing into the window's output, made on first use, for a view that shows a
    /// 3D scene. Its `render()` covers the whole output, so such a view is the window's bottom
    /// view and draws first; the views above it are drawn over its picture afterwards.
    virtual Result<render::Renderer*> renderer() = 0;
    /// The window's output itself (for a renderer of the caller's own).
    virtual std::shared_ptr<render::Output> output() = 0;
    /// The size of a point in pixels of the output (1 on a desktop).
    virtual float scale() const = 0;

protected:
    DrawContext() = default;
};

} // namespace pelkit::ui
