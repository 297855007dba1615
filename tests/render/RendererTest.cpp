#include "RenderTestSupport.h"
#include "TestSupport.h"

#include <pelkit/render/Renderer.h>
#include <pelkit/scene/Scene2D.h>
#include <pelkit/scene/SceneLock.h>

#include <gtest/gtest.h>

#include <glm/gtc/constants.hpp>

#include <atomic>
#include <cstdlib>
#include <future>
#include <iostream>
#include <thread>

using namespace pelkit;
using namespace pelkit::test;

namespace {

constexpr Rgba red{230, 20, 20, 255};
constexpr Rgba green{20, 200, 40, 255};
constexpr Rgba blue{30, 40, 220, 255};
constexpr Rgba yellow{240, 220, 30, 255};
constexpr Rgba grey{90, 90, 90, 255};
constexpr Rgba white{255, 255, 255, 255};
constexpr std::array<Rgba, 4> quadrants{red, green, blue, yellow};

constexpr scene::Color colorOf(Rgba c, float alpha = 1) {
    return {c[0] / 255.0f, c[1] / 255.0f, c[2] / 255.0f, alpha};
}

void expectNear(Rgba actual, Rgba expected, const std::string& what) {
    for (int c = 0; c < 4; ++c)
        EXPECT_NEAR(actual[c], expected[c], 1) << what << ": " << testing::PrintToString(actual);
}

// Four stripes of `colors`, stacked top to bottom (across) or side by side.
std::shared_ptr<image::Image> stripes(glm::ivec2 size, bool across,
                                      const std::array<Rgba, 4>& colors) {
    auto image = std::make_shared<image::Image>(image::Image::filled(size.x, size.y));
    for (int y = 0; y < size.y; ++y)
        for (int x = 0; x < size.x; ++x)
            setPixel(*image, x, y, colors[across ? y * 4 / size.y : x * 4 / size.x]);
    return image;
}

// The headless output's pictures, read back through the path a window's bottom-up
// framebuffer takes.
class BottomUpOutput : public render::Output {
public:
    explicit BottomUpOutput(std::shared_ptr<render::OffscreenOutput> inner)
        : inner_(std::move(inner)) {}
    Result<void> makeCurrent() override { return inner_->makeCurrent(); }
    unsigned framebuffer() const override { return inner_->framebuffer(); }
    glm::ivec2 size() const override { return inner_->size(); }
    render::RowOrder rowOrder() const override { return render::RowOrder::bottomUp; }

private:
    std::shared_ptr<render::OffscreenOutput> inner_;
};

// A video source whose current frame the test sets (from the test's thread only).
struct FrameSource : scene::VideoFrameSource {
    std::shared_ptr<const image::Image> frame;
    std::shared_ptr<const image::Image> currentFrame() const override { return frame; }
};

// A player that publishes its frames from a thread which takes the scene lock: asked for a frame,
// it waits until such a thread has had the lock. A renderer that asks while holding the lock
// would wait forever; the wait gives up after a while and counts as a failure instead.
class LockTakingSource : public scene::VideoFrameSource {
public:
    explicit LockTakingSource(std::shared_ptr<const image::Image> frame)
        : frame_(std::move(frame)) {}
    ~LockTakingSource() override {
        for (auto& thread : threads_)
            thread.join();
    }
    std::shared_ptr<const image::Image> currentFrame() const override {
        auto locked = std::make_shared<std::promise<void>>();
        auto taken = locked->get_future();
        threads_.emplace_back([locked] {
            scene::SceneLock lock;
            locked->set_value();
        });
        if (taken.wait_for(std::chrono::seconds(5)) != std::future_status::ready)
            ++blocked;
        return frame_;
    }
    mutable std::atomic<int> blocked = 0;

private:
    std::shared_ptr<const image::Image> frame_;
    mutable std::vector<std::thread> threads_; // asked from the rendering thread only
};

using Counters = render::RenderStatistics;

class RendererTest : public ::testing::Test {
protected:
    static constexpr glm::ivec2 viewSize{160, 120};

    void SetUp() override {
        renderer = makeRenderer(viewSize);
        ASSERT_TRUE(renderer);
    }

    // Renders `root` over a grey background seen through the one-pixel-per-unit camera.
    image::Image draw(const std::shared_ptr<scene::Node>& root) {
        auto drawn = renderer->render(frameOf(background, root, pixelCamera(viewSize)));
        EXPECT_TRUE(drawn) << *drawn.error();
        return renderer->snapshot().value();
    }
    Rgba centreOf(const std::shared_ptr<scene::Node>& root) { return pixelAt(draw(root), 80, 60); }
    // Draws `root` and reads one of the renderer's counters.
    std::uint64_t countAfterDrawing(const std::shared_ptr<scene::Node>& root,
                                    std::uint64_t Counters::*counter) {
        draw(root);
        return renderer->statistics().*counter;
    }

    // `left` centred at view x 40, beside a blue 60-unit plane centred at x 120.
    static std::shared_ptr<scene::Node> besideBlue(std::shared_ptr<scene::Node> left) {
        auto root = scene::Node::create();
        auto right = planeNode({60, 60}, colorOf(blue));
        left->setPosition({-40, 0, 0});
        right->setPosition({40, 0, 0});
        root->addChildNode(left);
        root->addChildNode(right);
        return root;
    }

    std::unique_ptr<render::Renderer> renderer;
    std::shared_ptr<const image::Image> background = solidImage(4, 4, grey);
};

} // namespace

TEST(RendererCreation, BadSizesAreErrorsNotCrashes) {
    const std::pair<glm::ivec2, std::string> cases[] = {
        {{0, 0}, "OffscreenOutput: the size 0 x 0 is not positive"},
        {{100000, 10}, "OffscreenOutput: the size 100000 x 10 exceeds the largest side, "},
    };
    for (const auto& [size, description] : cases) {
        auto renderer = render::Renderer::createOffscreen(size);
        ASSERT_FALSE(renderer) << description;
        EXPECT_EQ(renderer.error()->domain(), "GL");
        EXPECT_TRUE(renderer.error()->description().starts_with(description))
            << renderer.error()->description();
    }
}

// The vendor list of the EGL dispatcher is read once per process, so the child runs in a
// fresh one with no EGL implementation to find.
TEST(RendererCreationDeathTest, WithoutEglCreationFailsWithTheCallNamed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ScopedEnv noVendors("__EGL_VENDOR_LIBRARY_FILENAMES", "/nonexistent/egl_vendor.json");
    EXPECT_EXIT(
        {
            auto renderer = render::Renderer::createOffscreen({8, 8});
            std::cerr << (renderer ? std::string("created") : renderer.error()->description());
            std::exit(renderer ? 1 : 3);
        },
        ::testing::ExitedWithCode(3),
        "^eglGetPlatformDisplayEXT: EGL_EXT_platform_base is not available$");
}

TEST_F(RendererTest, BackgroundFillsTheViewCroppedEvenly) {
    struct Case {
        const char* name;
        glm::ivec2 imageSize;
        bool across; // stripes stacked top to bottom, or side by side
        Rgba first, second;
    };
    // The view is 160 x 120: a wide image loses its outer columns, a tall one its outer rows,
    // whatever the scale. Both samples lie in the outer stripes when nothing is cut off.
    const Case cases[] = {
        {"wide at 1:1", {240, 120}, false, green, blue},
        {"wide enlarged", {60, 30}, false, green, blue},
        {"tall reduced", {160, 480}, true, green, blue},
        {"same shape", {80, 60}, false, red, yellow},
        {"the view's own size", {160, 120}, true, red, yellow},
    };
    for (const auto& c : cases) {
        background = stripes(c.imageSize, c.across, quadrants);
        const image::Image picture = draw(nullptr);
        ASSERT_EQ(glm::ivec2(picture.width, picture.height), viewSize);
        EXPECT_EQ(pixelAt(picture, 30, 20), c.first) << c.name;
        EXPECT_EQ(pixelAt(picture, 130, 100), c.second) << c.name;
    }
}

TEST_F(RendererTest, PlaneLandsWhereTheCameraProjectsIt) {
    const glm::vec2 size{0.4f, 0.3f};
    auto node = planeNode(size, quadrantImage(64, 64, quadrants));
    node->setPosition({0.05f, -0.02f, -0.8f});
    node->setEulerAngles({0.3f, -0.4f, 0.1f});
    render::Frame frame = frameOf(solidImage(4, 4, grey), node,
                                  scene::Camera::perspective(glm::radians(60.0f), viewSize));
    ASSERT_TRUE(renderer->render(frame));
    const image::Image picture = renderer->snapshot().value();

    auto colorAt = [&](glm::vec2 local) {
        const auto point = frame.camera.project(node->worldTransform() * glm::vec4(local, 0, 1));
        return pixelAt(picture, static_cast<int>(point.value().x), static_cast<int>(point->y));
    };
    // The image's first rows lie along the plane's top edge (+y), its first columns along -x.
    const glm::vec2 quadrantCentres[] = {{-1, 1}, {1, 1}, {-1, -1}, {1, -1}};
    for (int q = 0; q < 4; ++q) {
        const glm::vec2 direction = quadrantCentres[q];
        EXPECT_EQ(colorAt(direction * size * 0.25f), quadrants[q]) << "quadrant " << q;
        EXPECT_EQ(colorAt(direction * size * 0.45f), quadrants[q]) << "inside corner " << q;
        EXPECT_EQ(colorAt(direction * size * 0.55f), grey) << "outside corner " << q;
    }
}

TEST_F(RendererTest, MagnifiedImagesAreFilteredBetweenTexelCentres) {
    // Two texels, black and white, across the whole view: their centres lie at x = 40 and
    // x = 120, and the view runs from one to the other between them.
    auto image = solidImage(2, 1, {0, 0, 0, 255});
    setPixel(*image, 1, 0, white);
    const image::Image picture = draw(planeNode({160, 120}, image));
    for (int x : {10, 39, 40, 60, 80, 100, 119, 150}) {
        const float weight = std::clamp((x + 0.5f - 40) / 80, 0.0f, 1.0f);
        expectNear(pixelAt(picture, x, 60), mix(white, {0, 0, 0, 255}, weight),
                   "column " + std::to_string(x));
    }
}

TEST_F(RendererTest, BackFacesAreCulledUnlessBothFacesAreShown) {
    struct Case {
        const char* name;
        scene::Faces faces;
        float yaw;
        Rgba atTopLeft, atTopRight;
    };
    const Case cases[] = {
        {"front, facing the camera", scene::Faces::front, 0, red, green},
        {"front, turned away", scene::Faces::front, glm::pi<float>(), grey, grey},
        {"both, turned away: mirrored", scene::Faces::both, glm::pi<float>(), green, red},
    };
    for (const auto& c : cases) {
        auto node = planeNode({80, 60}, quadrantImage(8, 8, quadrants));
        materialOf(*node)->setFaces(c.faces);
        node->setEulerAngles({0, c.yaw, 0});
        // The plane covers x 40..120, y 30..90 of the view.
        const image::Image picture = draw(node);
        EXPECT_EQ(pixelAt(picture, 60, 45), c.atTopLeft) << c.name;
        EXPECT_EQ(pixelAt(picture, 100, 45), c.atTopRight) << c.name;
    }
}

// A red plane under a parent, beside a blue one: visibility and opacity of the parent, the node
// and the colour's alpha decide how much of the red shows over the grey.
TEST_F(RendererTest, VisibilityAndOpacityCoverSubtreesAndMultiply) {
    enum class Hide { none, parent, node };
    struct Case {
        const char* name;
        Hide hide;
        float parentOpacity, nodeOpacity, colorAlpha, shown;
    };
    const Case cases[] = {
        {"visible", Hide::none, 1, 1, 1, 1},
        {"parent hidden", Hide::parent, 1, 1, 1, 0},
        {"node hidden", Hide::node, 1, 1, 1, 0},
        {"parent at opacity 0", Hide::none, 0, 1, 1, 0},
        {"node at half", Hide::none, 1, 0.5f, 1, 0.5f},
        {"opacities multiply down the tree", Hide::none, 0.5f, 0.5f, 1, 0.25f},
        {"with the colour's alpha", Hide::none, 0.5f, 1, 0.5f, 0.25f},
    };
    for (const auto& c : cases) {
        auto parent = scene::Node::create();
        auto node = planeNode({60, 60}, colorOf(red, c.colorAlpha));
        parent->addChildNode(node);
        parent->setHidden(c.hide == Hide::parent);
        parent->setOpacity(c.parentOpacity);
        node->setHidden(c.hide == Hide::node);
        node->setOpacity(c.nodeOpacity);
        const image::Image picture = draw(besideBlue(parent));
        expectNear(pixelAt(picture, 40, 60), mix(red, grey, c.shown), c.name);
        EXPECT_EQ(pixelAt(picture, 120, 60), blue) << c.name << ": the sibling always shows";
    }
}

TEST_F(RendererTest, FartherPlanesAreDrawnFirstWhateverTheTreeOrder) {
    for (const float nearAlpha : {1.0f, 0.5f}) {
        auto root = scene::Node::create();
        auto nearPlane = planeNode({100, 100}, colorOf(red, nearAlpha));
        nearPlane->setPosition({0, 0, 10});
        root->addChildNode(nearPlane); // listed first
        root->addChildNode(planeNode({100, 100}, colorOf(blue)));
        expectNear(centreOf(root), mix(red, blue, nearAlpha),
                   "near plane at alpha " + std::to_string(nearAlpha));
    }
}

// Four 16-point sprites in the quadrants of a 64-point scene on a plane that shows one texel per
// pixel at x 48..112, y 28..92 of the view. On the plane the scene's y runs down the view, so
// scene (16, 16) is at view (64, 44).
TEST_F(RendererTest, SpritesFlipHideAndFadeOverTheSceneBackground) {
    const std::pair<scene::Color, Rgba> backgrounds[] = {{colorOf(yellow), yellow},
                                                         {{0, 0, 0, 0}, grey}};
    for (const auto& [background, under] : backgrounds) {
        auto overlay = scene::Scene2D::create({64, 64});
        overlay->setBackgroundColor(background);
        auto add = [&](std::shared_ptr<image::Image> image, glm::vec2 position) {
            auto sprite = scene::Sprite::create(std::move(image));
            sprite->setPosition(position);
            overlay->addChild(sprite);
            return sprite;
        };
        const auto redOverBlue = quadrantImage(16, 16, {red, red, blue, blue});
        add(redOverBlue, {16, 16})->setYScale(-1);
        add(redOverBlue, {48, 16});
        add(solidImage(16, 16, red), {16, 48})->setHidden(true);
        add(solidImage(16, 16, white), {48, 48})->setAlpha(0.5f);
        const image::Image picture = draw(planeNode({64, 64}, overlay));
        const std::string name = "background " + testing::PrintToString(under);
        EXPECT_EQ(pixelAt(picture, 64, 40), red) << name << ": yScale -1 shows upright";
        EXPECT_EQ(pixelAt(picture, 64, 48), blue) << name << ": yScale -1 shows upright";
        EXPECT_EQ(pixelAt(picture, 96, 40), blue) << name << ": yScale 1 shows upside down";
        EXPECT_EQ(pixelAt(picture, 96, 48), red) << name << ": yScale 1 shows upside down";
        EXPECT_EQ(pixelAt(picture, 64, 76), under) << name << ": a hidden sprite";
        expectNear(pixelAt(picture, 96, 76), mix(white, under, 0.5f), name + ": at alpha 0.5");
        EXPECT_EQ(pixelAt(picture, 30, 32), grey) << name << ": outside the plane";
    }
}

// Same geometry as above. A still scene keeps its texture; any change draws it again.
TEST_F(RendererTest, A2DSceneIsDrawnAgainOnlyWhenWhatItShowsChanges) {
    auto overlay = scene::Scene2D::create({64, 64});
    auto sprite = scene::Sprite::create(solidImage(16, 16, red));
    sprite->setPosition({16, 16});
    overlay->addChild(sprite);
    auto source = std::make_shared<FrameSource>();
    auto video = scene::VideoSprite::create(source, {16, 16});
    video->setPosition({48, 16});
    overlay->addChild(video);
    auto node = planeNode({64, 64}, overlay);
    auto drawsAfter = [&] { return countAfterDrawing(node, &Counters::sceneDraws); };
    const auto first = drawsAfter();
    EXPECT_EQ(drawsAfter(), first) << "nothing changed";
    sprite->setPosition({16, 48});
    EXPECT_EQ(drawsAfter(), first + 1) << "a sprite moved";
    auto picture = renderer->snapshot().value();
    EXPECT_EQ(pixelAt(picture, 64, 76), red);
    EXPECT_NE(pixelAt(picture, 64, 44), red) << "nothing left where it was";
    source->frame = solidImage(16, 16, blue);
    EXPECT_EQ(drawsAfter(), first + 2) << "the video's first frame";
    EXPECT_EQ(drawsAfter(), first + 2) << "the same frame";
    source->frame = solidImage(16, 16, green);
    EXPECT_EQ(drawsAfter(), first + 3) << "the next frame";
    EXPECT_EQ(pixelAt(renderer->snapshot().value(), 96, 44), green);
    sprite->setHidden(true);
    EXPECT_EQ(drawsAfter(), first + 4) << "a sprite hidden";
    overlay->setBackgroundColor(colorOf(yellow));
    EXPECT_EQ(drawsAfter(), first + 5) << "another background";
}

// A magnified picture is drawn into a texture of its own detail (here 16 texels for 64 points),
// which must still cover the plane exactly: red above blue, each half of it.
TEST_F(RendererTest, AMagnifiedPictureFillsItsSceneAtItsOwnDetail) {
    auto overlay = scene::Scene2D::create({64, 64});
    auto sprite = scene::Sprite::create(quadrantImage(16, 16, {red, red, blue, blue}));
    sprite->setPosition({32, 32});
    sprite->setXScale(4);
    sprite->setYScale(-4);
    overlay->addChild(sprite);
    const image::Image picture = draw(planeNode({64, 64}, overlay));
    for (int x : {52, 80, 108}) {
        EXPECT_EQ(pixelAt(picture, x, 31), red) << x;
        EXPECT_EQ(pixelAt(picture, x, 56), red) << x;
        EXPECT_EQ(pixelAt(picture, x, 64), blue) << x;
        EXPECT_EQ(pixelAt(picture, x, 89), blue) << x;
    }
    EXPECT_EQ(pixelAt(picture, 30, 60), grey) << "outside the plane";
}

TEST_F(RendererTest, SurfaceModifiersRunWithTheirMaterialsValues) {
    auto centreWith = [&](const std::string& modifier,
                          const std::map<std::string, scene::ShaderValue>& values = {}) {
        auto node = planeNode({160, 120}, colorOf(red));
        materialOf(*node)->setShaderModifiers({{scene::ShaderEntryPoint::surface, modifier}});
        for (const auto& [key, value] : values)
            materialOf(*node)->setValue(key, value);
        return centreOf(node);
    };
    const std::string tint = "uniform vec4 u_tint;\nuniform float u_gain;\n#pragma arguments\n"
                             "#pragma body\n_surface.diffuse = vec4(u_tint.rgb * u_gain, 1.0);\n";
    const Rgba black{0, 0, 0, 255};
    expectNear(centreWith(tint, {{"u_tint", glm::vec4(0.2f, 0.4f, 0.8f, 1)}, {"u_gain", 0.5f}}),
               {26, 51, 102, 255}, "declarations and body");
    expectNear(centreWith(tint), black, "unbound uniforms read as zero");
    expectNear(centreWith(tint, {{"u_tint", glm::vec4(1)}, {"u_gain", glm::vec2(1)}}), black,
               "a value of the wrong type reads as zero");
    expectNear(centreWith("uniform vec2 u_rg;\nuniform vec3 u_rgb;\n#pragma body\n"
                          "_surface.diffuse = vec4(u_rg, u_rgb.b, 1.0);\n",
                          {{"u_rg", glm::vec2(1, 0.6f)}, {"u_rgb", glm::vec3(0, 0, 0.2f)}}),
               {255, 153, 51, 255}, "vec2 and vec3 values");
    expectNear(centreWith("_surface.diffuse.rgb = _surface.diffuse.bgr;"), {20, 20, 230, 255},
               "a body without #pragma body reads the diffuse colour");
    expectNear(centreWith("#pragma body\n_surface.transparent.a = 0.0;"), red,
               "transparency without #pragma transparent is ignored");
    expectNear(centreWith("#pragma transparent\n#pragma body\n_surface.transparent.a = 0.0;"), grey,
               "transparency with #pragma transparent");
}

TEST_F(RendererTest, AModifierThatDoesNotCompileLeavesItsPlaneOutWithTheCompilerLog) {
    auto broken = planeNode({60, 60}, colorOf(red));
    materialOf(*broken)->setShaderModifiers(
        {{scene::ShaderEntryPoint::surface,
          "uniform float u_x;\n#pragma body\nthis is not glsl;\n"}});
    const render::Frame frame = frameOf(background, besideBlue(broken), pixelCamera(viewSize));
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto drawn = renderer->render(frame);
        ASSERT_FALSE(drawn);
        EXPECT_EQ(drawn.error()->domain(), "GL");
        EXPECT_EQ(drawn.error()->code(), 0x8B81) << "GL_COMPILE_STATUS";
        const std::string description = drawn.error()->description();
        EXPECT_TRUE(description.starts_with("glCompileShader: fragment shader: ")) << description;
        EXPECT_NE(description.find("0:3("), std::string::npos)
            << "the log names the modifier's own line 3: " << description;
        const image::Image picture = renderer->snapshot().value();
        EXPECT_EQ(pixelAt(picture, 40, 60), grey);
        EXPECT_EQ(pixelAt(picture, 120, 60), blue) << "the rest of the frame is drawn";
    }
    EXPECT_EQ(renderer->statistics().programBuilds, 4u)
        << "two own programs, the broken one and the plain one, each built once";
}

TEST_F(RendererTest, UnchangedImagesAreUploadedOnceAndVideoFramesReuseTextures) {
    auto image = solidImage(16, 16, red);
    auto node = planeNode({160, 120}, std::shared_ptr<const image::Image>(image));
    auto uploadsAfterDrawing = [&] { return countAfterDrawing(node, &Counters::textureUploads); };
    const auto first = uploadsAfterDrawing(); // the image and the background
    EXPECT_EQ(uploadsAfterDrawing(), first) << "the same image twice";

    materialOf(*node)->setDiffuseContents(std::make_shared<const image::Image>(*image));
    EXPECT_EQ(uploadsAfterDrawing(), first + 1) << "an equal image is still another image";

    // An image's version is its pixel buffer: changing an image means giving it a new one.
    image->rgba = std::move(solidImage(16, 16, blue)->rgba);
    materialOf(*node)->setDiffuseContents(std::shared_ptr<const image::Image>(image));
    EXPECT_EQ(uploadsAfterDrawing(), first + 2) << "an image with a new buffer";
    EXPECT_EQ(pixelAt(renderer->snapshot().value(), 80, 60), blue);

    auto source = std::make_shared<FrameSource>();
    materialOf(*node)->setDiffuseContents(std::shared_ptr<scene::VideoFrameSource>(source));
    EXPECT_EQ(centreOf(node), grey) << "no frame decoded yet";
    const auto before = renderer->statistics();
    for (const Rgba& color : {red, green, blue, yellow, red, green, blue, yellow}) {
        source->frame = solidImage(32, 24, color);
        EXPECT_EQ(centreOf(node), color);
    }
    const auto after = renderer->statistics();
    EXPECT_EQ(after.textureUploads - before.textureUploads, 8u) << "every new frame is uploaded";
    EXPECT_LE(after.textureAllocations - before.textureAllocations, 2u)
        << "frames of one size reuse their textures";
}

// Shown by a material, then by a video sprite.
TEST_F(RendererTest, VideoSourcesAreAskedForFramesWithoutTheSceneLock) {
    for (const bool inSprite : {false, true}) {
        auto source = std::make_shared<LockTakingSource>(solidImage(8, 8, red));
        auto overlay = scene::Scene2D::create({160, 120});
        auto video = scene::VideoSprite::create(source, {160, 120});
        video->setPosition({80, 60});
        overlay->addChild(video);
        EXPECT_EQ(
            centreOf(inSprite ? planeNode({160, 120}, overlay) : planeNode({160, 120}, source)),
            red);
        EXPECT_EQ(source->blocked, 0)
            << "in a sprite: " << inSprite << ": the frame was asked for under the scene lock";
    }
}

TEST_F(RendererTest, BadContentsFallBackToWhiteWithoutFailing) {
    auto inconsistent = std::make_shared<image::Image>();
    inconsistent->width = 100;
    inconsistent->height = 100; // and no pixels
    const scene::MaterialContents contents[] = {
        {},
        std::shared_ptr<const image::Image>(),
        std::shared_ptr<const image::Image>(inconsistent),
        std::make_shared<const image::Image>(),
        scene::Scene2D::create({0, 0}),
    };
    for (std::size_t i = 0; i < std::size(contents); ++i)
        EXPECT_EQ(centreOf(planeNode({160, 120}, contents[i])), white) << "contents " << i;
}

TEST_F(RendererTest, BottomUpOutputsGiveTheSamePicture) {
    auto output = render::OffscreenOutput::create(viewSize);
    ASSERT_TRUE(output);
    auto bottomUp = render::Renderer::create(std::make_shared<BottomUpOutput>(*output));
    ASSERT_TRUE(bottomUp);

    auto node = planeNode({0.4f, 0.3f}, quadrantImage(16, 16, quadrants));
    node->setPosition({0, 0, -0.6f});
    node->setEulerAngles({0.2f, 0.5f, 0});
    // A background drawn scaled, and one copied as it is.
    for (glm::ivec2 backgroundSize : {glm::ivec2{64, 64}, viewSize}) {
        render::Frame frame = frameOf(stripes(backgroundSize, true, quadrants), node,
                                      scene::Camera::perspective(glm::radians(60.0f), viewSize));
        ASSERT_TRUE(renderer->render(frame));
        ASSERT_TRUE((*bottomUp)->render(frame));
        EXPECT_TRUE(renderer->snapshot().value() == (*bottomUp)->snapshot().value())
            << "background " << backgroundSize.x << " x " << backgroundSize.y;
    }
}

TEST_F(RendererTest, SnapshotOfATranslucentFrameHasStraightAlpha) {
    render::Frame frame = frameOf(nullptr, nullptr, pixelCamera(viewSize));
    frame.clearColor = {1, 0.5f, 0, 0.5f};
    ASSERT_TRUE(renderer->render(frame));
    expectNear(pixelAt(renderer->snapshot().value(), 5, 5), {255, 128, 0, 128}, "clear");
}
