// What content nodes look like when the renderer draws them on llvmpipe: the placeholder, the
// picture, the keyed green-screen video and the play button in front of it.
#include <pelkit/PELGreenScreenNode.h>
#include <pelkit/PELImageNode.h>

#include "ContentTestSupport.h"
#include "RenderTestSupport.h"

namespace pelkit::test {
namespace {

class ContentRenderTest : public ContentServer, public ::testing::Test {
protected:
    /// Draws `node` over a white background with one scene unit per pixel.
    image::Image draw(const std::shared_ptr<scene::Node>& node, glm::ivec2 size, double time) {
        auto renderer = makeRenderer(size);
        if (!renderer)
            return {};
        auto frame =
            frameOf(solidImage(size.x, size.y, {255, 255, 255, 255}), node, pixelCamera(size));
        frame.time = time;
        EXPECT_TRUE(renderer->render(frame));
        return renderer->snapshot().value_or(image::Image{});
    }
};

TEST_F(ContentRenderTest, AnImageNodeShowsTranslucentBlackUntilItsPictureArrives) {
    auto node = PELNode::create<PELImageNode>("key", "missing", "c", 64, 64, std::nullopt, 0, 0);
    auto before = draw(node, {64, 64}, 0);
    ASSERT_FALSE(before.empty());
    auto placeholder = pixelAt(before, 32, 32);
    for (int channel = 0; channel < 3; ++channel)
        EXPECT_NEAR(placeholder[channel], 255 * 0.3, 1.5) << "black at alpha 0.7 over white";
    node->presentContent(*url("/files/red.png"));
    EXPECT_EQ(pixelAt(draw(node, {64, 64}, 0), 32, 32), (Rgba{255, 0, 0, 255}));
}

TEST_F(ContentRenderTest, AGreenScreenNodeKeysOutGreenBehindItsPlayButton) {
    // The clip is 320x240 of pure green with a grey box; the button is 120 units on a side.
    auto node = PELNode::create<PELGreenScreenNode>("key", "t", "c", false, 320, 240,
                                                    url("/media/green-screen.mp4"), 0, 0);
    node->toggleVideoStatus();
    ASSERT_TRUE(waitUntil([&] {
        return node->player()->timeControlStatus() == media::TimeControlStatus::playing;
    })) << describe(*node->player());
    node->toggleVideoStatus(); // paused: the video stays shown, the button shows "play"
    node->updateActions(0);
    auto picture = draw(node, {320, 240}, 1.0);
    ASSERT_FALSE(picture.empty());
    EXPECT_EQ(pixelAt(picture, 20, 200), (Rgba{255, 255, 255, 255})) << "green is transparent";
    EXPECT_EQ(pixelAt(picture, 300, 20), (Rgba{255, 255, 255, 255}));
    auto button = pixelAt(picture, 160, 120); // the dark triangle of "play", over the video
    EXPECT_LT(button[0] + button[1] + button[2], 3 * 80) << button[0];
}

} // namespace
} // namespace pelkit::test
