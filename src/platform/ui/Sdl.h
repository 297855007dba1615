// The module's one user of SDL2's video and event functions: the window with its GL ES 3
// context, input events, the wake-up event and the screen saver. Main thread only, except
// `pushWake`.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/render/Output.h>
#include <pelkit/ui/Geometry.h>
#include <pelkit/ui/Responder.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace pelkit::ui::sdl {

/// Starts SDL's video subsystem once (OpenGL ES 3 through EGL, the screen saver allowed);
/// later calls give the first outcome.
Result<void> initVideo();

/// An SDL window with its own GL ES 3 context; drawing goes to its default framebuffer.
class GlWindow final : public render::Output {
public:
    static Result<std::shared_ptr<GlWindow>> create(Size size, const std::string& title);
    ~GlWindow() override;

    Result<void> makeCurrent() override;
    unsigned framebuffer() const override { return 0; }
    glm::ivec2 size() const override;
    render::RowOrder rowOrder() const override { return render::RowOrder::bottomUp; }

    std::uint32_t id() const;
    void show();
    void swap();

    struct Handles;

private:
    explicit GlWindow(std::unique_ptr<Handles> handles);
    std::unique_ptr<Handles> handles_;
};

/// Where the event loop delivers input.
class InputSink {
public:
    virtual ~InputSink() = default;
    virtual void touch(std::uint32_t window, Touch::Phase phase, Point point) = 0;
    virtual void key(std::uint32_t window, std::string_view name) = 0;
    virtual void closeRequested(std::uint32_t window) = 0;
    virtual void resized(std::uint32_t window, Size size) = 0;
    virtual void exposed(std::uint32_t window) = 0;
    virtual void quit() = 0;
};

/// Waits up to `timeoutMs` (negative: without limit) for an event, then delivers it and every
/// other pending one. Blocks in the display connection, not in a polling loop.
void waitEvents(int timeoutMs, InputSink& sink);
/// Wakes `waitEvents` from any thread; wake-ups pending together are merged into one event.
void pushWake();
void setScreenSaverEnabled(bool enabled);

} // namespace pelkit::ui::sdl
