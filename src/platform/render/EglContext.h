// An OpenGL ES 3 context on EGL's surfaceless platform: no window, no display server; drawing
// goes to framebuffer objects. Used from the thread that renders; not thread-safe.
#pragma once

#include <pelkit/foundation/Error.h>

#include <memory>

namespace pelkit::render {

class EglContext {
public:
    /// Fails with an error naming the EGL call and code when there is no usable EGL (no
    /// surfaceless platform, no ES 3 support).
    static Result<std::unique_ptr<EglContext>> createSurfaceless();
    ~EglContext();
    EglContext(const EglContext&) = delete;
    EglContext& operator=(const EglContext&) = delete;

    /// Makes the context current on the calling thread, without a surface.
    Result<void> makeCurrent() const;

private:
    struct State;
    explicit EglContext(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

} // namespace pelkit::render
