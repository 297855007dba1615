// View controllers: a view loaded on first use, the appearance callbacks, modal presentation
// with completions, and the navigation and tab containers. Main thread only.
#pragma once

#include <pelkit/ui/Responder.h>
#include <pelkit/ui/View.h>

#include <functional>
#include <memory>
#include <vector>

namespace pelkit::ui {

class Window;

/// Whether a change is shown as an animation (a short slide) or at once.
enum class Animated { no, yes };

/// How a presented controller covers its presenter. Full screen hides the presenter, which
/// gets its disappearance callbacks; over full screen keeps it drawn and told nothing.
enum class ModalPresentationStyle { fullScreen = 0, overFullScreen = 5 };

/// A controller of one view, shared by pointer (`std::make_shared`).
///
/// The callbacks come in the platform's order. `view()` loads the view on first use
/// (`loadView()`, then `viewDidLoad()`). Presenting B from A full screen calls, on a later turn
/// of the main loop (so after `present` has returned), A's `viewWillDisappear`, B's
/// `viewWillAppear`, then, when the animation has finished, B's `viewDidAppear`, A's
/// `viewDidDisappear` and the completion. Dismissing calls B's `viewWillDisappear`, A's
/// `viewWillAppear`, then B's `viewDidDisappear`, A's `viewDidAppear` and the completion.
///
///     gallery->setModalPresentationStyle(ui::ModalPresentationStyle::fullScreen);
///     controller->present(gallery, ui::Animated::yes, [] { printLine("shown"); });
class ViewController : public Responder, public std::enable_shared_from_this<ViewController> {
public:
    ViewController();
    ~ViewController() override;
    ViewController(const ViewController&) = delete;
    ViewController& operator=(const ViewController&) = delete;

    /// The root view, loaded now if it was not.
    std::shared_ptr<View> view();
    bool isViewLoaded() const { return view_ != nullptr; }

    /// Presents `controller` over this one (over the outermost container holding this one). Does
    /// nothing but print a line when this controller's view is not in a window, when it already
    /// presents another controller, or when `controller` is already presented.
    void present(std::shared_ptr<ViewController> controller, Animated animated,
                 std::function<void()> completion = {});
    /// Dismisses the controller this one presents (with any it presents in turn), or, when it
    /// presents none, this one from its presenter. The links to the presented controller stay
    /// until the dismissal has finished.
    void dismiss(Animated animated, std::function<void()> completion = {});
    /// The controller presented over this one, or over the container holding it.
    std::shared_ptr<ViewController> presentedViewController() const;
    std::shared_ptr<ViewController> presentingViewController() const { return presenting_.lock(); }
    ModalPresentationStyle modalPresentationStyle() const { return style_; }
    void setModalPresentationStyle(ModalPresentationStyle style) { style_ = style; }

    /// The controller shown on top of this one: the top (navigation) or selected (tab)
    /// child's, else the presented controller's, else this controller. Null when a container
    /// has no child to show.
    std::shared_ptr<ViewController> visibleViewController();

    /// The container holding this controller, or null.
    ViewController* parent() const { return parent_; }
    const std::vector<std::shared_ptr<ViewController>>& children() const { return children_; }

    /// True between `viewDidAppear` and `viewWillDisappear`.
    bool isAppeared() const;

    Responder* nextResponder() const override;

    /// Lifecycle hooks; subclasses call the base class.
    virtual void viewDidLoad() {}
    virtual void viewWillAppear(Animated) {}
    virtual void viewDidAppear(Animated) {}
    virtual void viewWillDisappear(Animated) {}
    virtual void viewDidDisappear(Animated) {}

protected:
    /// Makes the root view; the default makes a plain view. An override calls `setView`.
    virtual void loadView();
    void setView(std::shared_ptr<View> view);

    void addChild(std::shared_ptr<ViewController> child);
    void removeChild(const std::shared_ptr<ViewController>& child);
    /// The children whose views are on screen (they share the container's appearance).
    virtual std::vector<std::shared_ptr<ViewController>> shownChildren() const { return {}; }
    /// Shows one child's view in place of another's, with their appearance callbacks when this
    /// controller is on screen.
    void switchChild(const std::shared_ptr<ViewController>& from,
                     const std::shared_ptr<ViewController>& to);

private:
    friend struct Presentation;
    friend class Window;
    enum class Appearance { disappeared, appearing, appeared, disappearing };
    void beginAppearance(bool appearing, Animated animated);
    void endAppearance(Animated animated);
    ViewController& outermost();

    std::shared_ptr<View> view_;
    std::shared_ptr<ViewController> presented_;
    std::weak_ptr<ViewController> presenting_;
    ViewController* parent_ = nullptr;
    std::vector<std::shared_ptr<ViewController>> children_;
    ModalPresentationStyle style_ = ModalPresentationStyle::fullScreen;
    Appearance appearance_ = Appearance::disappeared;
    bool beingDismissed_ = false;
};

/// A stack of controllers showing the top one. Enough for the visible-controller walk; pushes
/// and pops switch at once.
class NavigationController : public ViewController {
public:
    explicit NavigationController(std::shared_ptr<ViewController> root = nullptr);

    const std::vector<std::shared_ptr<ViewController>>& viewControllers() const {
        return children();
    }
    std::shared_ptr<ViewController> topViewController() const;
    void pushViewController(std::shared_ptr<ViewController> controller, Animated animated);
    /// Pops the top controller unless it is the only one; returns it.
    std::shared_ptr<ViewController> popViewController(Animated animated);

protected:
    void loadView() override;
    std::vector<std::shared_ptr<ViewController>> shownChildren() const override;
};

/// Controllers of which one, the selected one, is shown.
class TabBarController : public ViewController {
public:
    void setViewControllers(std::vector<std::shared_ptr<ViewController>> controllers);
    const std::vector<std::shared_ptr<ViewController>>& viewControllers() const {
        return children();
    }
    /// Null when there are no controllers.
    std::shared_ptr<ViewController> selectedViewController() const;
    std::size_t selectedIndex() const { return selected_; }
    /// An index past the end is ignored.
    void setSelectedIndex(std::size_t index);

protected:
    void loadView() override;
    std::vector<std::shared_ptr<ViewController>> shownChildren() const override;

private:
    std::size_t selected_ = 0;
};

} // namespace pelkit::ui
