// Times the user interface against baselines measured in the same run.
//
//     ui_bench FILE [--screen]     # bench/ui/run makes a 1280x720 clip and calls this
//
// 1. Player: FILE played for 5 s by a bare player (decoding alone, its pictures taken by
//    nobody) against the same played on the full-screen player screen in a 1280x720 headless
//    window: pictures decoded and drawn per second, and process CPU seconds per second of video.
// 2. Wake-up: while the main loop idles, another thread submits work to the main queue every
//    5 ms; the delay until the work runs (median, 90th percentile), and the process's CPU use
//    over a second of idling. Headless the loop waits on the main queue's eventfd; with
//    --screen (run under an X server) on SDL's event wait, woken by an SDL user event.
#include <pelkit/foundation/Dispatch.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/PlayerViewController.h>
#include <pelkit/ui/Window.h>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

using namespace pelkit;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kPlayTime = std::chrono::seconds(5);

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

struct Run {
    double pictures = 0; ///< per second
    double cpu = 0;      ///< CPU seconds per second
};

std::shared_ptr<media::Player> startPlayer(const std::string& file) {
    auto player = std::make_shared<media::Player>();
    player->replaceCurrentItem(media::PlayerItem::create("file://" + file));
    player->play();
    while (player->status() == media::Status::unknown)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return player;
}

Run decodeAlone(const std::string& file) {
    auto player = startPlayer(file);
    const double cpu0 = cpuSeconds();
    const auto start = Clock::now();
    std::shared_ptr<const image::Image> last;
    int pictures = 0;
    while (Clock::now() - start < kPlayTime) {
        if (auto frame = player->currentFrame(); frame != last)
            last = frame, ++pictures;
        std::this_thread::sleep_for(std::chrono::milliseconds(4));
    }
    const double elapsed = seconds(Clock::now() - start);
    return {pictures / elapsed, (cpuSeconds() - cpu0) / elapsed};
}

Run presented(const std::string& file) {
    auto& app = ui::Application::shared();
    auto window = ui::Window::create({1280, 720}).value();
    auto root = std::make_shared<ui::ViewController>();
    window->setRootViewController(root);
    window->makeKeyAndVisible();
    auto screen = std::make_shared<ui::PlayerViewController>();
    root->present(screen, ui::Animated::no);
    app.runUntil([&] { return root->presentedViewController() != nullptr; },
                 std::chrono::seconds(5));
    auto player = startPlayer(file);
    screen->setPlayer(player);
    app.pump();
    const auto frames0 = window->framesDrawn();
    const double cpu0 = cpuSeconds();
    const auto start = Clock::now();
    app.runUntil([&] { return Clock::now() - start >= kPlayTime; }, kPlayTime * 2);
    const double elapsed = seconds(Clock::now() - start);
    return {double(window->framesDrawn() - frames0) / elapsed, (cpuSeconds() - cpu0) / elapsed};
}

void wakeUp() {
    auto& app = ui::Application::shared();
    std::vector<double> delays;
    std::thread submitter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        for (int i = 0; i < 300; ++i) {
            const auto sent = Clock::now();
            DispatchQueue::main().async(
                [&delays, sent] { delays.push_back(seconds(Clock::now() - sent) * 1e3); });
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        app.stop();
    });
    app.run();
    submitter.join();
    std::sort(delays.begin(), delays.end());

    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        app.stop();
    });
    const double cpu0 = cpuSeconds();
    const auto start = Clock::now();
    app.run();
    const double idle = (cpuSeconds() - cpu0) / seconds(Clock::now() - start);
    stopper.join();
    std::printf("wake-up (%zu submissions): median %.3f ms, p90 %.3f ms (target: median <= 1 ms)\n",
                delays.size(), delays[delays.size() / 2], delays[delays.size() * 9 / 10]);
    std::printf("idle loop: %.2f%% of a core over 1 s (target: ~0%%)\n", idle * 100);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: ui_bench FILE [--screen]\n");
        return 2;
    }
    const bool screen = argc > 2 && std::string_view(argv[2]) == "--screen";
    ::setenv("SDL_AUDIODRIVER", "dummy", 0);
    auto& app = ui::Application::shared();
    app.setDisplay(screen ? ui::Display::screen : ui::Display::headless);

    if (!screen) {
        const Run alone = decodeAlone(argv[1]);
        const Run shown = presented(argv[1]);
        std::printf("decoding alone:         %5.1f pictures/s, %.3f CPU s/s\n", alone.pictures,
                    alone.cpu);
        std::printf("full-screen player:     %5.1f drawn/s,    %.3f CPU s/s\n", shown.pictures,
                    shown.cpu);
        std::printf("presentation adds %.1f%% CPU over decoding (target: <= 15%%); draws %.2f "
                    "of the pictures\n",
                    (shown.cpu / alone.cpu - 1) * 100, shown.pictures / alone.pictures);
    } else {
        // SDL's wait needs a window's display connection.
        auto window = ui::Window::create({320, 240});
        if (!window) {
            std::fprintf(stderr, "ui_bench: %s\n", (*window.error()).description().c_str());
            return 1;
        }
        (*window)->makeKeyAndVisible();
        app.pump();
    }
    wakeUp();
    return 0;
}
