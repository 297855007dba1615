// The scene's own machinery for running actions: what an action changes on its target, and the
// per-target list of running actions. Used with the scene lock held.
#pragma once

#include <pelkit/scene/Action.h>

#include <glm/vec3.hpp>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

namespace pelkit::scene {

// An action's kind and parameters.
struct ActionDefinition {
    enum class Kind { wait, scaleTo, fadeTo, hide, unhide, setTexture, sequence };
    Kind kind = Kind::wait;
    double duration = 0;
    float value = 0; // end scale or end opacity
    std::shared_ptr<const image::Image> texture;
    std::vector<ActionPtr> steps;
};

/// What actions change: a node or a sprite seen through the same few properties.
class ActionTarget {
public:
    virtual glm::vec3 scale() const = 0;
    virtual void setScale(glm::vec3 scale) = 0;
    virtual float opacity() const = 0;
    virtual void setOpacity(float opacity) = 0;
    virtual void setHidden(bool hidden) = 0;
    virtual void setTexture(std::shared_ptr<const image::Image> texture) = 0;

protected:
    ~ActionTarget() = default;
};

/// The progress of one action on one target.
class ActionRun {
public:
    explicit ActionRun(const Action& action) : definition_(*action.definition_) {}

    /// Applies the action as it stands at `now`, given that it started at `start`. Returns the
    /// moment it ended once it has, nothing while it runs.
    std::optional<double> advance(ActionTarget& target, double start, double now);

private:
    std::optional<double> advanceTimed(ActionTarget& target, double start, double now);
    std::optional<double> advanceSequence(ActionTarget& target, double start, double now);
    void interpolate(ActionTarget& target, double progress);

    const ActionDefinition& definition_; // kept alive by the ActionPtr that started the run
    bool begun_ = false;
    glm::vec3 fromScale_{1};
    float fromOpacity_ = 1;
    std::size_t stepIndex_ = 0;
    double stepStart_ = 0;
    std::unique_ptr<ActionRun> step_;
};

/// The actions running on one target, each started at the first update after it was added.
class ActionList {
public:
    void add(ActionPtr action);
    bool empty() const { return running_.empty(); }
    void clear() { running_.clear(); }
    void advance(ActionTarget& target, double now);

private:
    struct Running {
        ActionPtr action;
        std::unique_ptr<ActionRun> run;
        std::optional<double> start;
    };
    std::vector<Running> running_;
};

} // namespace pelkit::scene
