#include <pelkit/foundation/Error.h>
#include <pelkit/ui/View.h>

#include <optional>

namespace pelkit::ui {
namespace {

enum class Axis { horizontal, vertical, dimension };

Axis axisOf(LayoutAttribute attribute) {
    switch (attribute) {
    case LayoutAttribute::leading:
    case LayoutAttribute::trailing:
    case LayoutAttribute::centerX:
        return Axis::horizontal;
    case LayoutAttribute::top:
    case LayoutAttribute::bottom:
    case LayoutAttribute::centerY:
        return Axis::vertical;
    case LayoutAttribute::width:
    case LayoutAttribute::height:
        break;
    }
    return Axis::dimension;
}

// The anchor's value in the coordinates of `space`; nothing once its view is gone.
std::optional<float> valueOf(const LayoutAnchor& anchor, const View* space) {
    auto view = anchor.view();
    if (!view)
        return std::nullopt;
    Rect area = view->bounds();
    if (anchor.region() == LayoutRegion::safeArea)
        area = area.inset(view->safeAreaInsets());
    area.origin = view->convert(area.origin, nullptr);
    if (space) {
        const Point base = space->convert({0, 0}, nullptr);
        area = area.offset(-base.x, -base.y);
    }
    switch (anchor.attribute()) {
    case LayoutAttribute::leading:
        return area.minX();
    case LayoutAttribute::trailing:
        return area.maxX();
    case LayoutAttribute::top:
        return area.minY();
    case LayoutAttribute::bottom:
        return area.maxY();
    case LayoutAttribute::centerX:
        return area.midX();
    case LayoutAttribute::centerY:
        return area.midY();
    case LayoutAttribute::width:
        return area.size.width;
    case LayoutAttribute::height:
        return area.size.height;
    }
    return std::nullopt;
}

// What the active constraints of one view decide, in its superview's coordinates.
struct Decided {
    std::optional<float> edges[8];
    std::optional<float>& operator[](LayoutAttribute a) { return edges[int(a)]; }
};

// One axis: the size, then the position from a leading edge, a trailing edge or a centre.
std::pair<float, float> resolve(std::optional<float> low, std::optional<float> high,
                                std::optional<float> centre, std::optional<float> size,
                                float oldPosition, float oldSize) {
    const float length = size ? *size : (low && high) ? *high - *low : oldSize;
    const float position = low      ? *low
                           : high   ? *high - length
                           : centre ? *centre - length / 2
                                    : oldPosition;
    return {position, std::max(0.0f, length)};
}

} // namespace

std::shared_ptr<LayoutConstraint> LayoutAnchor::constraint(const LayoutAnchor& other,
                                                           float constant) const {
    return constraint(other, 1, constant);
}

std::shared_ptr<LayoutConstraint> LayoutAnchor::constraint(const LayoutAnchor& other,
                                                           float multiplier, float constant) const {
    if (axisOf(attribute_) != axisOf(other.attribute_))
        fatalError("LayoutAnchor::constraint: the anchors lie on different axes");
    if (multiplier != 1 && axisOf(attribute_) != Axis::dimension)
        fatalError("LayoutAnchor::constraint: only sizes take a multiplier");
    return std::make_shared<LayoutConstraint>(*this, other, multiplier, constant);
}

std::shared_ptr<LayoutConstraint> LayoutAnchor::constraint(float constant) const {
    if (axisOf(attribute_) != Axis::dimension)
        fatalError("LayoutAnchor::constraint: only a width or a height equals a constant");
    return std::make_shared<LayoutConstraint>(*this, std::nullopt, 1, constant);
}

LayoutConstraint::LayoutConstraint(LayoutAnchor first, std::optional<LayoutAnchor> second,
                                   float multiplier, float constant)
    : first_(std::move(first)), second_(std::move(second)), multiplier_(multiplier),
      constant_(constant) {}

void LayoutConstraint::activate(const std::vector<std::shared_ptr<LayoutConstraint>>& list) {
    for (const auto& constraint : list)
        constraint->setActive(true);
}

void LayoutConstraint::setActive(bool active) {
    auto view = first_.view();
    if (active == active_ || !view)
        return;
    active_ = active;
    if (active)
        view->constraints_.push_back(shared_from_this());
    else
        std::erase(view->constraints_, shared_from_this());
    if (View* parent = view->superview())
        parent->setNeedsLayout();
}

void LayoutConstraint::setConstant(float constant) {
    constant_ = constant;
    if (auto view = first_.view(); view && view->superview())
        view->superview()->setNeedsLayout();
}

void View::layoutSubviews() {
    for (const auto& subview : subviews_) {
        if (subview->constraints_.empty())
            continue;
        Decided decided;
        for (const auto& c : subview->constraints_) {
            const auto& second = c->secondAnchor();
            std::optional<float> base = second ? valueOf(*second, this) : 0.0f;
            if (base)
                decided[c->firstAnchor().attribute()] = *base * c->multiplier() + c->constant();
        }
        const Rect old = subview->frame();
        const auto [x, width] =
            resolve(decided[LayoutAttribute::leading], decided[LayoutAttribute::trailing],
                    decided[LayoutAttribute::centerX], decided[LayoutAttribute::width],
                    old.origin.x, old.size.width);
        const auto [y, height] =
            resolve(decided[LayoutAttribute::top], decided[LayoutAttribute::bottom],
                    decided[LayoutAttribute::centerY], decided[LayoutAttribute::height],
                    old.origin.y, old.size.height);
        subview->setFrame({{x, y}, {width, height}});
    }
}

} // namespace pelkit::ui
