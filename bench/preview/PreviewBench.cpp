// Times a preview of a target with four content items (image, link, video, green-screen, all from
// files) from decoding its image and building its content to its first frame read back, against
// the preview of the target image alone (decode, upload, draw, read back) with the same renderer,
// in the same run. Prints medians and their ratio.
//
//     preview_bench PROJECT_DIR [rounds]    # PROJECT_DIR: examples/demo-project
#include "Preview.h"

#include <pelkit/foundation/FileSystem.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

namespace {

using namespace pelkit;
using Clock = std::chrono::steady_clock;

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

PELContent item(const std::string& id, PELType type, double x, double y,
                const std::filesystem::path& file) {
    PELContent content;
    content.id = id;
    content.type = type;
    content.x = x, content.y = y, content.width = 240, content.height = 180;
    content.url = net::Url::fileUrl(file);
    return content;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: preview_bench PROJECT_DIR [rounds]\n");
        return 2;
    }
    std::filesystem::path project = argv[1];
    int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 15;
    ::setenv("SDL_AUDIODRIVER", "dummy", 0);

    auto bytes = readFile(project / "targets" / "mandelbrot.jpg");
    auto decoded = bytes ? image::decode(*bytes) : std::unexpected(bytes.error());
    if (!decoded) {
        std::fprintf(stderr, "preview_bench: %s\n", decoded.error()->description().c_str());
        return 1;
    }
    auto picture = std::make_shared<const image::Image>(std::move(*decoded));
    auto files = project / "files";
    std::vector<PELContent> contents = {
        item("i", PELType::image, -150, 90, files / "demo-image.png"),
        item("l", PELType::link, 150, 90, files / "demo-link.png"),
        item("v", PELType::video, -150, -90, files / "demo-video.mp4"),
        item("g", PELType::greenScreen, 150, -90, files / "demo-greenscreen.mp4")};
    // Both sides decode the target's JPEG and upload it afresh, as every preview does.
    auto reference = [&](std::vector<PELContent> items) {
        auto fresh = std::make_shared<const image::Image>(image::decode(*bytes).value());
        return PELReferenceImage::create(fresh, ar::ImageOrientation::up, 0.2, "t",
                                         std::move(items), picture->width, picture->height);
    };

    auto renderer = render::Renderer::createOffscreen({picture->width, picture->height});
    if (!renderer) {
        std::fprintf(stderr, "preview_bench: %s\n", renderer.error()->description().c_str());
        return 1;
    }
    image::Image readBack;
    auto frameMs = [&](auto makeScene) {
        auto start = Clock::now();
        apps::PreviewScene scene = makeScene();
        apps::waitForContent(scene, std::chrono::seconds(10));
        if (!(*renderer)->render(apps::previewFrame(scene, 0)) || !(*renderer)->snapshot(readBack))
            std::exit(1);
        return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    };
    std::vector<double> alone, withContent;
    for (int round = 0; round < rounds; ++round) {
        alone.push_back(frameMs([&] { return apps::makePreviewScene(reference({}), "bench"); }));
        withContent.push_back(
            frameMs([&] { return apps::makePreviewScene(reference(contents), "bench"); }));
    }
    double base = median(alone), subject = median(withContent);
    std::printf("preview of a %dx%d target, %d rounds, on %s\n", picture->width, picture->height,
                rounds, (*renderer)->deviceName().c_str());
    std::printf("  target image alone:          %8.2f ms (median)\n", base);
    std::printf("  with 4 content items:        %8.2f ms (median: build, load, first frame)\n",
                subject);
    std::printf("  ratio: %.2fx (target <= 2.00x)\n", subject / base);
    return 0;
}
