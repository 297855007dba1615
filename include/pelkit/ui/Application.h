// The application: the main loop on the main thread, which runs input events and the main
// dispatch queue, the key window, the idle timer and opening URLs. Main thread only, except
// where an operation says otherwise.
#pragma once

#include <pelkit/net/Url.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace pelkit::ui {

class Window;

/// Where windows go: on the display server (SDL2 with OpenGL ES 3), or headless, drawn
/// offscreen by Mesa with input given by the program (tests), URLs recorded instead of opened.
enum class Display { screen, headless };

/// The one application object.
///
/// Each turn of the loop handles the input events, runs the main queue's work, advances
/// presentation animations and display links, and draws the windows that need it. Between turns
/// it sleeps until input arrives, work is submitted to `DispatchQueue::main()` (from any thread),
/// or the next animation frame is due; it never polls while idle.
///
///     ui::Application::shared().setDisplay(ui::Display::headless);   // before any window
///     auto window = ui::Window::create({640, 480}).value();
///     ...
///     ui::Application::shared().runUntil([&] { return done; }, std::chrono::seconds(5));
class Application {
public:
    static Application& shared();

    Display display() const { return display_; }
    /// Chooses the display; only before the first window is made (fatal afterwards). The
    /// default is `screen`, or `headless` when $PELKIT_DISPLAY is "headless".
    void setDisplay(Display display);

    /// The window that takes key input, or null.
    std::shared_ptr<Window> keyWindow() const;

    /// Whether the display may blank or lock while the application runs (SDL's screen saver).
    bool isIdleTimerDisabled() const { return idleTimerDisabled_; }
    void setIdleTimerDisabled(bool disabled);

    /// Opens `url` with the desktop's handler (xdg-open, started without a shell). The
    /// completion, if any, runs on the main queue with whether the handler succeeded. Headless,
    /// the URL is only recorded (`openedUrls()`) and the completion gets true.
    void open(const net::Url& url, std::function<void(bool success)> completion = {});
    const std::vector<net::Url>& openedUrls() const { return opened_; }

    /// Runs turns until `stop()`.
    void run();
    /// Ends `run()` after the current turn; a stop that comes before `run()` ends the next one
    /// after its first turn. Any thread.
    void stop();
    /// One turn without waiting.
    void pump();
    /// Runs turns, waiting between them as `run()` does, until `done()` holds (asked after each
    /// turn) or `timeout` passes; returns whether `done()` held.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    /// Seconds on the clock that animations follow (the steady clock unless replaced).
    double now() const;
    /// Replaces that clock (tests step it by hand); empty restores the steady clock.
    void setClock(std::function<double()> clock);
    /// How long an animated presentation or dismissal lasts; 0.3 s by default.
    double animationDuration() const { return animationDuration_; }

    /// Calls `tick` once per display frame (60 times a second) while registered; a view that
    /// changes on its own (a video) registers one while it is in a window.
    using DisplayLinkId = std::uint64_t;
    DisplayLinkId addDisplayLink(std::function<void(double now)> tick);
    void removeDisplayLink(DisplayLinkId id);

    struct State;

private:
    friend class Window;
    friend struct Presentation;
    Application();
    ~Application();
    void waitForWork(std::chrono::milliseconds limit);
    void runTurn();

    Display display_;
    bool idleTimerDisabled_ = false;
    double animationDuration_ = 0.3;
    std::vector<net::Url> opened_;
    std::unique_ptr<State> state_;
};

} // namespace pelkit::ui
