#include "Shaders.h"

#include <vector>

namespace pelkit::render::shaders {
namespace {

constexpr std::string_view fragmentHeader = R"(#version 300 es
precision highp float;
precision highp int;
precision highp sampler2D;
precision highp usampler2D;
)";

// Texel values are handled as 0..255 and divided by 255 once, after filtering: an integer texture
// gives the image's bytes as they are, and a normalised one (a 2D scene's) is rounded back to its
// bytes, because the rasteriser's own 8-bit conversion is off by a fraction of a step, enough to
// move a pixel across the keying edge. The divisor is a uniform so that the compiler keeps a true
// division instead of a multiplication by an inexact reciprocal. Bilinear weights are applied as
// a + (b - a) * f, which gives a texel's value exactly wherever its neighbours are equal.
constexpr std::string_view samplingFunctions = R"(
uniform float pelkit_channelMax;
#if PELKIT_DIFFUSE == 1
uniform usampler2D pelkit_texture;
vec4 pelkit_texel(ivec2 p) { return vec4(texelFetch(pelkit_texture, p, 0)); }
#else
uniform sampler2D pelkit_texture;
vec4 pelkit_texel(ivec2 p) { return round(texelFetch(pelkit_texture, p, 0) * 255.0); }
#endif
#if PELKIT_PIXEL_ALIGNED
vec4 pelkit_sample(vec2 uv) {
    ivec2 size = textureSize(pelkit_texture, 0);
    ivec2 p = clamp(ivec2(floor(uv * vec2(size))), ivec2(0), size - 1);
    return pelkit_texel(p) / pelkit_channelMax;
}
#else
vec4 pelkit_sample(vec2 uv) {
    ivec2 size = textureSize(pelkit_texture, 0);
    vec2 p = uv * vec2(size) - 0.5;
    vec2 base = floor(p);
    vec2 f = p - base;
    ivec2 low = clamp(ivec2(base), ivec2(0), size - 1);
    ivec2 high = clamp(ivec2(base) + 1, ivec2(0), size - 1);
    vec4 a = pelkit_texel(low);
    vec4 b = pelkit_texel(ivec2(high.x, low.y));
    vec4 c = pelkit_texel(ivec2(low.x, high.y));
    vec4 d = pelkit_texel(high);
    vec4 top = a + (b - a) * f.x;
    vec4 bottom = c + (d - c) * f.x;
    return (top + (bottom - top) * f.y) / pelkit_channelMax;
}
#endif
)";

std::string header(Diffuse diffuse, Sampling sampling = Sampling::filtered) {
    std::string text(fragmentHeader);
    text += "#define PELKIT_DIFFUSE " + std::to_string(static_cast<int>(diffuse)) + "\n";
    text += "#define PELKIT_PIXEL_ALIGNED " + std::to_string(static_cast<int>(sampling)) + "\n";
    return text;
}

std::string_view trimmedStart(std::string_view line) {
    const auto first = line.find_first_not_of(" \t\r");
    return first == std::string_view::npos ? std::string_view{} : line.substr(first);
}

// The directive a "#pragma" line gives ("body", "transparent", ...), or nothing for other lines.
std::optional<std::string_view> pragmaOf(std::string_view line) {
    std::string_view rest = trimmedStart(line);
    if (!rest.starts_with('#'))
        return std::nullopt;
    rest = trimmedStart(rest.substr(1));
    if (!rest.starts_with("pragma"))
        return std::nullopt;
    rest = rest.substr(6);
    if (!rest.empty() && rest.front() != ' ' && rest.front() != '\t')
        return std::nullopt;
    rest = trimmedStart(rest);
    return rest.substr(0, rest.find_first_of(" \t\r"));
}

} // namespace

SurfaceModifier parseSurfaceModifier(std::string_view text) {
    std::vector<std::string_view> lines;
    for (std::size_t start = 0;;) {
        const std::size_t end = text.find('\n', start);
        lines.push_back(text.substr(start, end == std::string_view::npos ? end : end - start));
        if (end == std::string_view::npos)
            break;
        start = end + 1;
    }

    SurfaceModifier modifier;
    std::optional<std::size_t> bodyPragma;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const auto pragma = pragmaOf(lines[i]);
        if (pragma == "transparent")
            modifier.transparent = true;
        if (pragma == "body" && !bodyPragma)
            bodyPragma = i;
    }
    auto join = [&](std::size_t from, std::size_t to) {
        std::string joined;
        for (std::size_t i = from; i < to; ++i) {
            if (!pragmaOf(lines[i]))
                joined += lines[i];
            joined += '\n';
        }
        return joined;
    };
    if (bodyPragma) {
        modifier.declarations = join(0, *bodyPragma);
        modifier.body = join(*bodyPragma + 1, lines.size());
        modifier.bodyLine = static_cast<int>(*bodyPragma) + 2;
    } else {
        modifier.body = join(0, lines.size());
    }
    return modifier;
}

const std::string_view planeVertex = R"(#version 300 es
uniform mat4 pelkit_modelViewProjection;
uniform vec2 pelkit_size;
out vec2 pelkit_uv;
void main() {
    vec2 corner = vec2(float(gl_VertexID & 1), float(gl_VertexID >> 1));
    // Texture rows run down the plane: the first row lies along its top edge.
    pelkit_uv = vec2(corner.x, 1.0 - corner.y);
    gl_Position = pelkit_modelViewProjection * vec4((corner - 0.5) * pelkit_size, 0.0, 1.0);
}
)";

std::string planeFragment(Diffuse diffuse, Sampling sampling,
                          const std::optional<SurfaceModifier>& modifier) {
    std::string text = header(diffuse, sampling);
    text += R"(in vec2 pelkit_uv;
out vec4 pelkit_fragColor;
uniform float pelkit_opacity;
)";
    if (diffuse == Diffuse::color) {
        text += "uniform vec4 pelkit_color;\nvec4 pelkit_diffuse() { return pelkit_color; }\n";
    } else {
        text += samplingFunctions;
        text += R"(vec4 pelkit_diffuse() {
    vec4 color = pelkit_sample(pelkit_uv);
#if PELKIT_DIFFUSE == 2
    if (color.a > 0.0)
        color.rgb /= color.a;
#endif
    return color;
}
)";
    }
    text += R"(struct SurfaceValues {
    vec4 diffuse;
    vec4 transparent;
};
SurfaceValues _surface;
)";
    if (modifier) {
        text += "#line " + std::to_string(modifier->declarationsLine) + "\n";
        text += modifier->declarations;
    }
    text += R"(
void main() {
    _surface.diffuse = pelkit_diffuse();
    _surface.transparent = vec4(1.0);
    {
)";
    if (modifier) {
        text += "#line " + std::to_string(modifier->bodyLine) + "\n";
        text += modifier->body;
    }
    text += "\n    }\n    float alpha = _surface.diffuse.a * pelkit_opacity";
    if (modifier && modifier->transparent)
        text += " * _surface.transparent.a";
    text += R"(;
    alpha = clamp(alpha, 0.0, 1.0);
    pelkit_fragColor = vec4(_surface.diffuse.rgb * alpha, alpha);
}
)";
    return text;
}

const std::string_view backgroundVertex = R"(#version 300 es
uniform vec4 pelkit_imageRect;
uniform float pelkit_flipY;
out vec2 pelkit_uv;
void main() {
    vec2 corner = vec2(float(gl_VertexID & 1), float(gl_VertexID >> 1));
    // corner (0, 0) is the view's top-left; the rect says which part of the image shows there.
    pelkit_uv = pelkit_imageRect.xy + corner * pelkit_imageRect.zw;
    gl_Position = vec4(corner.x * 2.0 - 1.0, (1.0 - corner.y * 2.0) * pelkit_flipY, 0.0, 1.0);
}
)";

std::string backgroundFragment() {
    std::string text(fragmentHeader);
    text += R"(in vec2 pelkit_uv;
out vec4 pelkit_fragColor;
uniform sampler2D pelkit_texture;
void main() { pelkit_fragColor = texture(pelkit_texture, pelkit_uv); }
)";
    return text;
}

const std::string_view spriteVertex = R"(#version 300 es
uniform vec2 pelkit_corners[4];
uniform vec2 pelkit_targetSize;
out vec2 pelkit_uv;
void main() {
    // The picture's corners (0, 0), (1, 0), (0, 1), (1, 1), placed in texels of the scene target.
    pelkit_uv = vec2(float(gl_VertexID & 1), float(gl_VertexID >> 1));
    gl_Position = vec4(pelkit_corners[gl_VertexID] / pelkit_targetSize * 2.0 - 1.0, 0.0, 1.0);
}
)";

std::string spriteFragment() {
    std::string text = header(Diffuse::image);
    text += "in vec2 pelkit_uv;\nout vec4 pelkit_fragColor;\nuniform float pelkit_alpha;\n";
    text += samplingFunctions;
    text += R"(void main() {
    vec4 color = pelkit_sample(pelkit_uv);
    float alpha = clamp(color.a * pelkit_alpha, 0.0, 1.0);
    pelkit_fragColor = vec4(color.rgb * alpha, alpha);
}
)";
    return text;
}

} // namespace pelkit::render::shaders
