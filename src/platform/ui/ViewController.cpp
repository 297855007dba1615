#include "Internal.h"

#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/Log.h>
#include <utility>

#include <algorithm>

namespace pelkit::ui {

// --- the running transitions ----------------------------------------------------------------

const Transition* Presentation::transitionOf(const ViewController& controller) {
    for (const auto& t : state().transitions)
        if (t->moving.get() == &controller)
            return t.get();
    return nullptr;
}

bool Presentation::hasTransition(const Window& window) {
    return std::any_of(state().transitions.begin(), state().transitions.end(),
                       [&](const auto& t) { return t->window.lock().get() == &window; });
}

void Presentation::begin(std::shared_ptr<Transition> transition) {
    if (auto window = transition->window.lock())
        window->setNeedsDisplay();
    state().transitions.push_back(std::move(transition));
}

bool Presentation::advance(double now) {
    auto& running = state().transitions;
    std::vector<std::shared_ptr<Transition>> done;
    std::erase_if(running, [&](const auto& t) {
        if (now < t->start + t->duration)
            return false;
        done.push_back(t);
        return true;
    });
    // Finishing may start other transitions (a completion that presents): they join `running`.
    for (const auto& t : done) {
        if (auto window = t->window.lock())
            window->setNeedsDisplay();
        t->finish();
    }
    return !running.empty();
}

// --- appearance -----------------------------------------------------------------------------

ViewController::ViewController() = default;

ViewController::~ViewController() {
    if (view_)
        view_->controller_ = nullptr;
    for (auto& child : children_)
        child->parent_ = nullptr;
}

std::shared_ptr<View> ViewController::view() {
    if (!view_) {
        loadView();
        if (!view_)
            setView(std::make_shared<View>());
        viewDidLoad();
    }
    return view_;
}

void ViewController::loadView() {
    setView(std::make_shared<View>());
}

void ViewController::setView(std::shared_ptr<View> view) {
    if (view_)
        view_->controller_ = nullptr;
    view_ = std::move(view);
    if (view_)
        view_->controller_ = this;
}

bool ViewController::isAppeared() const {
    return appearance_ == Appearance::appeared;
}

void ViewController::beginAppearance(bool appearing, Animated animated) {
    if (appearing) {
        if (appearance_ == Appearance::appeared || appearance_ == Appearance::appearing)
            return;
        appearance_ = Appearance::appearing;
        view();
        viewWillAppear(animated);
    } else {
        if (appearance_ == Appearance::disappeared || appearance_ == Appearance::disappearing)
            return;
        appearance_ = Appearance::disappearing;
        viewWillDisappear(animated);
    }
    for (const auto& child : shownChildren())
        child->beginAppearance(appearing, animated);
}

void ViewController::endAppearance(Animated animated) {
    if (appearance_ == Appearance::appearing) {
        appearance_ = Appearance::appeared;
        viewDidAppear(animated);
    } else if (appearance_ == Appearance::disappearing) {
        appearance_ = Appearance::disappeared;
        viewDidDisappear(animated);
    } else {
        return;
    }
    for (const auto& child : shownChildren())
        child->endAppearance(animated);
}

ViewController& ViewController::outermost() {
    ViewController* c = this;
    while (c->parent_)
        c = c->parent_;
    return *c;
}

Responder* ViewController::nextResponder() const {
    if (view_ && view_->superview())
        return view_->superview();
    return presenting_.lock().get();
}

// --- presentation ---------------------------------------------------------------------------

void ViewController::present(std::shared_ptr<ViewController> controller, Animated animated,
                             std::function<void()> completion) {
    ViewController& host = outermost();
    Window* window = host.view_ ? host.view_->window() : nullptr;
    if (!controller)
        return;
    if (!window) {
        printLine("present: the presenting view controller's view is not in a window");
        return;
    }
    if (host.presented_ || controller->presented_ || !controller->presenting_.expired() ||
        controller->parent_ || controller.get() == &host) {
        printLine("present: the view controller is presented already, or its presenter presents "
                  "another");
        return;
    }
    controller->view();
    host.presented_ = controller;
    controller->presenting_ = host.weak_from_this();
    // The phone platform starts the transition after the caller's code has run.
    DispatchQueue::main().async([hostRef = host.shared_from_this(), controller,
                                 windowRef = window->weak_from_this(), animated,
                                 completion = std::move(completion)] {
        auto window = windowRef.lock();
        if (!window || hostRef->presented_ != controller)
            return;
        const bool covers =
            controller->modalPresentationStyle() == ModalPresentationStyle::fullScreen;
        if (covers)
            hostRef->beginAppearance(false, animated);
        Presentation::attach(*controller->view_, window.get());
        controller->beginAppearance(true, animated);
        auto transition = std::make_shared<Transition>();
        transition->window = window;
        transition->moving = controller;
        transition->kind = Transition::Kind::present;
        transition->start = Application::shared().now();
        transition->duration =
            animated == Animated::yes ? Application::shared().animationDuration() : 0;
        transition->finish = [hostRef, controller, covers, animated, completion] {
            controller->endAppearance(animated);
            if (covers)
                hostRef->endAppearance(animated);
            if (completion)
                completion();
        };
        Presentation::begin(std::move(transition));
    });
}

void ViewController::dismiss(Animated animated, std::function<void()> completion) {
    ViewController& host = outermost();
    if (!host.presented_) {
        if (auto presenter = host.presenting_.lock())
            presenter->dismiss(animated, std::move(completion));
        return;
    }
    auto presented = host.presented_;
    if (std::exchange(presented->beingDismissed_, true))
        return;
    DispatchQueue::main().async([hostRef = host.shared_from_this(), presented, animated,
                                 completion = std::move(completion)] {
        std::shared_ptr<ViewController> top = presented;
        while (top->presented_)
            top = top->presented_;
        Window* window = presented->view_ ? presented->view_->window() : nullptr;
        const bool covers =
            presented->modalPresentationStyle() == ModalPresentationStyle::fullScreen;
        top->beginAppearance(false, animated);
        if (covers)
            hostRef->beginAppearance(true, animated);
        auto transition = std::make_shared<Transition>();
        transition->window = window ? window->weak_from_this() : std::weak_ptr<Window>();
        transition->moving = top;
        transition->kind = Transition::Kind::dismiss;
        transition->start = Application::shared().now();
        transition->duration =
            animated == Animated::yes && window ? Application::shared().animationDuration() : 0;
        transition->finish = [hostRef, presented, top, covers, animated, completion] {
            top->endAppearance(animated);
            if (covers)
                hostRef->endAppearance(animated);
            // Unlink the whole chain above the host.
            for (auto c = presented; c;) {
                if (c->view_)
                    Presentation::attach(*c->view_, nullptr);
                c->presenting_.reset();
                c->beingDismissed_ = false;
                c = std::exchange(c->presented_, nullptr);
            }
            hostRef->presented_.reset();
            if (completion)
                completion();
        };
        Presentation::begin(std::move(transition));
    });
}

std::shared_ptr<ViewController> ViewController::presentedViewController() const {
    const ViewController* c = this;
    while (c->parent_)
        c = c->parent_;
    return c->presented_;
}

std::shared_ptr<ViewController> ViewController::visibleViewController() {
    if (auto* navigation = dynamic_cast<NavigationController*>(this)) {
        auto top = navigation->topViewController();
        return top ? top->visibleViewController() : nullptr;
    }
    if (auto* tabs = dynamic_cast<TabBarController*>(this)) {
        auto selected = tabs->selectedViewController();
        return selected ? selected->visibleViewController() : nullptr;
    }
    if (auto presented = presentedViewController())
        return presented->visibleViewController();
    return shared_from_this();
}

// --- containers -----------------------------------------------------------------------------

namespace {

// A container's view: the shown child's view fills it.
class ContainerView final : public View {
protected:
    void layoutSubviews() override {
        for (const auto& subview : subviews())
            subview->setFrame(bounds());
    }
};

} // namespace

void ViewController::addChild(std::shared_ptr<ViewController> child) {
    if (!child || child->parent_ == this)
        return;
    if (child->parent_)
        child->parent_->removeChild(child);
    child->parent_ = this;
    children_.push_back(std::move(child));
}

void ViewController::removeChild(const std::shared_ptr<ViewController>& child) {
    if (!child || child->parent_ != this)
        return;
    child->parent_ = nullptr;
    if (child->view_)
        child->view_->removeFromSuperview();
    std::erase(children_, child);
}

void ViewController::switchChild(const std::shared_ptr<ViewController>& from,
                                 const std::shared_ptr<ViewController>& to) {
    if (from == to)
        return;
    const bool onScreen = appearance_ == Appearance::appeared;
    if (from) {
        if (onScreen)
            from->beginAppearance(false, Animated::no);
        if (from->view_)
            from->view_->removeFromSuperview();
    }
    if (to) {
        if (onScreen)
            to->beginAppearance(true, Animated::no);
        auto shown = to->view();
        shown->setFrame(view()->bounds());
        view()->addSubview(shown);
    }
    if (onScreen && from)
        from->endAppearance(Animated::no);
    if (onScreen && to)
        to->endAppearance(Animated::no);
}

NavigationController::NavigationController(std::shared_ptr<ViewController> root) {
    if (root)
        addChild(std::move(root));
}

std::shared_ptr<ViewController> NavigationController::topViewController() const {
    return children().empty() ? nullptr : children().back();
}

void NavigationController::loadView() {
    setView(std::make_shared<ContainerView>());
    if (auto top = topViewController())
        view()->addSubview(top->view());
}

std::vector<std::shared_ptr<ViewController>> NavigationController::shownChildren() const {
    if (auto top = topViewController())
        return {top};
    return {};
}

void NavigationController::pushViewController(std::shared_ptr<ViewController> controller,
                                              Animated) {
    if (!controller)
        return;
    auto previous = topViewController();
    addChild(controller);
    if (isViewLoaded())
        switchChild(previous, controller);
}

std::shared_ptr<ViewController> NavigationController::popViewController(Animated) {
    if (children().size() < 2)
        return nullptr;
    auto popped = children().back();
    auto below = children()[children().size() - 2];
    if (isViewLoaded())
        switchChild(popped, below);
    removeChild(popped);
    return popped;
}

void TabBarController::setViewControllers(std::vector<std::shared_ptr<ViewController>> list) {
    auto previous = selectedViewController();
    for (auto child : std::vector(children()))
        removeChild(child);
    for (auto& child : list)
        addChild(std::move(child));
    selected_ = 0;
    if (isViewLoaded())
        switchChild(previous, selectedViewController());
}

std::shared_ptr<ViewController> TabBarController::selectedViewController() const {
    return selected_ < children().size() ? children()[selected_] : nullptr;
}

void TabBarController::setSelectedIndex(std::size_t index) {
    if (index >= children().size() || index == selected_)
        return;
    auto previous = selectedViewController();
    selected_ = index;
    if (isViewLoaded())
        switchChild(previous, selectedViewController());
}

void TabBarController::loadView() {
    setView(std::make_shared<ContainerView>());
    if (auto selected = selectedViewController())
        view()->addSubview(selected->view());
}

std::vector<std::shared_ptr<ViewController>> TabBarController::shownChildren() const {
    if (auto selected = selectedViewController())
        return {selected};
    return {};
}

} // namespace pelkit::ui
