#include <pelkit/render/Output.h>

#include "EglContext.h"
#include "Gl.h"

#include <string>

namespace pelkit::render {

Output::~Output() = default;

// Members are destroyed bottom-up: the GL objects go while the context still exists.
struct OffscreenOutput::State {
    std::unique_ptr<EglContext> context;
    glm::ivec2 size{0};
    gl::Renderbuffer color;
    gl::Renderbuffer depth;
    gl::Framebuffer framebuffer;

    ~State() {
        // Without our context current, deleting would hit another context's objects.
        const bool current = context && context->makeCurrent();
        for (auto* name : {&color, &depth})
            current ? name->reset() : void(name->release());
        current ? framebuffer.reset() : void(framebuffer.release());
    }
};

OffscreenOutput::OffscreenOutput(std::unique_ptr<State> state) : state_(std::move(state)) {}

OffscreenOutput::~OffscreenOutput() = default;

Result<std::shared_ptr<OffscreenOutput>> OffscreenOutput::create(glm::ivec2 size) {
    if (size.x <= 0 || size.y <= 0)
        return std::unexpected(Error::make("GL", GL_INVALID_VALUE,
                                           "OffscreenOutput: the size " + std::to_string(size.x) +
                                               " x " + std::to_string(size.y) +
                                               " is not positive"));
    auto context = EglContext::createSurfaceless();
    if (!context)
        return std::unexpected(context.error());
    if (auto current = (*context)->makeCurrent(); !current)
        return std::unexpected(current.error());

    auto state = std::make_unique<State>();
    state->context = std::move(*context);
    state->size = size;
    const int largest = gl::maxTextureSize();
    if (size.x > largest || size.y > largest)
        return std::unexpected(Error::make(
            "GL", GL_INVALID_VALUE,
            "OffscreenOutput: the size " + std::to_string(size.x) + " x " + std::to_string(size.y) +
                " exceeds the largest side, " + std::to_string(largest)));

    GLuint names[2] = {0, 0};
    glGenRenderbuffers(2, names);
    state->color = gl::Renderbuffer(names[0]);
    state->depth = gl::Renderbuffer(names[1]);
    glBindRenderbuffer(GL_RENDERBUFFER, names[0]);
    glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, size.x, size.y);
    glBindRenderbuffer(GL_RENDERBUFFER, names[1]);
    glRenderbufferStorage(GL_RENDERBUFFER, GL_DEPTH_COMPONENT24, size.x, size.y);
    if (auto checked = gl::check("glRenderbufferStorage"); !checked)
        return std::unexpected(checked.error());

    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    state->framebuffer = gl::Framebuffer(framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, names[0]);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, names[1]);
    const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
    if (status != GL_FRAMEBUFFER_COMPLETE)
        return std::unexpected(gl::makeError("glCheckFramebufferStatus", status));
    return std::shared_ptr<OffscreenOutput>(new OffscreenOutput(std::move(state)));
}

Result<void> OffscreenOutput::makeCurrent() {
    return state_->context->makeCurrent();
}

unsigned OffscreenOutput::framebuffer() const {
    return state_->framebuffer.get();
}

glm::ivec2 OffscreenOutput::size() const {
    return state_->size;
}

} // namespace pelkit::render
