#include "UiTestSupport.h"

#include <pelkit/ui/PlayerViewController.h>

namespace pelkit::test {
namespace {

using ui::Animated;

constexpr Rgb kBlack{0, 0, 0};
constexpr Rgb kRed{255, 0, 0};
constexpr Rgb kBlue{0, 0, 255};
constexpr Rgb kGreen{0, 255, 0};

std::shared_ptr<ui::View> colouredView(ui::Rect frame, ui::Color color) {
    auto view = std::make_shared<ui::View>(frame);
    view->setBackgroundColor(color);
    return view;
}

using Drawing = ShownRootTest;

TEST_F(Drawing, PresentedScreenSlidesUpOverItsPresenter) {
    root->view()->setBackgroundColor({1, 0, 0, 1});
    auto sheet = recorder("sheet");
    sheet->view()->setBackgroundColor({0, 1, 0, 1});
    root->present(sheet, Animated::yes);
    app().pump();
    clock += app().animationDuration() / 2; // eased: 7/8 of the way, 30 rows left to go
    auto halfway = picture();
    EXPECT_EQ(rgbAt(halfway, 160, 10), kRed);
    EXPECT_EQ(rgbAt(halfway, 160, 29), kRed);
    EXPECT_EQ(rgbAt(halfway, 160, 31), kGreen);
    settle();
    EXPECT_EQ(rgbAt(picture(), 160, 10), kGreen);
}

TEST_F(Drawing, ClippedSubviewsAndBorders) {
    auto outer = colouredView({{100, 100}, {50, 50}}, {0, 0, 1, 1});
    outer->setClipsToBounds(true);
    outer->addSubview(colouredView({{40, 40}, {100, 100}}, {0, 1, 0, 1}));
    auto framed = colouredView({{10, 10}, {40, 40}}, {0, 0, 0, 0});
    framed->setBorderWidth(2);
    framed->setBorderColor({1, 0, 0, 1});
    root->view()->addSubview(outer);
    root->view()->addSubview(framed);
    auto shot = picture();
    EXPECT_EQ(rgbAt(shot, 120, 120), kBlue);
    EXPECT_EQ(rgbAt(shot, 145, 145), kGreen);
    EXPECT_EQ(rgbAt(shot, 155, 145), kBlack) << "clipped to the outer view";
    EXPECT_EQ(rgbAt(shot, 11, 30), kRed);
    EXPECT_EQ(rgbAt(shot, 30, 30), kBlack) << "a border is drawn inside the edges only";
}

// A view that draws a 3D frame with the window's renderer, as a scene view does, under an
// ordinary subview: the subview must still be drawn over it.
class RendererView final : public ui::View {
protected:
    void draw(ui::DrawContext& context) override {
        auto renderer = context.renderer();
        ASSERT_TRUE(renderer) << *renderer.error();
        render::Frame frame;
        frame.clearColor = {1, 0, 0, 1};
        auto drawn = (*renderer)->render(frame);
        EXPECT_TRUE(drawn) << *drawn.error();
    }
};

TEST_F(Drawing, ViewsDrawOverARendererFrame) {
    auto scene = std::make_shared<RendererView>();
    root->view()->addSubview(scene);
    scene->setFrame(window->bounds());
    scene->addSubview(colouredView({{100, 100}, {50, 50}}, {0, 0, 1, 1}));
    auto shot = picture();
    EXPECT_EQ(rgbAt(shot, 10, 10), kRed);
    EXPECT_EQ(rgbAt(shot, 120, 120), kBlue);
}

// The gallery as the AR screen sets it up: black, no page control, a "Close" button at the
// top right of the safe area.
class GalleryTest : public ShownRootTest {
protected:
    void SetUp() override {
        ShownRootTest::SetUp();
        host->images = {halvesImage()};
        gallery->setBackgroundColor(ui::colors::black);
        gallery->setHidePageControl(true);
        close = addCloseButton(*gallery->view());
        close->addAction([this](ui::View*) { ++closePresses; }, ui::ControlEvent::touchUpInside);
        root->present(gallery, Animated::yes);
        settle();
    }

    std::shared_ptr<GalleryHost> host = std::make_shared<GalleryHost>();
    std::shared_ptr<ui::PhotoGalleryViewController> gallery =
        std::make_shared<ui::PhotoGalleryViewController>(host, host);
    std::shared_ptr<ui::Button> close;
    int closePresses = 0;
};

constexpr ui::Rect kCloseButton{{254, 10}, {50, 25}};
constexpr ui::Rect kPageControl{{130, 205}, {60, 20}};

TEST_F(GalleryTest, ShowsTheImageFittedWithTheCloseButtonAtTheTopRight) {
    auto shot = picture();
    // 200 x 100 fitted to 320 x 240: 320 x 160 from row 40.
    EXPECT_EQ(rgbAt(shot, 80, 120), kRed);
    EXPECT_EQ(rgbAt(shot, 240, 120), kBlue);
    EXPECT_EQ(rgbAt(shot, 160, 38), kBlack);
    EXPECT_EQ(rgbAt(shot, 160, 202), kBlack);
    EXPECT_EQ(close->frame(), kCloseButton);
    EXPECT_GT(brightPixels(shot, kCloseButton), 20) << "the title is drawn in the button";
    EXPECT_EQ(brightPixels(shot, {{150, 0}, {100, 40}}), 0) << "and nowhere left of it";
    EXPECT_EQ(brightPixels(shot, kPageControl), 0) << "the page control is hidden";
}

TEST_F(GalleryTest, PageControlShowsOneDotPerImageUnlessHidden) {
    host->images = {halvesImage(), nullptr, halvesImage()};
    gallery->reloadData();
    gallery->setHidePageControl(false);
    const auto shot = picture();
    // Three dots of 7 points, 16 apart, centred 30 points above the bottom.
    EXPECT_EQ(rgbAt(shot, 144, 213), (Rgb{255, 255, 255})) << "the current page's dot";
    const Rgb other = rgbAt(shot, 160, 213);
    EXPECT_TRUE(other.r > 40 && other.r < 200) << "another page's dot is dimmer: " << other;
    EXPECT_EQ(rgbAt(shot, 152, 213), kBlack);
}

TEST_F(GalleryTest, TapsCloseSwipesTurnPagesAndTheButtonTakesItsOwn) {
    host->images = {halvesImage(), nullptr, halvesImage()};
    gallery->reloadData();
    struct Case {
        const char* name;
        ui::Point from, to;
        int closeRequests, presses, page;
    };
    const Case cases[] = {
        {"tap on the picture", {160, 120}, {160, 120}, 1, 0, 0},
        {"short drag is a tap", {160, 120}, {130, 120}, 1, 0, 0},
        {"swipe left turns to the next page", {200, 120}, {100, 120}, 0, 0, 1},
        {"swipe right turns back", {100, 120}, {200, 120}, 0, 0, 0},
        {"swipe right on the first page stays", {100, 120}, {200, 120}, 0, 0, 0},
        {"tap on the close button", {279, 22}, {279, 22}, 0, 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        host->closeRequests = closePresses = 0;
        window->touchDown(c.from);
        window->touchMove(c.to);
        window->touchUp(c.to);
        EXPECT_EQ(host->closeRequests, c.closeRequests);
        EXPECT_EQ(closePresses, c.presses);
        EXPECT_EQ(gallery->currentIndex(), c.page);
    }
    gallery->setCurrentIndex(1);
    EXPECT_EQ(gallery->currentImage(), nullptr);
    EXPECT_EQ(rgbAt(picture(), 160, 120), kBlack) << "an absent image leaves the background";
}

TEST_F(GalleryTest, TheGalleryDoesNotCloseItselfAndOutlivesItsDelegate) {
    window->tap({160, 120});
    settle();
    EXPECT_EQ(root->presentedViewController(), gallery);
    host.reset();
    window->tap({160, 120}); // no delegate and no data source any more: nothing happens
    gallery->reloadData();
    EXPECT_EQ(gallery->numberOfImages(), 0);
}

// The player screen on counter.mp4 (320 x 240, one colour per frame) in a wider window.
class PlayerScreen : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        window = ui::Window::create({400, 240}).value();
        show(root);
        screen->setPlayer(player);
    }

    void presentAndPlay(const std::string& url =
                            "file://" + (fixturesDirectory() / "media" / "counter.mp4").string()) {
        player->replaceCurrentItem(media::PlayerItem::create(url));
        root->present(screen, Animated::yes, [this] { player->play(); });
        settle();
    }

    std::shared_ptr<media::Player> player = std::make_shared<media::Player>();
    std::shared_ptr<ui::PlayerViewController> screen = std::make_shared<ui::PlayerViewController>();
};

TEST_F(PlayerScreen, ShowsThePlayersPicturesLetterboxed) {
    presentAndPlay();
    const auto uploads = window->textureUploads();
    ASSERT_TRUE(app().runUntil([&] { return window->textureUploads() > uploads + 3; },
                               std::chrono::seconds(10)))
        << "new pictures reach the window";
    const auto shot = picture();
    EXPECT_EQ(rgbAt(shot, 30, 120), kBlack);
    EXPECT_EQ(rgbAt(shot, 370, 120), kBlack);
    const Rgb centre = rgbAt(shot, 200, 200);
    EXPECT_TRUE(std::abs(centre.g - 64) <= 3 && std::abs(centre.r + centre.b - 250) <= 6)
        << "a frame of the counter clip: " << centre;
}

TEST_F(PlayerScreen, TapsOnThePicturePauseAndPlayAndDonePausesAndDismisses) {
    presentAndPlay();
    EXPECT_EQ(player->rate(), 1);
    window->tap({200, 120});
    EXPECT_EQ(player->rate(), 0);
    window->tap({200, 120});
    EXPECT_EQ(player->rate(), 1);
    const ui::Rect done = screen->closeButton()->frame();
    EXPECT_EQ(done, (ui::Rect{{16, 10}, {60, 30}}));
    window->tap({done.midX(), done.midY()});
    settle();
    EXPECT_EQ(player->rate(), 0);
    EXPECT_EQ(root->presentedViewController(), nullptr);
    EXPECT_NE(player->currentItem(), nullptr) << "the player keeps its item";
}

TEST_F(PlayerScreen, AFailedItemShowsTheFailureText) {
    presentAndPlay("file:///nonexistent/clip.mp4");
    ASSERT_TRUE(app().runUntil([&] { return player->status() == media::Status::failed; },
                               std::chrono::seconds(10)));
    app().pump();
    EXPECT_GT(brightPixels(picture(), {{50, 100}, {300, 40}}), 50);
}

} // namespace
} // namespace pelkit::test
