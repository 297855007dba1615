// What a content node looks like when the renderer draws it on llvmpipe: the keyed green-screen
// video and the play button in front of it.
#include <pelkit/PELGreenScreenNode.h>

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
