#include "Gl.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace pelkit::render::gl {
namespace {

std::string errorName(GLenum code) {
    switch (code) {
    case GL_INVALID_ENUM:
        return "GL_INVALID_ENUM";
    case GL_INVALID_VALUE:
        return "GL_INVALID_VALUE";
    case GL_INVALID_OPERATION:
        return "GL_INVALID_OPERATION";
    case GL_OUT_OF_MEMORY:
        return "GL_OUT_OF_MEMORY";
    case GL_INVALID_FRAMEBUFFER_OPERATION:
        return "GL_INVALID_FRAMEBUFFER_OPERATION";
    case GL_FRAMEBUFFER_UNDEFINED:
        return "GL_FRAMEBUFFER_UNDEFINED";
    case GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT:
        return "GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT";
    case GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT:
        return "GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT";
    case GL_FRAMEBUFFER_UNSUPPORTED:
        return "GL_FRAMEBUFFER_UNSUPPORTED";
    case GL_FRAMEBUFFER_INCOMPLETE_MULTISAMPLE:
        return "GL_FRAMEBUFFER_INCOMPLETE_MULTISAMPLE";
    default:
        return "unknown GL error";
    }
}

std::string infoLog(GLuint object, bool isShader) {
    GLint length = 0;
    if (isShader)
        glGetShaderiv(object, GL_INFO_LOG_LENGTH, &length);
    else
        glGetProgramiv(object, GL_INFO_LOG_LENGTH, &length);
    std::string log(static_cast<std::size_t>(length > 0 ? length : 0), '\0');
    GLsizei written = 0;
    if (length > 0) {
        if (isShader)
            glGetShaderInfoLog(object, length, &written, log.data());
        else
            glGetProgramInfoLog(object, length, &written, log.data());
    }
    log.resize(static_cast<std::size_t>(written));
    while (!log.empty() && (log.back() == '\n' || log.back() == '\0'))
        log.pop_back();
    return log;
}

Result<Shader> compile(GLenum stage, std::string_view source) {
    Shader shader(glCreateShader(stage));
    if (!shader)
        return std::unexpected(makeError("glCreateShader", glGetError()));
    const char* text = source.data();
    const auto length = static_cast<GLint>(source.size());
    glShaderSource(shader.get(), 1, &text, &length);
    glCompileShader(shader.get());
    GLint compiled = GL_FALSE;
    glGetShaderiv(shader.get(), GL_COMPILE_STATUS, &compiled);
    if (!compiled) {
        const char* stageName = stage == GL_VERTEX_SHADER ? "vertex" : "fragment";
        return std::unexpected(Error::make("GL", GL_COMPILE_STATUS,
                                           std::string("glCompileShader: ") + stageName +
                                               " shader: " + infoLog(shader.get(), true)));
    }
    return shader;
}

} // namespace

ErrorPtr makeError(std::string_view call, GLenum code) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%04X", static_cast<unsigned>(code));
    return Error::make("GL", static_cast<int>(code),
                       std::string(call) + ": " + errorName(code) + " (" + hex + ")");
}

Result<void> check(std::string_view call) {
    const GLenum first = glGetError();
    if (first == GL_NO_ERROR)
        return {};
    // GL may hold several flags; drain them so the next check reports only its own calls.
    for (int i = 0; i < 16 && glGetError() != GL_NO_ERROR; ++i) {
    }
    return std::unexpected(makeError(call, first));
}

void deleteTexture(GLuint name) {
    glDeleteTextures(1, &name);
}
void deleteFramebuffer(GLuint name) {
    glDeleteFramebuffers(1, &name);
}
void deleteRenderbuffer(GLuint name) {
    glDeleteRenderbuffers(1, &name);
}
void deleteVertexArray(GLuint name) {
    glDeleteVertexArrays(1, &name);
}
void deleteProgram(GLuint name) {
    glDeleteProgram(name);
}
void deleteShader(GLuint name) {
    glDeleteShader(name);
}

GLint Program::location(std::string_view uniformName) const {
    auto it = uniforms.find(uniformName);
    return it == uniforms.end() ? -1 : it->second.location;
}

Result<Program> buildProgram(std::string_view vertexSource, std::string_view fragmentSource) {
    auto vertex = compile(GL_VERTEX_SHADER, vertexSource);
    if (!vertex)
        return std::unexpected(vertex.error());
    auto fragment = compile(GL_FRAGMENT_SHADER, fragmentSource);
    if (!fragment)
        return std::unexpected(fragment.error());

    Program program;
    program.name = Name<deleteProgram>(glCreateProgram());
    if (!program.name)
        return std::unexpected(makeError("glCreateProgram", glGetError()));
    const GLuint name = program.name.get();
    glAttachShader(name, vertex->get());
    glAttachShader(name, fragment->get());
    glLinkProgram(name);
    GLint linked = GL_FALSE;
    glGetProgramiv(name, GL_LINK_STATUS, &linked);
    if (!linked)
        return std::unexpected(
            Error::make("GL", GL_LINK_STATUS, "glLinkProgram: " + infoLog(name, false)));
    // The shaders live on in the program; their names are no longer needed.
    glDetachShader(name, vertex->get());
    glDetachShader(name, fragment->get());

    GLint count = 0;
    GLint longest = 0;
    glGetProgramiv(name, GL_ACTIVE_UNIFORMS, &count);
    glGetProgramiv(name, GL_ACTIVE_UNIFORM_MAX_LENGTH, &longest);
    std::vector<char> buffer(static_cast<std::size_t>(longest > 0 ? longest : 1));
    for (GLint i = 0; i < count; ++i) {
        GLsizei length = 0;
        GLint size = 0;
        GLenum type = 0;
        glGetActiveUniform(name, static_cast<GLuint>(i), static_cast<GLsizei>(buffer.size()),
                           &length, &size, &type, buffer.data());
        std::string uniformName(buffer.data(), static_cast<std::size_t>(length));
        const GLint location = glGetUniformLocation(name, uniformName.c_str());
        program.uniforms.emplace(std::move(uniformName), Program::Uniform{location, type});
    }
    if (auto checked = check("glLinkProgram"); !checked)
        return std::unexpected(checked.error());
    return program;
}

Result<Texture> createTexture(GLenum internalFormat, int width, int height, GLint filter) {
    GLuint name = 0;
    glGenTextures(1, &name);
    Texture texture(name);
    glBindTexture(GL_TEXTURE_2D, name);
    glTexStorage2D(GL_TEXTURE_2D, 1, internalFormat, width, height);
    if (auto checked = check("glTexStorage2D"); !checked)
        return std::unexpected(checked.error());
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    return texture;
}

int maxTextureSize() {
    GLint size = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &size);
    GLint renderbuffer = 0;
    glGetIntegerv(GL_MAX_RENDERBUFFER_SIZE, &renderbuffer);
    return std::min(size, renderbuffer);
}

} // namespace pelkit::render::gl
