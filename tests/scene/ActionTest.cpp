#include <pelkit/scene/Node.h>
#include <pelkit/scene/Scene2D.h>

#include <gtest/gtest.h>

using namespace pelkit;
using namespace pelkit::scene;

namespace {

std::shared_ptr<const image::Image> picture(int width) {
    return std::make_shared<const image::Image>(
        image::Image{width, 1, std::vector<uint8_t>(width * 4)});
}

} // namespace

TEST(Action, GrowInWaitsThenScalesLinearly) {
    auto node = Node::create();
    node->setScale({0, 0, 0});
    node->runAction(Action::sequence({Action::wait(0.2), Action::scaleTo(1.0f, 0.5)}));
    const struct {
        double time;
        float scale;
    } steps[] = {{0.0, 0}, {0.1, 0}, {0.45, 0.5f}, {0.7, 1}, {1.0, 1}};
    for (auto step : steps) {
        node->updateActions(step.time);
        EXPECT_NEAR(node->scale().x, step.scale, 1e-5) << "at " << step.time << " s";
        EXPECT_EQ(node->scale().x, node->scale().z) << "scaleTo is uniform";
    }
    EXPECT_EQ(node->scale(), glm::vec3(1)) << "lands exactly on the end value";
    EXPECT_FALSE(node->hasActions()) << "a finished action is dropped";
}

TEST(Action, InstantFadeOutUnhideThenFadeIn) {
    auto node = Node::create();
    node->setHidden(true);
    node->runAction(Action::sequence({Action::fadeOut(0), Action::unhide(), Action::fadeIn(1.0)}));
    EXPECT_TRUE(node->isHidden()) << "nothing happens before the first update";
    EXPECT_EQ(node->opacity(), 1.0f);
    const struct {
        double time;
        float opacity;
    } steps[] = {{5.0, 0}, {5.25, 0.25f}, {5.5, 0.5f}, {6.0, 1}, {7.0, 1}};
    for (auto step : steps) {
        node->updateActions(step.time);
        EXPECT_FALSE(node->isHidden()) << "at " << step.time << " s";
        EXPECT_NEAR(node->opacity(), step.opacity, 1e-6) << "at " << step.time << " s";
    }
}

TEST(Action, SequenceStepsStartWhenThePreviousEndedWhateverTheFrameRate) {
    auto makeNode = [] {
        auto node = Node::create();
        node->runAction(Action::sequence({Action::scaleTo(2, 1), Action::scaleTo(0.5f, 1)}));
        node->updateActions(0);
        return node;
    };
    auto midway = makeNode();
    midway->updateActions(1.5);
    EXPECT_NEAR(midway->scale().x, 1.25f, 1e-6) << "second step starts at 1 s from 2";

    auto late = makeNode();
    late->updateActions(10);
    EXPECT_EQ(late->scale().x, 0.5f) << "a long jump runs every step, in order";

    auto ordered = Node::create();
    ordered->runAction(
        Action::sequence({Action::hide(), Action::fadeOpacityTo(0.3f, 0), Action::unhide()}));
    ordered->runAction(Action::sequence({Action::wait(0), Action::fadeOpacityTo(0.6f, 0)}));
    ordered->updateActions(0);
    EXPECT_FALSE(ordered->isHidden());
    EXPECT_EQ(ordered->opacity(), 0.6f) << "actions run side by side, in the order they were run";
}

TEST(Action, ActionsRunOnTheWholeTreeAndTheSpritesOfItsMaterials) {
    auto root = Node::create();
    auto child = Node::create();
    root->addChildNode(child);
    auto sprite = Sprite::create(picture(4));
    auto overlay = Scene2D::create({600, 600});
    overlay->addChild(sprite);
    auto plane = Plane::create(1, 1);
    plane->firstMaterial()->setDiffuseContents(overlay);
    child->setGeometry(plane);

    const auto pause = picture(8);
    sprite->runAction(Action::sequence({Action::wait(0.5), Action::setTexture(pause)}));
    child->runAction(Action::fadeOut(1));
    root->updateActions(0);
    root->updateActions(0.6);
    EXPECT_EQ(sprite->texture(), pause);
    EXPECT_EQ(sprite->size(), glm::vec2(4, 1)) << "a new texture keeps the sprite's size";
    EXPECT_NEAR(child->opacity(), 0.4f, 1e-6);
}

TEST(Action, RunningActionsDoNotKeepARemovedNodeAlive) {
    std::weak_ptr<Node> weak;
    auto root = Node::create();
    {
        auto node = Node::create();
        weak = node;
        root->addChildNode(node);
        node->runAction(Action::sequence({Action::wait(100), Action::fadeIn(1)}));
        root->updateActions(0);
        node->removeFromParent();
    }
    EXPECT_TRUE(weak.expired());
}

TEST(ActionDeathTest, MisuseStops) {
    auto node = Node::create();
    EXPECT_DEATH(node->runAction(Action::sequence({Action::setTexture(picture(1))})),
                 "Fatal error: Node::runAction: setTexture runs on sprites only");
    EXPECT_DEATH(Action::wait(-1), "Action::wait: duration -1.0* is not a finite number");
    EXPECT_DEATH(Action::fadeIn(std::nan("")), "Action::fadeIn: duration");
}
