// Decoded raster images and the codecs that read and write them. Any thread; the functions keep no
// shared state, so they are thread-safe.
#pragma once

#include <pelkit/foundation/Bytes.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace pelkit::image {

/// An 8-bit RGBA raster: `width * height` pixels, row by row from the top, four bytes per pixel in
/// the order red, green, blue, alpha, rows packed without padding. Alpha is straight (not
/// premultiplied); 255 is opaque.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> rgba;

    /// An image of the given size with every pixel set to `fill` (red, green, blue, alpha).
    static Image filled(int width, int height, std::uint32_t fillRgba = 0x000000ffu);

    bool empty() const { return width <= 0 || height <= 0; }
    std::size_t stride() const { return static_cast<std::size_t>(width) * 4; }
    std::uint8_t* pixel(int x, int y) { return rgba.data() + y * stride() + x * 4; }
    const std::uint8_t* pixel(int x, int y) const { return rgba.data() + y * stride() + x * 4; }

    friend bool operator==(const Image&, const Image&) = default;
};

/// Decodes PNG or JPEG bytes (told apart by their signature) to RGBA8. Grey, palette, 16-bit and
/// interlaced PNGs and greyscale or CMYK JPEGs are converted; a PNG's transparency is kept, a JPEG
/// is opaque. Anything else, truncated or damaged data included, gives nothing.
///
///     if (auto image = image::decode(readFile(path).value())) useTarget(*image);
std::optional<Image> decode(const Bytes& data);

/// Encodes an image as an 8-bit RGBA PNG. Gives nothing for an empty or inconsistent image.
std::optional<Bytes> encodePng(const Image& image);

/// Encodes an image as a baseline YCbCr JPEG with `quality` 1..100; alpha is dropped. Gives nothing
/// for an empty or inconsistent image.
std::optional<Bytes> encodeJpeg(const Image& image, int quality = 90);

} // namespace pelkit::image
