// Touches and the objects that handle them. Main thread only.
#pragma once

#include <pelkit/ui/Geometry.h>

#include <memory>
#include <vector>

namespace pelkit::ui {

class View;

/// One finger (or the mouse button held down) on a window, from the moment it goes down until it
/// lifts. The window updates it in place as it moves.
class Touch {
public:
    enum class Phase { began, moved, ended, cancelled };

    Touch(std::shared_ptr<View> view, Point windowLocation);

    /// The view the touch began in (the hit-tested view), or null once that view is gone.
    std::shared_ptr<View> view() const { return view_.lock(); }
    /// Where the touch is now, in `view`'s own coordinates; in the window's with null.
    Point location(const View* view) const;
    /// Where the touch began, in `view`'s coordinates, as `location` does.
    Point startLocation(const View* view) const;
    Phase phase() const { return phase_; }

    /// Moves the touch (the window does this as input arrives).
    void update(Point windowLocation, Phase phase);

private:
    std::weak_ptr<View> view_;
    Point start_;
    Point current_;
    Phase phase_ = Phase::began;
};

using TouchSet = std::vector<std::shared_ptr<Touch>>;

/// What came with the touches: the time of the input, in seconds of the application's clock.
struct Event {
    double timestamp = 0;
};

/// Handles touches or passes them on. The default of each touch callback passes the touches to
/// `nextResponder()`; a subclass that overrides one usually calls the base class first.
class Responder {
public:
    virtual ~Responder();

    /// A view's next responder is its view controller when it is one's root view, else its
    /// superview; a view controller's is the superview of its view, or its presenting controller.
    virtual Responder* nextResponder() const { return nullptr; }

    virtual void touchesBegan(const TouchSet& touches, const Event* event);
    virtual void touchesMoved(const TouchSet& touches, const Event* event);
    virtual void touchesEnded(const TouchSet& touches, const Event* event);
    virtual void touchesCancelled(const TouchSet& touches, const Event* event);
};

} // namespace pelkit::ui
