#include "UiTestSupport.h"

#include <atomic>
#include <thread>

namespace pelkit::test {
namespace {

using ui::Animated;
using ui::ViewController;

using Presentation = ShownRootTest;

TEST_F(Presentation, AnimatedPresentAndDismissCallTheLifecycleAfterTheCallAndTheAnimation) {
    auto sheet = recorder("sheet");

    root->present(sheet, Animated::yes, [this] { journal->push_back("presented"); });
    EXPECT_EQ(*journal, Journal({"sheet.load"})) << "nothing appears before present returns";
    EXPECT_EQ(root->presentedViewController(), sheet);
    EXPECT_EQ(sheet->presentingViewController(), root);

    app().pump();
    EXPECT_EQ(*journal, Journal({"sheet.load", "root.willDisappear", "sheet.willAppear"}));
    clock += app().animationDuration() / 2;
    app().pump();
    EXPECT_EQ(journal->size(), 3u) << "the animation is still running";
    clock += app().animationDuration();
    app().pump();
    EXPECT_EQ(*journal, Journal({"sheet.load", "root.willDisappear", "sheet.willAppear",
                                 "sheet.didAppear", "root.didDisappear", "presented"}));

    journal->clear();
    sheet->dismiss(Animated::yes, [this] { journal->push_back("dismissed"); });
    EXPECT_TRUE(journal->empty());
    app().pump();
    EXPECT_EQ(*journal, Journal({"sheet.willDisappear", "root.willAppear"}));
    EXPECT_EQ(root->presentedViewController(), sheet) << "linked until the dismissal ends";
    clock += app().animationDuration() * 2;
    app().pump();
    EXPECT_EQ(*journal, Journal({"sheet.willDisappear", "root.willAppear", "sheet.didDisappear",
                                 "root.didAppear", "dismissed"}));
    EXPECT_EQ(root->presentedViewController(), nullptr);
    EXPECT_EQ(sheet->presentingViewController(), nullptr);
}

TEST_F(Presentation, OverFullScreenLeavesThePresenterAlone) {
    auto overlay = recorder("overlay");
    overlay->setModalPresentationStyle(ui::ModalPresentationStyle::overFullScreen);
    root->present(overlay, Animated::yes);
    settle();
    overlay->dismiss(Animated::yes);
    settle();
    EXPECT_EQ(*journal, Journal({"overlay.load", "overlay.willAppear", "overlay.didAppear",
                                 "overlay.willDisappear", "overlay.didDisappear"}));
}

TEST_F(Presentation, DismissingTheRootOfAChainUnlinksEveryControllerAboveIt) {
    auto middle = recorder("middle");
    auto top = recorder("top");
    bool presented = false;
    root->present(middle, Animated::no, [&] { presented = true; });
    EXPECT_FALSE(presented);
    app().pump();
    EXPECT_TRUE(presented) << "without animation the completion comes on the next turn";
    middle->present(top, Animated::no);
    settle();
    journal->clear();
    bool done = false;
    root->dismiss(Animated::yes, [&] { done = true; });
    settle();
    EXPECT_TRUE(done);
    EXPECT_EQ(*journal, Journal({"top.willDisappear", "root.willAppear", "top.didDisappear",
                                 "root.didAppear"}));
    for (const auto& c : {middle, top})
        EXPECT_EQ(c->presentingViewController(), nullptr);
    EXPECT_EQ(middle->presentedViewController(), nullptr);
    EXPECT_EQ(root->visibleViewController(), root);
}

TEST_F(Presentation, RefusedPresentationsSayWhyAndChangeNothing) {
    const std::string notInWindow =
        "present: the presenting view controller's view is not in a window";
    const std::string busy =
        "present: the view controller is presented already, or its presenter presents another";
    auto shown = recorder("shown");
    root->present(shown, Animated::no);
    settle();
    auto loose = recorder("loose");
    loose->view();
    auto other = recorder("other"); // its view is in the window, but it is no child of root
    root->view()->addSubview(other->view());

    struct Case {
        const char* name;
        std::shared_ptr<ViewController> host, controller;
        std::string line;
    };
    const Case cases[] = {
        {"host not in a window", loose, recorder("extra"), notInWindow},
        {"host presents already", root, recorder("extra"), busy},
        {"controller presented already", other, shown, busy},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        LineCapture lines;
        bool completed = false;
        c.host->present(c.controller, Animated::no, [&] { completed = true; });
        settle();
        EXPECT_FALSE(completed);
        EXPECT_EQ(lines.lines(), std::vector<std::string>({c.line}));
        EXPECT_EQ(root->presentedViewController(), shown);
        EXPECT_EQ(shown->presentingViewController(), root);
    }
}

// The visible-controller walk through containers and presentations.
TEST_F(UiTest, VisibleViewControllerFollowsContainersAndPresentations) {
    auto a = recorder("a");
    auto b = recorder("b");
    auto emptyNavigation = std::make_shared<ui::NavigationController>();
    auto navigation = std::make_shared<ui::NavigationController>(a);
    navigation->pushViewController(b, Animated::no);
    auto tabs = std::make_shared<ui::TabBarController>();
    tabs->setViewControllers({recorder("first"), navigation});
    tabs->setSelectedIndex(1);
    auto emptyTabs = std::make_shared<ui::TabBarController>();
    auto plain = recorder("plain");

    struct Case {
        const char* name;
        std::shared_ptr<ViewController> controller;
        std::shared_ptr<ViewController> expected;
    };
    const Case cases[] = {
        {"a plain controller presenting nothing is itself", plain, plain},
        {"a navigation controller without a top is absent", emptyNavigation, nullptr},
        {"a navigation controller gives its top", navigation, b},
        {"a tab bar controller gives its selected controller's walk", tabs, b},
        {"a tab bar controller without controllers is absent", emptyTabs, nullptr},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.controller->visibleViewController(), c.expected) << c.name;

    // Presented over a navigation controller, from its top child.
    auto top = recorder("top");
    navigation = std::make_shared<ui::NavigationController>(top);
    show(navigation);
    auto sheet = recorder("sheet");
    top->present(sheet, Animated::no);
    settle();
    EXPECT_EQ(sheet->presentingViewController(), navigation) << "the container presents";
    EXPECT_EQ(top->presentedViewController(), sheet) << "and its children see it";
    EXPECT_EQ(navigation->visibleViewController(), sheet);
    auto sheetNavigation = std::make_shared<ui::NavigationController>(recorder("inner"));
    sheet->present(sheetNavigation, Animated::no);
    settle();
    EXPECT_EQ(navigation->visibleViewController(), sheetNavigation->topViewController());
}

TEST_F(UiTest, RootAppearsOnceTheWindowIsShownAndContainersForwardToTheShownChild) {
    auto first = recorder("first");
    auto second = recorder("second");
    auto tabs = std::make_shared<ui::TabBarController>();
    tabs->setViewControllers({first, second});
    window->setRootViewController(tabs);
    EXPECT_EQ(*journal, Journal({"first.load"})) << "the view loads when the window takes it";
    window->makeKeyAndVisible();
    app().pump();
    EXPECT_EQ(*journal, Journal({"first.load", "first.willAppear", "first.didAppear"}));
    EXPECT_TRUE(tabs->isAppeared());
    journal->clear();
    tabs->setSelectedIndex(1);
    EXPECT_EQ(*journal, Journal({"first.willDisappear", "second.load", "second.willAppear",
                                 "first.didDisappear", "second.didAppear"}));
}

using Touches = ShownRootTest;

// A button at the close button's place: taps reach the button's target, or the controller.
TEST_F(Touches, ButtonTargetsAndControllerTouches) {
    struct Target {
        int presses = 0;
        void pressed(ui::View*) { ++presses; }
    };
    auto target = std::make_shared<Target>();
    auto view = root->view();
    auto button = addCloseButton(*view);
    button->addTarget(target, &Target::pressed, ui::ControlEvent::touchUpInside);
    app().pump();
    EXPECT_EQ(button->frame(), (ui::Rect{{254, 10}, {50, 25}}));

    struct Case {
        const char* name;
        ui::Point down, up;
        int presses;
        bool controllerTouched;
    };
    const Case cases[] = {
        {"tap inside", {279, 22}, {279, 22}, 1, false},
        {"tap on the top-left corner", {254, 10}, {254, 10}, 1, false},
        {"tap just outside the right edge", {304, 22}, {304, 22}, 0, true},
        {"drag out of the button", {279, 22}, {200, 120}, 0, false},
        {"drag into the button", {200, 120}, {279, 22}, 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        target->presses = 0;
        root->lastTouches.clear();
        window->touchDown(c.down);
        window->touchMove(c.up);
        window->touchUp(c.up);
        EXPECT_EQ(target->presses, c.presses);
        EXPECT_EQ(!root->lastTouches.empty(), c.controllerTouched);
        if (c.controllerTouched) {
            const auto& touch = root->lastTouches.front();
            EXPECT_EQ(touch->view(), view) << "the view the touch began in";
            EXPECT_EQ(touch->location(view.get()), c.up);
        }
    }

    target.reset();
    window->tap({279, 22}); // a target that is gone is skipped
}

TEST_F(Touches, LocationsAreInTheAskingViewsCoordinates) {
    auto inner = std::make_shared<ui::View>(ui::Rect{{100, 50}, {100, 100}});
    auto deeper = std::make_shared<ui::View>(ui::Rect{{10, 20}, {30, 30}});
    inner->addSubview(deeper);
    root->view()->addSubview(inner);
    window->tap({115, 75});
    ASSERT_EQ(root->lastTouches.size(), 1u);
    const auto& touch = root->lastTouches.front();
    EXPECT_EQ(touch->view(), deeper);
    EXPECT_EQ(touch->location(deeper.get()), (ui::Point{5, 5}));
    EXPECT_EQ(touch->location(inner.get()), (ui::Point{15, 25}));
    EXPECT_EQ(touch->location(nullptr), (ui::Point{115, 75}));
    deeper->setUserInteractionEnabled(false);
    EXPECT_EQ(window->hitTest({115, 75}), inner) << "a view without interaction is passed over";
}

TEST_F(Touches, TouchesGoToTheTopScreenAndNotDuringAnimations) {
    auto sheet = recorder("sheet");
    root->present(sheet, Animated::yes);
    app().pump();
    window->tap({10, 10});
    EXPECT_TRUE(root->lastTouches.empty() && sheet->lastTouches.empty())
        << "a screen in motion takes no touches";
    settle();
    EXPECT_EQ(window->hitTest({10, 10}), sheet->view());
    window->tap({10, 10});
    EXPECT_EQ(sheet->lastTouches.size(), 1u);
}

using ApplicationTest = UiTest;

TEST_F(ApplicationTest, KeyWindowIsTheLastMadeKeyWhileItLives) {
    EXPECT_EQ(app().keyWindow(), nullptr);
    window->makeKeyAndVisible();
    EXPECT_EQ(app().keyWindow(), window);
    EXPECT_TRUE(window->isKeyWindow());
    auto other = ui::Window::create({64, 64}).value();
    other->makeKeyAndVisible();
    EXPECT_FALSE(window->isKeyWindow());
    other.reset();
    EXPECT_EQ(app().keyWindow(), nullptr) << "a window that is gone is not key";
}

TEST_F(ApplicationTest, OpenRecordsAbsoluteUrlsAndRefusesRelativeOnes) {
    const auto before = app().openedUrls().size();
    std::vector<bool> outcomes;
    LineCapture lines;
    app().open(*net::Url::parse("https://example.com/page?a=1"),
               [&](bool ok) { outcomes.push_back(ok); });
    app().open(*net::Url::parse("-page"), [&](bool ok) { outcomes.push_back(ok); });
    app().pump();
    ASSERT_EQ(app().openedUrls().size(), before + 1);
    EXPECT_EQ(app().openedUrls().back().absoluteString(), "https://example.com/page?a=1");
    EXPECT_EQ(outcomes, std::vector<bool>({true, false}));
    EXPECT_EQ(lines.lines(), std::vector<std::string>({"open: -page is not an absolute URL"}));
}

TEST_F(ApplicationTest, WorkFromAnotherThreadWakesTheLoop) {
    std::atomic<bool> ran{false};
    std::thread other([&] {
        DispatchQueue::main().async([&] { ran = true; });
        ui::Application::shared().stop();
    });
    app().run(); // returns only when the stop arrives, after the work ran
    other.join();
    EXPECT_TRUE(ran);
}

} // namespace
} // namespace pelkit::test
