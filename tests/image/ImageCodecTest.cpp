#include <pelkit/image/Image.h>

#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Resources.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <tuple>

namespace pelkit::image {
namespace {

namespace fs = std::filesystem;

fs::path imagesDirectory() {
    return test::fixturesDirectory() / "images";
}

Bytes fileBytes(const fs::path& path) {
    return readFile(path).value_or(Bytes{});
}

// Reads the expected pixels of a fixture: a PAM file with depth 4 and maxval 255.
Image readPam(const fs::path& path) {
    const Bytes bytes = fileBytes(path);
    const std::string text(textOf(bytes));
    const auto end = text.find("ENDHDR\n");
    std::istringstream header(text.substr(0, end));
    Image image;
    for (std::string key; header >> key;) {
        if (key == "WIDTH")
            header >> image.width;
        if (key == "HEIGHT")
            header >> image.height;
    }
    image.rgba.assign(bytes.begin() + static_cast<std::ptrdiff_t>(end + 7), bytes.end());
    return image;
}

// Smooth gradients in every channel (which JPEG keeps well) and a spread of alpha values.
Image sampleImage(int width, int height) {
    Image image = Image::filled(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            std::uint8_t* p = image.pixel(x, y);
            p[0] = static_cast<std::uint8_t>(x * 255 / std::max(1, width - 1));
            p[1] = static_cast<std::uint8_t>(y * 255 / std::max(1, height - 1));
            p[2] = static_cast<std::uint8_t>((x + y) * 255 / std::max(1, width + height - 2));
            p[3] = static_cast<std::uint8_t>(x + y * width);
        }
    }
    return image;
}

Image noiseImage(int width, int height) {
    Image image = Image::filled(width, height);
    std::mt19937 random(7);
    for (auto& v : image.rgba)
        v = static_cast<std::uint8_t>(random());
    return image;
}

TEST(ImageDecoding, DecodesEveryPixelFormatToRgba) {
    int checked = 0;
    for (const auto& entry : fs::directory_iterator(imagesDirectory())) {
        const fs::path path = entry.path();
        if (path.extension() != ".png" && path.extension() != ".jpg")
            continue;
        SCOPED_TRACE(path.filename().string());
        const auto decoded = decode(fileBytes(path));
        ASSERT_TRUE(decoded.has_value()) << "a valid file was refused";
        EXPECT_TRUE(*decoded == readPam(fs::path(path).replace_extension(".pam")))
            << "decoded size or pixels differ from the .pam";
        ++checked;
    }
    EXPECT_EQ(checked, 11) << "fixtures missing: run scripts/make-image-fixtures";
}

// Each file is refused with its own reason; the cost bounds are pinned by the reason, as a bomb
// refused only after its pixels were allocated would name a different check.
TEST(ImageDecoding, RefusesMalformedFilesForTheirReason) {
    using enum DecodeFailure;
    const std::map<std::string, std::pair<DecodeFailure, std::string>> expected = {
        {"bad-header-crc.png", {damaged, "png_read_info: IHDR: CRC error"}},
        {"cut-scan.jpg",
         {damaged, "jpeg_read_scanlines: Corrupt JPEG data: premature end of data segment (117)"}},
        {"arithmetic.jpg",
         {unsupported, "image::decode: arithmetic-coded JPEGs are not supported"}},
        {"huge.png",
         {tooLarge, "image::decode: 100000x100000 pixels exceed the limit of 67108864"}},
        {"huge.jpg", {tooLarge, "image::decode: 60000x60000 pixels exceed the limit of 67108864"}},
        {"sparse.png",
         {tooCostly, "image::decode: 12 bytes of PNG image data cannot hold 8192x8192 pixels"}},
        {"sparse.jpg",
         {tooCostly, "image::decode: 159 bytes of JPEG cannot hold 8192x8192 pixels"}},
        {"endless-scans.jpg", {tooCostly, "image::decode: JPEG has more than 500 scans"}},
        {"costly-scans.jpg",
         {tooCostly, "image::decode: JPEG scans decode more than 512 blocks per byte"}},
    };
    std::size_t checked = 0;
    for (const auto& entry : fs::directory_iterator(imagesDirectory() / "malformed")) {
        const std::string name = entry.path().filename().string();
        const auto decoded = decode(fileBytes(entry.path()));
        ASSERT_FALSE(decoded.has_value()) << name << " was decoded";
        ASSERT_TRUE(expected.contains(name)) << "no expected reason for " << name;
        EXPECT_EQ(decoded.error()->domain(), "image");
        EXPECT_EQ(decoded.error()->code(), static_cast<int>(expected.at(name).first)) << name;
        EXPECT_EQ(decoded.error()->description(), expected.at(name).second);
        ++checked;
    }
    EXPECT_EQ(checked, expected.size()) << "fixtures missing: run scripts/make-image-fixtures";
}

TEST(ImageDecoding, RefusesImagesAboveTheConfiguredPixelLimit) {
    const std::tuple<const char*, std::uint64_t, std::string> cases[] = {
        {"rgb.png", 15, "image::decode: 5x3 pixels exceed the limit of 14"},
        {"gray-progressive.jpg", 192, "image::decode: 24x8 pixels exceed the limit of 191"},
    };
    for (const auto& [name, pixels, refusal] : cases) {
        const Bytes bytes = fileBytes(imagesDirectory() / name);
        EXPECT_TRUE(decode(bytes, {.maxPixels = pixels}).has_value()) << name;
        const auto refused = decode(bytes, {.maxPixels = pixels - 1});
        ASSERT_FALSE(refused.has_value()) << name;
        EXPECT_EQ(refused.error()->code(), static_cast<int>(DecodeFailure::tooLarge));
        EXPECT_EQ(refused.error()->description(), refusal);
    }
}

// Every prefix of a PNG or JPEG signature is covered by the truncation test below.
TEST(ImageDecoding, RefusesOtherFormats) {
    for (const char* text : {"hello, world", "GIF89a\x01", "\x89PNG\r\n\x1b\n", "\xff\xd8\xfe"}) {
        const auto decoded = decode(bytesOf(text));
        ASSERT_FALSE(decoded.has_value()) << text;
        EXPECT_EQ(decoded.error()->description(),
                  "image::decode: neither a PNG nor a JPEG signature");
    }
}

TEST(ImageDecoding, RefusesEveryTruncation) {
    const Image image = sampleImage(23, 17);
    const std::pair<const char*, Bytes> encodings[] = {
        {"PNG", encodePng(image).value()},
        {"JPEG", encodeJpeg(image, 80).value()},
    };
    for (const auto& [format, bytes] : encodings) {
        ASSERT_TRUE(decode(bytes).has_value()) << format;
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            const Bytes prefix(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
            EXPECT_FALSE(decode(prefix).has_value())
                << format << " cut to " << length << " of " << bytes.size() << " bytes";
        }
    }
}

// A damaged byte may or may not make a file undecodable, but never crashes the decoder or yields an
// image whose pixel buffer disagrees with its size.
TEST(ImageDecoding, SurvivesDamageAtEveryByte) {
    const Image image = sampleImage(19, 11);
    const Bytes encodings[] = {encodePng(image).value(), encodeJpeg(image, 70).value()};
    for (const Bytes& original : encodings) {
        for (std::size_t i = 0; i < original.size(); ++i) {
            for (const std::uint8_t flip : {0x01, 0x80, 0xff}) {
                Bytes damaged = original;
                damaged[i] ^= flip;
                if (const auto decoded = decode(damaged)) {
                    EXPECT_EQ(decoded->rgba.size(),
                              static_cast<std::size_t>(decoded->width) * decoded->height * 4)
                        << "byte " << i;
                }
            }
        }
    }
}

TEST(ImageEncoding, PngRoundTripIsLossless) {
    for (const Image& image : {sampleImage(1, 1), sampleImage(64, 48), noiseImage(33, 7)}) {
        const auto decoded = decode(encodePng(image).value());
        ASSERT_TRUE(decoded.has_value());
        EXPECT_TRUE(*decoded == image) << image.width << "x" << image.height;
    }
}

TEST(ImageEncoding, JpegRoundTripKeepsSizeAndColoursAndDropsAlpha) {
    const Image image = sampleImage(64, 48);
    const auto decoded = decode(encodeJpeg(image, 95).value());
    ASSERT_TRUE(decoded.has_value());
    ASSERT_EQ(std::pair(decoded->width, decoded->height), std::pair(64, 48));
    long error = 0;
    for (std::size_t i = 0; i < image.rgba.size(); i += 4) {
        for (std::size_t c = 0; c < 3; ++c) {
            error += std::abs(decoded->rgba[i + c] - image.rgba[i + c]);
        }
        ASSERT_EQ(decoded->rgba[i + 3], 255) << "a JPEG is opaque";
    }
    const double meanError = static_cast<double>(error) / (64 * 48 * 3);
    EXPECT_LT(meanError, 3.0) << "colours drifted too far at quality 95";

    // Noise compresses to more than one output chunk; a lower quality makes a smaller file.
    const Image noise = noiseImage(400, 300);
    const Bytes high = encodeJpeg(noise, 95).value();
    EXPECT_GT(high.size(), encodeJpeg(noise, 30).value().size());
    const auto big = decode(high);
    ASSERT_TRUE(big.has_value());
    EXPECT_EQ(std::pair(big->width, big->height), std::pair(400, 300));
}

TEST(ImageEncoding, RefusesInconsistentImages) {
    const Image cases[] = {
        {0, 0, {}},
        {-2, 3, {}},
        {2, 2, std::vector<std::uint8_t>(15)},
        {2, 2, std::vector<std::uint8_t>(17)},
    };
    for (const Image& image : cases) {
        EXPECT_FALSE(encodePng(image).has_value()) << image.width << "x" << image.height;
        EXPECT_FALSE(encodeJpeg(image).has_value()) << image.width << "x" << image.height;
    }
}

TEST(ImageDeathTest, BrokenPreconditionsStop) {
    const Image image = sampleImage(4, 4);
    EXPECT_DEATH((void)encodeJpeg(image, 0),
                 "Fatal error: image::encodeJpeg\\(\\): quality 0 is outside 1\\.\\.\\.100");
    EXPECT_DEATH((void)encodeJpeg(image, 101),
                 "Fatal error: image::encodeJpeg\\(\\): quality 101 is outside 1\\.\\.\\.100");
    EXPECT_DEATH((void)Image::filled(-1, 2),
                 "Fatal error: Image::filled\\(\\): negative size -1x2");
}

// The framework's own buttons, as the build tree holds them: transparent outside the disc, opaque
// inside, the play triangle dark at the centre where the pause bars leave it white.
TEST(FrameworkResources, DecodeToOpaqueButtonsOnTransparentCorners) {
    test::ScopedEnv unset("PELKIT_RESOURCES_DIR", "");
    for (auto [name, centreGrey] : {std::pair{"play", 30}, std::pair{"pause", 255}}) {
        auto path = resourcePath(name, "png");
        ASSERT_TRUE(path) << name;
        auto image = decode(fileBytes(*path));
        ASSERT_TRUE(image) << name << ": " << image.error()->description();
        ASSERT_EQ(std::pair(image->width, image->height), std::pair(256, 256)) << name;
        for (auto [x, y] :
             {std::pair{0, 0}, std::pair{255, 0}, std::pair{0, 255}, std::pair{255, 255}})
            EXPECT_EQ(image->pixel(x, y)[3], 0) << name << " at " << x << "," << y;
        const std::uint8_t* centre = image->pixel(128, 128);
        EXPECT_EQ(std::vector<int>(centre, centre + 4),
                  (std::vector<int>{centreGrey, centreGrey, centreGrey, 255}))
            << name;
    }
}

} // namespace
} // namespace pelkit::image
