// Shared set-up of the user-interface tests: a headless application whose animation clock the
// test steps by hand, a window, controllers that record their lifecycle, and pixel checks.
#pragma once

#include "Pixels.h"
#include "TestSupport.h"

#include <pelkit/foundation/Dispatch.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/Button.h>
#include <pelkit/ui/PhotoGallery.h>
#include <pelkit/ui/Window.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace pelkit::test {

using Journal = std::vector<std::string>;

/// Writes "<name>.<event>" for each lifecycle call and each touch that reaches it.
class RecordingController : public ui::ViewController {
public:
    RecordingController(std::string name, std::shared_ptr<Journal> journal)
        : name_(std::move(name)), journal_(std::move(journal)) {}

    void viewDidLoad() override { note("load"); }
    void viewWillAppear(ui::Animated) override { note("willAppear"); }
    void viewDidAppear(ui::Animated) override { note("didAppear"); }
    void viewWillDisappear(ui::Animated) override { note("willDisappear"); }
    void viewDidDisappear(ui::Animated) override { note("didDisappear"); }
    void touchesEnded(const ui::TouchSet& touches, const ui::Event* event) override {
        ViewController::touchesEnded(touches, event);
        lastTouches = touches;
        note("touchesEnded");
    }

    ui::TouchSet lastTouches;

private:
    void note(const std::string& event) { journal_->push_back(name_ + "." + event); }
    std::string name_;
    std::shared_ptr<Journal> journal_;
};

/// A headless window of 320 x 240 on a clock that moves only when the test says so.
class UiTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        useDummyAudioDriver();
        ui::Application::shared().setDisplay(ui::Display::headless);
    }

    void SetUp() override {
        app().setClock([this] { return clock; });
        auto made = ui::Window::create({320, 240});
        ASSERT_TRUE(made) << "headless windows need Mesa's EGL (libegl-mesa0 libgl1-mesa-dri): "
                          << *made.error();
        window = *made;
    }

    void TearDown() override {
        window.reset();
        app().pump();
        app().setClock({});
    }

    static ui::Application& app() { return ui::Application::shared(); }

    std::shared_ptr<RecordingController> recorder(const std::string& name) {
        return std::make_shared<RecordingController>(name, journal);
    }

    /// Shows `root` in the window and lets it appear; clears the journal.
    void show(const std::shared_ptr<ui::ViewController>& root) {
        window->setRootViewController(root);
        window->makeKeyAndVisible();
        app().pump();
        journal->clear();
    }

    /// Runs the loop until every started animation has ended.
    void settle() {
        app().pump();
        clock += 1;
        app().pump();
        app().pump();
    }

    image::Image picture() {
        auto shot = window->snapshot();
        EXPECT_TRUE(shot) << *shot.error();
        return shot ? *shot : image::Image{};
    }

    double clock = 1000;
    std::shared_ptr<Journal> journal = std::make_shared<Journal>();
    std::shared_ptr<ui::Window> window;
    std::shared_ptr<RecordingController> root = recorder("root");
};

/// The tests' root controller, shown in the window.
class ShownRootTest : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        show(root);
    }
};

/// Gives a gallery its images and counts the taps that ask it to close.
class GalleryHost final : public ui::PhotoGalleryDataSource, public ui::PhotoGalleryDelegate {
public:
    std::vector<std::shared_ptr<const image::Image>> images;
    int closeRequests = 0;

    int numberOfImagesInGallery(ui::PhotoGalleryViewController&) override {
        return int(images.size());
    }
    std::shared_ptr<const image::Image> imageInGallery(ui::PhotoGalleryViewController&,
                                                       int index) override {
        return images.at(std::size_t(index));
    }
    void galleryDidTapToClose(ui::PhotoGalleryViewController&) override { ++closeRequests; }
};

/// 200 x 100: the left half red, the right half blue.
inline std::shared_ptr<const image::Image> halvesImage() {
    auto image = std::make_shared<image::Image>(image::Image::filled(200, 100, 0xff0000ffu));
    for (int y = 0; y < 100; ++y)
        for (int x = 100; x < 200; ++x)
            image->pixel(x, y)[0] = 0, image->pixel(x, y)[2] = 255;
    return image;
}

/// A "Close" button of 50 x 25 added 10 points below the top and 16 left of the right edge of
/// `view`'s safe area, where the AR screen puts the gallery's.
inline std::shared_ptr<ui::Button> addCloseButton(ui::View& view) {
    auto button = std::make_shared<ui::Button>();
    button->setTitle("Close");
    view.addSubview(button);
    auto area = view.safeAreaLayoutGuide();
    ui::LayoutConstraint::activate({
        button->widthAnchor().constraint(50),
        button->heightAnchor().constraint(25),
        button->topAnchor().constraint(area.topAnchor(), 10),
        button->trailingAnchor().constraint(area.trailingAnchor(), -16),
    });
    return button;
}

/// Pixels in a rectangle brighter than `level` in every channel (text is white).
inline int brightPixels(const image::Image& picture, ui::Rect area, int level = 150) {
    int count = 0;
    for (int y = int(area.minY()); y < int(area.maxY()); ++y)
        for (int x = int(area.minX()); x < int(area.maxX()); ++x) {
            const Rgb c = rgbAt(picture, x, y);
            count += c.r > level && c.g > level && c.b > level;
        }
    return count;
}

} // namespace pelkit::test
