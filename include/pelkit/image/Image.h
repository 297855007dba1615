// Decoded raster images and the codecs that read and write them. Any thread; the functions keep no
// shared state, so they are thread-safe.
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/Error.h>

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

/// Why `decode` refused its input: the code of the error it gives, whose domain is "image".
enum class DecodeFailure {
    unsupported = 1, ///< neither PNG nor JPEG, or an arithmetic-coded JPEG
    damaged = 2,     ///< libpng or libjpeg refused the data: broken, cut short or of a kind it
                     ///< does not read
    tooLarge = 3,    ///< more pixels than `DecodeLimits::maxPixels`
    tooCostly = 4,   ///< the header promises more than the data can hold, or scans without end
};

/// Bounds that decoding checks before it allocates the image.
struct DecodeLimits {
    /// The most pixels (width x height) an image may have. The default, 2^26 (8192 x 8192, 256 MiB
    /// of RGBA), takes any camera photo.
    std::uint64_t maxPixels = std::uint64_t{1} << 26;
};

/// Decodes PNG or JPEG bytes (told apart by their signature) to RGBA8. Grey, palette, 16-bit and
/// interlaced PNGs and greyscale or CMYK baseline or progressive JPEGs are converted; a PNG's
/// transparency is kept, a JPEG is opaque. Anything else, truncated or damaged data included, gives
/// an error naming the failing call. So that a few hostile bytes cannot cost much memory or time,
/// an image is refused, before its pixels are allocated, when it exceeds `limits` or when its
/// compressed data is too short to hold the pixels its header declares; a JPEG is also refused
/// when its scans would decode far more blocks than its size justifies.
///
///     if (auto image = image::decode(readFile(path).value())) useTarget(*image);
[[nodiscard]] Result<Image> decode(const Bytes& data, const DecodeLimits& limits = {});

/// Encodes an image as an 8-bit RGBA PNG. Gives nothing for an empty or inconsistent image.
std::optional<Bytes> encodePng(const Image& image);

/// Encodes an image as a baseline YCbCr JPEG with `quality` 1..100; alpha is dropped. Gives nothing
/// for an empty or inconsistent image.
std::optional<Bytes> encodeJpeg(const Image& image, int quality = 90);

} // namespace pelkit::image
