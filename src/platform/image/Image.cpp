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
#include <cstring>
#include <new>
#include <string>

#include <jerror.h>
#include <jpeglib.h>
#include <png.h>

namespace pelkit::image {
namespace {

// Decoding refuses images larger than this, so that a few hostile header bytes cannot make us
// allocate gigabytes. 8192 x 8192 is far beyond any target or content image.
constexpr std::uint32_t maxDimension = 32768;
constexpr std::uint64_t maxPixels = std::uint64_t{1} << 26;

// A progressive JPEG can carry any number of scans, each one a full pass over the coefficients;
// real encoders write at most a few dozen.
constexpr int maxJpegScans = 500;

bool decodableSize(std::uint64_t width, std::uint64_t height) {
    return width > 0 && height > 0 && width <= maxDimension && height <= maxDimension &&
           width * height <= maxPixels;
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

[[noreturn]] void pngFail(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

// Warnings (bad ancillary chunks, odd profiles) do not stop decoding and go nowhere: diagnostics
// on standard output are reserved for the framework's own lines.
void pngWarn(png_structp, png_const_charp) {}

class PngReader {
public:
    PngReader() : png_(png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, pngFail, pngWarn)) {
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

// Stage: reads the header and asks libpng to deliver every colour type as 8-bit RGBA.
bool readPngHeader(png_structp png, png_infop info, PngSource* source, png_uint_32* width,
                   png_uint_32* height) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    png_set_read_fn(png, source, pngRead);
    png_set_user_limits(png, maxDimension, maxDimension);
    png_read_info(png, info);

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

    *width = png_get_image_width(png, info);
    *height = png_get_image_height(png, info);
    return png_get_rowbytes(png, info) == static_cast<std::size_t>(*width) * 4;
}

// Stage: decodes all rows, then reads up to the end chunk so that a cut-off file is refused.
bool readPngRows(png_structp png, png_bytepp rows) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    png_read_image(png, rows);
    png_read_end(png, nullptr);
    return true;
}

std::optional<Image> decodePng(const Bytes& data) {
    PngReader reader;
    if (!reader) {
        return std::nullopt;
    }
    PngSource source{data.data(), data.size(), 0};
    png_uint_32 width = 0;
    png_uint_32 height = 0;
    if (!readPngHeader(reader.png(), reader.info(), &source, &width, &height) ||
        !decodableSize(width, height)) {
        return std::nullopt;
    }
    Image image{static_cast<int>(width), static_cast<int>(height),
                std::vector<std::uint8_t>(std::size_t{width} * height * 4)};
    auto rows = rowPointers(image.rgba.data(), image.width, image.height);
    if (!readPngRows(reader.png(), rows.data())) {
        return std::nullopt;
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
    bool truncated;
};

JpegErrors* errorsOf(j_common_ptr info) {
    return reinterpret_cast<JpegErrors*>(info->err);
}

[[noreturn]] void jpegFail(j_common_ptr info) {
    std::longjmp(errorsOf(info)->jump, 1);
}

// libjpeg reports a cut-off stream only as a warning and fills the rest with grey; we refuse
// such an image instead. Other warnings concern damage that the decoder has repaired.
void jpegMessage(j_common_ptr info, int level) {
    if (level < 0) {
        if (info->err->msg_code == JWRN_JPEG_EOF) {
            errorsOf(info)->truncated = true;
        }
        info->err->num_warnings++;
    }
}

void jpegProgress(j_common_ptr info) {
    if (info->is_decompressor &&
        reinterpret_cast<j_decompress_ptr>(info)->input_scan_number > maxJpegScans) {
        info->err->msg_code = JERR_NOT_COMPILED; // any code: the message is never printed
        info->err->error_exit(info);
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
    JpegDecompressor() {
        info.err = jpeg_std_error(&errors.base);
        errors.base.error_exit = jpegFail;
        errors.base.emit_message = jpegMessage;
        progress.progress_monitor = jpegProgress;
    }
    ~JpegDecompressor() { jpeg_destroy_decompress(&info); }
    JpegDecompressor(const JpegDecompressor&) = delete;
    JpegDecompressor& operator=(const JpegDecompressor&) = delete;

    jpeg_decompress_struct info{};
    JpegErrors errors{};
    jpeg_progress_mgr progress{};
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
    jpeg_create_decompress(info);
    info->progress = &decoder->progress;
    jpeg_mem_src(info, data->data(), data->size());
    if (jpeg_read_header(info, TRUE) != JPEG_HEADER_OK) {
        return false;
    }
    // libjpeg-turbo converts everything but four-channel images straight to RGBA; those we
    // convert ourselves after decoding.
    const bool fourChannel =
        info->jpeg_color_space == JCS_CMYK || info->jpeg_color_space == JCS_YCCK;
    info->out_color_space = fourChannel ? JCS_CMYK : JCS_EXT_RGBA;
    return true;
}

// Stage: decodes all scanlines into `pixels`, which holds image_width x image_height x 4 bytes.
bool readJpegScanlines(JpegDecompressor* decoder, std::uint8_t* pixels) {
    jpeg_decompress_struct* info = &decoder->info;
    if (setjmp(decoder->errors.jump)) {
        return false;
    }
    jpeg_start_decompress(info);
    if (info->output_width != info->image_width || info->output_height != info->image_height ||
        info->output_components != 4) {
        return false;
    }
    const std::size_t stride = std::size_t{info->output_width} * 4;
    while (info->output_scanline < info->output_height) {
        JSAMPROW row = pixels + info->output_scanline * stride;
        jpeg_read_scanlines(info, &row, 1);
    }
    jpeg_finish_decompress(info);
    return !decoder->errors.truncated;
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

std::optional<Image> decodeJpeg(const Bytes& data) {
    JpegDecompressor decoder;
    if (!readJpegHeader(&decoder, &data) ||
        !decodableSize(decoder.info.image_width, decoder.info.image_height)) {
        return std::nullopt;
    }
    Image image{static_cast<int>(decoder.info.image_width),
                static_cast<int>(decoder.info.image_height),
                std::vector<std::uint8_t>(std::size_t{decoder.info.image_width} *
                                          decoder.info.image_height * 4)};
    if (!readJpegScanlines(&decoder, image.rgba.data())) {
        return std::nullopt;
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

std::optional<Image> decode(const Bytes& data) {
    if (hasPrefix(data, {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'})) {
        return decodePng(data);
    }
    if (hasPrefix(data, {0xff, 0xd8, 0xff})) {
        return decodeJpeg(data);
    }
    return std::nullopt;
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
