// A real SDL window on an X server (ctest runs this under xvfb-run with the screen kept in a
// file): the gallery is presented, and the picture on the X screen is read back and checked.
#include "UiTestSupport.h"

#include <pelkit/foundation/FileSystem.h>

#include <bit>
#include <cstdlib>
#include <iostream>
#include <optional>

namespace pelkit::test {
namespace {

constexpr ui::Size kScreen{480, 360};

/// The X server's screen, read from the XWD file that `Xvfb -fbdir` keeps up to date.
std::optional<image::Image> readXvfbScreen(const std::filesystem::path& file) {
    auto bytes = readFile(file);
    if (!bytes || bytes->size() < 100)
        return std::nullopt;
    const auto field = [&](int index) {
        const std::uint8_t* p = bytes->data() + index * 4;
        return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 |
               p[3];
    };
    const std::uint32_t headerSize = field(0), width = field(4), height = field(5),
                        lsbFirst = field(7) == 0, bitsPerPixel = field(11),
                        bytesPerLine = field(12), ncolors = field(19);
    const std::size_t start = headerSize + ncolors * 12;
    if (bitsPerPixel != 32 || bytes->size() < start + std::size_t(bytesPerLine) * height)
        return std::nullopt;
    const std::uint32_t masks[3] = {field(14), field(15), field(16)};
    image::Image screen = image::Image::filled(int(width), int(height));
    for (std::uint32_t y = 0; y < height; ++y)
        for (std::uint32_t x = 0; x < width; ++x) {
            const std::uint8_t* p = bytes->data() + start + y * bytesPerLine + x * 4;
            const std::uint32_t value =
                lsbFirst ? p[0] | p[1] << 8 | p[2] << 16 | std::uint32_t(p[3]) << 24
                         : std::uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
            for (int c = 0; c < 3; ++c)
                screen.pixel(int(x), int(y))[c] =
                    std::uint8_t((value & masks[c]) >> std::countr_zero(masks[c]));
        }
    return screen;
}

TEST(RealWindow, ShowsTheGalleryWithItsCloseButtonOnTheXScreen) {
    const char* display = std::getenv("DISPLAY");
    const char* fbdir = std::getenv("PELKIT_XVFB_FBDIR");
    if (!display || !*display || !fbdir)
        GTEST_SKIP() << "no Xvfb display: ctest runs this test under xvfb-run (Debian: xvfb "
                        "xauth), which is not installed";
    useDummyAudioDriver();
    auto& app = ui::Application::shared();
    app.setDisplay(ui::Display::screen);
    auto made = ui::Window::create(kScreen, "PELkit gallery");
    ASSERT_TRUE(made) << *made.error();
    auto window = *made;
    auto root = std::make_shared<ui::ViewController>();
    window->setRootViewController(root);
    window->makeKeyAndVisible();

    // 200 x 100, left half red, right half blue: fitted to 480 x 240 from row 60.
    auto source = std::make_shared<GalleryHost>();
    source->images = {halvesImage()};
    auto gallery = std::make_shared<ui::PhotoGalleryViewController>(source, source);
    gallery->setBackgroundColor(ui::colors::black);
    gallery->setHidePageControl(true);
    auto close = addCloseButton(*gallery->view());
    bool presented = false;
    root->present(gallery, ui::Animated::yes, [&] { presented = true; });
    ASSERT_TRUE(app.runUntil([&] { return presented; }, std::chrono::seconds(10)));

    // The X server shows the frame once it has taken the swap; wait for it.
    const auto screenFile = std::filesystem::path(fbdir) / "Xvfb_screen0";
    std::optional<image::Image> screen;
    const bool shown = app.runUntil(
        [&] {
            window->setNeedsDisplay();
            screen = readXvfbScreen(screenFile);
            return screen && rgbAt(*screen, 120, 180) == (Rgb{255, 0, 0}) &&
                   brightPixels(*screen, {{414, 10}, {50, 25}}) > 0;
        },
        std::chrono::seconds(10));
    ASSERT_TRUE(screen) << "no XWD screen in " << screenFile;
    const auto png = std::filesystem::current_path() / "real-window-gallery.png";
    ASSERT_TRUE(writeFileAtomically(png, *image::encodePng(*screen)));
    std::cout << "screenshot: " << png.string() << "\n";
    ASSERT_TRUE(shown) << "the X screen never showed the gallery; see " << png;

    EXPECT_EQ(rgbAt(*screen, 120, 180), (Rgb{255, 0, 0}));
    EXPECT_EQ(rgbAt(*screen, 360, 180), (Rgb{0, 0, 255}));
    EXPECT_EQ(rgbAt(*screen, 240, 50), (Rgb{0, 0, 0})) << "letterbox above the picture";
    EXPECT_EQ(rgbAt(*screen, 240, 310), (Rgb{0, 0, 0})) << "letterbox below it";
    EXPECT_EQ(close->frame(), (ui::Rect{{414, 10}, {50, 25}}));
    EXPECT_GT(brightPixels(*screen, close->frame()), 20) << "the title inside the button";
    EXPECT_EQ(brightPixels(*screen, {{300, 0}, {110, 60}}), 0) << "nothing left of it";
    EXPECT_EQ(brightPixels(*screen, {{414, 36}, {50, 24}}), 0) << "nor below it";

    // What the window read back from GL is what the X server shows.
    auto drawn = window->snapshot();
    ASSERT_TRUE(drawn) << *drawn.error();
    for (ui::Point p : {ui::Point{120, 180}, ui::Point{360, 180}, ui::Point{240, 50}})
        EXPECT_EQ(rgbAt(*drawn, int(p.x), int(p.y)), rgbAt(*screen, int(p.x), int(p.y)));
}

} // namespace
} // namespace pelkit::test
