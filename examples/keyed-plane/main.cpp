// Renders one plane with the green-screen material over a backdrop and writes the picture as a
// PNG. Both pictures are made here: a figure in front of a green screen, and a backdrop of a
// gradient under a checkerboard, as a camera might see a printed target.
//
//     keyed-plane keyed.png
#include <pelkit/ChromaKey.h>
#include <pelkit/ChromaKeyMaterial.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/render/Renderer.h>
#include <pelkit/scene/Geometry.h>

#include <glm/trigonometric.hpp>

#include <cmath>
#include <cstdint>
#include <iostream>
#include <memory>

using namespace pelkit;

namespace {

constexpr glm::ivec2 viewSize{960, 540};

void setPixel(image::Image& image, int x, int y, int r, int g, int b) {
    std::uint8_t* p = image.pixel(x, y);
    p[0] = static_cast<std::uint8_t>(r);
    p[1] = static_cast<std::uint8_t>(g);
    p[2] = static_cast<std::uint8_t>(b);
    p[3] = 255;
}

// A studio green screen, unevenly lit, with an orange disc and a blue bar in front of it.
image::Image greenScreen() {
    image::Image image = image::Image::filled(480, 360);
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            const double light = 0.8 + 0.2 * std::cos((x - 240) / 300.0);
            const double dx = (x - 200) / 110.0;
            const double dy = (y - 170) / 110.0;
            if (dx * dx + dy * dy < 1)
                setPixel(image, x, y, 240, 140 + y / 6, 40);
            else if (x > 320 && x < 380 && y > 60 && y < 300)
                setPixel(image, x, y, 40, 70, 200);
            else
                setPixel(image, x, y, static_cast<int>(30 * light), static_cast<int>(230 * light),
                         static_cast<int>(50 * light));
        }
    return image;
}

// A vertical gradient from dusk blue to sand, with a faint checkerboard over it.
image::Image backdrop() {
    image::Image image = image::Image::filled(viewSize.x, viewSize.y);
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            const double t = static_cast<double>(y) / image.height;
            const int check = ((x / 60 + y / 60) % 2) * 24;
            setPixel(image, x, y, static_cast<int>(60 + 150 * t) + check,
                     static_cast<int>(70 + 110 * t) + check,
                     static_cast<int>(140 - 40 * t) + check);
        }
    return image;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: keyed-plane OUT.png\n";
        return 2;
    }
    auto renderer = render::Renderer::createOffscreen(viewSize);
    if (!renderer) {
        std::cerr << "keyed-plane: " << *renderer.error() << "\n";
        return 1;
    }

    // The green-screen node's material and values: pure green is keyed whatever colour is named.
    auto material = ChromaKeyMaterial::create({0, 1, 0, 1}, greenScreenThresholdSensitivity,
                                              greenScreenSmoothing);
    material->setDiffuseContents(std::make_shared<const image::Image>(greenScreen()));
    auto plane = scene::Plane::create(0.4f, 0.3f);
    plane->setMaterials({material});
    auto node = scene::Node::create();
    node->setGeometry(plane);
    node->setPosition({0, 0, -0.6f});
    node->setEulerAngles({-0.25f, 0.35f, 0});

    render::Frame frame;
    frame.background = std::make_shared<const image::Image>(backdrop());
    frame.scene = node;
    frame.camera = scene::Camera::perspective(glm::radians(60.0f), viewSize);
    if (auto drawn = (*renderer)->render(frame); !drawn) {
        std::cerr << "keyed-plane: " << *drawn.error() << "\n";
        return 1;
    }
    auto picture = (*renderer)->snapshot();
    if (!picture) {
        std::cerr << "keyed-plane: " << *picture.error() << "\n";
        return 1;
    }
    auto png = image::encodePng(*picture);
    if (!png) {
        std::cerr << "keyed-plane: the picture could not be encoded as PNG\n";
        return 1;
    }
    if (auto written = writeFileAtomically(argv[1], *png); !written) {
        std::cerr << "keyed-plane: " << *written.error() << "\n";
        return 1;
    }
    std::cout << "keyed-plane: wrote " << argv[1] << " (" << viewSize.x << " x " << viewSize.y
              << ")\n";
    return 0;
}
