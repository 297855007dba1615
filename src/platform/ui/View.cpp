#include "Internal.h"

#include <pelkit/ui/View.h>
#include <utility>

#include <algorithm>

namespace pelkit::ui {

Rect aspectFit(Size content, const Rect& bounds) {
    if (content.width <= 0 || content.height <= 0)
        return {{bounds.midX(), bounds.midY()}, {0, 0}};
    const float scale =
        std::min(bounds.size.width / content.width, bounds.size.height / content.height);
    const Size fitted{content.width * scale, content.height * scale};
    return {{bounds.midX() - fitted.width / 2, bounds.midY() - fitted.height / 2}, fitted};
}

Touch::Touch(std::shared_ptr<View> view, Point windowLocation)
    : view_(view), start_(windowLocation), current_(windowLocation) {}

namespace {

Point fromWindow(Point point, const View* view) {
    if (!view)
        return point;
    const Point origin = view->convert({0, 0}, nullptr);
    return {point.x - origin.x, point.y - origin.y};
}

} // namespace

Point Touch::location(const View* view) const {
    return fromWindow(current_, view);
}

Point Touch::startLocation(const View* view) const {
    return fromWindow(start_, view);
}

void Touch::update(Point windowLocation, Phase phase) {
    current_ = windowLocation;
    phase_ = phase;
}

Responder::~Responder() = default;

void Responder::touchesBegan(const TouchSet& touches, const Event* event) {
    if (Responder* next = nextResponder())
        next->touchesBegan(touches, event);
}

void Responder::touchesMoved(const TouchSet& touches, const Event* event) {
    if (Responder* next = nextResponder())
        next->touchesMoved(touches, event);
}

void Responder::touchesEnded(const TouchSet& touches, const Event* event) {
    if (Responder* next = nextResponder())
        next->touchesEnded(touches, event);
}

void Responder::touchesCancelled(const TouchSet& touches, const Event* event) {
    if (Responder* next = nextResponder())
        next->touchesCancelled(touches, event);
}

View::~View() {
    for (auto& subview : subviews_)
        subview->superview_ = nullptr;
}

void View::setFrame(const Rect& frame) {
    if (frame == frame_)
        return;
    if (frame.size != frame_.size)
        needsLayout_ = true;
    frame_ = frame;
    setNeedsDisplay();
}

void View::setBackgroundColor(const Color& color) {
    backgroundColor_ = color;
    setNeedsDisplay();
}

void View::setHidden(bool hidden) {
    hidden_ = hidden;
    setNeedsDisplay();
}

void View::setClipsToBounds(bool clips) {
    clipsToBounds_ = clips;
    setNeedsDisplay();
}

void View::setBorderWidth(float width) {
    borderWidth_ = std::max(0.0f, width);
    setNeedsDisplay();
}

void View::setBorderColor(const Color& color) {
    borderColor_ = color;
    setNeedsDisplay();
}

void View::addSubview(std::shared_ptr<View> view) {
    if (!view || view.get() == this)
        return;
    auto keep = view; // removeFromSuperview may drop the last other owner
    view->removeFromSuperview();
    view->superview_ = this;
    subviews_.push_back(view);
    setNeedsLayout();
    if (window())
        view->notifyWindowChange();
}

void View::removeFromSuperview() {
    View* parent = superview_;
    if (!parent)
        return;
    const bool hadWindow = window() != nullptr;
    auto self = shared_from_this();
    std::erase(parent->subviews_, self);
    superview_ = nullptr;
    parent->setNeedsLayout();
    if (hadWindow)
        notifyWindowChange();
}

Window* View::window() const {
    const View* top = this;
    while (top->superview_)
        top = top->superview_;
    return top->window_;
}

void View::setWindow(Window* window) {
    if (window_ == window)
        return;
    window_ = window;
    needsLayout_ = true;
    notifyWindowChange();
}

void View::notifyWindowChange() {
    didMoveToWindow();
    for (auto& subview : std::vector(subviews_))
        subview->notifyWindowChange();
}

void View::setNeedsLayout() {
    needsLayout_ = true;
    setNeedsDisplay();
}

void View::layoutIfNeeded() {
    if (std::exchange(needsLayout_, false))
        layoutSubviews();
    for (auto& subview : std::vector(subviews_))
        subview->layoutIfNeeded();
}

void View::setNeedsDisplay() {
    if (Window* shown = window())
        shown->setNeedsDisplay();
}

Point View::convert(Point point, const View* view) const {
    // Up to the window: each frame's origin lies in its parent's coordinates.
    for (const View* v = this; v; v = v->superview_)
        point = {point.x + v->frame_.origin.x, point.y + v->frame_.origin.y};
    return view ? fromWindow(point, view) : point;
}

std::shared_ptr<View> View::hitTest(Point point) {
    if (hidden_ || !interactive_ || !pointInside(point))
        return nullptr;
    for (auto it = subviews_.rbegin(); it != subviews_.rend(); ++it) {
        const Point inner{point.x - (*it)->frame_.origin.x, point.y - (*it)->frame_.origin.y};
        if (auto hit = (*it)->hitTest(inner))
            return hit;
    }
    return shared_from_this();
}

Responder* View::nextResponder() const {
    if (controller_)
        return controller_;
    return superview_;
}

void View::draw(DrawContext& context) {
    const Rect area = bounds();
    context.fillRect(area, backgroundColor_);
    if (borderWidth_ <= 0)
        return;
    const float w = std::min({borderWidth_, area.size.width / 2, area.size.height / 2});
    context.fillRect({{0, 0}, {area.size.width, w}}, borderColor_);
    context.fillRect({{0, area.size.height - w}, {area.size.width, w}}, borderColor_);
    context.fillRect({{0, w}, {w, area.size.height - 2 * w}}, borderColor_);
    context.fillRect({{area.size.width - w, w}, {w, area.size.height - 2 * w}}, borderColor_);
}

} // namespace pelkit::ui
