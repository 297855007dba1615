#include "ActionRunner.h"

#include <pelkit/foundation/Error.h>

#include <glm/common.hpp>

#include <algorithm>
#include <cmath>
#include <string>

namespace pelkit::scene {
namespace {

using Kind = ActionDefinition::Kind;

ActionDefinition describe(Kind kind, double duration = 0, float value = 0) {
    ActionDefinition made;
    made.kind = kind;
    made.duration = duration;
    made.value = value;
    return made;
}

ActionDefinition timed(Kind kind, const char* operation, double seconds, float value = 0) {
    if (!std::isfinite(seconds) || seconds < 0) {
        fatalError(std::string("Action::") + operation + ": duration " + std::to_string(seconds) +
                   " is not a finite number of seconds >= 0");
    }
    return describe(kind, seconds, value);
}

} // namespace

Action::Action(std::unique_ptr<const ActionDefinition> definition)
    : definition_(std::move(definition)) {}

Action::~Action() = default;

ActionPtr Action::wait(double seconds) {
    return make(timed(Kind::wait, "wait", seconds));
}

ActionPtr Action::scaleTo(float scale, double seconds) {
    return make(timed(Kind::scaleTo, "scaleTo", seconds, scale));
}

ActionPtr Action::fadeIn(double seconds) {
    return make(timed(Kind::fadeTo, "fadeIn", seconds, 1.0f));
}

ActionPtr Action::fadeOut(double seconds) {
    return make(timed(Kind::fadeTo, "fadeOut", seconds, 0.0f));
}

ActionPtr Action::fadeOpacityTo(float opacity, double seconds) {
    return make(timed(Kind::fadeTo, "fadeOpacityTo", seconds, opacity));
}

ActionPtr Action::hide() {
    return make(describe(Kind::hide));
}

ActionPtr Action::unhide() {
    return make(describe(Kind::unhide));
}

ActionPtr Action::setTexture(std::shared_ptr<const image::Image> texture) {
    auto made = describe(Kind::setTexture);
    made.texture = std::move(texture);
    return make(std::move(made));
}

ActionPtr Action::sequence(std::vector<ActionPtr> steps) {
    double total = 0;
    for (const auto& step : steps) {
        if (!step)
            fatalError("Action::sequence: a step is null");
        total += step->duration();
    }
    auto made = describe(Kind::sequence, total);
    made.steps = std::move(steps);
    return make(std::move(made));
}

double Action::duration() const {
    return definition_->duration;
}

bool Action::setsTexture() const {
    return definition_->kind == Kind::setTexture ||
           std::ranges::any_of(definition_->steps, [](auto& step) { return step->setsTexture(); });
}

ActionPtr Action::make(ActionDefinition definition) {
    return ActionPtr(new Action(std::make_unique<const ActionDefinition>(std::move(definition))));
}

std::optional<double> ActionRun::advance(ActionTarget& target, double start, double now) {
    const auto& action = definition_;
    switch (action.kind) {
    case Kind::hide:
    case Kind::unhide:
        target.setHidden(action.kind == Kind::hide);
        return start;
    case Kind::setTexture:
        target.setTexture(action.texture);
        return start;
    case Kind::wait:
        if (now >= start + action.duration)
            return start + action.duration;
        return std::nullopt;
    case Kind::scaleTo:
    case Kind::fadeTo:
        return advanceTimed(target, start, now);
    case Kind::sequence:
        return advanceSequence(target, start, now);
    }
    return start;
}

std::optional<double> ActionRun::advanceTimed(ActionTarget& target, double start, double now) {
    if (!begun_) {
        // The start value is read when the action starts, not when it was run: a sequence's
        // later steps continue from whatever the earlier ones left.
        begun_ = true;
        fromScale_ = target.scale();
        fromOpacity_ = target.opacity();
    }
    const double duration = definition_.duration;
    const double end = start + duration;
    if (duration == 0 || now >= end) {
        interpolate(target, 1.0);
        return end;
    }
    interpolate(target, std::clamp((now - start) / duration, 0.0, 1.0));
    return std::nullopt;
}

std::optional<double> ActionRun::advanceSequence(ActionTarget& target, double start, double now) {
    if (!begun_) {
        begun_ = true;
        stepStart_ = start;
    }
    const auto& steps = definition_.steps;
    while (stepIndex_ < steps.size()) {
        if (!step_)
            step_ = std::make_unique<ActionRun>(*steps[stepIndex_]);
        auto stepEnd = step_->advance(target, stepStart_, now);
        if (!stepEnd)
            return std::nullopt;
        // The next step starts when this one ended, however late this update came.
        stepStart_ = *stepEnd;
        step_.reset();
        ++stepIndex_;
    }
    return stepStart_;
}

void ActionRun::interpolate(ActionTarget& target, double progress) {
    const float to = definition_.value;
    if (definition_.kind == Kind::scaleTo) {
        // Land exactly on the end value: from + (to - from) * 1 can miss it by a rounding step.
        target.setScale(progress >= 1.0
                            ? glm::vec3(to)
                            : glm::mix(fromScale_, glm::vec3(to), static_cast<float>(progress)));
    } else {
        target.setOpacity(
            progress >= 1.0 ? to : glm::mix(fromOpacity_, to, static_cast<float>(progress)));
    }
}

void ActionList::add(ActionPtr action) {
    auto run = std::make_unique<ActionRun>(*action);
    running_.push_back(Running{std::move(action), std::move(run), std::nullopt});
}

void ActionList::advance(ActionTarget& target, double now) {
    for (auto& running : running_) {
        if (!running.start)
            running.start = now;
        if (running.run->advance(target, *running.start, now))
            running.action.reset();
    }
    std::erase_if(running_, [](const Running& running) { return !running.action; });
}

} // namespace pelkit::scene
