#include <pelkit/scene/Node.h>

#include <glm/gtc/constants.hpp>
#include <glm/gtc/epsilon.hpp>
#include <gtest/gtest.h>

#include <thread>

using namespace pelkit::scene;

namespace {

constexpr float halfPi = glm::half_pi<float>();

glm::vec3 apply(const glm::mat4& m, glm::vec3 p) {
    return glm::vec3(m * glm::vec4(p, 1));
}

bool near(glm::vec3 a, glm::vec3 b) {
    return glm::all(glm::epsilonEqual(a, b, 1e-5f));
}

std::shared_ptr<Node> childOf(const std::shared_ptr<Node>& parent) {
    auto child = Node::create();
    parent->addChildNode(child);
    return child;
}

} // namespace

TEST(Node, EulerAnglesRotateRollThenYawThenPitchAboutFixedAxes) {
    struct Case {
        glm::vec3 angles, point, expected;
    };
    const Case cases[] = {
        {{halfPi, 0, 0}, {0, 1, 0}, {0, 0, 1}},
        {{0, halfPi, 0}, {0, 0, 1}, {1, 0, 0}},
        {{0, 0, halfPi}, {1, 0, 0}, {0, 1, 0}},
        // Yaw before pitch: x -> -z -> +y (pitch first would give -z).
        {{halfPi, halfPi, 0}, {1, 0, 0}, {0, 1, 0}},
        // Roll before yaw: x -> y, unmoved by yaw (yaw first would give -z).
        {{0, halfPi, halfPi}, {1, 0, 0}, {0, 1, 0}},
    };
    for (const auto& c : cases) {
        auto node = Node::create();
        node->setEulerAngles(c.angles);
        EXPECT_TRUE(near(apply(node->transform(), c.point), c.expected))
            << "angles " << c.angles.x << " " << c.angles.y << " " << c.angles.z;
    }
}

TEST(Node, SetTransformRecoversPositionAnglesAndScale) {
    for (const glm::vec3 angles :
         {glm::vec3{0.3f, -0.7f, 1.1f}, glm::vec3{-halfPi, 0, 0}, glm::vec3{0.2f, halfPi, 0.4f}}) {
        auto source = Node::create();
        source->setPosition({1, -2, 3});
        source->setEulerAngles(angles);
        source->setScale({2, 0.5f, -1});
        auto copy = Node::create();
        copy->setTransform(source->transform());
        for (glm::vec3 p : {glm::vec3(1, 0, 0), glm::vec3(0, 1, 0), glm::vec3(0.3f, -2, 5)})
            EXPECT_TRUE(near(apply(copy->transform(), p), apply(source->transform(), p)))
                << "angles " << angles.x << " " << angles.y << " " << angles.z;
    }
}

TEST(Node, ChangesSpreadToCachedWorldTransformsOfDescendants) {
    auto grandparent = Node::create();
    auto parent = childOf(grandparent);
    auto child = childOf(parent);
    child->setPosition({1, 0, 0});
    EXPECT_TRUE(near(child->worldPosition(), {1, 0, 0}));

    grandparent->setPosition({0, 5, 0});
    EXPECT_TRUE(near(child->worldPosition(), {1, 5, 0})) << "grandparent move reaches grandchild";

    // The parent is recomputed while the child stays stale; a later change above must still
    // reach the child.
    parent->setScale({2, 2, 2});
    EXPECT_TRUE(near(parent->worldPosition(), {0, 5, 0}));
    grandparent->setEulerAngles({0, 0, halfPi});
    EXPECT_TRUE(near(child->worldPosition(), {0, 7, 0}));

    auto elsewhere = Node::create();
    elsewhere->setPosition({0, 0, -3});
    elsewhere->addChildNode(parent);
    EXPECT_TRUE(near(child->worldPosition(), {2, 0, -3})) << "re-parenting moves the subtree";
    EXPECT_TRUE(grandparent->childNodes().empty());
}

TEST(Node, TypedHelpersFindContentNodesAndChildrenKeepOrder) {
    struct Content : Node {};
    auto root = Node::create();
    auto first = std::make_shared<Content>();
    auto plain = childOf(root);
    auto second = std::make_shared<Content>();
    root->addChildNode(first);
    root->addChildNode(second);
    auto button = childOf(second);

    EXPECT_EQ(root->childNodes(), (std::vector<std::shared_ptr<Node>>{plain, first, second}));
    EXPECT_EQ(root->childNodes<Content>(), (std::vector<std::shared_ptr<Content>>{first, second}));
    EXPECT_EQ(button->selfOrAncestor<Content>(), second);
    EXPECT_EQ(second->selfOrAncestor<Content>(), second);
    EXPECT_EQ(second->firstAncestor<Content>(), nullptr);
    EXPECT_EQ(plain->selfOrAncestor<Content>(), nullptr);
}

TEST(Node, ParentLinksAreClearedWhenTheParentGoes) {
    auto child = Node::create();
    child->setPosition({1, 2, 3});
    {
        auto parent = Node::create();
        parent->setPosition({10, 0, 0});
        parent->addChildNode(child);
        EXPECT_TRUE(near(child->worldPosition(), {11, 2, 3}));
    }
    EXPECT_EQ(child->parent(), nullptr);
    EXPECT_TRUE(near(child->worldPosition(), {1, 2, 3}));

    std::weak_ptr<Node> removed;
    {
        auto parent = Node::create();
        removed = childOf(parent);
        removed.lock()->removeFromParent();
    }
    EXPECT_TRUE(removed.expired()) << "a removed child is not kept by its former parent";
}

TEST(NodeDeathTest, AddingAnAncestorAsChildStops) {
    auto root = Node::create();
    auto child = childOf(root);
    EXPECT_DEATH(child->addChildNode(root), "Fatal error: Node::addChildNode: a node cannot "
                                            "become a child of itself or of one of its desc");
    EXPECT_DEATH(root->addChildNode(root), "Node::addChildNode");
}

TEST(Node, TreeCanBeBuiltOnOneThreadWhileAnotherReadsIt) {
    auto root = Node::create();
    std::thread builder([&] {
        for (int i = 0; i < 2000; ++i) {
            auto node = childOf(root);
            node->setPosition({float(i), 0, 0});
            if (i % 2)
                node->removeFromParent();
        }
    });
    for (int i = 0; i < 2000; ++i) {
        for (auto& child : root->childNodes())
            (void)child->worldTransform();
        root->updateActions(i);
    }
    builder.join();
    EXPECT_EQ(root->childNodes().size(), 1000u);
}
