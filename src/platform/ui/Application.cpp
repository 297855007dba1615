#include "Internal.h"
#include "Sdl.h"

#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/Log.h>

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

extern char** environ;

namespace pelkit::ui {
namespace {

// Frames of animations and display links are this far apart.
constexpr std::chrono::milliseconds kFrameInterval{16};

Display displayFromEnvironment() {
    const char* chosen = std::getenv("PELKIT_DISPLAY");
    return chosen && std::string_view(chosen) == "headless" ? Display::headless : Display::screen;
}

// Delivers the events of SDL's windows to ours.
class WindowInput final : public sdl::InputSink {
public:
    explicit WindowInput(Application::State& state) : state_(state) {}

    void touch(std::uint32_t id, Touch::Phase phase, Point point) override {
        if (Window* window = find(id)) {
            if (phase == Touch::Phase::began)
                window->touchDown(point);
            else if (phase == Touch::Phase::moved)
                window->touchMove(point);
            else
                window->touchUp(point);
        }
    }
    void key(std::uint32_t id, std::string_view name) override {
        if (Window* window = find(id))
            window->keyDown(name);
    }
    void closeRequested(std::uint32_t id) override {
        if (Window* window = find(id))
            window->close();
    }
    void resized(std::uint32_t id, Size size) override {
        if (Window* window = find(id))
            window->resize(size);
    }
    void exposed(std::uint32_t id) override {
        if (Window* window = find(id))
            window->setNeedsDisplay();
    }
    void quit() override { Application::shared().stop(); }

private:
    Window* find(std::uint32_t id) const;
    Application::State& state_;
};

} // namespace

double Transition::progress(double now) const {
    if (duration <= 0)
        return 1;
    const double t = std::clamp((now - start) / duration, 0.0, 1.0);
    return 1 - (1 - t) * (1 - t) * (1 - t);
}

Application::Application() : display_(displayFromEnvironment()), state_(std::make_unique<State>()) {
    // The main queue must outlive the application, which removes its wake handler at exit.
    DispatchQueue::main();
}

Application::~Application() {
    if (state_->wakeInstalled)
        DispatchQueue::main().setWakeHandler({});
}

Application& Application::shared() {
    static Application application;
    return application;
}

void Application::setDisplay(Display display) {
    if (state_->windowMade && display != display_)
        fatalError("Application::setDisplay: windows exist already");
    display_ = display;
}

std::shared_ptr<Window> Application::keyWindow() const {
    return state_->keyWindow.lock();
}

void Application::setIdleTimerDisabled(bool disabled) {
    idleTimerDisabled_ = disabled;
    if (display_ == Display::screen)
        sdl::setScreenSaverEnabled(!disabled);
}

void Application::open(const net::Url& url, std::function<void(bool)> completion) {
    auto finish = [completion = std::move(completion)](bool success) {
        if (completion)
            DispatchQueue::main().async([completion, success] { completion(success); });
    };
    // A reference without a scheme could read as an option to the handler.
    if (url.scheme().empty()) {
        printLine("open: " + url.absoluteString() + " is not an absolute URL");
        return finish(false);
    }
    opened_.push_back(url);
    if (display_ == Display::headless)
        return finish(true);
    const std::string text = url.absoluteString();
    char program[] = "xdg-open";
    char* argv[] = {program, const_cast<char*>(text.c_str()), nullptr};
    pid_t pid = 0;
    if (const int err = posix_spawnp(&pid, program, nullptr, nullptr, argv, environ); err != 0) {
        printLine("open: " + Error::fromErrno("posix_spawnp(xdg-open)", err)->description());
        return finish(false);
    }
    // The handler may take a while (it starts a browser); reap it off the main thread.
    std::thread([pid, finish] {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        finish(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }).detach();
}

double Application::now() const {
    if (state_->clock)
        return state_->clock();
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void Application::setClock(std::function<double()> clock) {
    state_->clock = std::move(clock);
}

Application::DisplayLinkId Application::addDisplayLink(std::function<void(double)> tick) {
    const DisplayLinkId id = state_->nextLink++;
    state_->displayLinks.emplace(id, std::move(tick));
    return id;
}

void Application::removeDisplayLink(DisplayLinkId id) {
    state_->displayLinks.erase(id);
}

void Application::runTurn() {
    if (display_ == Display::screen && state_->wakeInstalled) {
        WindowInput input(*state_);
        sdl::waitEvents(0, input);
    }
    DispatchQueue::main().drain();
    const double time = now();
    Presentation::advance(time);
    // A link may remove itself (or another) while ticking.
    std::vector<DisplayLinkId> ids;
    for (const auto& [id, tick] : state_->displayLinks)
        ids.push_back(id);
    for (DisplayLinkId id : ids)
        if (auto found = state_->displayLinks.find(id); found != state_->displayLinks.end())
            found->second(time);
    for (Window* window : std::vector<Window*>(state_->windows))
        if (auto shown = window->displayIfNeeded(); !shown)
            printLine("Window: " + shown.error()->description());
}

void Application::waitForWork(std::chrono::milliseconds limit) {
    if (!state_->transitions.empty() || !state_->displayLinks.empty())
        limit = std::min(limit, kFrameInterval);
    const int timeout = limit == std::chrono::milliseconds::max() ? -1 : int(limit.count());
    if (display_ == Display::screen && state_->wakeInstalled) {
        WindowInput input(*state_);
        sdl::waitEvents(timeout, input);
        return;
    }
    pollfd wake{DispatchQueue::main().wakeDescriptor(), POLLIN, 0};
    ::poll(&wake, 1, timeout);
}

void Application::run() {
    // A stop that came before the loop started ends it after one turn.
    while (!state_->stopped) {
        runTurn();
        if (!state_->stopped)
            waitForWork(std::chrono::milliseconds::max());
    }
    runTurn();
    state_->stopped = false;
}

void Application::stop() {
    state_->stopped = true;
    DispatchQueue::main().async([] {});
}

void Application::pump() {
    runTurn();
}

bool Application::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        runTurn();
        if (done())
            return true;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        waitForWork(left);
    }
}

Window* WindowInput::find(std::uint32_t id) const {
    for (Window* window : state_.windows)
        if (Presentation::windowId(*window) == id)
            return window;
    return nullptr;
}

} // namespace pelkit::ui
