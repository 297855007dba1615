// Reading colours off drawn and decoded pictures.
#pragma once

#include <pelkit/image/Image.h>

#include <ostream>

namespace pelkit::test {

struct Rgb {
    int r = 0, g = 0, b = 0;
    friend bool operator==(const Rgb&, const Rgb&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Rgb& c) {
        return out << "(" << c.r << ", " << c.g << ", " << c.b << ")";
    }
};

inline Rgb rgbAt(const image::Image& picture, int x, int y) {
    const std::uint8_t* p = picture.pixel(x, y);
    return {p[0], p[1], p[2]};
}

} // namespace pelkit::test
