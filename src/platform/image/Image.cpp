// PNG and JPEG codecs over libpng and libjpeg-turbo.
//
// Both libraries report failure by longjmp. Every call that can fail therefore runs inside a small
// "stage" function that arms setjmp and whose frame holds only trivially destructible values; all
// buffers are sized and owned by the caller, whose frame the jump never crosses. So a failure
// unwinds nothing that has a destructor, and the RAII owners below release the library state on
// every path.
#include <pelkit/image/Image.h>

#include <pelkit/foundation/Error.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include <jerror.h>
#include <jpeglib.h>
#include <png.h>

namespace pelkit::image {
namespace {

// A progressive JPEG can carry any number of scans, each one a full pass over the coefficients;
// real encoders write at most a few dozen.
constexpr int maxJpegScans = 500;

// Every block costs at least one bit of Huffman-coded data, so even a flat grey image holds at most
// eight blocks per byte, and each of its scans decodes at most eight blocks per byte. This bound
// allows such an image 64 scans, and a photograph, whose blocks cost far more, hundreds.
constexpr std::uint64_t maxJpegBlockDecodesPerByte = 512;

// Deflate turns no byte into more than 1032.
constexpr std::uint64_t maxDeflateRatio = 1032;

ErrorPtr decodeError(DecodeFailure kind, std::string description) {
    return Error::make("image", static_cast<int>(kind), std::move(description));
}

std::string sizeText(std::uint64_t width, std::uint64_t height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

// Checked before the pixels are allocated; `width * height` cannot overflow, as libpng caps each
// side at a million and JPEG at 65535.
std::optional<ErrorPtr> sizeRefusal(std::uint64_t width, std::uint64_t height,
                                    const DecodeLimits& limits) {
    if (width * height > limits.maxPixels) {
        return decodeError(DecodeFailure::tooLarge, "image::decode: " + sizeText(width, height) +
                                                        " pixels exceed the limit of " +
                                                        std::to_string(limits.maxPixels));
    }
    return std::nullopt;
}

ErrorPtr tooFewBytes(std::uint64_t bytes, std::string_view what, std::uint64_t width,
                     std::uint64_t height) {
    return decodeError(DecodeFailure::tooCostly, "image::decode: " + std::to_string(bytes) +
                                                     " bytes of " + std::string(what) +
                                                     " cannot hold " + sizeText(width, height) +
                                                     " pixels");
}

bool consistent(const Image& image) {
    return image.width > 0 && image.height > 0 &&
           image.rgba.size() == static_cast<std::size_t>(image.width) * image.height * 4;
}

bool hasPrefix(const Bytes& data, std::initializer_list<std::uint8_t> prefix) {
    return data.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), data.begin());
}

std::vector<std::uint8_t*> rowPointers(std::uint8_t* pixels, int width, int height) {
    std::vector<std::uint8_t*> rows(static_cast<std::size_t>(height));
    for (int y = 0; y < height; ++y) {
        rows[y] = pixels + static_cast<std::size_t>(y) * width * 4;
    }
    return rows;
}

// ---------------------------------------------------------------------------------------------
// PNG

struct PngSource {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t offset;
};

void pngRead(png_structp png, png_bytep out, png_size_t length) {
    auto* source = static_cast<PngSource*>(png_get_io_ptr(png));
    if (length > source->size - source->offset) {
        png_error(png, "unexpected end of data");
    }
    std::memcpy(out, source->data + source->offset, length);
    source->offset += length;
}

struct PngSink {
    Bytes* out;
};

void pngWrite(png_structp png, png_bytep data, png_size_t length) {
    auto* sink = static_cast<PngSink*>(png_get_io_ptr(png));
    bool stored = true;
    try {
        sink->out->insert(sink->out->end(), data, data + length);
    } catch (const std::bad_alloc&) {
        stored = false;
    }
    // Outside the handler: the exception object is gone before libpng jumps.
    if (!stored) {
        png_error(png, "out of memory");
    }
}

void pngFlush(png_structp) {}

// What libpng said when it gave up, and during which call.
struct PngFailure {
    const char* call = "png_create_read_struct";
    char message[128] = "out of memory";
};

[[noreturn]] void pngFail(png_structp png, png_const_charp message) {
    if (auto* failure = static_cast<PngFailure*>(png_get_error_ptr(png))) {
        std::snprintf(failure->message, sizeof failure->message, "%s", message);
    }
    png_longjmp(png, 1);
}

// Warnings (bad ancillary chunks, odd profiles) do not stop decoding and go nowhere: diagnostics
// on standard output are reserved for the framework's own lines.
void pngWarn(png_structp, png_const_charp) {}

class PngReader {
public:
    explicit PngReader(PngFailure* failure)
        : png_(png_create_read_struct(PNG_LIBPNG_VER_STRING, failure, pngFail, pngWarn)) {
        if (png_ != nullptr) {
            info_ = png_create_info_struct(png_);
        }
    }
    ~PngReader() {
        if (png_ != nullptr) {
            png_destroy_read_struct(&png_, info_ != nullptr ? &info_ : nullptr, nullptr);
        }
    }
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;

    explicit operator bool() const { return png_ != nullptr && info_ != nullptr; }
    png_structp png() const { return png_; }
    png_infop info() const { return info_; }

private:
    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
};

class PngWriter {
public:
    PngWriter() : png_(png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, pngFail, pngWarn)) {
        if (png_ != nullptr) {
            info_ = png_create_info_struct(png_);
        }
    }
    ~PngWriter() {
        if (png_ != nullptr) {
            png_destroy_write_struct(&png_, info_ != nullptr ? &info_ : nullptr);
        }
    }
    PngWriter(const PngWriter&) = delete;
    PngWriter& operator=(const PngWriter&) = delete;

    explicit operator bool() const { return png_ != nullptr && info_ != nullptr; }
    png_structp png() const { return png_; }
    png_infop info() const { return info_; }

private:
    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
};

// Stage: reads the chunks up to the image data.
bool readPngInfo(png_structp png, png_infop info, PngSource* source, PngFailure* failure) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    failure->call = "png_read_info";
    png_set_read_fn(png, source, pngRead);
    png_read_info(png, info);
    return true;
}

// Stage: asks libpng to deliver every colour type as 8-bit RGBA.
bool requestRgba(png_structp png, png_infop info, PngFailure* failure) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    failure->call = "png_read_update_info";
    const int colorType = png_get_color_type(png, info);
    const int bitDepth = png_get_bit_depth(png, info);
    const bool hasTransparency = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
    if (bitDepth == 16) {
        png_set_scale_16(png);
    }
    if (colorType == PNG_COLOR_TYPE_PALETTE) {
        png_set_palette_to_rgb(png);
    }
    if (colorType == PNG_COLOR_TYPE_GRAY && bitDepth < 8) {
        png_set_expand_gray_1_2_4_to_8(png);
    }
    if (hasTransparency) {
        png_set_tRNS_to_alpha(png);
    }
    if ((colorType & PNG_COLOR_MASK_COLOR) == 0) {
        png_set_gray_to_rgb(png);
    }
    if ((colorType & PNG_COLOR_MASK_ALPHA) == 0 && !hasTransparency) {
        png_set_add_alpha(png, 0xff, PNG_FILLER_AFTER);
    }
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    if (png_get_rowbytes(png, info) != std::size_t{png_get_image_width(png, info)} * 4) {
        png_error(png, "rows are not 8-bit RGBA");
    }
    return true;
}

// Stage: decodes all rows, then reads up to the end chunk so that a cut-off file is refused.
bool readPngRows(png_structp png, png_bytepp rows, PngFailure* failure) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    failure->call = "png_read_image";
    png_read_image(png, rows);
    failure->call = "png_read_end";
    png_read_end(png, nullptr);
    return true;
}

// The length of the compressed image data, summed over the IDAT chunk headers.
std::uint64_t pngImageDataSize(const Bytes& data) {
    std::uint64_t total = 0;
    for (std::size_t at = 8; at + 8 <= data.size();) {
        const std::uint32_t length = png_get_uint_32(data.data() + at);
        const std::size_t present = std::min<std::size_t>(length, data.size() - at - 8);
        if (std::memcmp(data.data() + at + 4, "IDAT", 4) == 0) {
            total += present;
        }
        at += 12 + present;
    }
    return total;
}

ErrorPtr pngError(const PngFailure& failure) {
    return decodeError(DecodeFailure::damaged, std::string(failure.call) + ": " + failure.message);
}

Result<Image> decodePng(const Bytes& data, const DecodeLimits& limits) {
    PngFailure failure;
    PngReader reader(&failure);
    if (!reader) {
        return std::unexpected(pngError(failure));
    }
    PngSource source{data.data(), data.size(), 0};
    if (!readPngInfo(reader.png(), reader.info(), &source, &failure)) {
        return std::unexpected(pngError(failure));
    }
    const png_uint_32 width = png_get_image_width(reader.png(), reader.info());
    const png_uint_32 height = png_get_image_height(reader.png(), reader.info());
    if (auto refusal = sizeRefusal(width, height, limits)) {
        return std::unexpected(*refusal);
    }
    // Refused before the pixels are allocated: a header alone cannot make us zero-fill an image.
    const std::uint64_t pixelBits = std::uint64_t{width} * height *
                                    png_get_channels(reader.png(), reader.info()) *
                                    png_get_bit_depth(reader.png(), reader.info());
    const std::uint64_t compressed = pngImageDataSize(data);
    if (pixelBits / 8 > compressed * maxDeflateRatio) {
        return std::unexpected(tooFewBytes(compressed, "PNG image data", width, height));
    }
    if (!requestRgba(reader.png(), reader.info(), &failure)) {
        return std::unexpected(pngError(failure));
    }
    Image image{static_cast<int>(width), static_cast<int>(height),
                std::vector<std::uint8_t>(std::size_t{width} * height * 4)};
    auto rows = rowPointers(image.rgba.data(), image.width, image.height);
    if (!readPngRows(reader.png(), rows.data(), &failure)) {
        return std::unexpected(pngError(failure));
    }
    return image;
}

// Stage: writes the whole file.
bool writePng(png_structp png, png_infop info, PngSink* sink, png_uint_32 width, png_uint_32 height,
              png_bytepp rows) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    png_set_write_fn(png, sink, pngWrite, pngFlush);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, nullptr);
    return true;
}

// ---------------------------------------------------------------------------------------------
// JPEG

struct JpegErrors {
    jpeg_error_mgr base; // first member: libjpeg hands back a pointer to it
    std::jmp_buf jump;
    const char* call;
    const char* refusal; // our own reason for stopping, when the library had none
};

JpegErrors* errorsOf(j_common_ptr info) {
    return reinterpret_cast<JpegErrors*>(info->err);
}

[[noreturn]] void jpegFail(j_common_ptr info) {
    std::longjmp(errorsOf(info)->jump, 1);
}

// libjpeg reports scan data that is cut off or ends early only as a warning and decodes zeros in
// its place, so a few header bytes would give a whole grey image: we refuse such data instead.
// Other warnings concern damage that the decoder has repaired.
void jpegMessage(j_common_ptr info, int level) {
    if (level < 0) {
        const int code = info->err->msg_code;
        if (code == JWRN_HIT_MARKER || code == JWRN_JPEG_EOF) {
            info->err->error_exit(info);
        }
        info->err->num_warnings++;
    }
}

[[noreturn]] void jpegRefuse(j_common_ptr info, const char* reason) {
    errorsOf(info)->refusal = reason;
    info->err->error_exit(info);
    std::abort(); // error_exit jumps away
}

// Counts the blocks that the scans decode, so that scans without end over a large image stop.
struct JpegProgress {
    jpeg_progress_mgr base; // first member: libjpeg hands back a pointer to it
    int scansCounted;
    std::uint64_t blockDecodes;
    std::uint64_t maxBlockDecodes;
};

void jpegProgress(j_common_ptr common) {
    auto* info = reinterpret_cast<j_decompress_ptr>(common); // only decoding installs a monitor
    auto* progress = reinterpret_cast<JpegProgress*>(info->progress);
    if (info->input_scan_number == progress->scansCounted) {
        return;
    }
    progress->scansCounted = info->input_scan_number;
    for (int i = 0; i < info->comps_in_scan; ++i) {
        const jpeg_component_info* component = info->cur_comp_info[i];
        progress->blockDecodes +=
            std::uint64_t{component->width_in_blocks} * component->height_in_blocks;
    }
    if (progress->scansCounted > maxJpegScans) {
        jpegRefuse(common, "image::decode: JPEG has more than 500 scans");
    }
    if (progress->blockDecodes > progress->maxBlockDecodes) {
        jpegRefuse(common, "image::decode: JPEG scans decode more than 512 blocks per byte");
    }
}

struct JpegSink {
    jpeg_destination_mgr base; // first member: libjpeg hands back a pointer to it
    Bytes* out;
    std::uint8_t* chunk;
    std::size_t chunkSize;
};

JpegSink* sinkOf(j_compress_ptr info) {
    return reinterpret_cast<JpegSink*>(info->dest);
}

bool appendChunk(JpegSink* sink, std::size_t count) {
    try {
        sink->out->insert(sink->out->end(), sink->chunk, sink->chunk + count);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void jpegFailOutOfMemory(j_compress_ptr info) {
    info->err->msg_code = JERR_OUT_OF_MEMORY;
    info->err->error_exit(reinterpret_cast<j_common_ptr>(info));
}

void jpegSinkInit(j_compress_ptr info) {
    JpegSink* sink = sinkOf(info);
    sink->base.next_output_byte = sink->chunk;
    sink->base.free_in_buffer = sink->chunkSize;
}

boolean jpegSinkFull(j_compress_ptr info) {
    JpegSink* sink = sinkOf(info);
    if (!appendChunk(sink, sink->chunkSize)) {
        jpegFailOutOfMemory(info);
    }
    jpegSinkInit(info);
    return TRUE;
}

void jpegSinkTerm(j_compress_ptr info) {
    JpegSink* sink = sinkOf(info);
    if (!appendChunk(sink, sink->chunkSize - sink->base.free_in_buffer)) {
        jpegFailOutOfMemory(info);
    }
}

// jpeg_destroy_* is safe on a zeroed or partly created object, so the owners destroy always.
class JpegDecompressor {
public:
    explicit JpegDecompressor(std::size_t dataSize) {
        info.err = jpeg_std_error(&errors.base);
        errors.base.error_exit = jpegFail;
        errors.base.emit_message = jpegMessage;
        progress.base.progress_monitor = jpegProgress;
        progress.maxBlockDecodes = dataSize * maxJpegBlockDecodesPerByte;
    }
    ~JpegDecompressor() { jpeg_destroy_decompress(&info); }
    JpegDecompressor(const JpegDecompressor&) = delete;
    JpegDecompressor& operator=(const JpegDecompressor&) = delete;

    jpeg_decompress_struct info{};
    JpegErrors errors{};
    JpegProgress progress{};
};

class JpegCompressor {
public:
    explicit JpegCompressor(Bytes* out) : chunk_(64 * 1024) {
        info.err = jpeg_std_error(&errors.base);
        errors.base.error_exit = jpegFail;
        errors.base.emit_message = jpegMessage;
        sink.base.init_destination = jpegSinkInit;
        sink.base.empty_output_buffer = jpegSinkFull;
        sink.base.term_destination = jpegSinkTerm;
        sink.out = out;
        sink.chunk = chunk_.data();
        sink.chunkSize = chunk_.size();
    }
    ~JpegCompressor() { jpeg_destroy_compress(&info); }
    JpegCompressor(const JpegCompressor&) = delete;
    JpegCompressor& operator=(const JpegCompressor&) = delete;

    jpeg_compress_struct info{};
    JpegErrors errors{};
    JpegSink sink{};

private:
    std::vector<std::uint8_t> chunk_;
};

// Stage: reads the header and picks the output colour space.
bool readJpegHeader(JpegDecompressor* decoder, const Bytes* data) {
    jpeg_decompress_struct* info = &decoder->info;
    if (setjmp(decoder->errors.jump)) {
        return false;
    }
    decoder->errors.call = "jpeg_create_decompress";
    jpeg_create_decompress(info);
    info->progress = &decoder->progress.base;
    jpeg_mem_src(info, data->data(), data->size());
    decoder->errors.call = "jpeg_read_header";
    // With an image required, anything but a complete header is an error exit.
    jpeg_read_header(info, TRUE);
    // libjpeg-turbo converts everything but four-channel images straight to RGBA; those we
    // convert ourselves after decoding.
    const bool fourChannel =
        info->jpeg_color_space == JCS_CMYK || info->jpeg_color_space == JCS_YCCK;
    info->out_color_space = fourChannel ? JCS_CMYK : JCS_EXT_RGBA;
    return true;
}

// Stage: sets up decoding; a progressive image is read in full here, before its pixels exist.
bool startJpeg(JpegDecompressor* decoder) {
    jpeg_decompress_struct* info = &decoder->info;
    if (setjmp(decoder->errors.jump)) {
        return false;
    }
    decoder->errors.call = "jpeg_start_decompress";
    jpeg_start_decompress(info);
    return true;
}

// Stage: decodes all scanlines into `pixels`, which holds image_width x image_height x 4 bytes.
bool readJpegScanlines(JpegDecompressor* decoder, std::uint8_t* pixels) {
    jpeg_decompress_struct* info = &decoder->info;
    if (setjmp(decoder->errors.jump)) {
        return false;
    }
    decoder->errors.call = "jpeg_read_scanlines";
    const std::size_t stride = std::size_t{info->output_width} * 4;
    while (info->output_scanline < info->output_height) {
        JSAMPROW row = pixels + info->output_scanline * stride;
        jpeg_read_scanlines(info, &row, 1);
    }
    decoder->errors.call = "jpeg_finish_decompress";
    jpeg_finish_decompress(info);
    return true;
}

ErrorPtr jpegError(JpegDecompressor& decoder) {
    if (decoder.errors.refusal != nullptr) {
        return decodeError(DecodeFailure::tooCostly, decoder.errors.refusal);
    }
    char message[JMSG_LENGTH_MAX] = {};
    decoder.errors.base.format_message(reinterpret_cast<j_common_ptr>(&decoder.info), message);
    return decodeError(DecodeFailure::damaged,
                       std::string(decoder.errors.call) + ": " + message + " (" +
                           std::to_string(decoder.errors.base.msg_code) + ")");
}

// Refused before anything is allocated for the pixels. Every block of every component costs at
// least one bit of Huffman-coded data, so the file's size bounds the image a header may declare.
// Arithmetic coding has no such bound and is hardly ever used, so it is not read.
std::optional<ErrorPtr> jpegRefusal(const jpeg_decompress_struct& info, std::size_t dataSize,
                                    const DecodeLimits& limits) {
    if (auto refusal = sizeRefusal(info.image_width, info.image_height, limits)) {
        return refusal;
    }
    if (info.arith_code) {
        return decodeError(DecodeFailure::unsupported,
                           "image::decode: arithmetic-coded JPEGs are not supported");
    }
    std::uint64_t blocks = 0;
    for (int c = 0; c < info.num_components; ++c) {
        blocks +=
            std::uint64_t{info.comp_info[c].width_in_blocks} * info.comp_info[c].height_in_blocks;
    }
    if (blocks > std::uint64_t{dataSize} * 8) {
        return tooFewBytes(dataSize, "JPEG", info.image_width, info.image_height);
    }
    return std::nullopt;
}

// Adobe writes CMYK inverted (0 = full ink), which is what every four-channel JPEG in practice
// carries; without the Adobe marker the values are taken as plain ink amounts.
void cmykToRgba(std::vector<std::uint8_t>& pixels, bool inverted) {
    for (std::size_t i = 0; i < pixels.size(); i += 4) {
        unsigned k = pixels[i + 3];
        if (!inverted) {
            k = 255 - k;
        }
        for (std::size_t c = 0; c < 3; ++c) {
            const unsigned ink = inverted ? pixels[i + c] : 255u - pixels[i + c];
            pixels[i + c] = static_cast<std::uint8_t>((ink * k + 127) / 255);
        }
        pixels[i + 3] = 255;
    }
}

Result<Image> decodeJpeg(const Bytes& data, const DecodeLimits& limits) {
    JpegDecompressor decoder(data.size());
    if (!readJpegHeader(&decoder, &data)) {
        return std::unexpected(jpegError(decoder));
    }
    if (auto refusal = jpegRefusal(decoder.info, data.size(), limits)) {
        return std::unexpected(*refusal);
    }
    if (!startJpeg(&decoder)) {
        return std::unexpected(jpegError(decoder));
    }
    const jpeg_decompress_struct& info = decoder.info;
    if (info.output_width != info.image_width || info.output_height != info.image_height ||
        info.output_components != 4) {
        fatalError("image::decode(): libjpeg delivers " +
                   sizeText(info.output_width, info.output_height) + " pixels with " +
                   std::to_string(info.output_components) + " components");
    }
    Image image{static_cast<int>(decoder.info.image_width),
                static_cast<int>(decoder.info.image_height),
                std::vector<std::uint8_t>(std::size_t{decoder.info.image_width} *
                                          decoder.info.image_height * 4)};
    if (!readJpegScanlines(&decoder, image.rgba.data())) {
        return std::unexpected(jpegError(decoder));
    }
    if (decoder.info.out_color_space == JCS_CMYK) {
        cmykToRgba(image.rgba, decoder.info.saw_Adobe_marker != 0);
    }
    return image;
}

// Stage: compresses the whole image.
bool writeJpeg(JpegCompressor* encoder, const Image* image, int quality) {
    jpeg_compress_struct* info = &encoder->info;
    if (setjmp(encoder->errors.jump)) {
        return false;
    }
    jpeg_create_compress(info);
    info->dest = &encoder->sink.base;
    info->image_width = static_cast<JDIMENSION>(image->width);
    info->image_height = static_cast<JDIMENSION>(image->height);
    info->input_components = 4;
    info->in_color_space = JCS_EXT_RGBA;
    jpeg_set_defaults(info);
    jpeg_set_quality(info, quality, TRUE);
    jpeg_start_compress(info, TRUE);
    const std::size_t stride = image->stride();
    while (info->next_scanline < info->image_height) {
        // libjpeg never writes through the row pointer on compression.
        JSAMPROW row = const_cast<std::uint8_t*>(image->rgba.data()) + info->next_scanline * stride;
        jpeg_write_scanlines(info, &row, 1);
    }
    jpeg_finish_compress(info);
    return true;
}

} // namespace

Image Image::filled(int width, int height, std::uint32_t fillRgba) {
    if (width < 0 || height < 0) {
        fatalError("Image::filled(): negative size " + std::to_string(width) + "x" +
                   std::to_string(height));
    }
    Image image{width, height, std::vector<std::uint8_t>(std::size_t(width) * height * 4)};
    const std::uint8_t pixel[4] = {
        static_cast<std::uint8_t>(fillRgba >> 24), static_cast<std::uint8_t>(fillRgba >> 16),
        static_cast<std::uint8_t>(fillRgba >> 8), static_cast<std::uint8_t>(fillRgba)};
    for (std::size_t i = 0; i < image.rgba.size(); i += 4) {
        std::memcpy(image.rgba.data() + i, pixel, 4);
    }
    return image;
}

Result<Image> decode(const Bytes& data, const DecodeLimits& limits) {
    if (hasPrefix(data, {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'})) {
        return decodePng(data, limits);
    }
    if (hasPrefix(data, {0xff, 0xd8, 0xff})) {
        return decodeJpeg(data, limits);
    }
    return std::unexpected(decodeError(DecodeFailure::unsupported,
                                       "image::decode: neither a PNG nor a JPEG signature"));
}

std::optional<Bytes> encodePng(const Image& image) {
    PngWriter writer;
    if (!consistent(image) || !writer) {
        return std::nullopt;
    }
    Bytes out;
    PngSink sink{&out};
    // libpng never writes through the row pointers when encoding.
    auto rows =
        rowPointers(const_cast<std::uint8_t*>(image.rgba.data()), image.width, image.height);
    if (!writePng(writer.png(), writer.info(), &sink, static_cast<png_uint_32>(image.width),
                  static_cast<png_uint_32>(image.height), rows.data())) {
        return std::nullopt;
    }
    return out;
}

std::optional<Bytes> encodeJpeg(const Image& image, int quality) {
    if (quality < 1 || quality > 100) {
        fatalError("image::encodeJpeg(): quality " + std::to_string(quality) +
                   " is outside 1...100");
    }
    if (!consistent(image) || image.width > JPEG_MAX_DIMENSION ||
        image.height > JPEG_MAX_DIMENSION) {
        return std::nullopt;
    }
    Bytes out;
    JpegCompressor encoder(&out);
    if (!writeJpeg(&encoder, &image, quality)) {
        return std::nullopt;
    }
    return out;
}

} // namespace pelkit::image
