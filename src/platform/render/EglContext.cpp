// The module's one user of EGL.
#include "EglContext.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

namespace pelkit::render {
namespace {

std::string eglErrorName(EGLint code) {
    switch (code) {
    case EGL_SUCCESS:
        return "EGL_SUCCESS";
    case EGL_NOT_INITIALIZED:
        return "EGL_NOT_INITIALIZED";
    case EGL_BAD_ACCESS:
        return "EGL_BAD_ACCESS";
    case EGL_BAD_ALLOC:
        return "EGL_BAD_ALLOC";
    case EGL_BAD_ATTRIBUTE:
        return "EGL_BAD_ATTRIBUTE";
    case EGL_BAD_CONFIG:
        return "EGL_BAD_CONFIG";
    case EGL_BAD_CONTEXT:
        return "EGL_BAD_CONTEXT";
    case EGL_BAD_CURRENT_SURFACE:
        return "EGL_BAD_CURRENT_SURFACE";
    case EGL_BAD_DISPLAY:
        return "EGL_BAD_DISPLAY";
    case EGL_BAD_MATCH:
        return "EGL_BAD_MATCH";
    case EGL_BAD_NATIVE_PIXMAP:
        return "EGL_BAD_NATIVE_PIXMAP";
    case EGL_BAD_NATIVE_WINDOW:
        return "EGL_BAD_NATIVE_WINDOW";
    case EGL_BAD_PARAMETER:
        return "EGL_BAD_PARAMETER";
    case EGL_BAD_SURFACE:
        return "EGL_BAD_SURFACE";
    case EGL_CONTEXT_LOST:
        return "EGL_CONTEXT_LOST";
    default:
        return "unknown EGL error";
    }
}

// "eglInitialize: EGL_NOT_INITIALIZED (0x3001)"
ErrorPtr eglError(std::string_view call, EGLint code) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%04X", static_cast<unsigned>(code));
    return Error::make("EGL", code,
                       std::string(call) + ": " + eglErrorName(code) + " (" + hex + ")");
}

ErrorPtr lastEglError(std::string_view call) {
    return eglError(call, eglGetError());
}

ErrorPtr missingExtension(std::string_view call, std::string_view extension) {
    return Error::make("EGL", 0,
                       std::string(call) + ": " + std::string(extension) + " is not available");
}

bool hasExtension(const char* extensions, std::string_view name) {
    if (!extensions)
        return false;
    const std::string_view list(extensions);
    for (std::size_t start = 0; start < list.size();) {
        std::size_t end = list.find(' ', start);
        if (end == std::string_view::npos)
            end = list.size();
        if (list.substr(start, end - start) == name)
            return true;
        start = end + 1;
    }
    return false;
}

// EGL keeps one display per platform for the whole process, shared by every context made on
// it. It is initialised once and never terminated: terminating would pull it from under other
// contexts, and would unload the driver, only for the next renderer to load it again.
Result<EGLDisplay> sharedDisplay() {
    static std::mutex mutex;
    static EGLDisplay initialised = EGL_NO_DISPLAY;
    std::lock_guard lock(mutex);
    if (initialised != EGL_NO_DISPLAY)
        return initialised;
    const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    if (!hasExtension(clientExtensions, "EGL_EXT_platform_base"))
        return std::unexpected(
            missingExtension("eglGetPlatformDisplayEXT", "EGL_EXT_platform_base"));
    if (!hasExtension(clientExtensions, "EGL_MESA_platform_surfaceless"))
        return std::unexpected(
            missingExtension("eglGetPlatformDisplayEXT", "EGL_MESA_platform_surfaceless"));
    auto getPlatformDisplay = reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(
        eglGetProcAddress("eglGetPlatformDisplayEXT"));
    if (!getPlatformDisplay)
        return std::unexpected(missingExtension("eglGetProcAddress", "eglGetPlatformDisplayEXT"));
    EGLDisplay display =
        getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (display == EGL_NO_DISPLAY)
        return std::unexpected(lastEglError("eglGetPlatformDisplayEXT"));
    EGLint major = 0;
    EGLint minor = 0;
    if (!eglInitialize(display, &major, &minor))
        return std::unexpected(lastEglError("eglInitialize"));
    initialised = display;
    return display;
}

} // namespace

struct EglContext::State {
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLContext context = EGL_NO_CONTEXT;
};

EglContext::EglContext(std::unique_ptr<State> state) : state_(std::move(state)) {}

EglContext::~EglContext() {
    if (!state_ || state_->context == EGL_NO_CONTEXT)
        return;
    if (eglGetCurrentContext() == state_->context)
        eglMakeCurrent(state_->display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(state_->display, state_->context);
}

Result<std::unique_ptr<EglContext>> EglContext::createSurfaceless() {
    auto display = sharedDisplay();
    if (!display)
        return std::unexpected(display.error());

    const char* extensions = eglQueryString(*display, EGL_EXTENSIONS);
    if (!hasExtension(extensions, "EGL_KHR_surfaceless_context"))
        return std::unexpected(missingExtension("eglMakeCurrent", "EGL_KHR_surfaceless_context"));
    if (!eglBindAPI(EGL_OPENGL_ES_API))
        return std::unexpected(lastEglError("eglBindAPI"));

    // Nothing is drawn to an EGL surface, so a context without a config serves where the
    // implementation allows it; otherwise any config that can render ES 3.
    EGLConfig config = EGL_NO_CONFIG_KHR;
    if (!hasExtension(extensions, "EGL_KHR_no_config_context")) {
        const EGLint wanted[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT, EGL_NONE};
        EGLint count = 0;
        if (!eglChooseConfig(*display, wanted, &config, 1, &count))
            return std::unexpected(lastEglError("eglChooseConfig"));
        if (count == 0)
            return std::unexpected(eglError("eglChooseConfig", EGL_BAD_CONFIG));
    }
    const EGLint attributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_MINOR_VERSION, 0,
                                 EGL_NONE};
    EGLContext context = eglCreateContext(*display, config, EGL_NO_CONTEXT, attributes);
    if (context == EGL_NO_CONTEXT)
        return std::unexpected(lastEglError("eglCreateContext"));

    auto state = std::make_unique<State>();
    state->display = *display;
    state->context = context;
    return std::unique_ptr<EglContext>(new EglContext(std::move(state)));
}

Result<void> EglContext::makeCurrent() const {
    if (eglGetCurrentContext() == state_->context)
        return {};
    if (!eglMakeCurrent(state_->display, EGL_NO_SURFACE, EGL_NO_SURFACE, state_->context))
        return std::unexpected(lastEglError("eglMakeCurrent"));
    return {};
}

} // namespace pelkit::render
