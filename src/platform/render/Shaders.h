// The renderer's GLSL sources and the splicing of a material's surface shader modifier into the
// plane shader. Pure text; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pelkit::render::shaders {

/// Where a surface's diffuse colour comes from: a colour uniform, an 8-bit image uploaded as
/// an unsigned-integer texture, or a 2D scene drawn into a normalised texture (premultiplied).
enum class Diffuse { color = 0, image = 1, sceneTexture = 2 };

/// How a texture is read: filtered bilinearly, or one texel per fragment where texel centres
/// fall on pixel centres (a picture shown at its own size), which gives the same values for
/// a quarter of the reads.
enum class Sampling { filtered = 0, pixelAligned = 1 };

/// A surface shader modifier cut into the parts the plane shader takes.
struct SurfaceModifier {
    std::string declarations; ///< text before `#pragma body`, spliced in as globals
    int declarationsLine = 1; ///< line number of its first line in the modifier
    std::string body;         ///< text after `#pragma body`, run per fragment
    int bodyLine = 1;
    bool transparent = false; ///< `#pragma transparent` was given
};

/// Splits `text`: lines before a `#pragma body` line are declarations, the lines after it the
/// body; without one the whole text is the body. `#pragma transparent` sets `transparent`;
/// every `#pragma` line becomes an empty line, so the compiler's line numbers stay the
/// modifier's own.
SurfaceModifier parseSurfaceModifier(std::string_view text);

/// The vertex shader of a plane: a quad of `pelkit_size` centred on its origin.
extern const std::string_view planeVertex;
/// The fragment shader of a plane showing `diffuse`, with `modifier` spliced in when there is one.
std::string planeFragment(Diffuse diffuse, Sampling sampling,
                          const std::optional<SurfaceModifier>& modifier);

/// The background: a quad over the whole output showing part of an image, from a normalised
/// texture filtered by GL (exact where a texel is shown whole: the error of GL's conversion is
/// far below the half step that rounding to the output's bytes takes away).
extern const std::string_view backgroundVertex;
std::string backgroundFragment();

/// A sprite of a 2D scene, drawn into the scene's texture with premultiplied alpha.
extern const std::string_view spriteVertex;
std::string spriteFragment();

} // namespace pelkit::render::shaders
