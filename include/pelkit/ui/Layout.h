// Layout constraints: a view's edges, centre and size tied to constants or to another view's (or
// its safe area's) edges. Main thread only.
//
//     auto close = std::make_shared<ui::Button>();
//     gallery->view()->addSubview(close);
//     ui::LayoutConstraint::activate({
//         close->widthAnchor().constraint(50),
//         close->heightAnchor().constraint(25),
//         close->topAnchor().constraint(view->safeAreaLayoutGuide().topAnchor(), 10),
//         close->trailingAnchor().constraint(view->safeAreaLayoutGuide().trailingAnchor(), -16),
//     });
#pragma once

#include <memory>
#include <optional>
#include <vector>

namespace pelkit::ui {

class View;

enum class LayoutAttribute { leading, trailing, top, bottom, centerX, centerY, width, height };

/// Which rectangle of a view an anchor belongs to: the view itself, or its safe area.
enum class LayoutRegion { view, safeArea };

class LayoutConstraint;

/// One attribute of one view's rectangle. Holds the view weakly.
class LayoutAnchor {
public:
    LayoutAnchor(std::weak_ptr<View> view, LayoutRegion region, LayoutAttribute attribute)
        : view_(std::move(view)), region_(region), attribute_(attribute) {}

    /// This attribute = `other` + `constant` (inactive until activated). Both anchors must lie on
    /// the same axis (a horizontal edge with a horizontal edge...); a mismatch is a fatal error.
    std::shared_ptr<LayoutConstraint> constraint(const LayoutAnchor& other,
                                                 float constant = 0) const;
    /// This size = `other` x `multiplier` + `constant`; only between widths and heights.
    std::shared_ptr<LayoutConstraint> constraint(const LayoutAnchor& other, float multiplier,
                                                 float constant) const;
    /// This size = `constant`; only for widths and heights.
    std::shared_ptr<LayoutConstraint> constraint(float constant) const;

    std::shared_ptr<View> view() const { return view_.lock(); }
    LayoutRegion region() const { return region_; }
    LayoutAttribute attribute() const { return attribute_; }

private:
    std::weak_ptr<View> view_;
    LayoutRegion region_;
    LayoutAttribute attribute_;
};

/// A view's safe area as a set of anchors (insets are 0 on a desktop).
class LayoutGuide {
public:
    explicit LayoutGuide(std::weak_ptr<View> view) : view_(std::move(view)) {}
    LayoutAnchor leadingAnchor() const { return anchor(LayoutAttribute::leading); }
    LayoutAnchor trailingAnchor() const { return anchor(LayoutAttribute::trailing); }
    LayoutAnchor topAnchor() const { return anchor(LayoutAttribute::top); }
    LayoutAnchor bottomAnchor() const { return anchor(LayoutAttribute::bottom); }
    LayoutAnchor centerXAnchor() const { return anchor(LayoutAttribute::centerX); }
    LayoutAnchor centerYAnchor() const { return anchor(LayoutAttribute::centerY); }
    LayoutAnchor widthAnchor() const { return anchor(LayoutAttribute::width); }
    LayoutAnchor heightAnchor() const { return anchor(LayoutAttribute::height); }

private:
    LayoutAnchor anchor(LayoutAttribute a) const { return {view_, LayoutRegion::safeArea, a}; }
    std::weak_ptr<View> view_;
};

/// first = second x multiplier + constant. An active constraint decides its view's frame at
/// the next layout of the view's superview; the frame set by hand stays for the attributes no
/// active constraint decides.
class LayoutConstraint : public std::enable_shared_from_this<LayoutConstraint> {
public:
    LayoutConstraint(LayoutAnchor first, std::optional<LayoutAnchor> second, float multiplier,
                     float constant);

    static void activate(const std::vector<std::shared_ptr<LayoutConstraint>>& constraints);

    bool isActive() const { return active_; }
    /// Activating attaches the constraint to its first view (which keeps it); deactivating
    /// detaches it. Either asks the view's superview for a new layout.
    void setActive(bool active);

    float constant() const { return constant_; }
    void setConstant(float constant);
    float multiplier() const { return multiplier_; }
    const LayoutAnchor& firstAnchor() const { return first_; }
    const std::optional<LayoutAnchor>& secondAnchor() const { return second_; }

private:
    LayoutAnchor first_;
    std::optional<LayoutAnchor> second_;
    float multiplier_;
    float constant_;
    bool active_ = false;
};

} // namespace pelkit::ui
