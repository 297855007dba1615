// Times the green-screen path of the renderer on 1280x720 frames: each frame a new video frame is
// uploaded, the keyed plane is drawn over a camera image filling the view, and the picture is
// read back. A memcpy of one frame, timed in the same run, is the baseline the figures are set
// against; the same frames keyed by the CPU keyer and drawn by a plain material show what keying
// on the CPU instead of in the shader would save.
//
//     chroma_gl_bench [frames]      # default 200; LP_NUM_THREADS sets llvmpipe's threads
#include "ChromaKeyer.h"

#include <pelkit/ChromaKeyMaterial.h>
#include <pelkit/render/Renderer.h>
#include <pelkit/scene/Geometry.h>

#include <glm/gtc/matrix_transform.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace pelkit;
using Clock = std::chrono::steady_clock;

constexpr int width = 1280;
constexpr int height = 720;

// A green screen with a figure that moves from frame to frame.
image::Image greenScreenFrame(int index) {
    image::Image frame = image::Image::filled(width, height);
    const float cx = 640 + 200 * std::sin(index * 0.2f);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            std::uint8_t* p = frame.pixel(x, y);
            const float dx = (x - cx) / 180.0f;
            const float dy = (y - 400) / 260.0f;
            if (dx * dx + dy * dy < 1) {
                p[0] = static_cast<std::uint8_t>(200 - y / 8);
                p[1] = static_cast<std::uint8_t>(140 + x % 40);
                p[2] = 110;
            } else {
                p[0] = static_cast<std::uint8_t>(10 + x % 16);
                p[1] = static_cast<std::uint8_t>(190 + y % 40);
                p[2] = static_cast<std::uint8_t>(40 + (x + y) % 20);
            }
        }
    return frame;
}

image::Image cameraImage() {
    image::Image image = image::Image::filled(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            std::uint8_t* p = image.pixel(x, y);
            p[0] = static_cast<std::uint8_t>(x * 255 / width);
            p[1] = static_cast<std::uint8_t>(((x / 40 + y / 40) % 2) * 60 + 60);
            p[2] = static_cast<std::uint8_t>(y * 255 / height);
        }
    return image;
}

// Hands out a new frame object each time it is advanced, as a decoder does, cycling through a
// few prepared pictures so that making frames costs nothing here.
class Playback : public scene::VideoFrameSource {
public:
    Playback() {
        for (int i = 0; i < 4; ++i)
            pictures_.push_back(std::make_shared<const image::Image>(greenScreenFrame(i * 7)));
    }
    std::shared_ptr<const image::Image> currentFrame() const override {
        std::lock_guard lock(mutex_);
        return current_;
    }
    void publish(std::shared_ptr<const image::Image> frame) {
        std::lock_guard lock(mutex_);
        current_ = std::move(frame);
    }
    void advance() {
        // A new owner for a prepared picture: to the renderer's cache a frame it has not seen,
        // without copying pixels here.
        const auto& picture = pictures_[next_++ % pictures_.size()];
        std::shared_ptr<const image::Image> frame(picture.get(), [keep = picture](auto*) {});
        std::lock_guard lock(mutex_);
        current_ = std::move(frame);
    }

private:
    std::vector<std::shared_ptr<const image::Image>> pictures_;
    std::size_t next_ = 0;
    mutable std::mutex mutex_;
    std::shared_ptr<const image::Image> current_;
};

struct Timing {
    double medianMs;
    double meanMs;
};

constexpr int warmUp = 10;

Timing time(int frames, const std::function<void()>& step) {
    for (int i = 0; i < warmUp; ++i)
        step();
    std::vector<double> ms;
    ms.reserve(static_cast<std::size_t>(frames));
    for (int i = 0; i < frames; ++i) {
        const auto start = Clock::now();
        step();
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    double sum = 0;
    for (double m : ms)
        sum += m;
    std::nth_element(ms.begin(), ms.begin() + frames / 2, ms.end());
    return {ms[static_cast<std::size_t>(frames / 2)], sum / frames};
}

void fail(const char* what, const Error& error) {
    std::cerr << "chroma_gl_bench: " << what << ": " << error << "\n";
    std::exit(1);
}

Timing timeMemcpy(int frames) {
    const image::Image source = greenScreenFrame(0);
    std::vector<std::uint8_t> target(source.rgba.size());
    return time(frames, [&] {
        std::memcpy(target.data(), source.rgba.data(), target.size());
        // Keeps the copy from being optimised away.
        target[static_cast<std::size_t>(target[0]) % target.size()] ^= 1;
    });
}

// The keyed plane filling the view over a camera image, drawn by one renderer.
class Bench {
public:
    Bench() {
        auto created = render::Renderer::createOffscreen({width, height});
        if (!created)
            fail("creating the renderer", *created.error());
        renderer = std::move(*created);
        playback->advance();
        material->setDiffuseContents(std::shared_ptr<scene::VideoFrameSource>(playback));
        plane->setMaterials({material});
        auto node = scene::Node::create();
        node->setGeometry(plane);
        frame.background = std::make_shared<const image::Image>(cameraImage());
        frame.scene = node;
        frame.camera.viewportSize = {width, height};
        frame.camera.projection =
            glm::ortho(-width / 2.0f, width / 2.0f, -height / 2.0f, height / 2.0f, -1.0f, 1.0f);
    }
    void draw() {
        if (auto drawn = renderer->render(frame); !drawn)
            fail("drawing", *drawn.error());
    }
    void readBack() {
        if (auto read = renderer->snapshot(picture); !read)
            fail("reading back", *read.error());
    }
    void showNewFrame() {
        playback->advance();
        draw();
        readBack();
    }

    // The same frames keyed by the CPU keyer before upload and drawn by a plain material whose
    // texture carries the alpha: what keying on the CPU would cost in place of the shader. (It
    // is the shader's picture only where the plane shows its texture texel for pixel, as here:
    // elsewhere the shader keys each filtered fragment, this path filters keyed texels.)
    std::pair<Timing, Timing> timeCpuKeying(int frames) {
        std::vector<image::Image> keyed;
        for (int i = 0; i < 4; ++i)
            keyed.push_back(greenScreenFrame(i * 7));
        std::size_t next = 0;
        auto keyNext = [&]() -> image::Image& {
            image::Image& image = keyed[next++ % keyed.size()];
            bench::chromaKeyFrame(image.rgba, greenScreenThresholdSensitivity,
                                  greenScreenSmoothing);
            return image;
        };
        auto source = std::make_shared<Playback>();
        auto plain = scene::Material::create();
        plain->setDiffuseContents(std::shared_ptr<scene::VideoFrameSource>(source));
        plane->setMaterials({plain});
        const Timing whole = time(frames, [&] {
            source->publish(std::shared_ptr<const image::Image>(&keyNext(), [](auto*) {}));
            draw();
            readBack();
        });
        plane->setMaterials({material});
        return {whole, time(frames, keyNext)};
    }

    std::unique_ptr<render::Renderer> renderer;
    render::Frame frame;

private:
    std::shared_ptr<Playback> playback = std::make_shared<Playback>();
    std::shared_ptr<ChromaKeyMaterial> material = ChromaKeyMaterial::create(
        {0, 1, 0, 1}, greenScreenThresholdSensitivity, greenScreenSmoothing);
    std::shared_ptr<scene::Plane> plane = scene::Plane::create(width, height);
    image::Image picture;
};

} // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
    Bench bench;
    const Timing copy = timeMemcpy(frames);
    const auto uploadsBefore = bench.renderer->statistics().textureUploads;
    const Timing full = time(frames, [&] { bench.showNewFrame(); });
    const auto uploads = bench.renderer->statistics().textureUploads - uploadsBefore;
    const Timing still = time(frames, [&] {
        bench.draw();
        bench.readBack();
    });
    const Timing drawOnly = time(frames, [&] { bench.draw(); });
    const Timing readOnly = time(frames, [&] { bench.readBack(); });
    const auto [cpuKeyed, keyerOnly] = bench.timeCpuKeying(frames);
    bench.frame.background = nullptr;
    const Timing noBackground = time(frames, [&] { bench.showNewFrame(); });

    const char* threads = std::getenv("LP_NUM_THREADS");
    std::printf("chroma_gl_bench: %dx%d keyed plane, %d frames, on %s (LP_NUM_THREADS %s)\n", width,
                height, frames, bench.renderer->deviceName().c_str(),
                threads ? threads : "unset: Mesa's default");
    std::printf("%-46s %9s %9s %12s\n", "", "median ms", "mean ms", "x memcpy");
    auto row = [&](const char* name, Timing t) {
        std::printf("%-46s %9.3f %9.3f %12.1f\n", name, t.medianMs, t.meanMs,
                    t.medianMs / copy.medianMs);
    };
    row("memcpy of one frame (baseline)", copy);
    row("new frame: upload + draw + read back", full);
    row("  the same without the camera image", noBackground);
    row("unchanged frame: draw + read back", still);
    row("unchanged frame: draw only", drawOnly);
    row("read back only", readOnly);
    row("new frame keyed on the CPU, drawn plain", cpuKeyed);
    row("  the CPU keyer alone", keyerOnly);
    std::printf("texture uploads per new frame: %.2f\n",
                static_cast<double>(uploads) / (frames + warmUp));
    return 0;
}
