// Rectangular views in a tree: frame, background colour, subviews, safe area, hit testing,
// constraints, and drawing. Main thread only.
#pragma once

#include <pelkit/ui/DrawContext.h>
#include <pelkit/ui/Geometry.h>
#include <pelkit/ui/Layout.h>
#include <pelkit/ui/Responder.h>

#include <memory>
#include <vector>

namespace pelkit::ui {

class ViewController;
class Window;

/// A view. Its subviews are drawn over it, later ones over earlier ones, clipped to it when
/// `clipsToBounds` is set. Views are shared objects: make them with `std::make_shared`.
///
///     auto panel = std::make_shared<ui::View>(ui::Rect{{0, 0}, {200, 100}});
///     panel->setBackgroundColor(ui::colors::black);
///     window->rootViewController()->view()->addSubview(panel);
class View : public Responder, public std::enable_shared_from_this<View> {
public:
    View() = default;
    explicit View(const Rect& frame) : frame_(frame) {}
    ~View() override;
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    /// The rectangle in the superview's coordinates (in the window's for a top view).
    const Rect& frame() const { return frame_; }
    void setFrame(const Rect& frame);
    /// The view's own rectangle: its size at the origin.
    Rect bounds() const { return {{0, 0}, frame_.size}; }

    const Color& backgroundColor() const { return backgroundColor_; }
    void setBackgroundColor(const Color& color);
    bool isHidden() const { return hidden_; }
    void setHidden(bool hidden);
    bool clipsToBounds() const { return clipsToBounds_; }
    void setClipsToBounds(bool clips);
    /// A border of this width in `borderColor` drawn inside the edges; 0 draws none.
    float borderWidth() const { return borderWidth_; }
    void setBorderWidth(float width);
    void setBorderColor(const Color& color);
    /// A view that does not take touches passes them to the views below it.
    bool isUserInteractionEnabled() const { return interactive_; }
    void setUserInteractionEnabled(bool enabled) { interactive_ = enabled; }

    View* superview() const { return superview_; }
    const std::vector<std::shared_ptr<View>>& subviews() const { return subviews_; }
    /// Adds `view` on top of the subviews, taking it from its previous superview.
    void addSubview(std::shared_ptr<View> view);
    void removeFromSuperview();
    /// The window showing this view's tree, or null.
    Window* window() const;
    /// The view controller whose root view this is, or null.
    ViewController* viewController() const { return controller_; }

    /// Insets of the area not covered by window decorations (0 on a desktop).
    EdgeInsets safeAreaInsets() const { return {}; }
    LayoutGuide safeAreaLayoutGuide() { return LayoutGuide(weak_from_this()); }
    LayoutAnchor leadingAnchor() { return anchor(LayoutAttribute::leading); }
    LayoutAnchor trailingAnchor() { return anchor(LayoutAttribute::trailing); }
    LayoutAnchor topAnchor() { return anchor(LayoutAttribute::top); }
    LayoutAnchor bottomAnchor() { return anchor(LayoutAttribute::bottom); }
    LayoutAnchor centerXAnchor() { return anchor(LayoutAttribute::centerX); }
    LayoutAnchor centerYAnchor() { return anchor(LayoutAttribute::centerY); }
    LayoutAnchor widthAnchor() { return anchor(LayoutAttribute::width); }
    LayoutAnchor heightAnchor() { return anchor(LayoutAttribute::height); }
    /// The active constraints whose first anchor lies on this view.
    const std::vector<std::shared_ptr<LayoutConstraint>>& constraints() const {
        return constraints_;
    }

    /// Marks the view for layout at the next turn of the main loop.
    void setNeedsLayout();
    /// Lays out this view's subtree now if it was marked.
    void layoutIfNeeded();
    /// Marks the window for drawing at the next turn of the main loop.
    void setNeedsDisplay();

    /// Converts a point in this view's coordinates to `view`'s (the window's with null).
    Point convert(Point point, const View* view) const;
    /// The deepest visible, interactive view under `point` (in this view's coordinates),
    /// checking later subviews first; null when the point is outside.
    std::shared_ptr<View> hitTest(Point point);
    virtual bool pointInside(Point point) const { return bounds().contains(point); }

    Responder* nextResponder() const override;

protected:
    /// Sets the frames of the subviews. The default applies the subviews' active constraints.
    virtual void layoutSubviews();
    /// Draws the view's own content in its coordinates; subviews are drawn afterwards. The
    /// default fills the background colour and the border.
    virtual void draw(DrawContext& context);
    /// Called after the view joined or left a window (`window()` says which).
    virtual void didMoveToWindow() {}

private:
    friend class Window;
    friend class ViewController;
    friend class LayoutConstraint;
    friend struct Presentation;
    LayoutAnchor anchor(LayoutAttribute a) { return {weak_from_this(), LayoutRegion::view, a}; }
    void setWindow(Window* window);
    void notifyWindowChange();

    Rect frame_;
    Color backgroundColor_{0, 0, 0, 0};
    Color borderColor_{0, 0, 0, 1};
    float borderWidth_ = 0;
    bool hidden_ = false;
    bool clipsToBounds_ = false;
    bool interactive_ = true;
    bool needsLayout_ = true;
    View* superview_ = nullptr;
    Window* window_ = nullptr; // set on a window's top views only
    ViewController* controller_ = nullptr;
    std::vector<std::shared_ptr<View>> subviews_;
    std::vector<std::shared_ptr<LayoutConstraint>> constraints_;
};

} // namespace pelkit::ui
