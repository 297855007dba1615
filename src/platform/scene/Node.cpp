#include <pelkit/scene/Node.h>

#include "ActionRunner.h"

#include <pelkit/foundation/Error.h>
#include <pelkit/scene/Scene2D.h>
#include <pelkit/scene/SceneLock.h>

#include <glm/geometric.hpp>
#include <glm/gtc/matrix_transform.hpp>
#include <glm/matrix.hpp>

#include <algorithm>
#include <cmath>

namespace pelkit::scene {

struct Node::State {
    Node* parent = nullptr; // cleared by the parent when it lets go of this node
    std::vector<std::shared_ptr<Node>> children;
    glm::vec3 position{0};
    glm::vec3 eulerAngles{0};
    glm::vec3 scale{1};
    bool hidden = false;
    float opacity = 1;
    std::shared_ptr<Geometry> geometry;
    std::optional<std::string> name;
    ActionList actions;

    // Invariant: a dirty node has only dirty descendants, so spreading can stop at the first
    // node that is already dirty.
    mutable glm::mat4 world{1};
    mutable bool worldDirty = true;
};

namespace {

class NodeTarget final : public ActionTarget {
public:
    explicit NodeTarget(Node& node) : node_(node) {}
    glm::vec3 scale() const override { return node_.scale(); }
    void setScale(glm::vec3 scale) override { node_.setScale(scale); }
    float opacity() const override { return node_.opacity(); }
    void setOpacity(float opacity) override { node_.setOpacity(opacity); }
    void setHidden(bool hidden) override { node_.setHidden(hidden); }
    void setTexture(std::shared_ptr<const image::Image>) override {
        fatalError("Node: setTexture runs on sprites only");
    }

private:
    Node& node_;
};

glm::mat4 rotation(glm::vec3 euler) {
    // Rx(pitch) * Ry(yaw) * Rz(roll): applied to a point, roll acts first and pitch last.
    glm::mat4 m = glm::rotate(glm::mat4(1), euler.x, {1, 0, 0});
    m = glm::rotate(m, euler.y, {0, 1, 0});
    return glm::rotate(m, euler.z, {0, 0, 1});
}

// Inverts rotation() for a pure rotation matrix r (glm indexes r[column][row]).
glm::vec3 eulerAnglesOf(const glm::mat3& r) {
    const float sinYaw = std::clamp(r[2][0], -1.0f, 1.0f);
    const float yaw = std::asin(sinYaw);
    if (std::abs(sinYaw) > 0.99999f) {
        // Gimbal lock: pitch and roll turn about the same axis; put it all into pitch.
        const float pitch =
            sinYaw > 0 ? std::atan2(r[0][1], r[1][1]) : std::atan2(-r[0][1], r[1][1]);
        return {pitch, yaw, 0};
    }
    return {std::atan2(-r[2][1], r[2][2]), yaw, std::atan2(-r[1][0], r[0][0])};
}

} // namespace

Node::Node() : state_(std::make_unique<State>()) {}

std::shared_ptr<Node> Node::create() {
    return std::shared_ptr<Node>(new Node);
}

Node::~Node() {
    SceneLock lock;
    for (auto& child : state_->children) {
        child->state_->parent = nullptr;
        child->markWorldDirty();
    }
}

void Node::markWorldDirty() const {
    if (state_->worldDirty)
        return;
    state_->worldDirty = true;
    for (auto& child : state_->children)
        child->markWorldDirty();
}

void Node::addChildNode(std::shared_ptr<Node> child) {
    if (!child)
        fatalError("Node::addChildNode: the child is null");
    SceneLock lock;
    for (const Node* node = this; node; node = node->state_->parent) {
        if (node == child.get()) {
            fatalError("Node::addChildNode: a node cannot become a child of itself or of one of "
                       "its descendants");
        }
    }
    child->removeFromParent();
    child->state_->parent = this;
    child->markWorldDirty();
    state_->children.push_back(std::move(child));
}

void Node::removeFromParent() {
    std::shared_ptr<Node> keepAlive; // released after the lock, once nothing here touches `this`
    SceneLock lock;
    Node* parent = state_->parent;
    if (!parent)
        return;
    auto& siblings = parent->state_->children;
    auto it =
        std::ranges::find_if(siblings, [this](auto& sibling) { return sibling.get() == this; });
    keepAlive = std::move(*it);
    siblings.erase(it);
    state_->parent = nullptr;
    markWorldDirty();
}

std::shared_ptr<Node> Node::parent() const {
    SceneLock lock;
    // Null while the parent is being destroyed, before it has cleared this link.
    return state_->parent ? state_->parent->weak_from_this().lock() : nullptr;
}

std::vector<std::shared_ptr<Node>> Node::childNodes() const {
    SceneLock lock;
    return state_->children;
}

glm::vec3 Node::position() const {
    SceneLock lock;
    return state_->position;
}

void Node::setPosition(glm::vec3 position) {
    SceneLock lock;
    state_->position = position;
    markWorldDirty();
}

glm::vec3 Node::eulerAngles() const {
    SceneLock lock;
    return state_->eulerAngles;
}

void Node::setEulerAngles(glm::vec3 angles) {
    SceneLock lock;
    state_->eulerAngles = angles;
    markWorldDirty();
}

glm::vec3 Node::scale() const {
    SceneLock lock;
    return state_->scale;
}

void Node::setScale(glm::vec3 scale) {
    SceneLock lock;
    state_->scale = scale;
    markWorldDirty();
}

glm::mat4 Node::transform() const {
    SceneLock lock;
    glm::mat4 m = glm::translate(glm::mat4(1), state_->position) * rotation(state_->eulerAngles);
    return glm::scale(m, state_->scale);
}

void Node::setTransform(const glm::mat4& transform) {
    SceneLock lock;
    glm::mat3 basis(transform);
    glm::vec3 scale{glm::length(basis[0]), glm::length(basis[1]), glm::length(basis[2])};
    // A mirroring transform keeps a proper rotation by flipping one scale.
    if (glm::determinant(basis) < 0)
        scale.x = -scale.x;
    state_->position = glm::vec3(transform[3]);
    // With an axis squashed to nothing the rotation cannot be recovered; keep the old angles.
    if (scale.x != 0 && scale.y != 0 && scale.z != 0) {
        state_->eulerAngles =
            eulerAnglesOf(glm::mat3(basis[0] / scale.x, basis[1] / scale.y, basis[2] / scale.z));
    }
    state_->scale = scale;
    markWorldDirty();
}

glm::mat4 Node::worldTransform() const {
    SceneLock lock;
    if (state_->worldDirty) {
        const glm::mat4 local = transform();
        state_->world = state_->parent ? state_->parent->worldTransform() * local : local;
        state_->worldDirty = false;
    }
    return state_->world;
}

glm::vec3 Node::worldPosition() const {
    return glm::vec3(worldTransform()[3]);
}

bool Node::isHidden() const {
    SceneLock lock;
    return state_->hidden;
}

void Node::setHidden(bool hidden) {
    SceneLock lock;
    state_->hidden = hidden;
}

bool Node::isHiddenInTree() const {
    SceneLock lock;
    for (const Node* node = this; node; node = node->state_->parent) {
        if (node->state_->hidden)
            return true;
    }
    return false;
}

float Node::opacity() const {
    SceneLock lock;
    return state_->opacity;
}

void Node::setOpacity(float opacity) {
    SceneLock lock;
    state_->opacity = opacity;
}

float Node::effectiveOpacity() const {
    SceneLock lock;
    float opacity = 1;
    for (const Node* node = this; node; node = node->state_->parent) {
        opacity *= node->state_->opacity;
    }
    return opacity;
}

std::shared_ptr<Geometry> Node::geometry() const {
    SceneLock lock;
    return state_->geometry;
}

void Node::setGeometry(std::shared_ptr<Geometry> geometry) {
    SceneLock lock;
    state_->geometry = std::move(geometry);
}

std::optional<std::string> Node::name() const {
    SceneLock lock;
    return state_->name;
}

void Node::setName(std::optional<std::string> name) {
    SceneLock lock;
    state_->name = std::move(name);
}

void Node::runAction(ActionPtr action) {
    if (!action)
        fatalError("Node::runAction: the action is null");
    if (action->setsTexture())
        fatalError("Node::runAction: setTexture runs on sprites only");
    SceneLock lock;
    state_->actions.add(std::move(action));
}

bool Node::hasActions() const {
    SceneLock lock;
    return !state_->actions.empty();
}

void Node::removeAllActions() {
    SceneLock lock;
    state_->actions.clear();
}

void Node::updateActions(double time) {
    SceneLock lock;
    NodeTarget target(*this);
    state_->actions.advance(target, time);
    if (state_->geometry) {
        for (const auto& material : state_->geometry->materials()) {
            const auto contents = material->diffuseContents();
            if (auto* scene = std::get_if<std::shared_ptr<Scene2D>>(&contents)) {
                (*scene)->updateActions(time);
            }
        }
    }
    for (const auto& child : std::vector(state_->children))
        child->updateActions(time);
}

} // namespace pelkit::scene
