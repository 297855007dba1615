// Windows: a real SDL window with an OpenGL ES 3 context, or a headless one drawing offscreen,
// each showing a root view controller and whatever it presents. Main thread only.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>
#include <pelkit/render/Output.h>
#include <pelkit/ui/Geometry.h>
#include <pelkit/ui/ViewController.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace pelkit::ui {

/// A window. Which kind it is follows `Application::display()`; the code above it is the same.
/// Mouse clicks and touch-screen taps arrive as touches; a headless window takes touches from
/// `touchDown` / `touchMove` / `touchUp` / `tap` instead.
///
///     auto window = ui::Window::create({1280, 720}, "Player").value();
///     window->setRootViewController(host);
///     window->makeKeyAndVisible();
///     ui::Application::shared().run();
class Window : public Responder, public std::enable_shared_from_this<Window> {
public:
    /// Fails when no window or GL ES 3 context can be had (no display server, no EGL) or the
    /// size is not positive, naming the failed call.
    static Result<std::shared_ptr<Window>> create(Size size, std::string title = "PELkit");
    ~Window() override;
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    std::shared_ptr<ViewController> rootViewController() const { return root_; }
    /// Shows `controller`'s view over the whole window; it appears at the next turn of the main
    /// loop when the window is visible.
    void setRootViewController(std::shared_ptr<ViewController> controller);
    /// Shows the window and makes it the application's key window.
    void makeKeyAndVisible();
    bool isKeyWindow() const;
    bool isVisible() const { return visible_; }

    Rect bounds() const { return {{0, 0}, size_}; }
    EdgeInsets safeAreaInsets() const { return {}; }
    std::shared_ptr<render::Output> output() const;

    /// Draws at the next turn of the main loop.
    void setNeedsDisplay() { needsDisplay_ = true; }
    bool needsDisplay() const { return needsDisplay_; }
    /// Lays out and draws now if needed; `Application` calls this each turn.
    Result<void> displayIfNeeded();
    /// Lays out, draws and returns the picture (rows from the top).
    Result<image::Image> snapshot();
    /// Frames drawn since the window was made, and images copied into textures (for tests and
    /// benchmarks).
    std::uint64_t framesDrawn() const { return frames_; }
    std::uint64_t textureUploads() const;

    /// The deepest view under `point` (window coordinates) on the top-most screen, or null.
    std::shared_ptr<View> hitTest(Point point);

    /// Input, as the event loop delivers it; tests call these on a headless window.
    void touchDown(Point point);
    void touchMove(Point point);
    void touchUp(Point point);
    void tap(Point point);
    /// Called with SDL's key names ("Space", "P", "Escape") as keys go down.
    void setKeyHandler(std::function<void(std::string_view key)> handler);
    void keyDown(std::string_view key);
    /// Called when the user closes the window; by default the application's loop stops.
    void setCloseHandler(std::function<void()> handler);
    void close();
    /// A new size: the event loop calls it when the user resizes a window on the screen; a
    /// headless window keeps the size it was made with.
    void resize(Size size);

    struct Platform;

private:
    friend class Application;
    friend class ViewController;
    friend struct Presentation;
    Window(Size size, std::unique_ptr<Platform> platform);
    enum class Present { no, yes };
    Result<void> draw(Present present);
    void drawScreens(DrawContext& context);
    void layoutScreens();
    /// The root controller and the chain of controllers presented over it, bottom first.
    std::vector<ViewController*> screens() const;

    Size size_;
    std::unique_ptr<Platform> platform_;
    std::shared_ptr<ViewController> root_;
    std::shared_ptr<Touch> touch_;
    std::function<void(std::string_view)> keyHandler_;
    std::function<void()> closeHandler_;
    bool visible_ = false;
    bool needsDisplay_ = true;
    std::uint64_t frames_ = 0;
};

} // namespace pelkit::ui
