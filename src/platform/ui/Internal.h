// State shared by the module's files: the application's windows, running presentation
// animations and display links. Main thread only.
#pragma once

#include <pelkit/ui/Application.h>
#include <pelkit/ui/ViewController.h>
#include <pelkit/ui/Window.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace pelkit::ui {

/// A presentation or dismissal in progress: `moving`'s view slides in from the bottom or out
/// to it; `finish` runs once the animation has ended.
struct Transition {
    enum class Kind { present, dismiss };
    std::weak_ptr<Window> window;
    std::shared_ptr<ViewController> moving;
    Kind kind = Kind::present;
    double start = 0;
    double duration = 0;
    std::function<void()> finish;

    /// 0 at the start, 1 at the end, eased out.
    double progress(double now) const;
};

struct Application::State {
    std::vector<Window*> windows;
    std::weak_ptr<Window> keyWindow;
    bool windowMade = false;
    std::vector<std::shared_ptr<Transition>> transitions;
    std::map<DisplayLinkId, std::function<void(double)>> displayLinks;
    DisplayLinkId nextLink = 1;
    std::function<double()> clock;
    std::atomic<bool> stopped{false};
    bool wakeInstalled = false;
};

/// The presentation machinery of `ViewController`, which windows and the loop drive.
struct Presentation {
    static Application::State& state() { return *Application::shared().state_; }
    /// The transition moving `controller`'s view, or null.
    static const Transition* transitionOf(const ViewController& controller);
    static bool hasTransition(const Window& window);
    /// Ends the transitions whose time is up; returns whether any is still running.
    static bool advance(double now);
    static void begin(std::shared_ptr<Transition> transition);
    /// Shows or hides `view` as a top view of `window` (null: none).
    static void attach(View& view, Window* window);
    /// SDL's id of a window on the screen; 0 for a headless one.
    static std::uint32_t windowId(const Window& window);
};

} // namespace pelkit::ui
