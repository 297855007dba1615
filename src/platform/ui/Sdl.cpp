#include "Sdl.h"

#include <SDL.h>

#include <atomic>

namespace pelkit::ui::sdl {
namespace {

// "SDL_CreateWindow: No available video device"
ErrorPtr sdlError(std::string_view call) {
    return Error::make("SDL", -1, std::string(call) + ": " + SDL_GetError());
}

std::atomic<bool> wakePending{false};
std::atomic<std::uint32_t> wakeEventType{0};

Point mousePoint(int x, int y) {
    return {float(x), float(y)};
}

void deliver(const SDL_Event& event, InputSink& sink) {
    switch (event.type) {
    case SDL_MOUSEBUTTONDOWN:
    case SDL_MOUSEBUTTONUP:
        if (event.button.button == SDL_BUTTON_LEFT)
            sink.touch(event.button.windowID,
                       event.type == SDL_MOUSEBUTTONDOWN ? Touch::Phase::began
                                                         : Touch::Phase::ended,
                       mousePoint(event.button.x, event.button.y));
        break;
    case SDL_MOUSEMOTION:
        if (event.motion.state & SDL_BUTTON_LMASK)
            sink.touch(event.motion.windowID, Touch::Phase::moved,
                       mousePoint(event.motion.x, event.motion.y));
        break;
    case SDL_KEYDOWN:
        if (!event.key.repeat)
            sink.key(event.key.windowID, SDL_GetKeyName(event.key.keysym.sym));
        break;
    case SDL_WINDOWEVENT:
        if (event.window.event == SDL_WINDOWEVENT_CLOSE)
            sink.closeRequested(event.window.windowID);
        else if (event.window.event == SDL_WINDOWEVENT_SIZE_CHANGED)
            sink.resized(event.window.windowID,
                         {float(event.window.data1), float(event.window.data2)});
        else if (event.window.event == SDL_WINDOWEVENT_EXPOSED)
            sink.exposed(event.window.windowID);
        break;
    case SDL_QUIT:
        sink.quit();
        break;
    default:
        // The wake-up event only ends the wait; the loop drains the main queue next.
        if (event.type == wakeEventType.load())
            wakePending = false;
        break;
    }
}

} // namespace

Result<void> initVideo() {
    static Result<void> outcome = []() -> Result<void> {
        // The render module draws through EGL; a GLX context would work too through GLVND, but
        // one platform for every context keeps Mesa's choice predictable.
        SDL_SetHint(SDL_HINT_VIDEO_X11_FORCE_EGL, "1");
        SDL_SetHint(SDL_HINT_VIDEO_ALLOW_SCREENSAVER, "1");
        SDL_SetHint(SDL_HINT_MOUSE_FOCUS_CLICKTHROUGH, "1");
        if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0)
            return std::unexpected(sdlError("SDL_InitSubSystem(SDL_INIT_VIDEO)"));
        const Uint32 type = SDL_RegisterEvents(1);
        if (type == Uint32(-1))
            return std::unexpected(sdlError("SDL_RegisterEvents"));
        wakeEventType = type;
        SDL_GL_SetAttribute(SDL_GL_CONTEXT_PROFILE_MASK, SDL_GL_CONTEXT_PROFILE_ES);
        SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
        SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 0);
        SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
        SDL_GL_SetAttribute(SDL_GL_DEPTH_SIZE, 24);
        return {};
    }();
    return outcome;
}

struct GlWindow::Handles {
    SDL_Window* window = nullptr;
    SDL_GLContext context = nullptr;
    ~Handles() {
        if (context)
            SDL_GL_DeleteContext(context);
        if (window)
            SDL_DestroyWindow(window);
    }
};

GlWindow::GlWindow(std::unique_ptr<Handles> handles) : handles_(std::move(handles)) {}
GlWindow::~GlWindow() = default;

Result<std::shared_ptr<GlWindow>> GlWindow::create(Size size, const std::string& title) {
    if (auto video = initVideo(); !video)
        return std::unexpected(video.error());
    auto handles = std::make_unique<Handles>();
    handles->window = SDL_CreateWindow(
        title.c_str(), SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, int(size.width),
        int(size.height), SDL_WINDOW_OPENGL | SDL_WINDOW_HIDDEN | SDL_WINDOW_RESIZABLE);
    if (!handles->window)
        return std::unexpected(sdlError("SDL_CreateWindow"));
    handles->context = SDL_GL_CreateContext(handles->window);
    if (!handles->context)
        return std::unexpected(sdlError("SDL_GL_CreateContext"));
    // Prefer waiting for the display's refresh; without it (Xvfb) frames go out at once.
    if (SDL_GL_SetSwapInterval(-1) != 0)
        SDL_GL_SetSwapInterval(1);
    return std::shared_ptr<GlWindow>(new GlWindow(std::move(handles)));
}

Result<void> GlWindow::makeCurrent() {
    if (SDL_GL_MakeCurrent(handles_->window, handles_->context) != 0)
        return std::unexpected(sdlError("SDL_GL_MakeCurrent"));
    return {};
}

glm::ivec2 GlWindow::size() const {
    int width = 0, height = 0;
    SDL_GL_GetDrawableSize(handles_->window, &width, &height);
    return {width, height};
}

std::uint32_t GlWindow::id() const {
    return SDL_GetWindowID(handles_->window);
}

void GlWindow::show() {
    SDL_ShowWindow(handles_->window);
    SDL_RaiseWindow(handles_->window);
}

void GlWindow::swap() {
    SDL_GL_SwapWindow(handles_->window);
}

void waitEvents(int timeoutMs, InputSink& sink) {
    SDL_Event event;
    const int got = timeoutMs < 0    ? SDL_WaitEvent(&event)
                    : timeoutMs == 0 ? SDL_PollEvent(&event)
                                     : SDL_WaitEventTimeout(&event, timeoutMs);
    if (!got)
        return;
    do
        deliver(event, sink);
    while (SDL_PollEvent(&event));
}

void pushWake() {
    const std::uint32_t type = wakeEventType.load();
    if (type == 0 || wakePending.exchange(true))
        return;
    SDL_Event event{};
    event.type = type;
    if (SDL_PushEvent(&event) != 1)
        wakePending = false;
}

void setScreenSaverEnabled(bool enabled) {
    if (!SDL_WasInit(SDL_INIT_VIDEO))
        return;
    enabled ? SDL_EnableScreenSaver() : SDL_DisableScreenSaver();
}

} // namespace pelkit::ui::sdl
