#include "UiTestSupport.h"

#include <pelkit/PELFullscreenVideoPlayer.h>

#include <algorithm>

namespace pelkit::test {
namespace {

using ui::Animated;

net::Url clip(const std::string& name) {
    return net::Url::fileUrl(fixturesDirectory() / "media" / name);
}

// The shared player on a headless key window whose animation clock the test steps.
class FullscreenPlayer : public UiTest {
protected:
    void TearDown() override {
        // The shared screen outlives the test: close it so the next test starts without it.
        if (player().playerViewController()->presentingViewController())
            player().playerViewController()->dismiss(Animated::no);
        settle();
        player().player()->pause();
        UiTest::TearDown();
    }

    static PELFullscreenVideoPlayer& player() { return PELFullscreenVideoPlayer::shared(); }

    std::string currentUrl() const {
        auto item = player().player()->currentItem();
        return item ? item->url() : std::string();
    }

    /// How often the host went behind a presented screen.
    long disappearances() const { return std::ranges::count(*journal, "host.willDisappear"); }
};

TEST_F(FullscreenPlayer, WithoutAKeyWindowARootOrAVisibleControllerNothingHappens) {
    const auto before = player().player()->currentItem();
    player().playVideo(clip("counter.mp4")); // no window was made key
    window->makeKeyAndVisible();
    player().playVideo(clip("counter.mp4"));            // no root
    show(std::make_shared<ui::NavigationController>()); // no top controller: nothing visible
    player().playVideo(clip("counter.mp4"));
    settle();
    EXPECT_EQ(player().player()->currentItem(), before);
    EXPECT_EQ(player().playerViewController()->presentingViewController(), nullptr);
}

TEST_F(FullscreenPlayer, PresentsOnTheVisibleControllerAndPlaysOnceTheAnimationEnds) {
    auto top = recorder("host");
    show(std::make_shared<ui::NavigationController>(top));
    player().playVideo(clip("counter.mp4"));
    EXPECT_EQ(currentUrl(), clip("counter.mp4").absoluteString());
    app().pump();
    clock += app().animationDuration() / 2;
    app().pump();
    EXPECT_EQ(player().player()->rate(), 0) << "not before the presentation has finished";
    clock += app().animationDuration();
    app().pump();
    EXPECT_EQ(player().player()->rate(), 1);
    EXPECT_EQ(window->rootViewController()->visibleViewController(),
              player().playerViewController());
    EXPECT_EQ(disappearances(), 1);
}

TEST_F(FullscreenPlayer, ASecondCallSwitchesTheVideoInPlace) {
    auto host = recorder("host");
    show(host);
    player().playVideo(clip("counter.mp4"));
    settle();
    const auto screen = host->presentedViewController();
    ASSERT_EQ(screen, player().playerViewController());
    player().player()->pause();

    player().playVideo(clip("green-screen.mp4"));
    EXPECT_EQ(currentUrl(), clip("green-screen.mp4").absoluteString());
    EXPECT_EQ(player().player()->rate(), 1) << "plays at once, without a new presentation";
    settle();
    EXPECT_EQ(host->presentedViewController(), screen);
    EXPECT_EQ(screen->presentedViewController(), nullptr);
    EXPECT_EQ(disappearances(), 1);
}

TEST_F(FullscreenPlayer, TheUserClosesTheScreenAndThePlayerKeepsItsItem) {
    auto host = recorder("host");
    show(host);
    player().playVideo(clip("counter.mp4"));
    settle();
    const ui::Rect done = player().playerViewController()->closeButton()->frame();
    window->tap({done.midX(), done.midY()});
    settle();
    EXPECT_EQ(host->presentedViewController(), nullptr);
    EXPECT_EQ(currentUrl(), clip("counter.mp4").absoluteString());

    player().playVideo(clip("green-screen.mp4")); // and it comes back for the next video
    settle();
    EXPECT_EQ(host->presentedViewController(), player().playerViewController());
}

} // namespace
} // namespace pelkit::test
