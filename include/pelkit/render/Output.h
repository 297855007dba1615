// Where a renderer draws: a GL ES 3 context and a framebuffer in it. An output is used from the
// one thread that renders with it; it is not thread-safe.
#pragma once

#include <pelkit/foundation/Error.h>

#include <glm/vec2.hpp>

#include <memory>

namespace pelkit::render {

/// How a framebuffer's rows lie in memory: the bottom row of the picture first (a window's own
/// framebuffer, as GL has it), or the top row first (so a read-back needs no flip).
enum class RowOrder { bottomUp, topDown };

/// A drawing target with the context it belongs to. The headless output below is one; a window
/// is another, made by the program that owns the window. The renderer makes the context current
/// before every frame and every read-back, and only draws into `framebuffer()`.
class Output {
public:
    virtual ~Output();

    /// Makes the output's context current on the calling thread.
    virtual Result<void> makeCurrent() = 0;
    /// The framebuffer object to draw into; 0 is the context's default framebuffer.
    virtual unsigned framebuffer() const = 0;
    /// Size in pixels.
    virtual glm::ivec2 size() const = 0;
    virtual RowOrder rowOrder() const = 0;

protected:
    Output() = default;
};

/// A headless output: an OpenGL ES 3 context on Mesa's surfaceless EGL platform (software
/// rendering by llvmpipe where there is no GPU; no display server needed), drawing into an
/// RGBA8 colour buffer with a 24-bit depth buffer. Rows are kept top row first.
///
///     auto output = render::OffscreenOutput::create({1280, 720});
///     if (!output) std::cerr << *output.error();   // e.g. "eglInitialize: EGL_NOT_INITIALIZED
///     (0x3001)"
class OffscreenOutput final : public Output {
public:
    /// Fails when EGL or an ES 3 context cannot be had, or the size is not positive or larger
    /// than the implementation allows.
    static Result<std::shared_ptr<OffscreenOutput>> create(glm::ivec2 size);
    ~OffscreenOutput() override;

    Result<void> makeCurrent() override;
    unsigned framebuffer() const override;
    glm::ivec2 size() const override;
    RowOrder rowOrder() const override { return RowOrder::topDown; }

private:
    struct State;
    explicit OffscreenOutput(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

} // namespace pelkit::render
