#include <pelkit/ui/Button.h>

namespace pelkit::ui {
namespace {

constexpr Color kSystemBlue{0, 0.478f, 1, 1};
constexpr Color kHighlight{1, 1, 1, 0.25f};

bool inside(const View& view, const TouchSet& touches) {
    return !touches.empty() && view.bounds().contains(touches.front()->location(&view));
}

} // namespace

Button::Button(ButtonType type)
    : type_(type), titleColor_(type == ButtonType::system ? kSystemBlue : colors::white) {}

void Button::setTitle(std::string title) {
    title_ = std::move(title);
    setNeedsDisplay();
}

void Button::setTitleColor(const Color& color) {
    titleColor_ = color;
    setNeedsDisplay();
}

void Button::setFontSize(float pointSize) {
    fontSize_ = pointSize;
    setNeedsDisplay();
}

void Button::addAction(Action action, ControlEvent event) {
    actions_.emplace_back(event, std::move(action));
}

void Button::sendActions(ControlEvent event) {
    // An action may add actions, or remove the button from its window; run the ones there were.
    auto keep = shared_from_this();
    const auto actions = actions_;
    for (const auto& [on, action] : actions)
        if (on == event)
            action(this);
}

void Button::setHighlighted(bool highlighted) {
    if (highlighted == highlighted_)
        return;
    highlighted_ = highlighted;
    setNeedsDisplay();
}

// A button handles its own touches: they do not go on to the views behind it.
void Button::touchesBegan(const TouchSet&, const Event*) {
    setHighlighted(true);
    sendActions(ControlEvent::touchDown);
}

void Button::touchesMoved(const TouchSet& touches, const Event*) {
    setHighlighted(inside(*this, touches));
}

void Button::touchesEnded(const TouchSet& touches, const Event*) {
    setHighlighted(false);
    if (inside(*this, touches))
        sendActions(ControlEvent::touchUpInside);
}

void Button::touchesCancelled(const TouchSet&, const Event*) {
    setHighlighted(false);
}

void Button::draw(DrawContext& context) {
    View::draw(context);
    if (highlighted_)
        context.fillRect(bounds(), kHighlight);
    context.drawText(title_, bounds(), fontSize_, titleColor_);
}

} // namespace pelkit::ui
