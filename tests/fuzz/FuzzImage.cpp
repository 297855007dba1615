// Decodes any bytes as PNG or JPEG. A decoded image is consistent with its size, within the pixel
// limit, and survives a lossless round trip through the PNG encoder.
#include <pelkit/image/Image.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace pelkit;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const image::DecodeLimits limits;
    const auto decoded = image::decode(Bytes(data, data + size), limits);
    if (!decoded) {
        return 0;
    }
    const std::uint64_t pixels = std::uint64_t(decoded->width) * decoded->height;
    if (decoded->empty() || pixels > limits.maxPixels || decoded->rgba.size() != pixels * 4) {
        std::abort();
    }
    // Re-encoding is costly; small images are enough to check it.
    if (pixels <= 4096) {
        const auto again = image::decode(image::encodePng(*decoded).value());
        if (!again || *again != *decoded) {
            std::abort();
        }
    }
    return 0;
}
