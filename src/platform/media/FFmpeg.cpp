// The one place that talks to FFmpeg: opening URLs, demuxing, decoding pictures and sound, and
// converting them to RGBA and to the audio output's samples.
#include "Decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace pelkit::media {

void FrameFree::operator()(AVFrame* frame) const {
    av_frame_free(&frame);
}

namespace {

// Demuxers for the containers content comes in. Naming them keeps FFmpeg from probing arbitrary
// bytes as one of its many raw or text formats, and from following playlists to other protocols.
constexpr const char* kFormats =
    "mov,mp4,m4a,3gp,3g2,mj2,matroska,webm,mp3,aac,wav,ogg,flac,mpegts,hls,avi";
// Longest wait for the network before a read fails, in microseconds (as HTTP requests elsewhere).
constexpr const char* kReadTimeout = "60000000";

struct FormatClose {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct CodecFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct SwsFree {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
struct SwrFree {
    void operator()(SwrContext* context) const { swr_free(&context); }
};
struct DictionaryFree {
    void operator()(AVDictionary* dictionary) const { av_dict_free(&dictionary); }
};
using FormatHandle = std::unique_ptr<AVFormatContext, FormatClose>;
using CodecHandle = std::unique_ptr<AVCodecContext, CodecFree>;
using PacketHandle = std::unique_ptr<AVPacket, PacketFree>;
using SwsHandle = std::unique_ptr<SwsContext, SwsFree>;
using SwrHandle = std::unique_ptr<SwrContext, SwrFree>;

// The last error FFmpeg logged on this thread, as "component: message". FFmpeg's own error codes
// say what went wrong; a plain system code (EIO from a TLS handshake) does not, and the log line
// of the component that gave up does.
thread_local std::string loggedError;

bool verboseLogging() {
    static const bool verbose = std::getenv("PELKIT_MEDIA_DEBUG") != nullptr;
    return verbose;
}

void logged(void* context, int level, const char* format, va_list arguments) {
    if (verboseLogging()) {
        va_list copy;
        va_copy(copy, arguments);
        av_log_default_callback(context, level, format, copy);
        va_end(copy);
    }
    if (level > AV_LOG_ERROR || !context)
        return;
    char message[512];
    std::vsnprintf(message, sizeof message, format, arguments);
    const AVClass* type = *static_cast<const AVClass* const*>(context);
    loggedError = std::string(type->item_name(context)) + ": " + message;
    while (!loggedError.empty() && (loggedError.back() == '\n' || loggedError.back() == '.'))
        loggedError.pop_back();
}

ErrorPtr ffmpegError(std::string_view call, std::string_view url, int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    std::string description = std::string(call) + "(" + std::string(url) + "): " + text + " (" +
                              std::to_string(code) + ")";
    const bool systemCode = code < 0 && code > -4096;
    if (systemCode && !loggedError.empty())
        description += " (" + loggedError + ")";
    loggedError.clear();
    return Error::make("ffmpeg", code, description);
}

ErrorPtr mediaError(std::string_view url, std::string_view reason) {
    return Error::make("media", 0, "PlayerItem(" + std::string(url) + "): " + std::string(reason));
}

// FFmpeg logs to standard error on its own; our errors travel as values instead, and take
// FFmpeg's lines along where they say more. PELKIT_MEDIA_DEBUG=1 shows everything FFmpeg says.
void captureLogging() {
    static std::once_flag once;
    std::call_once(once, [] {
        av_log_set_level(verboseLogging() ? AV_LOG_VERBOSE : AV_LOG_ERROR);
        av_log_set_callback(logged);
    });
}

int interruptRequested(void* cancelled) {
    return static_cast<const std::atomic<bool>*>(cancelled)->load(std::memory_order_relaxed) ? 1
                                                                                             : 0;
}

bool hasScheme(std::string_view url, std::string_view scheme) {
    return url.size() > scheme.size() &&
           std::equal(scheme.begin(), scheme.end(), url.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) == b;
           });
}

std::optional<std::string> percentDecoded(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
            return std::nullopt;
        out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
        i += 2;
    }
    return out;
}

/// Where FFmpeg should read `url` from, and the options that keep it to that protocol.
Result<std::pair<std::string, AVDictionary*>> location(const std::string& url) {
    AVDictionary* options = nullptr;
    av_dict_set(&options, "format_whitelist", kFormats, 0);
    av_dict_set(&options, "rw_timeout", kReadTimeout, 0);
    std::string source;
    if (hasScheme(url, "file://")) {
        // FFmpeg's file protocol takes a plain path and knows no escapes.
        std::string_view rest = std::string_view(url).substr(7);
        if (hasScheme(rest, "localhost/"))
            rest.remove_prefix(9);
        auto path = percentDecoded(rest);
        if (!path || !path->starts_with('/')) {
            av_dict_free(&options);
            return std::unexpected(mediaError(url, "not a local absolute file URL"));
        }
        source = "file:" + *path;
        av_dict_set(&options, "protocol_whitelist", "file", 0);
    } else if (hasScheme(url, "http://") || hasScheme(url, "https://")) {
        source = url;
        av_dict_set(&options, "protocol_whitelist", "http,https,tcp,tls", 0);
        av_dict_set(&options, "tls_verify", "1", 0);
    } else {
        av_dict_free(&options);
        return std::unexpected(mediaError(url, "unsupported URL scheme"));
    }
    return std::pair{std::move(source), options};
}

struct StreamDecoder {
    int index = -1;
    AVStream* stream = nullptr;
    CodecHandle codec;
    bool drained = false;
    double nextTime = 0; // where the next frame starts if it carries no time stamp

    explicit operator bool() const { return index >= 0; }
    /// The frame's start in seconds from the stream's start, and the end of the frame after it.
    double start(const AVFrame& frame, double duration) {
        const std::int64_t stamp = frame.best_effort_timestamp;
        const std::int64_t origin = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
        const double time =
            stamp == AV_NOPTS_VALUE ? nextTime : double(stamp - origin) * av_q2d(stream->time_base);
        nextTime = time + duration;
        return time;
    }
};

Result<StreamDecoder> openStream(AVFormatContext* format, AVMediaType type, int related,
                                 DecoderThreads threads, const std::string& url) {
    const AVCodec* codec = nullptr;
    const int index = av_find_best_stream(format, type, -1, related, &codec, 0);
    if (index < 0)
        return StreamDecoder{};
    StreamDecoder decoder;
    decoder.index = index;
    decoder.stream = format->streams[index];
    // Cover art of a sound file comes as a one-picture video stream: it is no video to play.
    if (decoder.stream->disposition & AV_DISPOSITION_ATTACHED_PIC)
        return StreamDecoder{};
    decoder.codec.reset(avcodec_alloc_context3(codec));
    if (!decoder.codec)
        return std::unexpected(ffmpegError("avcodec_alloc_context3", url, AVERROR(ENOMEM)));
    if (int r = avcodec_parameters_to_context(decoder.codec.get(), decoder.stream->codecpar); r < 0)
        return std::unexpected(ffmpegError("avcodec_parameters_to_context", url, r));
    decoder.codec->pkt_timebase = decoder.stream->time_base;
    decoder.codec->thread_count = threads == DecoderThreads::one ? 1 : 0;
    if (int r = avcodec_open2(decoder.codec.get(), codec, nullptr); r < 0)
        return std::unexpected(ffmpegError("avcodec_open2", url, r));
    decoder.stream->discard = AVDISCARD_DEFAULT;
    return decoder;
}

} // namespace

struct Decoder::State {
    std::string url;
    FormatHandle format;
    StreamDecoder video;
    StreamDecoder audio;
    double frameDuration = 0.04;
    PacketHandle packet{av_packet_alloc()};
    FrameHandle audioFrame{av_frame_alloc()};
    bool endOfInput = false;
    bool decodedAny = false;

    std::optional<AudioFormat> audioOutput;
    SwrHandle resampler;
    std::vector<std::uint8_t> samples;

    SwsHandle scaler;
    int scalerColorspace = -1;
    int scalerRange = -1;

    Result<std::optional<Decoded>> receiveVideo();
    Result<std::optional<Decoded>> receiveAudio();
    Result<AudioChunk> resample(const AVFrame& frame);
    Result<> readPacket();
};

Result<std::unique_ptr<Decoder>>
Decoder::open(const std::string& url, const std::atomic<bool>& cancelled, DecoderThreads threads) {
    captureLogging();
    loggedError.clear();
    auto where = location(url);
    if (!where)
        return std::unexpected(where.error());
    std::unique_ptr<AVDictionary, DictionaryFree> options(where->second);
    AVFormatContext* raw = avformat_alloc_context();
    if (!raw)
        return std::unexpected(ffmpegError("avformat_alloc_context", url, AVERROR(ENOMEM)));
    raw->interrupt_callback = {interruptRequested, const_cast<std::atomic<bool>*>(&cancelled)};
    AVDictionary* unused = options.release();
    // On failure avformat_open_input frees the context itself.
    const int opened = avformat_open_input(&raw, where->first.c_str(), nullptr, &unused);
    options.reset(unused);
    if (opened < 0)
        return std::unexpected(ffmpegError("avformat_open_input", url, opened));
    auto state = std::make_unique<State>();
    state->url = url;
    state->format.reset(raw);
    if (int r = avformat_find_stream_info(raw, nullptr); r < 0)
        return std::unexpected(ffmpegError("avformat_find_stream_info", url, r));
    for (unsigned i = 0; i < raw->nb_streams; ++i)
        raw->streams[i]->discard = AVDISCARD_ALL;
    auto video = openStream(raw, AVMEDIA_TYPE_VIDEO, -1, threads, url);
    if (!video)
        return std::unexpected(video.error());
    auto audio = openStream(raw, AVMEDIA_TYPE_AUDIO, video->index, threads, url);
    if (!audio)
        return std::unexpected(audio.error());
    if (!*video && !*audio)
        return std::unexpected(ffmpegError("av_find_best_stream", url, AVERROR_STREAM_NOT_FOUND));
    state->video = std::move(*video);
    state->audio = std::move(*audio);
    if (state->video) {
        const AVRational rate = av_guess_frame_rate(raw, state->video.stream, nullptr);
        if (rate.num > 0 && rate.den > 0)
            state->frameDuration = av_q2d(av_inv_q(rate));
    }
    return std::unique_ptr<Decoder>(new Decoder(std::move(state)));
}

Decoder::Decoder(std::unique_ptr<State> state) : state_(std::move(state)) {}
Decoder::~Decoder() = default;

bool Decoder::hasVideo() const {
    return bool(state_->video);
}

bool Decoder::hasAudio() const {
    return bool(state_->audio);
}

AudioFormat Decoder::sourceAudioFormat() const {
    if (!state_->audio)
        return {};
    const AVCodecContext& codec = *state_->audio.codec;
    return {codec.sample_rate, codec.ch_layout.nb_channels};
}

void Decoder::setAudioOutput(AudioFormat format) {
    state_->audioOutput = format;
    state_->resampler.reset();
}

Result<Decoded> Decoder::next() {
    State& s = *state_;
    for (;;) {
        if (auto picture = s.receiveVideo(); !picture || *picture)
            return picture ? Result<Decoded>(std::move(**picture))
                           : std::unexpected(picture.error());
        if (auto sound = s.receiveAudio(); !sound || *sound)
            return sound ? Result<Decoded>(std::move(**sound)) : std::unexpected(sound.error());
        if (s.endOfInput && (!s.video || s.video.drained) && (!s.audio || s.audio.drained)) {
            if (!s.decodedAny)
                return std::unexpected(mediaError(s.url, "no frame could be decoded"));
            return EndOfStream{};
        }
        if (auto read = s.readPacket(); !read)
            return std::unexpected(read.error());
    }
}

Result<std::optional<Decoded>> Decoder::State::receiveVideo() {
    if (!video || video.drained)
        return std::nullopt;
    FrameHandle frame(av_frame_alloc());
    const int r = avcodec_receive_frame(video.codec.get(), frame.get());
    if (r == AVERROR(EAGAIN))
        return std::nullopt;
    if (r == AVERROR_EOF) {
        video.drained = true;
        return std::nullopt;
    }
    if (r < 0)
        return std::unexpected(ffmpegError("avcodec_receive_frame", url, r));
    decodedAny = true;
    VideoFrame picture;
    picture.time = video.start(*frame, frameDuration);
    picture.duration = frameDuration;
    picture.width = frame->width;
    picture.height = frame->height;
    picture.frame = std::move(frame);
    return std::optional<Decoded>(std::move(picture));
}

Result<std::optional<Decoded>> Decoder::State::receiveAudio() {
    if (!audio || audio.drained || !audioOutput)
        return std::nullopt;
    av_frame_unref(audioFrame.get());
    const int r = avcodec_receive_frame(audio.codec.get(), audioFrame.get());
    if (r == AVERROR(EAGAIN))
        return std::nullopt;
    if (r == AVERROR_EOF) {
        audio.drained = true;
        return std::nullopt;
    }
    if (r < 0)
        return std::unexpected(ffmpegError("avcodec_receive_frame", url, r));
    decodedAny = true;
    auto chunk = resample(*audioFrame);
    if (!chunk)
        return std::unexpected(chunk.error());
    return std::optional<Decoded>(*chunk);
}

Result<AudioChunk> Decoder::State::resample(const AVFrame& frame) {
    const AudioFormat out = *audioOutput;
    if (!resampler) {
        AVChannelLayout layout;
        av_channel_layout_default(&layout, out.channels);
        SwrContext* raw = nullptr;
        int r = swr_alloc_set_opts2(&raw, &layout, AV_SAMPLE_FMT_FLT, out.sampleRate,
                                    // FFmpeg 5 declares the layouts non-const; it reads them.
                                    const_cast<AVChannelLayout*>(&frame.ch_layout),
                                    AVSampleFormat(frame.format), frame.sample_rate, 0, nullptr);
        av_channel_layout_uninit(&layout);
        resampler.reset(raw);
        if (r >= 0)
            r = swr_init(raw);
        if (r < 0)
            return std::unexpected(ffmpegError("swr_init", url, r));
    }
    const int capacity = swr_get_out_samples(resampler.get(), frame.nb_samples);
    samples.resize(std::size_t(std::max(capacity, 0)) * out.channels * sizeof(float));
    std::uint8_t* target = samples.data();
    const int converted =
        swr_convert(resampler.get(), &target, capacity,
                    const_cast<const std::uint8_t**>(frame.extended_data), frame.nb_samples);
    if (converted < 0)
        return std::unexpected(ffmpegError("swr_convert", url, converted));
    AudioChunk chunk;
    chunk.time = audio.start(frame, double(frame.nb_samples) / std::max(frame.sample_rate, 1));
    chunk.samples =
        std::span(samples.data(), std::size_t(converted) * out.channels * sizeof(float));
    return chunk;
}

Result<> Decoder::State::readPacket() {
    const int r = av_read_frame(format.get(), packet.get());
    if (r == AVERROR_EOF) {
        // Flush both decoders: they hand out the pictures they still hold, then report the end.
        endOfInput = true;
        if (video)
            avcodec_send_packet(video.codec.get(), nullptr);
        if (audio && audioOutput)
            avcodec_send_packet(audio.codec.get(), nullptr);
        else
            audio.drained = true;
        return {};
    }
    if (r < 0)
        return std::unexpected(ffmpegError("av_read_frame", url, r));
    StreamDecoder* target = packet->stream_index == video.index   ? &video
                            : packet->stream_index == audio.index ? &audio
                                                                  : nullptr;
    if (target == &audio && !audioOutput)
        target = nullptr;
    const int sent = target ? avcodec_send_packet(target->codec.get(), packet.get()) : 0;
    av_packet_unref(packet.get());
    // A damaged packet costs its own pictures only; the decoder recovers at the next key frame.
    if (sent < 0 && sent != AVERROR_INVALIDDATA)
        return std::unexpected(ffmpegError("avcodec_send_packet", url, sent));
    return {};
}

Result<> Decoder::rewind() {
    State& s = *state_;
    const std::int64_t start = s.format->start_time == AV_NOPTS_VALUE ? 0 : s.format->start_time;
    if (int r = av_seek_frame(s.format.get(), -1, start, AVSEEK_FLAG_BACKWARD); r < 0)
        return std::unexpected(ffmpegError("av_seek_frame", s.url, r));
    for (StreamDecoder* stream : {&s.video, &s.audio}) {
        if (*stream) {
            avcodec_flush_buffers(stream->codec.get());
            stream->drained = false;
            stream->nextTime = 0;
        }
    }
    s.endOfInput = false;
    s.resampler.reset(); // drop the sound it still holds from before the seek
    return {};
}

void Decoder::convert(const VideoFrame& picture, image::Image& target) {
    State& s = *state_;
    const AVFrame& frame = *picture.frame;
    SwsContext* previous = s.scaler.release(); // freed by sws_getCachedContext if replaced
    SwsContext* scaler = sws_getCachedContext(
        previous, frame.width, frame.height, AVPixelFormat(frame.format), frame.width, frame.height,
        AV_PIX_FMT_RGBA, SWS_BILINEAR, nullptr, nullptr, nullptr);
    const bool rebuilt = scaler != previous;
    s.scaler.reset(scaler);
    if (!scaler)
        return;
    // The YUV matrix and range come with each picture; telling the scaler costs a table rebuild,
    // so only when they change.
    if (rebuilt || frame.colorspace != s.scalerColorspace || frame.color_range != s.scalerRange) {
        const int space =
            frame.colorspace == AVCOL_SPC_UNSPECIFIED ? SWS_CS_DEFAULT : int(frame.colorspace);
        sws_setColorspaceDetails(scaler, sws_getCoefficients(space),
                                 frame.color_range == AVCOL_RANGE_JPEG,
                                 sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
        s.scalerColorspace = frame.colorspace;
        s.scalerRange = frame.color_range;
    }
    std::uint8_t* planes[4] = {target.rgba.data(), nullptr, nullptr, nullptr};
    const int strides[4] = {int(target.stride()), 0, 0, 0};
    sws_scale(scaler, frame.data, frame.linesize, 0, frame.height, planes, strides);
}

} // namespace pelkit::media
