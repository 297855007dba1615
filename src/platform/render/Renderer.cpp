#include <pelkit/render/Renderer.h>

#include "Gl.h"
#include "Shaders.h"
#include "Snapshot.h"
#include "Textures.h"

#include <pelkit/scene/Scene2D.h>

#include <glm/gtc/matrix_transform.hpp>
#include <glm/gtc/type_ptr.hpp>
#include <glm/matrix.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace pelkit::render {
namespace {

using shaders::Diffuse;
using shaders::Sampling;

// Frames a 2D scene's texture is kept while the scene is alive but not shown.
constexpr std::uint64_t idleSceneFrames = 120;

// A plane of the snapshot with what it is drawn with this frame.
struct DrawItem {
    PlaneSnapshot plane;
    Diffuse diffuse = Diffuse::color;
    glm::vec4 color{1};
    GLuint texture = 0;
    glm::ivec2 textureSize{0};
    const gl::Program* program = nullptr;
};

// One sprite as a 2D scene's texture shows it. Holding the picture keeps its identity: another
// picture can never reuse its address while it is compared against.
struct DrawnSprite {
    std::shared_ptr<const image::Image> image;
    const std::uint8_t* pixels = nullptr;
    glm::mat3 imageToScene{1};
    float alpha = 1;
    friend bool operator==(const DrawnSprite&, const DrawnSprite&) = default;
};

// A 2D scene's texture and the framebuffer that draws into it.
struct SceneTarget {
    std::weak_ptr<scene::Scene2D> scene;
    glm::ivec2 size{0};   // texels
    glm::ivec2 points{0}; // the scene's size, which the texture covers whatever its detail
    gl::Texture texture;
    gl::Framebuffer framebuffer;
    std::uint64_t lastUsed = 0;
    bool drawn = false; // in the current frame
    // What the texture holds; a scene that shows the same again is not drawn again.
    std::optional<std::vector<DrawnSprite>> shows;
    scene::Color background;
};

struct ProgramKey {
    Diffuse diffuse;
    Sampling sampling;
    std::string surfaceModifier;
    friend auto operator<=>(const ProgramKey&, const ProgramKey&) = default;
};

void setUniform(const gl::Program::Uniform& uniform, const scene::ShaderValue* value) {
    // A value of another type than the uniform's, or none, leaves the uniform at zero, so that a
    // value bound by the previous material using the program never shows through.
    auto as = [&]<class T>(std::type_identity<T>) {
        const T* typed = value ? std::get_if<T>(value) : nullptr;
        return typed ? *typed : T(0);
    };
    switch (uniform.type) {
    case GL_FLOAT:
        glUniform1f(uniform.location, as(std::type_identity<float>{}));
        break;
    case GL_FLOAT_VEC2:
        glUniform2fv(uniform.location, 1, glm::value_ptr(as(std::type_identity<glm::vec2>{})));
        break;
    case GL_FLOAT_VEC3:
        glUniform3fv(uniform.location, 1, glm::value_ptr(as(std::type_identity<glm::vec3>{})));
        break;
    case GL_FLOAT_VEC4:
        glUniform4fv(uniform.location, 1, glm::value_ptr(as(std::type_identity<glm::vec4>{})));
        break;
    default:
        break;
    }
}

bool isOwnUniform(std::string_view name) {
    return name.starts_with("pelkit_");
}

// Whether the plane shows its texture at its own size on the pixel grid: texel centres on pixel
// centres, rows and columns along the view's (mirrored or not). Reading the one texel under each
// fragment then gives exactly what filtering would.
bool isPixelAligned(const DrawItem& item, glm::ivec2 viewport) {
    if (item.diffuse == Diffuse::color)
        return false;
    glm::vec2 corners[4];
    for (int i = 0; i < 4; ++i) {
        const glm::vec2 uv{static_cast<float>(i & 1), static_cast<float>(i >> 1)};
        const glm::vec4 clip =
            item.plane.modelViewProjection *
            glm::vec4((uv.x - 0.5f) * item.plane.size.x, (0.5f - uv.y) * item.plane.size.y, 0, 1);
        if (!(clip.w > 0))
            return false;
        corners[i] = (glm::vec2(clip) / clip.w + 1.0f) * 0.5f * glm::vec2(viewport);
    }
    auto near = [](float a, float b) { return std::abs(a - b) < 1e-3f; };
    const glm::vec2 across = corners[1] - corners[0];
    const glm::vec2 down = corners[2] - corners[0];
    const glm::vec2 last = corners[1] + down;
    return near(across.y, 0) && near(down.x, 0) &&
           near(std::abs(across.x), static_cast<float>(item.textureSize.x)) &&
           near(std::abs(down.y), static_cast<float>(item.textureSize.y)) &&
           near(corners[3].x, last.x) && near(corners[3].y, last.y) &&
           near(corners[0].x, std::round(corners[0].x)) &&
           near(corners[0].y, std::round(corners[0].y));
}

bool sameScene(const std::weak_ptr<scene::Scene2D>& a, const std::shared_ptr<scene::Scene2D>& b) {
    return !a.owner_before(b) && !b.owner_before(a) && !a.expired();
}

// The texture size of a 2D scene, one texel per point, or nothing for a size that cannot be one.
std::optional<glm::ivec2> sceneTextureSize(glm::vec2 points, int largest) {
    if (!std::isfinite(points.x) || !std::isfinite(points.y) || points.x < 0.5f ||
        points.y < 0.5f || points.x > largest || points.y > largest)
        return std::nullopt;
    return glm::ivec2{static_cast<int>(std::lround(points.x)),
                      static_cast<int>(std::lround(points.y))};
}

// The picture a sprite shows now. A video source is asked here, after the scene lock is gone.
std::shared_ptr<const image::Image> imageOf(const scene::SpritePicture& picture) {
    if (auto* source = std::get_if<std::shared_ptr<scene::VideoFrameSource>>(&picture))
        return (*source)->currentFrame();
    return std::get<std::shared_ptr<const image::Image>>(picture);
}

// Texels per point a 2D scene needs: one where any picture is drawn at or below its own size,
// fewer when every picture is magnified (a 320x240 video stretched over 1280x720 points holds no
// more than 427x240 texels of detail). A scene of its background alone is one colour.
float detailOf(const std::vector<DrawnSprite>& sprites) {
    constexpr float kLeast = 1.0f / 8;
    float detail = kLeast;
    for (const auto& sprite : sprites) {
        if (!sprite.image)
            continue;
        const float wide = glm::length(glm::vec2(sprite.imageToScene[0]));
        const float high = glm::length(glm::vec2(sprite.imageToScene[1]));
        if (wide <= 0 || high <= 0)
            continue;
        detail = std::max({detail, static_cast<float>(sprite.image->width) / wide,
                           static_cast<float>(sprite.image->height) / high});
    }
    return std::min(detail, 1.0f);
}

enum class Readiness { draw, leaveOut };

} // namespace

struct Renderer::State {
    // Declared first, so destroyed last: the GL objects below go while the context is alive.
    std::shared_ptr<Output> output;

    gl::VertexArray vertexArray;
    gl::Program backgroundProgram;
    gl::Program spriteProgram;
    std::map<ProgramKey, Result<gl::Program>> planePrograms;
    ImageTextures textures{ImageTextures::Kind::integer};
    ImageTextures backgroundTextures{ImageTextures::Kind::normalised};
    gl::Framebuffer backgroundFramebuffer; // reads a background texture for blits
    std::unordered_map<const scene::Scene2D*, SceneTarget> sceneTargets;

    RenderStatistics statistics;
    std::uint64_t sceneTargetAllocations = 0;
    std::uint64_t frameNumber = 0;
    int largestTexture = 0;
    glm::ivec2 viewport{0}; // of the frame being drawn
    bool lastFrameOpaque = true;

    bool topDown() const { return output->rowOrder() == RowOrder::topDown; }
    Result<const gl::Program*> planeProgram(Diffuse diffuse, Sampling sampling,
                                            const std::string& modifier);
    Result<GLuint> sceneTexture(const SceneSnapshot& snapshot);
    Result<void> allocateSceneTarget(SceneTarget& target, glm::ivec2 size);
    Result<void> drawScene(const SceneTarget& target, const SceneSnapshot& snapshot,
                           const std::vector<DrawnSprite>& sprites);
    Result<void> drawFrame(const Frame& frame, std::vector<PlaneSnapshot> planes);
    Result<std::vector<const DrawItem*>> prepareAll(std::vector<DrawItem>& items,
                                                    ErrorPtr& firstError);
    Result<Readiness> prepare(DrawItem& item, ErrorPtr& firstError);
    Result<Readiness> resolveContents(DrawItem& item);
    Result<Readiness> useImage(DrawItem& item, const std::shared_ptr<const image::Image>& image);
    Result<void> drawBackdrop(const Frame& frame);
    Result<bool> drawBackground(const std::shared_ptr<const image::Image>& image);
    void drawPlanes(std::vector<const DrawItem*> items);
    void drawPlane(const DrawItem& item);
    void endFrame();
};

Result<const gl::Program*> Renderer::State::planeProgram(Diffuse diffuse, Sampling sampling,
                                                         const std::string& modifier) {
    ProgramKey key{diffuse, sampling, modifier};
    auto it = planePrograms.find(key);
    if (it == planePrograms.end()) {
        std::optional<shaders::SurfaceModifier> parsed;
        if (!modifier.empty())
            parsed = shaders::parseSurfaceModifier(modifier);
        ++statistics.programBuilds;
        auto program = gl::buildProgram(shaders::planeVertex,
                                        shaders::planeFragment(diffuse, sampling, parsed));
        // A failed build is kept too: the same text fails the same way every frame.
        it = planePrograms.emplace(std::move(key), std::move(program)).first;
    }
    if (!it->second)
        return std::unexpected(it->second.error());
    return &*it->second;
}

Result<GLuint> Renderer::State::sceneTexture(const SceneSnapshot& snapshot) {
    const auto points = sceneTextureSize(snapshot.size, largestTexture);
    if (!points)
        return 0;
    std::vector<DrawnSprite> shows;
    shows.reserve(snapshot.sprites.size());
    for (const auto& sprite : snapshot.sprites) {
        auto image = imageOf(sprite.picture);
        const auto* pixels = image ? image->rgba.data() : nullptr;
        shows.push_back({std::move(image), pixels, sprite.imageToScene, sprite.alpha});
    }
    const float detail = detailOf(shows);
    const glm::ivec2 size =
        glm::max(glm::ivec2(1), glm::ivec2(glm::round(glm::vec2(*points) * detail)));
    const scene::Scene2D* key = snapshot.scene.get();
    SceneTarget& target = sceneTargets[key];
    if (!sameScene(target.scene, snapshot.scene)) {
        target = SceneTarget{};
        target.scene = snapshot.scene;
    }
    target.lastUsed = frameNumber;
    if (target.drawn) // by another plane this frame
        return target.texture.get();
    if (!target.texture || target.size != size) {
        if (auto allocated = allocateSceneTarget(target, size); !allocated) {
            sceneTargets.erase(key);
            return std::unexpected(allocated.error());
        }
        target.shows.reset();
    }
    // Most 2D scenes hold still (a button, a paused video's hidden sprite): drawing one again
    // into a large texture every frame is most of what content costs on a software renderer.
    target.drawn = true;
    target.points = *points;
    if (target.shows == shows && target.background == snapshot.background)
        return target.texture.get();
    target.shows.reset();
    if (auto drawn = drawScene(target, snapshot, shows); !drawn)
        return std::unexpected(drawn.error());
    ++statistics.sceneDraws;
    target.shows = std::move(shows);
    target.background = snapshot.background;
    return target.texture.get();
}

Result<void> Renderer::State::allocateSceneTarget(SceneTarget& target, glm::ivec2 size) {
    auto texture = gl::createTexture(GL_RGBA8, size.x, size.y);
    if (!texture)
        return std::unexpected(texture.error());
    ++sceneTargetAllocations;
    target.texture = std::move(*texture);
    target.size = size;
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    target.framebuffer = gl::Framebuffer(framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D,
                           target.texture.get(), 0);
    if (const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
        status != GL_FRAMEBUFFER_COMPLETE)
        return std::unexpected(gl::makeError("glCheckFramebufferStatus", status));
    return {};
}

Result<void> Renderer::State::drawScene(const SceneTarget& target, const SceneSnapshot& snapshot,
                                        const std::vector<DrawnSprite>& sprites) {
    // Framebuffer row y is texture row y, so texel coordinates are window coordinates here.
    glBindFramebuffer(GL_FRAMEBUFFER, target.framebuffer.get());
    glViewport(0, 0, target.size.x, target.size.y);
    glDisable(GL_DEPTH_TEST);
    glDisable(GL_CULL_FACE); // a negative scale mirrors a sprite; it is still drawn
    const scene::Color background = snapshot.background;
    const float alpha = std::clamp(background.alpha, 0.0f, 1.0f);
    glClearColor(background.red * alpha, background.green * alpha, background.blue * alpha, alpha);
    glClear(GL_COLOR_BUFFER_BIT);
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
    glUseProgram(spriteProgram.name.get());
    // Sprites are placed in points; the viewport scales them to the texture's detail.
    glUniform2f(spriteProgram.location("pelkit_targetSize"), static_cast<float>(target.points.x),
                static_cast<float>(target.points.y));
    glUniform1f(spriteProgram.location("pelkit_channelMax"), 255.0f);
    glUniform1i(spriteProgram.location("pelkit_texture"), 0);
    const GLint cornersLocation = spriteProgram.location("pelkit_corners[0]");
    const GLint alphaLocation = spriteProgram.location("pelkit_alpha");
    glActiveTexture(GL_TEXTURE0);
    for (const auto& sprite : sprites) {
        auto texture = textures.textureFor(sprite.image);
        if (!texture)
            return std::unexpected(texture.error());
        if (*texture == 0)
            continue;
        glm::vec2 corners[4];
        for (int i = 0; i < 4; ++i) {
            const glm::vec3 picturePoint{static_cast<float>(i & 1), static_cast<float>(i >> 1), 1};
            corners[i] = scene::texelForScenePoint(glm::vec2(sprite.imageToScene * picturePoint));
        }
        glUniform2fv(cornersLocation, 4, glm::value_ptr(corners[0]));
        glUniform1f(alphaLocation, sprite.alpha);
        glBindTexture(GL_TEXTURE_2D, *texture);
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    }
    return {};
}

Result<Readiness> Renderer::State::useImage(DrawItem& item,
                                            const std::shared_ptr<const image::Image>& image) {
    auto texture = textures.textureFor(image);
    if (!texture)
        return std::unexpected(texture.error());
    // An image that cannot be a texture leaves the surface in its default opaque white.
    if (*texture != 0) {
        item.texture = *texture;
        item.diffuse = Diffuse::image;
        item.textureSize = {image->width, image->height};
    }
    return Readiness::draw;
}

Result<Readiness> Renderer::State::resolveContents(DrawItem& item) {
    const ContentsSnapshot& contents = item.plane.contents;
    if (auto* color = std::get_if<scene::Color>(&contents)) {
        item.color = {color->red, color->green, color->blue, color->alpha};
    } else if (auto* image = std::get_if<std::shared_ptr<const image::Image>>(&contents)) {
        return useImage(item, *image);
    } else if (auto* scene = std::get_if<std::shared_ptr<const SceneSnapshot>>(&contents)) {
        auto texture = sceneTexture(**scene);
        if (!texture)
            return std::unexpected(texture.error());
        if (*texture != 0) {
            item.texture = *texture;
            item.diffuse = Diffuse::sceneTexture;
            item.textureSize = sceneTargets.at((*scene)->scene.get()).size;
        }
    } else if (auto* video = std::get_if<std::shared_ptr<scene::VideoFrameSource>>(&contents)) {
        auto frame = *video ? (*video)->currentFrame() : nullptr;
        if (!frame)
            return Readiness::leaveOut; // nothing decoded yet
        return useImage(item, frame);
    }
    return Readiness::draw;
}

Result<Readiness> Renderer::State::prepare(DrawItem& item, ErrorPtr& firstError) {
    auto resolved = resolveContents(item);
    if (!resolved || *resolved == Readiness::leaveOut)
        return resolved;
    const Sampling sampling =
        isPixelAligned(item, viewport) ? Sampling::pixelAligned : Sampling::filtered;
    auto program = planeProgram(item.diffuse, sampling, item.plane.surfaceModifier);
    if (!program) {
        if (!firstError)
            firstError = program.error();
        return Readiness::leaveOut;
    }
    item.program = *program;
    return Readiness::draw;
}

Result<bool> Renderer::State::drawBackground(const std::shared_ptr<const image::Image>& image) {
    auto texture = backgroundTextures.textureFor(image);
    if (!texture)
        return std::unexpected(texture.error());
    if (*texture == 0)
        return false;
    const bool topDown = this->topDown();
    const glm::ivec2 size = output->size();
    glDisable(GL_DEPTH_TEST);
    glDisable(GL_BLEND);
    glDisable(GL_CULL_FACE);

    if (image->width == size.x && image->height == size.y) {
        // A camera image of the view's own size is copied as it is. The texture's first row is
        // the image's top row; a bottom-up framebuffer wants it last.
        glBindFramebuffer(GL_READ_FRAMEBUFFER, backgroundFramebuffer.get());
        glFramebufferTexture2D(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, *texture,
                               0);
        glBlitFramebuffer(0, 0, size.x, size.y, 0, topDown ? 0 : size.y, size.x,
                          topDown ? size.y : 0, GL_COLOR_BUFFER_BIT, GL_NEAREST);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, output->framebuffer());
        return true;
    }

    // Scale to fill: the image covers the view and its overflow is cut evenly on both sides.
    const glm::vec2 imageSize{static_cast<float>(image->width), static_cast<float>(image->height)};
    const glm::vec2 view(size);
    const float scale = std::max(view.x / imageSize.x, view.y / imageSize.y);
    const glm::vec2 extent = view / (scale * imageSize);
    const glm::vec2 origin = (glm::vec2(1) - extent) * 0.5f;
    glUseProgram(backgroundProgram.name.get());
    glUniform4f(backgroundProgram.location("pelkit_imageRect"), origin.x, origin.y, extent.x,
                extent.y);
    glUniform1f(backgroundProgram.location("pelkit_flipY"), topDown ? -1.0f : 1.0f);
    glUniform1i(backgroundProgram.location("pelkit_texture"), 0);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, *texture);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    return true;
}

void Renderer::State::drawPlane(const DrawItem& item) {
    const PlaneSnapshot& plane = item.plane;
    const gl::Program& program = *item.program;
    glUseProgram(program.name.get());
    glUniformMatrix4fv(program.location("pelkit_modelViewProjection"), 1, GL_FALSE,
                       glm::value_ptr(plane.modelViewProjection));
    glUniform2f(program.location("pelkit_size"), plane.size.x, plane.size.y);
    glUniform1f(program.location("pelkit_opacity"), plane.opacity);
    if (item.diffuse == Diffuse::color) {
        glUniform4fv(program.location("pelkit_color"), 1, glm::value_ptr(item.color));
    } else {
        glUniform1f(program.location("pelkit_channelMax"), 255.0f);
        glUniform1i(program.location("pelkit_texture"), 0);
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, item.texture);
    }
    for (const auto& [name, uniform] : program.uniforms) {
        if (isOwnUniform(name))
            continue;
        auto value = plane.values.find(name);
        setUniform(uniform, value == plane.values.end() ? nullptr : &value->second);
    }
    if (plane.faces == scene::Faces::both)
        glDisable(GL_CULL_FACE);
    else
        glEnable(GL_CULL_FACE);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

void Renderer::State::endFrame() {
    textures.endFrame();
    backgroundTextures.endFrame();
    for (auto it = sceneTargets.begin(); it != sceneTargets.end();) {
        SceneTarget& target = it->second;
        if (target.scene.expired() || frameNumber - target.lastUsed >= idleSceneFrames) {
            it = sceneTargets.erase(it);
        } else {
            target.drawn = false;
            ++it;
        }
    }
    ++frameNumber;
    ++statistics.frames;
}

Renderer::Renderer(std::unique_ptr<State> state) : state_(std::move(state)) {}

Renderer::~Renderer() {
    if (!state_)
        return;
    if (!state_->output->makeCurrent()) {
        // Deleting GL objects needs their context; without it they are left to the driver,
        // which frees them with the context.
        auto output = std::move(state_->output);
        (void)state_.release();
    }
}

Result<std::unique_ptr<Renderer>> Renderer::create(std::shared_ptr<Output> output) {
    if (!output)
        fatalError("Renderer::create: the output is null");
    if (auto current = output->makeCurrent(); !current)
        return std::unexpected(current.error());
    auto state = std::make_unique<State>();
    state->output = std::move(output);
    state->largestTexture = gl::maxTextureSize();

    GLuint vertexArray = 0;
    glGenVertexArrays(1, &vertexArray);
    state->vertexArray = gl::VertexArray(vertexArray);
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    state->backgroundFramebuffer = gl::Framebuffer(framebuffer);

    auto background = gl::buildProgram(shaders::backgroundVertex, shaders::backgroundFragment());
    if (!background)
        return std::unexpected(background.error());
    state->backgroundProgram = std::move(*background);
    auto sprite = gl::buildProgram(shaders::spriteVertex, shaders::spriteFragment());
    if (!sprite)
        return std::unexpected(sprite.error());
    state->spriteProgram = std::move(*sprite);
    state->statistics.programBuilds = 2;
    if (auto checked = gl::check("Renderer::create"); !checked)
        return std::unexpected(checked.error());
    return std::unique_ptr<Renderer>(new Renderer(std::move(state)));
}

Result<std::unique_ptr<Renderer>> Renderer::createOffscreen(glm::ivec2 size) {
    auto output = OffscreenOutput::create(size);
    if (!output)
        return std::unexpected(output.error());
    return create(std::move(*output));
}

glm::ivec2 Renderer::size() const {
    return state_->output->size();
}

std::string Renderer::deviceName() const {
    if (!state_->output->makeCurrent())
        return {};
    const auto* name = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
    return name ? name : "";
}

Result<void> Renderer::render(const Frame& frame) {
    if (auto current = state_->output->makeCurrent(); !current)
        return current;
    // A top-down output is drawn upside down in clip space, which turns the winding of every
    // triangle around as well.
    const glm::mat4 flip = state_->topDown() ? glm::scale(glm::mat4(1), {1, -1, 1}) : glm::mat4(1);
    auto drawn = state_->drawFrame(frame, snapshotScene(frame, flip));
    state_->endFrame();
    return drawn;
}

Result<void> Renderer::State::drawFrame(const Frame& frame, std::vector<PlaneSnapshot> planes) {
    viewport = output->size();
    std::vector<DrawItem> items;
    items.reserve(planes.size());
    for (auto& plane : planes)
        items.push_back(DrawItem{.plane = std::move(plane)});

    glBindVertexArray(vertexArray.get());
    ErrorPtr firstError;
    auto drawable = prepareAll(items, firstError);
    if (!drawable)
        return std::unexpected(drawable.error());
    glBindFramebuffer(GL_FRAMEBUFFER, output->framebuffer());
    glViewport(0, 0, viewport.x, viewport.y);
    if (auto backdrop = drawBackdrop(frame); !backdrop)
        return backdrop;
    drawPlanes(std::move(*drawable));
    glBindVertexArray(0);

    if (auto checked = gl::check("glDrawArrays"); !checked)
        return checked;
    if (firstError)
        return std::unexpected(firstError);
    return {};
}

Result<std::vector<const DrawItem*>> Renderer::State::prepareAll(std::vector<DrawItem>& items,
                                                                 ErrorPtr& firstError) {
    std::vector<const DrawItem*> drawable;
    drawable.reserve(items.size());
    for (auto& item : items) {
        auto prepared = prepare(item, firstError);
        if (!prepared)
            return std::unexpected(prepared.error());
        if (*prepared == Readiness::draw)
            drawable.push_back(&item);
    }
    return drawable;
}

Result<void> Renderer::State::drawBackdrop(const Frame& frame) {
    bool covered = false; // a background fills the whole view
    if (frame.background) {
        auto background = drawBackground(frame.background);
        if (!background)
            return std::unexpected(background.error());
        covered = *background;
    }
    if (!covered) {
        const scene::Color clear = frame.clearColor;
        const float alpha = std::clamp(clear.alpha, 0.0f, 1.0f);
        glClearColor(clear.red * alpha, clear.green * alpha, clear.blue * alpha, alpha);
        glClear(GL_COLOR_BUFFER_BIT);
    }
    lastFrameOpaque = covered || frame.clearColor.alpha >= 1;
    return {};
}

void Renderer::State::drawPlanes(std::vector<const DrawItem*> items) {
    // Farthest first, so that each surface blends over what lies behind it; planes at equal
    // depth keep tree order.
    std::stable_sort(items.begin(), items.end(), [](const DrawItem* a, const DrawItem* b) {
        return a->plane.depth < b->plane.depth;
    });
    // One flat surface cannot hide part of itself: depth matters from two planes on.
    if (items.size() > 1) {
        glDepthMask(GL_TRUE);
        glClearDepthf(1);
        glClear(GL_DEPTH_BUFFER_BIT);
        glEnable(GL_DEPTH_TEST);
        glDepthFunc(GL_LEQUAL);
    } else {
        glDisable(GL_DEPTH_TEST);
    }
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
    glFrontFace(topDown() ? GL_CW : GL_CCW);
    glCullFace(GL_BACK);
    for (const DrawItem* item : items)
        drawPlane(*item);
}

Result<image::Image> Renderer::snapshot() {
    image::Image image;
    if (auto read = snapshot(image); !read)
        return std::unexpected(read.error());
    return image;
}

Result<void> Renderer::snapshot(image::Image& image) {
    State& s = *state_;
    if (auto current = s.output->makeCurrent(); !current)
        return current;
    const glm::ivec2 size = s.output->size();
    image.width = size.x;
    image.height = size.y;
    image.rgba.resize(image.stride() * static_cast<std::size_t>(size.y));
    glBindFramebuffer(GL_READ_FRAMEBUFFER, s.output->framebuffer());
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glReadPixels(0, 0, size.x, size.y, GL_RGBA, GL_UNSIGNED_BYTE, image.rgba.data());
    if (auto checked = gl::check("glReadPixels"); !checked)
        return checked;

    if (s.output->rowOrder() == RowOrder::bottomUp) {
        std::vector<std::uint8_t> row(image.stride());
        for (int top = 0, bottom = size.y - 1; top < bottom; ++top, --bottom) {
            std::memcpy(row.data(), image.pixel(0, top), row.size());
            std::memcpy(image.pixel(0, top), image.pixel(0, bottom), row.size());
            std::memcpy(image.pixel(0, bottom), row.data(), row.size());
        }
    }
    // The framebuffer holds premultiplied colour; an image's alpha is straight.
    if (!s.lastFrameOpaque) {
        for (std::size_t i = 0; i < image.rgba.size(); i += 4) {
            const unsigned alpha = image.rgba[i + 3];
            if (alpha == 0 || alpha == 255)
                continue;
            for (std::size_t c = 0; c < 3; ++c)
                image.rgba[i + c] = static_cast<std::uint8_t>(
                    std::min(255u, (image.rgba[i + c] * 255u + alpha / 2) / alpha));
        }
    }
    return {};
}

RenderStatistics Renderer::statistics() const {
    RenderStatistics statistics = state_->statistics;
    const State& s = *state_;
    statistics.textureUploads = s.textures.uploads + s.backgroundTextures.uploads;
    statistics.textureAllocations =
        s.textures.allocations + s.backgroundTextures.allocations + s.sceneTargetAllocations;
    return statistics;
}

} // namespace pelkit::render
