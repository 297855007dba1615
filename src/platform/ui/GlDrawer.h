// The module's one user of OpenGL ES: filled rectangles and textured quads in pixel
// coordinates (origin top-left), for drawing views. Used on the thread that draws a window,
// with that window's context current; not thread-safe.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>
#include <pelkit/render/Output.h>
#include <pelkit/ui/DrawContext.h>
#include <pelkit/ui/Geometry.h>

#include <memory>
#include <optional>

namespace pelkit::ui {

/// Rectangles here are in pixels of the output.
class GlDrawer {
public:
    /// Builds the drawer's shaders in the current context.
    static Result<std::unique_ptr<GlDrawer>> create();
    ~GlDrawer();
    GlDrawer(const GlDrawer&) = delete;
    GlDrawer& operator=(const GlDrawer&) = delete;

    /// Starts a frame on `output` (its context current): clears it to `clear`.
    void begin(const render::Output& output, Color clear);
    /// Every draw sets the GL state it needs, so other code (a renderer) may draw in between.
    void fill(const Rect& rect, Color color, const std::optional<Rect>& clip);
    void image(const std::shared_ptr<const image::Image>& image, const Rect& rect, const void* slot,
               Blend blend, const std::optional<Rect>& clip);
    /// Ends the frame: textures not drawn in it are released.
    void end();
    /// The output's pixels, rows from the top.
    Result<image::Image> read(const render::Output& output);

    /// Texture uploads since the drawer was made (for tests and benchmarks).
    std::uint64_t uploads() const;

    struct State;

private:
    explicit GlDrawer(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

} // namespace pelkit::ui
