#include <pelkit/scene/HitTest.h>

#include <glm/gtc/constants.hpp>
#include <glm/gtc/epsilon.hpp>
#include <glm/trigonometric.hpp>
#include <gtest/gtest.h>

using namespace pelkit::scene;

namespace {

bool near(glm::vec3 a, glm::vec3 b) {
    return glm::all(glm::epsilonEqual(a, b, 1e-4f));
}

std::shared_ptr<Node> planeNode(float size, glm::vec3 position) {
    auto node = Node::create();
    node->setGeometry(Plane::create(size, size));
    node->setPosition(position);
    return node;
}

// A camera at the origin looking down -z, and a tree of planes in front of it:
// far (2 x 2 at z = -2) holds near (0.5 x 0.5, 1 in front of it); beside them, at z = -3,
// a large backdrop.
class HitTestScene : public ::testing::Test {
protected:
    void SetUp() override {
        root->addChildNode(far);
        far->addChildNode(nearby);
        root->addChildNode(backdrop);
    }
    std::vector<HitResult> tap(glm::vec3 worldPoint, HitTestOptions options = {}) {
        return hitTest(root, camera, camera.project(worldPoint).value(), options);
    }
    static std::vector<std::shared_ptr<Node>> nodes(const std::vector<HitResult>& hits) {
        std::vector<std::shared_ptr<Node>> found;
        for (auto& hit : hits)
            found.push_back(hit.node);
        return found;
    }

    Camera camera = Camera::perspective(glm::radians(60.0f), {800, 600});
    std::shared_ptr<Node> root = Node::create();
    std::shared_ptr<Node> far = planeNode(2, {0, 0, -2});
    std::shared_ptr<Node> nearby = planeNode(0.5f, {0, 0, 1});
    std::shared_ptr<Node> backdrop = planeNode(20, {0, 0, -3});
};

} // namespace

TEST_F(HitTestScene, NestedPlanesComeNearestFirstWithTheirCoordinates) {
    auto hits = tap({0, 0, -1});
    ASSERT_EQ(nodes(hits), (std::vector{nearby, far, backdrop}));
    EXPECT_TRUE(near(hits[0].worldCoordinates, {0, 0, -1}));
    EXPECT_TRUE(near(hits[1].worldCoordinates, {0, 0, -2}));
    EXPECT_LT(hits[0].distance, hits[1].distance);

    auto offCentre = tap({0.8f, -0.4f, -2});
    ASSERT_EQ(nodes(offCentre), (std::vector{far, backdrop}))
        << "ray passes beside the small plane";
    EXPECT_TRUE(near(offCentre[0].localCoordinates, {0.8f, -0.4f, 0}));
    EXPECT_NEAR(offCentre[0].textureCoordinates.x, 0.9f, 1e-4);
    EXPECT_NEAR(offCentre[0].textureCoordinates.y, 0.7f, 1e-4) << "v grows downwards";

    EXPECT_EQ(nodes(tap({0, 0, -1}, {.results = HitResults::nearestOnly})), (std::vector{nearby}));
}

TEST_F(HitTestScene, HiddenNodesAndTheirSubtreesAreSkippedButFadedOnesAreNot) {
    nearby->setOpacity(0);
    EXPECT_EQ(nodes(tap({0, 0, -1})), (std::vector{nearby, far, backdrop}));
    far->setHidden(true);
    EXPECT_EQ(nodes(tap({0, 0, -1})), (std::vector{backdrop}));
    EXPECT_EQ(nodes(tap({0, 0, -1}, {.hiddenNodes = HiddenNodes::include})),
              (std::vector{nearby, far, backdrop}));
}

TEST_F(HitTestScene, PlanesSeenFromBehindCountOnlyWhenDoubleSided) {
    const struct {
        float yaw;
        Faces faces;
        bool hit;
    } cases[] = {
        {0, Faces::front, true},
        {glm::pi<float>(), Faces::front, false},
        {glm::pi<float>(), Faces::both, true},
        {glm::half_pi<float>() * 0.9f, Faces::front, true},
        {glm::half_pi<float>() * 1.1f, Faces::front, false},
    };
    for (auto c : cases) {
        nearby->setEulerAngles({0, c.yaw, 0});
        nearby->geometry()->firstMaterial()->setFaces(c.faces);
        auto hits = tap({0, 0, -1});
        EXPECT_EQ(!hits.empty() && hits[0].node == nearby, c.hit) << "yaw " << c.yaw;
    }
}

TEST_F(HitTestScene, PlanesSquashedToNothingAreNotHit) {
    far->setScale({0, 0, 0});
    auto hits = tap({0, 0, -1});
    EXPECT_EQ(nodes(hits), (std::vector{backdrop})) << "scale 0 hides the subtree from taps";
    for (auto& hit : hits)
        EXPECT_FALSE(glm::any(glm::isnan(hit.worldCoordinates)));
}

TEST(HitTest, ContentLaidOnAnImageIsHitFromAbove) {
    auto root = Node::create();
    root->setEulerAngles({-glm::half_pi<float>(), 0, 0});
    auto content = Node::create();
    content->setGeometry(Plane::create(0.1f, 0.05f));
    content->setPosition({0.05f, -0.02f, 0});
    root->addChildNode(content);

    auto camera = Camera::perspective(glm::radians(60.0f), {1080, 1920});
    auto eye = Node::create();
    eye->setPosition({0, 0.5f, 0});
    eye->setEulerAngles({-glm::half_pi<float>(), 0, 0}); // looking straight down
    camera.transform = eye->worldTransform();

    auto hits = hitTest(root, camera, camera.project({0.05f, 0, 0.02f}).value());
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(hits[0].node, content);
    EXPECT_TRUE(near(hits[0].localCoordinates, {0, 0, 0}));
    EXPECT_TRUE(hitTest(root, camera, camera.project({0.2f, 0, 0.02f}).value()).empty());
}
