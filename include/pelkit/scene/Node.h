// The 3D scene graph: a tree of nodes, each with a local transform, visibility, opacity, optional
// geometry and running actions. Thread-safe: every call takes the scene lock (see SceneLock), so
// content can be built on a worker queue while the renderer draws.
#pragma once

#include <pelkit/scene/Action.h>
#include <pelkit/scene/Geometry.h>

#include <glm/mat4x4.hpp>
#include <glm/vec3.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pelkit::scene {

/// One node of the scene graph. Nodes are shared objects: a parent holds its children (in the
/// order they were added), and a child knows its parent only by a back-link that the parent
/// clears when it lets the child go, so a removed subtree lives exactly as long as someone holds
/// it. Content nodes derive from Node; create plain nodes with `Node::create()`, subclasses with
/// `std::make_shared`.
///
/// Transform. The local transform is T * R * S: scale each axis, then rotate, then translate to
/// `position`, all in the parent's coordinates. The rotation comes from `eulerAngles`
/// (x = pitch, y = yaw, z = roll, radians) applied to a point about the parent's fixed axes in
/// the order roll, then yaw, then pitch:
///
///     R = Rx(pitch) * Ry(yaw) * Rz(roll)
///
/// For example angles (pi/2, pi/2, 0) turn the x axis first by yaw onto -z, then by pitch onto
/// +y. The world transform is the parent's world transform times the local one; it is cached and
/// recomputed only after a change to the node or one of its ancestors.
///
/// Visibility. A hidden node hides its whole subtree. Opacity multiplies down the tree: what is
/// drawn is `effectiveOpacity()`, the product of the node's and its ancestors' opacities.
///
///     auto root = scene::Node::create();
///     root->setEulerAngles({-glm::half_pi<float>(), 0, 0});   // lay content flat on an image
///     root->addChildNode(contentNode);
class Node : public std::enable_shared_from_this<Node> {
public:
    static std::shared_ptr<Node> create();
    virtual ~Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // Tree.

    /// Appends `child`, first taking it from its current parent. Adding a null node, the node
    /// itself or one of its ancestors is a programming error.
    void addChildNode(std::shared_ptr<Node> child);
    /// Detaches the node from its parent; nothing when it has none.
    void removeFromParent();
    /// The parent, or null for a root.
    std::shared_ptr<Node> parent() const;
    /// The children, in the order they were added.
    std::vector<std::shared_ptr<Node>> childNodes() const;
    /// The children that are a `T`, in order.
    template <class T> std::vector<std::shared_ptr<T>> childNodes() const;
    /// The nearest node of type `T` walking up from this node, this node included.
    template <class T> std::shared_ptr<T> selfOrAncestor() const;
    /// The nearest ancestor of type `T`, this node excluded.
    template <class T> std::shared_ptr<T> firstAncestor() const;

    // Transform.

    glm::vec3 position() const;
    void setPosition(glm::vec3 position);
    glm::vec3 eulerAngles() const;
    void setEulerAngles(glm::vec3 angles);
    glm::vec3 scale() const;
    void setScale(glm::vec3 scale);
    /// The local transform built from position, Euler angles and scale.
    glm::mat4 transform() const;
    /// Sets position, Euler angles and scale from a transform made of translation, rotation and
    /// per-axis scale (shear is dropped). A pose from a tracker is the usual source.
    void setTransform(const glm::mat4& transform);
    /// The transform from this node's coordinates to the root's.
    glm::mat4 worldTransform() const;
    /// This node's origin in world coordinates.
    glm::vec3 worldPosition() const;

    // Appearance.

    bool isHidden() const;
    void setHidden(bool hidden);
    /// Whether this node or an ancestor is hidden.
    bool isHiddenInTree() const;
    float opacity() const;
    void setOpacity(float opacity);
    /// The node's opacity times its ancestors' opacities.
    float effectiveOpacity() const;
    std::shared_ptr<Geometry> geometry() const;
    void setGeometry(std::shared_ptr<Geometry> geometry);
    std::optional<std::string> name() const;
    void setName(std::optional<std::string> name);

    // Actions.

    /// Runs `action` on this node from the next `updateActions` on. Several actions run side by
    /// side. An action that sets a texture is a programming error here (sprites only).
    void runAction(ActionPtr action);
    bool hasActions() const;
    void removeAllActions();
    /// Advances the actions of this node, of its descendants and of the 2D scenes its subtree's
    /// materials show to `time` (seconds on the caller's clock). A renderer calls this once per
    /// frame on the root; finished actions are dropped.
    void updateActions(double time);

protected:
    Node();

private:
    void markWorldDirty() const;
    struct State;
    std::unique_ptr<State> state_;
};

template <class T> std::vector<std::shared_ptr<T>> Node::childNodes() const {
    std::vector<std::shared_ptr<T>> typed;
    for (auto& child : childNodes()) {
        if (auto match = std::dynamic_pointer_cast<T>(child))
            typed.push_back(std::move(match));
    }
    return typed;
}

template <class T> std::shared_ptr<T> Node::selfOrAncestor() const {
    auto self = std::const_pointer_cast<Node>(weak_from_this().lock());
    if (auto match = std::dynamic_pointer_cast<T>(self))
        return match;
    return firstAncestor<T>();
}

template <class T> std::shared_ptr<T> Node::firstAncestor() const {
    for (auto node = parent(); node; node = node->parent()) {
        if (auto match = std::dynamic_pointer_cast<T>(node))
            return match;
    }
    return nullptr;
}

} // namespace pelkit::scene
