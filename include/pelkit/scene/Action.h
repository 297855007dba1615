// Timed changes of a node's or a sprite's scale, opacity, visibility or texture, run against the
// scene's clock. Actions are immutable descriptions: build them on any thread, share them freely.
#pragma once

#include <pelkit/image/Image.h>

#include <initializer_list>
#include <memory>
#include <vector>

namespace pelkit::scene {

class Action;
using ActionPtr = std::shared_ptr<const Action>;
struct ActionDefinition;

/// A description of a change over time. Running it (`Node::runAction`, `Sprite::runAction`) makes
/// a private run with its own progress, so one action can run on many targets at once.
///
/// Timing. The clock is whatever the caller passes to `updateActions(time)`, in seconds; a
/// renderer passes its frame time once per frame, tests step it by hand. An action starts at the
/// first update after it was run. Timed actions interpolate linearly from the value the target has
/// when the action starts to the action's end value, and land exactly on the end value at their
/// end. Steps of a sequence start at the exact moment the step before ended, not at the next
/// update, so the result does not depend on the frame rate; an update that jumps past several
/// steps completes them all, in order. Zero-duration actions complete in the update that starts
/// them. Negative or non-finite durations are programming errors.
///
///     node->setScale({0, 0, 0});
///     node->runAction(scene::Action::sequence({scene::Action::wait(0.2),
///                                              scene::Action::scaleTo(1.0f, 0.5)}));
class Action {
public:
    /// Does nothing for `seconds`.
    static ActionPtr wait(double seconds);
    /// Scales every axis to `scale` (a sprite: x and y).
    static ActionPtr scaleTo(float scale, double seconds);
    /// Changes opacity (a sprite: alpha) to 1, to 0, or to `opacity`.
    static ActionPtr fadeIn(double seconds);
    static ActionPtr fadeOut(double seconds);
    static ActionPtr fadeOpacityTo(float opacity, double seconds);
    /// Hides or shows the target at once.
    static ActionPtr hide();
    static ActionPtr unhide();
    /// Gives a sprite a new texture at once, keeping its size. Runs on sprites only: running it
    /// on a node is a programming error.
    static ActionPtr setTexture(std::shared_ptr<const image::Image> texture);
    /// Runs `steps` one after the other.
    static ActionPtr sequence(std::vector<ActionPtr> steps);

    ~Action();
    Action(const Action&) = delete;
    Action& operator=(const Action&) = delete;

    /// Total length in seconds (a sequence: the sum of its steps).
    double duration() const;
    /// Whether this action or one of its steps sets a texture.
    bool setsTexture() const;

private:
    explicit Action(std::unique_ptr<const ActionDefinition> definition);
    static ActionPtr make(ActionDefinition definition);
    std::unique_ptr<const ActionDefinition> definition_;
    friend class ActionRun; // the scene's own runner reads the definition
};

} // namespace pelkit::scene
