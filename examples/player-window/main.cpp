// A host window for the framework's two full-screen screens: V plays the demo video full screen
// (PELFullscreenVideoPlayer), G shows the demo image in the photo gallery with a "Close" button,
// Q or Escape quits.
//
//     player-window [--files DIR] [--demo OUT_DIR]
//
// --files names the folder holding demo-video.mp4 and demo-image.png (default: the demo project
// in the source tree). --demo runs by itself: it shows the player, then the gallery, writes
// a picture of each to OUT_DIR (player.png, gallery.png), and quits.
#include <pelkit/PELFullscreenVideoPlayer.h>
#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/Button.h>
#include <pelkit/ui/PhotoGallery.h>
#include <pelkit/ui/Window.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

using namespace pelkit;
namespace fs = std::filesystem;

namespace {

// The host's own screen: a line of help on dark grey.
class HelpView final : public ui::View {
protected:
    void draw(ui::DrawContext& context) override {
        View::draw(context);
        context.drawText("V: play the video    G: show the image    Q: quit", bounds(), 18,
                         ui::colors::white);
    }
};

// The host controller, which shows the gallery as the AR screen does.
class Host final : public ui::ViewController,
                   public ui::PhotoGalleryDataSource,
                   public ui::PhotoGalleryDelegate {
public:
    explicit Host(fs::path files) : files_(std::move(files)) {}

    void playVideo() {
        PELFullscreenVideoPlayer::shared().playVideo(net::Url::fileUrl(files_ / "demo-video.mp4"));
    }

    void showGallery() {
        if (presentedViewController())
            return;
        auto bytes = readFile(files_ / "demo-image.png");
        if (!bytes) {
            std::cerr << "player-window: " << *bytes.error() << "\n";
            return;
        }
        auto decoded = image::decode(*bytes);
        image_ = decoded ? std::make_shared<const image::Image>(std::move(*decoded)) : nullptr;
        auto self = std::static_pointer_cast<Host>(shared_from_this());
        gallery_ = std::make_shared<ui::PhotoGalleryViewController>(self, self);
        addCloseButton(*gallery_);
        gallery_->setBackgroundColor(ui::colors::black);
        gallery_->setHidePageControl(true);
        gallery_->setModalPresentationStyle(ui::ModalPresentationStyle::fullScreen);
        present(gallery_, ui::Animated::yes);
    }

    int numberOfImagesInGallery(ui::PhotoGalleryViewController&) override { return 1; }
    std::shared_ptr<const image::Image> imageInGallery(ui::PhotoGalleryViewController&,
                                                       int) override {
        return image_;
    }
    void galleryDidTapToClose(ui::PhotoGalleryViewController& gallery) override {
        gallery.dismiss(ui::Animated::yes);
    }
    void closeButtonPressed(ui::View*) {
        if (gallery_)
            gallery_->dismiss(ui::Animated::yes);
    }

protected:
    void loadView() override {
        auto view = std::make_shared<HelpView>();
        view->setBackgroundColor({0.15f, 0.15f, 0.18f, 1});
        setView(view);
    }

private:
    void addCloseButton(ui::PhotoGalleryViewController& gallery) {
        auto close = std::make_shared<ui::Button>(ui::ButtonType::custom);
        auto view = gallery.view();
        view->addSubview(close);
        close->setTitle("Close");
        auto area = view->safeAreaLayoutGuide();
        ui::LayoutConstraint::activate({
            close->widthAnchor().constraint(50),
            close->heightAnchor().constraint(25),
            close->topAnchor().constraint(area.topAnchor(), 10),
            close->trailingAnchor().constraint(area.trailingAnchor(), -16),
        });
        close->setBorderWidth(0);
        close->layoutIfNeeded();
        close->setClipsToBounds(true);
        close->addTarget(std::static_pointer_cast<Host>(shared_from_this()),
                         &Host::closeButtonPressed, ui::ControlEvent::touchUpInside);
    }

    fs::path files_;
    std::shared_ptr<const image::Image> image_;
    std::shared_ptr<ui::PhotoGalleryViewController> gallery_;
};

bool save(ui::Window& window, const fs::path& path) {
    auto picture = window.snapshot();
    if (!picture || !writeFileAtomically(path, *image::encodePng(*picture))) {
        std::cerr << "player-window: cannot write " << path << "\n";
        return false;
    }
    std::cout << "wrote " << path.string() << "\n";
    return true;
}

// Shows each screen in turn and pictures it; returns the exit status.
int runDemo(ui::Window& window, Host& host, const fs::path& out) {
    auto& app = ui::Application::shared();
    const auto wait = [&](const std::function<bool()>& done) {
        return app.runUntil(done, std::chrono::seconds(10));
    };
    // Runs the loop for a while; the timer's work item wakes it when the time is up.
    const auto pause = [&](std::chrono::milliseconds time) {
        auto over = std::make_shared<bool>(false);
        DispatchQueue::main().asyncAfter(time, [over] { *over = true; });
        wait([over] { return *over; });
    };
    host.playVideo();
    auto& player = *PELFullscreenVideoPlayer::shared().player();
    const bool playing = wait([&] { return player.rate() > 0 && player.currentFrame(); });
    pause(std::chrono::seconds(1));
    if (!playing || !save(window, out / "player.png"))
        return 1;
    PELFullscreenVideoPlayer::shared().playerViewController()->dismiss(ui::Animated::yes);
    wait([&] { return !host.presentedViewController(); });
    host.showGallery();
    pause(std::chrono::milliseconds(600));
    return save(window, out / "gallery.png") ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    fs::path files = PELKIT_DEMO_FILES_DIR;
    std::optional<fs::path> demo;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view option = argv[i];
        if (option == "--files")
            files = argv[i + 1];
        else if (option == "--demo")
            demo = argv[i + 1];
    }
    if (argc % 2 == 0) {
        std::cerr << "usage: player-window [--files DIR] [--demo OUT_DIR]\n";
        return 2;
    }
    ::setenv("SDL_AUDIODRIVER", "dummy", 0);
    auto window = ui::Window::create({960, 540}, "PELkit player window");
    if (!window) {
        std::cerr << "player-window: " << *window.error() << "\n";
        return 1;
    }
    auto host = std::make_shared<Host>(files);
    (*window)->setRootViewController(host);
    (*window)->makeKeyAndVisible();
    (*window)->setKeyHandler([&](std::string_view key) {
        if (key == "V")
            host->playVideo();
        else if (key == "G")
            host->showGallery();
        else if (key == "Q" || key == "Escape")
            ui::Application::shared().stop();
    });
    if (demo) {
        fs::create_directories(*demo);
        return runDemo(**window, *host, *demo);
    }
    ui::Application::shared().run();
    return 0;
}
