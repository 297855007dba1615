// The render module's thin layer over OpenGL ES 3: owners for GL objects, errors that name the
// failed call, shader programs. Every call needs the owning renderer's context current on the
// calling thread.
#pragma once

#include <pelkit/foundation/Error.h>

#include <GLES3/gl3.h>

#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace pelkit::render::gl {

/// "glTexStorage2D: GL_OUT_OF_MEMORY (0x0505)", domain "GL", the GL error as the code.
ErrorPtr makeError(std::string_view call, GLenum code);
/// The first error GL has recorded since the last check (all of them are cleared), named after
/// `call`; nothing when there is none.
Result<void> check(std::string_view call);

/// Owns one GL object name; deletes it at scope exit. Move-only; a moved-from or empty owner
/// deletes nothing.
template <void (*Delete)(GLuint)> class Name {
public:
    Name() = default;
    explicit Name(GLuint name) : name_(name) {}
    ~Name() { reset(); }
    Name(Name&& other) noexcept : name_(std::exchange(other.name_, 0)) {}
    Name& operator=(Name&& other) noexcept {
        if (this != &other) {
            reset();
            name_ = std::exchange(other.name_, 0);
        }
        return *this;
    }
    Name(const Name&) = delete;
    Name& operator=(const Name&) = delete;

    GLuint get() const { return name_; }
    explicit operator bool() const { return name_ != 0; }
    void reset() {
        if (name_ != 0)
            Delete(std::exchange(name_, 0));
    }
    /// Gives up ownership without deleting (when the object's context is gone).
    GLuint release() { return std::exchange(name_, 0); }

private:
    GLuint name_ = 0;
};

void deleteTexture(GLuint name);
void deleteFramebuffer(GLuint name);
void deleteRenderbuffer(GLuint name);
void deleteVertexArray(GLuint name);
void deleteProgram(GLuint name);
void deleteShader(GLuint name);

using Texture = Name<deleteTexture>;
using Framebuffer = Name<deleteFramebuffer>;
using Renderbuffer = Name<deleteRenderbuffer>;
using VertexArray = Name<deleteVertexArray>;
using Shader = Name<deleteShader>;

/// A linked program with its active uniforms by name.
struct Program {
    struct Uniform {
        GLint location = -1;
        GLenum type = 0;
    };
    Name<deleteProgram> name;
    std::map<std::string, Uniform, std::less<>> uniforms;

    /// The location of uniform `uniformName`, or -1 when the program has no such active uniform.
    GLint location(std::string_view uniformName) const;
};

/// Compiles and links. A compile failure's error is "glCompileShader: <stage> shader: <log>"
/// with code GL_COMPILE_STATUS; a link failure's "glLinkProgram: <log>", code GL_LINK_STATUS.
Result<Program> buildProgram(std::string_view vertexSource, std::string_view fragmentSource);

/// A texture with immutable storage of `width` x `height` in `internalFormat`, clamped to its
/// edges, filtered by `filter` (GL_NEAREST or GL_LINEAR).
Result<Texture> createTexture(GLenum internalFormat, int width, int height,
                              GLint filter = GL_NEAREST);

/// The largest texture or renderbuffer side the implementation takes.
int maxTextureSize();

} // namespace pelkit::render::gl
