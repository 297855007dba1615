// Demuxing and decoding of one URL over FFmpeg. Used by one thread at a time.
#pragma once

#include "AudioOutput.h"

#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <variant>

struct AVFrame;

namespace pelkit::media {

struct FrameFree {
    void operator()(AVFrame* frame) const;
};
using FrameHandle = std::unique_ptr<AVFrame, FrameFree>;

/// A decoded picture, still in the decoder's format: it is converted only when it is shown, so a
/// picture skipped because it is late costs no conversion. Times in seconds from the start.
struct VideoFrame {
    double time = 0;
    double duration = 0;
    int width = 0;
    int height = 0;
    FrameHandle frame;
};

/// Decoded sound in the output format; the bytes stay valid until the next call to the decoder.
struct AudioChunk {
    double time = 0;
    std::span<const std::uint8_t> samples;
};

struct EndOfStream {};

using Decoded = std::variant<VideoFrame, AudioChunk, EndOfStream>;

/// How many threads FFmpeg decodes pictures with.
enum class DecoderThreads { automatic, one };

class Decoder {
public:
    /// Opens `url` ("file:///...", "http://...", "https://...") and its best picture and sound
    /// streams. Blocking I/O gives up soon after `cancelled` becomes true.
    [[nodiscard]] static Result<std::unique_ptr<Decoder>>
    open(const std::string& url, const std::atomic<bool>& cancelled,
         DecoderThreads threads = DecoderThreads::automatic);
    ~Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    bool hasVideo() const;
    bool hasAudio() const;
    /// The sound's own rate and channel count.
    AudioFormat sourceAudioFormat() const;
    /// Sound is decoded (into `format`) only once this is called; before, it is skipped.
    void setAudioOutput(AudioFormat format);

    /// The next decoded picture or piece of sound, in stream order, or the end. Damaged packets
    /// are skipped; a stream that ends before anything could be decoded is an error.
    [[nodiscard]] Result<Decoded> next();
    /// Goes back to the start of the streams.
    [[nodiscard]] Result<> rewind();
    /// Converts a picture to RGBA into `target`, which must have the picture's size.
    void convert(const VideoFrame& frame, image::Image& target);

    struct State;

private:
    explicit Decoder(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

} // namespace pelkit::media
