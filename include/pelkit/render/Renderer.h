// Draws a camera image and a 3D scene with OpenGL ES 3. A renderer and its output are used from
// one thread, the one that renders; they are not thread-safe. Scene objects may change on other
// threads meanwhile: each frame reads the scene in one step under the scene lock, then asks video
// sources for frames, uploads textures and draws without holding it.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>
#include <pelkit/render/Output.h>
#include <pelkit/scene/Camera.h>
#include <pelkit/scene/Material.h>
#include <pelkit/scene/Node.h>

#include <glm/vec2.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace pelkit::render {

/// What one frame shows.
struct Frame {
    /// Drawn first, scaled to fill the output (cropped evenly where the aspect ratios differ), as
    /// a camera image is. Without one the frame starts from `clearColor`.
    std::shared_ptr<const image::Image> background;
    scene::Color clearColor{0, 0, 0, 1};
    /// The root of the scene; nothing is drawn over the background without one.
    std::shared_ptr<scene::Node> scene;
    /// Should have the output's size as its viewport, so that `Camera::project` and hit tests
    /// agree with the picture.
    scene::Camera camera;
    /// When set, the scene's actions are advanced to this time (seconds) before drawing.
    std::optional<double> time;
};

/// Counters since the renderer was made, for tests and benchmarks.
struct RenderStatistics {
    std::uint64_t frames = 0;
    std::uint64_t textureUploads = 0;     ///< images copied into textures
    std::uint64_t textureAllocations = 0; ///< textures created (a reused one is not counted)
    std::uint64_t programBuilds = 0;      ///< shader programs compiled and linked
    std::uint64_t sceneDraws = 0;         ///< 2D scenes drawn into their textures
};

/// Draws frames into an output.
///
/// Planes are the geometry drawn; each shows its first material (a plane without materials
/// shows opaque white). The material's diffuse contents give the surface colour: a colour, an
/// image, a 2D scene (drawn into a texture of one texel per point, see `Scene2D`, or fewer when
/// every picture in it is magnified and holds less detail than that) or a video
/// source's current frame (a source without a frame yet leaves its plane out). Images are
/// sampled from their exact 8-bit values, filtered bilinearly. Each image object is uploaded
/// once and kept while it is drawn: an image counts as changed only when it is another object
/// or its pixels are a new buffer (pixels rewritten in place are not seen); likewise a 2D scene
/// is drawn into its texture again only when its sprites, their pictures (a video's new frame)
/// or its background change. A surface shader
/// modifier runs as written: its lines before `#pragma body` are declarations, the rest runs per
/// fragment with
/// `_surface.diffuse` and `_surface.transparent` (both vec4) to read and change; with
/// `#pragma transparent` the alpha of `_surface.transparent` multiplies the fragment's opacity;
/// other `#pragma` lines are dropped. Uniforms it declares take the material's values of the same
/// name and type (unbound ones read as 0). Other entry points are not applied.
///
/// Hidden nodes and their subtrees are left out; a node's effective opacity multiplies its
/// surface's alpha. Surfaces show their front (the plane's +z side) only, unless the material
/// shows both faces. Planes are drawn farthest first, blended over what lies behind them.
///
///     auto renderer = render::Renderer::createOffscreen({640, 480}).value();
///     render::Frame frame;
///     frame.background = cameraImage;
///     frame.scene = root;
///     frame.camera = scene::Camera::perspective(glm::radians(60.0f), {640, 480});
///     if (auto drawn = renderer->render(frame); !drawn) log(*drawn.error());
///     image::encodePng(renderer->snapshot().value());
class Renderer {
public:
    /// A renderer drawing into `output`. Fails when the output's context cannot be made current
    /// or the renderer's own shaders do not build.
    static Result<std::unique_ptr<Renderer>> create(std::shared_ptr<Output> output);
    /// A renderer with its own headless output of `size` pixels.
    static Result<std::unique_ptr<Renderer>> createOffscreen(glm::ivec2 size);
    ~Renderer();
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

    glm::ivec2 size() const;
    /// The GL implementation's name, e.g. "llvmpipe (LLVM 15.0.6, 256 bits)".
    std::string deviceName() const;

    /// Draws one frame. A plane whose material cannot be drawn (a shader modifier that does not
    /// compile: the error carries the compiler's log) is left out, the rest of the frame is
    /// drawn, and the first such error is returned. GL failures are returned as errors naming
    /// the call and the GL error code.
    Result<void> render(const Frame& frame);

    /// The last frame as an RGBA image, rows from the top.
    Result<image::Image> snapshot();
    /// The same into `image`, reusing its buffer when it already has the size.
    Result<void> snapshot(image::Image& image);

    RenderStatistics statistics() const;

private:
    struct State;
    explicit Renderer(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

} // namespace pelkit::render
