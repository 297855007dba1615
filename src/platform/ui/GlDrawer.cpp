#include "GlDrawer.h"

#include <GLES3/gl3.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>

namespace pelkit::ui {
namespace {

constexpr const char* kVertexShader = R"(#version 300 es
uniform vec4 uRect;
out vec2 vTexCoord;
void main() {
    // Corners of a triangle strip from the vertex number: (0,0) (1,0) (0,1) (1,1).
    vec2 corner = vec2(float(gl_VertexID & 1), float(gl_VertexID >> 1));
    gl_Position = vec4(mix(uRect.xy, uRect.zw, corner), 0.0, 1.0);
    vTexCoord = corner;
}
)";

// Opaque pictures at full opacity (video): a plain copy, which llvmpipe draws on its fast path
// for unblended textured quads.
constexpr const char* kCopyShader = R"(#version 300 es
precision mediump float;
uniform sampler2D uTexture;
in vec2 vTexCoord;
out vec4 fragColor;
void main() {
    fragColor = texture(uTexture, vTexCoord);
}
)";

constexpr const char* kFragmentShader = R"(#version 300 es
precision mediump float;
uniform sampler2D uTexture;
uniform vec4 uColor;
uniform bool uTextured;
in vec2 vTexCoord;
out vec4 fragColor;
void main() {
    fragColor = (uTextured ? texture(uTexture, vTexCoord) : vec4(1.0)) * uColor;
}
)";

// "glLinkProgram: <log>"
ErrorPtr glError(const std::string& call, const std::string& detail, int code) {
    return Error::make("GL", code, call + ": " + detail);
}

Result<GLuint> compile(GLenum stage, const char* source) {
    const GLuint shader = glCreateShader(stage);
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);
    GLint ok = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
    if (ok)
        return shader;
    char log[1024] = {};
    glGetShaderInfoLog(shader, sizeof log, nullptr, log);
    glDeleteShader(shader);
    return std::unexpected(glError("glCompileShader", log, GL_COMPILE_STATUS));
}

Result<GLuint> link(const char* fragmentSource) {
    auto vertex = compile(GL_VERTEX_SHADER, kVertexShader);
    if (!vertex)
        return std::unexpected(vertex.error());
    auto fragment = compile(GL_FRAGMENT_SHADER, fragmentSource);
    if (!fragment) {
        glDeleteShader(*vertex);
        return std::unexpected(fragment.error());
    }
    const GLuint program = glCreateProgram();
    glAttachShader(program, *vertex);
    glAttachShader(program, *fragment);
    glLinkProgram(program);
    glDeleteShader(*vertex);
    glDeleteShader(*fragment);
    GLint linked = 0;
    glGetProgramiv(program, GL_LINK_STATUS, &linked);
    if (linked)
        return program;
    char log[1024] = {};
    glGetProgramInfoLog(program, sizeof log, nullptr, log);
    glDeleteProgram(program);
    return std::unexpected(glError("glLinkProgram", log, GL_LINK_STATUS));
}

struct Texture {
    GLuint name = 0;
    int width = 0;
    int height = 0;
    std::weak_ptr<const image::Image> source;
    std::uint64_t lastFrame = 0;
};

} // namespace

struct GlDrawer::State {
    GLuint program = 0;
    GLuint copyProgram = 0;
    GLuint vertexArray = 0;
    GLint rectLocation = -1, colorLocation = -1, texturedLocation = -1, textureLocation = -1;
    GLint copyRectLocation = -1, copyTextureLocation = -1;
    // Set by begin(): the output being drawn.
    glm::ivec2 size{1};
    render::RowOrder order = render::RowOrder::topDown;
    unsigned framebuffer = 0;
    std::uint64_t frame = 0;
    std::uint64_t uploads = 0;
    std::unordered_map<const void*, Texture> textures;

    ~State() {
        for (auto& [key, texture] : textures)
            glDeleteTextures(1, &texture.name);
        if (vertexArray)
            glDeleteVertexArrays(1, &vertexArray);
        if (program)
            glDeleteProgram(program);
        if (copyProgram)
            glDeleteProgram(copyProgram);
    }

    // GL's window coordinates have y up; a bottom-up output shows the picture's top at its top.
    float flipY(float y) const { return order == render::RowOrder::bottomUp ? size.y - y : y; }

    // `copy`: an opaque picture drawn as it is, without blending.
    void prepare(const Rect& rect, Color color, bool textured, const std::optional<Rect>& clip,
                 bool copy = false) {
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glViewport(0, 0, size.x, size.y);
        glDisable(GL_DEPTH_TEST);
        glDisable(GL_CULL_FACE);
        if (copy) {
            glDisable(GL_BLEND);
        } else {
            glEnable(GL_BLEND);
            glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE,
                                GL_ONE_MINUS_SRC_ALPHA);
        }
        if (clip) {
            glEnable(GL_SCISSOR_TEST);
            const float top =
                order == render::RowOrder::bottomUp ? flipY(clip->maxY()) : clip->minY();
            glScissor(GLint(clip->minX()), GLint(top), GLsizei(clip->size.width),
                      GLsizei(clip->size.height));
        } else {
            glDisable(GL_SCISSOR_TEST);
        }
        glUseProgram(copy ? copyProgram : program);
        glBindVertexArray(vertexArray);
        const auto ndcX = [&](float x) { return x / float(size.x) * 2 - 1; };
        const auto ndcY = [&](float y) { return flipY(y) / float(size.y) * 2 - 1; };
        glUniform4f(copy ? copyRectLocation : rectLocation, ndcX(rect.minX()), ndcY(rect.minY()),
                    ndcX(rect.maxX()), ndcY(rect.maxY()));
        if (copy)
            return;
        glUniform4f(colorLocation, color.red, color.green, color.blue, color.alpha);
        glUniform1i(texturedLocation, textured ? 1 : 0);
    }

    Texture& upload(const std::shared_ptr<const image::Image>& image, const void* key) {
        Texture& texture = textures[key];
        texture.lastFrame = frame;
        if (texture.name && texture.source.lock() == image)
            return texture;
        glActiveTexture(GL_TEXTURE0);
        if (!texture.name || texture.width != image->width || texture.height != image->height) {
            if (texture.name)
                glDeleteTextures(1, &texture.name);
            glGenTextures(1, &texture.name);
            glBindTexture(GL_TEXTURE_2D, texture.name);
            glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, image->width, image->height);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
            texture.width = image->width;
            texture.height = image->height;
        }
        glBindTexture(GL_TEXTURE_2D, texture.name);
        glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, image->width, image->height, GL_RGBA,
                        GL_UNSIGNED_BYTE, image->rgba.data());
        texture.source = image;
        ++uploads;
        return texture;
    }
};

GlDrawer::GlDrawer(std::unique_ptr<State> state) : state_(std::move(state)) {}
GlDrawer::~GlDrawer() = default;

Result<std::unique_ptr<GlDrawer>> GlDrawer::create() {
    auto state = std::make_unique<State>();
    auto program = link(kFragmentShader);
    if (!program)
        return std::unexpected(program.error());
    state->program = *program;
    auto copy = link(kCopyShader);
    if (!copy)
        return std::unexpected(copy.error());
    state->copyProgram = *copy;
    state->copyRectLocation = glGetUniformLocation(state->copyProgram, "uRect");
    state->copyTextureLocation = glGetUniformLocation(state->copyProgram, "uTexture");
    state->rectLocation = glGetUniformLocation(state->program, "uRect");
    state->colorLocation = glGetUniformLocation(state->program, "uColor");
    state->texturedLocation = glGetUniformLocation(state->program, "uTextured");
    state->textureLocation = glGetUniformLocation(state->program, "uTexture");
    glGenVertexArrays(1, &state->vertexArray);
    return std::unique_ptr<GlDrawer>(new GlDrawer(std::move(state)));
}

void GlDrawer::begin(const render::Output& output, Color clear) {
    auto& s = *state_;
    s.size = output.size();
    s.order = output.rowOrder();
    s.framebuffer = output.framebuffer();
    ++s.frame;
    glBindFramebuffer(GL_FRAMEBUFFER, s.framebuffer);
    glViewport(0, 0, s.size.x, s.size.y);
    glDisable(GL_SCISSOR_TEST);
    glClearColor(clear.red, clear.green, clear.blue, clear.alpha);
    glClear(GL_COLOR_BUFFER_BIT);
}

void GlDrawer::fill(const Rect& rect, Color color, const std::optional<Rect>& clip) {
    if (rect.isEmpty() || color.alpha <= 0)
        return;
    state_->prepare(rect, color, false, clip);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

void GlDrawer::image(const std::shared_ptr<const image::Image>& image, const Rect& rect,
                     const void* slot, Blend blend, const std::optional<Rect>& clip) {
    if (!image || image->empty() || rect.isEmpty() ||
        image->rgba.size() < image->stride() * std::size_t(image->height))
        return;
    Texture& texture = state_->upload(image, slot ? slot : image.get());
    const bool copy = blend == Blend::opaque;
    state_->prepare(rect, {1, 1, 1, 1}, true, clip, copy);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, texture.name);
    // Drawn pixel for pixel, nearest sampling gives the same picture and costs llvmpipe far
    // less than bilinear filtering.
    const bool exact = std::lround(rect.size.width) == image->width &&
                       std::lround(rect.size.height) == image->height &&
                       rect.origin.x == std::floor(rect.origin.x) &&
                       rect.origin.y == std::floor(rect.origin.y);
    const GLint filter = exact ? GL_NEAREST : GL_LINEAR;
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, filter);
    glUniform1i(copy ? state_->copyTextureLocation : state_->textureLocation, 0);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

void GlDrawer::end() {
    auto& s = *state_;
    std::erase_if(s.textures, [&](auto& entry) {
        if (entry.second.lastFrame == s.frame)
            return false;
        glDeleteTextures(1, &entry.second.name);
        return true;
    });
    glDisable(GL_SCISSOR_TEST);
}

Result<image::Image> GlDrawer::read(const render::Output& output) {
    const glm::ivec2 size = output.size();
    image::Image picture = image::Image::filled(size.x, size.y);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, output.framebuffer());
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glReadPixels(0, 0, size.x, size.y, GL_RGBA, GL_UNSIGNED_BYTE, picture.rgba.data());
    if (const GLenum code = glGetError(); code != GL_NO_ERROR) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%04X", code);
        return std::unexpected(glError("glReadPixels", std::string("GL error ") + hex, int(code)));
    }
    if (output.rowOrder() == render::RowOrder::bottomUp) {
        std::vector<std::uint8_t> row(picture.stride());
        for (int top = 0, bottom = size.y - 1; top < bottom; ++top, --bottom) {
            std::memcpy(row.data(), picture.pixel(0, top), row.size());
            std::memcpy(picture.pixel(0, top), picture.pixel(0, bottom), row.size());
            std::memcpy(picture.pixel(0, bottom), row.data(), row.size());
        }
    }
    return picture;
}

std::uint64_t GlDrawer::uploads() const {
    return state_->uploads;
}

} // namespace pelkit::ui
