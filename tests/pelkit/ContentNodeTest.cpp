// The content nodes on real media served by a real HTTP server: what each shows before and after
// its content arrives, the play/pause state machines of the video, green-screen and audio nodes
// driven through their ends, and the node factory's placement.
#include <pelkit/ChromaKeyMaterial.h>
#include <pelkit/PELAudioNode.h>
#include <pelkit/PELGreenScreenNode.h>
#include <pelkit/PELImageNode.h>
#include <pelkit/PELLinkNode.h>
#include <pelkit/PELRenderer.h>
#include <pelkit/PELVideoNode.h>
#include <pelkit/foundation/FileSystem.h>

#include "ContentTestSupport.h"

#include <glm/gtc/constants.hpp>

namespace pelkit::test {
namespace {

class ContentNodeTest : public ContentServer, public ::testing::Test {};

TEST_F(ContentNodeTest, PictureNodesShowThePlaceholderThenThePictureOrNothing) {
    struct Case {
        std::string path;
        bool read;
        bool picture;
    };
    const Case cases[] = {{"/files/red.png", true, true},
                          {"/files/absent.png", false, false},
                          {"/files/junk.png", true, false}};
    for (const auto& [path, read, picture] : cases) {
        auto image =
            PELNode::create<PELImageNode>("key", "t", "c", 0.1, 0.05, url(path), 0.05, -0.02);
        auto link = PELNode::create<PELLinkNode>("key", "t", "c", 0.1, 0.05, " x:/?odd link ",
                                                 url(path), 0.05, -0.02);
        EXPECT_EQ(image->url().has_value(), read) << path;
        EXPECT_EQ(image->geometry(), image->plane());
        EXPECT_EQ(link->linkToOpen(), " x:/?odd link ") << "kept exactly as configured";
        for (const auto& plane : {image->plane(), link->plane()}) {
            EXPECT_EQ(glm::vec2(plane->width(), plane->height()), glm::vec2(0.1f, 0.05f));
            auto shown = plane->firstMaterial()->diffuseContents();
            if (!read)
                EXPECT_EQ(std::get<scene::Color>(shown), (scene::Color{0, 0, 0, 0.7f})) << path;
            else if (picture)
                EXPECT_EQ(std::get<std::shared_ptr<const image::Image>>(shown)->width, 4);
            else
                EXPECT_TRUE(std::holds_alternative<std::monostate>(shown)) << path;
        }
    }
}

TEST_F(ContentNodeTest, VideoNodePlaysPausesEndsAndStops) {
    auto node = PELNode::create<PELVideoNode>("key", "t", "c", true, false, 0.3, 0.2,
                                              url("/media/counter.mp4"), 0.1, 0.05);
    auto buttons = node->childNodes();
    ASSERT_EQ(buttons.size(), 1u);
    EXPECT_EQ(buttons[0]->position(), glm::vec3(0, 0, 0.01f));
    EXPECT_EQ(buttons[0]->geometry(), node->playButtonPlane());
    EXPECT_EQ(node->playButtonPlane()->width(), 0.1f);
    auto videoScene = std::get<std::shared_ptr<scene::Scene2D>>(
        node->geometry()->firstMaterial()->diffuseContents());
    EXPECT_EQ(videoScene->size(), glm::vec2(1280, 720));
    EXPECT_EQ(videoScene->backgroundColor(), (scene::Color{0, 0, 0, 0}));
    auto video = node->videoNode();
    EXPECT_EQ(video->position(), glm::vec2(640, 360));
    EXPECT_EQ(video->yScale(), -1);
    EXPECT_TRUE(video->isHidden());
    EXPECT_FALSE(node->player()->currentItem()) << "nothing loads before the first tap";

    double clock = 0;
    auto tapAndWait = [&](media::TimeControlStatus status) {
        node->toggleVideoStatus();
        ASSERT_TRUE(waitUntil([&] { return node->player()->timeControlStatus() == status; }))
            << describe(*node->player());
    };
    tapAndWait(media::TimeControlStatus::playing);
    auto item = node->player()->currentItem();
    EXPECT_EQ(buttonContents(*node->playButtonPlane()), Shown::clear);
    expectFadeIn(*node, *video, clock);

    tapAndWait(media::TimeControlStatus::paused);
    EXPECT_EQ(buttonContents(*node->playButtonPlane()), Shown::play);
    EXPECT_FALSE(video->isHidden()) << "a paused video keeps its frame on screen";
    tapAndWait(media::TimeControlStatus::playing);
    EXPECT_EQ(node->player()->currentItem(), item) << "only the first tap makes an item";
    EXPECT_FALSE(video->hasActions()) << "a visible video shows at once";

    ASSERT_TRUE(waitUntil([&] { return video->isHidden(); })) << "the end hides the video";
    EXPECT_EQ(buttonContents(*node->playButtonPlane()), Shown::play);
    EXPECT_EQ(node->player()->rate(), 0);
    tapAndWait(media::TimeControlStatus::playing);
    expectFadeIn(*node, *video, clock);

    node->stop();
    EXPECT_EQ(node->player()->timeControlStatus(), media::TimeControlStatus::paused);
    EXPECT_TRUE(video->isHidden());
    EXPECT_EQ(buttonContents(*node->playButtonPlane()), Shown::play);
}

TEST_F(ContentNodeTest, VideoNodeTapsDoNothingInSceneWithoutAUrlOrForFullScreenContent) {
    auto waiting = PELNode::create<PELVideoNode>("key", "missing", "c", false, false, 0.3, 0.2,
                                                 std::nullopt, 0, 0);
    auto fullscreen = PELNode::create<PELVideoNode>("key", "t", "c", false, true, 0.3, 0.2,
                                                    url("/media/counter.mp4"), 0, 0);
    for (const auto& node : {waiting, fullscreen}) {
        node->toggleVideoStatus();
        EXPECT_FALSE(node->player()->currentItem());
        EXPECT_TRUE(node->videoNode()->isHidden());
        EXPECT_FALSE(node->videoNode()->hasActions());
        node->stop(); // a node that never played stays as it was
        EXPECT_TRUE(node->videoNode()->isHidden());
        EXPECT_EQ(buttonContents(*node->playButtonPlane()), Shown::play);
    }
    EXPECT_FALSE(waiting->videoUrl());
    EXPECT_EQ(fullscreen->videoUrl()->absoluteString(),
              url("/media/counter.mp4")->absoluteString());
}

TEST_F(ContentNodeTest, GreenScreenNodeKeysItsVideoOnceAndRewindsAtTheEndEvenWhenToldToLoop) {
    const std::tuple<double, double, float> buttons[] = {{0.4, 0.2, 0.1f}, {0.3, 0.3, 0.15f}};
    for (auto [width, height, side] : buttons) {
        auto node = PELNode::create<PELGreenScreenNode>("key", "missing", "c", false, width, height,
                                                        std::nullopt, 0, 0);
        EXPECT_FLOAT_EQ(node->playButtonPlane()->width(), side);
        EXPECT_FALSE(node->videoNode()->geometry()) << "no plane before the address is known";
    }

    auto node = PELNode::create<PELGreenScreenNode>("key", "t", "c", true, 0.4, 0.3,
                                                    url("/media/green-screen.mp4"), 0.1, 0);
    auto children = node->childNodes();
    ASSERT_EQ(children.size(), 2u);
    EXPECT_EQ(children[0]->geometry(), node->playButtonPlane());
    EXPECT_EQ(children[0]->position(), glm::vec3(0, 0, 0.01f));
    EXPECT_EQ(children[1], node->videoNode());
    auto item = node->player()->currentItem();
    ASSERT_TRUE(item);
    node->presentContent(*url("/media/counter.mp4"));
    EXPECT_EQ(node->videoUrl()->absoluteString(), url("/media/counter.mp4")->absoluteString());
    EXPECT_EQ(node->player()->currentItem(), item) << "a node presents its video once";

    auto materials = node->videoNode()->geometry()->materials();
    ASSERT_EQ(materials.size(), 1u);
    auto keyed = std::dynamic_pointer_cast<ChromaKeyMaterial>(materials[0]);
    ASSERT_TRUE(keyed);
    EXPECT_EQ(keyed->thresholdSensitivity(), 0.5f);
    EXPECT_EQ(keyed->smoothing(), 0.001f);
    EXPECT_EQ(keyed->faces(), scene::Faces::front);

    double clock = 0;
    node->toggleVideoStatus();
    ASSERT_TRUE(waitUntil(
        [&] { return node->player()->timeControlStatus() == media::TimeControlStatus::playing; }));
    EXPECT_EQ(buttonContents(*node->playButtonPlane()), Shown::clear);
    expectFadeIn(*node, *node->videoNode(), clock);
    ASSERT_TRUE(waitUntil([&] { return node->videoNode()->isHidden(); }));
    EXPECT_EQ(buttonContents(*node->playButtonPlane()), Shown::play);
    EXPECT_EQ(node->player()->rate(), 0) << "the video does not loop";
}

TEST_F(ContentNodeTest, AudioNodeSwapsItsButtonAndRewindsAtTheEnd) {
    auto node = PELNode::create<PELAudioNode>("key", "missing", "c", 0.1, 0.1, std::nullopt, 0, 0);
    ASSERT_TRUE(node->player()) << "the dummy audio driver must open";
    EXPECT_EQ(node->scene()->size(), glm::vec2(600, 600));
    EXPECT_EQ(node->playButton()->position(), glm::vec2(300, 300));
    EXPECT_EQ(node->playButton()->yScale(), -1);
    EXPECT_TRUE(node->childNodes().empty());
    node->toggleAudioPlaying(); // no item yet
    EXPECT_EQ(node->player()->rate(), 0);

    // The held route answers only when released, so the item is not ready until then.
    node->presentContent(*url("/held/tone.m4a"));
    node->toggleAudioPlaying();
    node->scene()->updateActions(0);
    EXPECT_EQ(node->player()->rate(), 0) << "a tap before the item is ready does nothing";
    EXPECT_EQ(node->playButton()->texture(), PELAudioNode::initTextureNamed("play"));
    release();
    ASSERT_TRUE(waitUntil([&] { return node->player()->status() == media::Status::readyToPlay; }));

    double clock = 0;
    for (int round = 0; round < 2; ++round) { // after the end, a tap plays again
        node->toggleAudioPlaying();
        node->scene()->updateActions(clock += 0.1);
        EXPECT_EQ(node->player()->rate(), 1);
        EXPECT_EQ(node->playButton()->texture(), PELAudioNode::initTextureNamed("pause"));
        // The player stops first; the end's observer swaps the button after, on its own thread.
        ASSERT_TRUE(waitUntil([&] { return node->player()->rate() == 0; })) << round;
        EXPECT_TRUE(waitUntil([&] {
            return node->playButton()->texture() == PELAudioNode::initTextureNamed("play");
        })) << round;
    }
    node->toggleAudioPlaying();
    node->toggleAudioPlaying();
    node->scene()->updateActions(clock += 0.1);
    EXPECT_EQ(node->player()->rate(), 0) << "a tap while playing pauses";
    EXPECT_EQ(node->playButton()->texture(), PELAudioNode::initTextureNamed("play"));
}

TEST(ContentNodeDeathTest, AnAudioNodeWithoutASessionPrintsWhyAndStopsOnATap) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            ScopedEnv driver("SDL_AUDIODRIVER", "no-such-driver");
            LineCapture lines;
            auto node =
                PELNode::create<PELAudioNode>("key", "t", "c", 0.1, 0.1, std::nullopt, 0, 0);
            if (node->player() || lines.lines().empty())
                std::exit(3);
            std::cerr << "printed: " << lines.lines()[0] << "\n";
            node->toggleAudioPlaying();
        },
        "printed: .*no-such-driver.*\n(.|\n)*Fatal error: Unexpectedly found nil while unwrapping");
}

TEST_F(ContentNodeTest, FactoryPlacesItemsInPhysicalUnitsUnderARootLaidOnTheImage) {
    auto picture = std::make_shared<image::Image>(image::Image::filled(1000, 500));
    auto item = [&](std::string id, PELType type) {
        PELContent content;
        content.id = std::move(id);
        content.type = type;
        content.x = 250, content.y = -100, content.width = 500, content.height = 250;
        content.url = url("/files/red.png");
        return content;
    };
    std::vector<PELContent> contents = {item("i", PELType::image), item("l", PELType::link),
                                        item("i2", PELType::image), item("a", PELType::audio),
                                        item("g", PELType::greenScreen)};
    auto ref =
        PELReferenceImage::create(picture, ar::ImageOrientation::up, 0.2, "t", contents, 1000, 500);
    auto root = PELRenderer().render(*ref, "key");
    EXPECT_EQ(root->eulerAngles(), glm::vec3(-1.5707963f, 0, 0));
    EXPECT_EQ(root->position(), glm::vec3(0));
    auto children = root->childNodes<PELNode>();
    ASSERT_EQ(children.size(), contents.size());
    for (std::size_t i = 0; i < contents.size(); ++i) {
        EXPECT_EQ(children[i]->contentId(), contents[i].id) << "in the order of the contents";
        EXPECT_EQ(children[i]->appKey(), "key");
        EXPECT_EQ(children[i]->targetId(), "t");
        EXPECT_DOUBLE_EQ(children[i]->x(), 0.05);
        EXPECT_DOUBLE_EQ(children[i]->y(), -0.02);
        EXPECT_DOUBLE_EQ(children[i]->width(), 0.1);
        EXPECT_DOUBLE_EQ(children[i]->height(), 0.05);
        EXPECT_EQ(children[i]->position(), glm::vec3(0.05f, -0.02f, 0));
    }
    EXPECT_TRUE(std::dynamic_pointer_cast<PELLinkNode>(children[1]));
    EXPECT_TRUE(std::dynamic_pointer_cast<PELAudioNode>(children[3]));
    EXPECT_TRUE(std::dynamic_pointer_cast<PELGreenScreenNode>(children[4]));
    EXPECT_TRUE(std::dynamic_pointer_cast<PELImageNode>(children[0])->url())
        << "content with an address is loaded inside the call";

    auto empty =
        PELReferenceImage::create(picture, ar::ImageOrientation::up, 0.2, "t", {}, 1000, 500);
    auto bare = PELRenderer().render(*empty, "key");
    EXPECT_TRUE(bare->childNodes().empty());
    EXPECT_EQ(bare->eulerAngles().x, -1.5707963f);
}

TEST(PELReferenceImageDeathTest, TheBaseInitialiserIsNotAvailable) {
    auto picture = std::make_shared<image::Image>(image::Image::filled(8, 8));
    EXPECT_DEATH(PELReferenceImage::create(picture, ar::ImageOrientation::up, 0.1),
                 "Fatal error: Use of unimplemented initializer "
                 "'init\\(_:orientation:physicalWidth:\\)' for class 'PELkit.PELReferenceImage'");
}

} // namespace
} // namespace pelkit::test
