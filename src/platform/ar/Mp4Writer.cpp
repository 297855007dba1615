// The ar module's one file that talks to FFmpeg: encoding drawn frames to MP4.
#include "Mp4Writer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <mutex>
#include <optional>
#include <system_error>

namespace pelkit::ar {
namespace {

ErrorPtr ffmpegError(std::string_view call, int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return Error::make("ffmpeg", code,
                       std::string(call) + ": " + text + " (" + std::to_string(code) + ")");
}

struct CodecContextDeleter {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameDeleter {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct ScalerDeleter {
    void operator()(SwsContext* s) const { sws_freeContext(s); }
};
// Closes the file it opened and frees the muxer; tolerates a context never opened.
struct FormatDeleter {
    void operator()(AVFormatContext* f) const {
        if (f->pb)
            avio_closep(&f->pb);
        avformat_free_context(f);
    }
};

constexpr AVRational kTimeBase{1, 1000};

} // namespace

struct Mp4Writer::State {
    std::filesystem::path file;
    std::filesystem::path partial;
    int sourceWidth = 0;
    int sourceHeight = 0;
    std::unique_ptr<AVFormatContext, FormatDeleter> format;
    std::unique_ptr<AVCodecContext, CodecContextDeleter> codec;
    std::unique_ptr<AVFrame, FrameDeleter> frame;
    std::unique_ptr<AVPacket, PacketDeleter> packet;
    std::unique_ptr<SwsContext, ScalerDeleter> scaler;
    AVStream* stream = nullptr;
    std::int64_t lastPts = -1;
    std::int64_t frameDuration = 33; // the last interval between pictures, in milliseconds
    std::optional<double> firstTime;
    std::uint64_t pictures = 0;
    bool finished = false;

    Result<void> drain();
};

namespace {

const AVCodec* chooseEncoder() {
    // Encoders print their settings and statistics; only errors belong on the terminal.
    static std::once_flag quiet;
    std::call_once(quiet, [] { av_log_set_level(AV_LOG_ERROR); });
    if (const AVCodec* h264 = avcodec_find_encoder_by_name("libx264"))
        return h264;
    return avcodec_find_encoder(AV_CODEC_ID_MPEG4);
}

Result<void> openEncoder(Mp4Writer::State& s, const AVCodec* encoder, int width, int height) {
    s.codec.reset(avcodec_alloc_context3(encoder));
    if (!s.codec)
        return std::unexpected(ffmpegError("avcodec_alloc_context3", AVERROR(ENOMEM)));
    auto* c = s.codec.get();
    c->width = width;
    c->height = height;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    c->time_base = kTimeBase;
    c->framerate = {30, 1};
    c->gop_size = 30;
    // Without reordered frames every picture comes out as it went in, the last one included.
    c->max_b_frames = 0;
    if (s.format->oformat->flags & AVFMT_GLOBALHEADER)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (encoder->id == AV_CODEC_ID_H264) {
        av_opt_set(c->priv_data, "preset", "veryfast", 0);
        av_opt_set(c->priv_data, "crf", "20", 0);
        // x264 prints a page of statistics at the end; errors are enough.
        av_opt_set(c->priv_data, "x264-params", "log=0", 0);
    } else {
        // A fixed quantiser: the encoder's default bit rate smears drawn lines.
        c->flags |= AV_CODEC_FLAG_QSCALE;
        c->global_quality = FF_QP2LAMBDA * 3;
    }
    if (int r = avcodec_open2(c, encoder, nullptr); r < 0)
        return std::unexpected(ffmpegError("avcodec_open2", r));
    s.stream = avformat_new_stream(s.format.get(), nullptr);
    if (!s.stream)
        return std::unexpected(ffmpegError("avformat_new_stream", AVERROR(ENOMEM)));
    s.stream->time_base = kTimeBase;
    if (int r = avcodec_parameters_from_context(s.stream->codecpar, c); r < 0)
        return std::unexpected(ffmpegError("avcodec_parameters_from_context", r));
    return {};
}

Result<void> openPictures(Mp4Writer::State& s) {
    auto* c = s.codec.get();
    s.frame.reset(av_frame_alloc());
    s.packet.reset(av_packet_alloc());
    if (!s.frame || !s.packet)
        return std::unexpected(ffmpegError("av_frame_alloc", AVERROR(ENOMEM)));
    s.frame->format = c->pix_fmt;
    s.frame->width = c->width;
    s.frame->height = c->height;
    if (int r = av_frame_get_buffer(s.frame.get(), 0); r < 0)
        return std::unexpected(ffmpegError("av_frame_get_buffer", r));
    s.scaler.reset(sws_getContext(s.sourceWidth, s.sourceHeight, AV_PIX_FMT_RGBA, c->width,
                                  c->height, c->pix_fmt, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!s.scaler)
        return std::unexpected(ffmpegError("sws_getContext", AVERROR(EINVAL)));
    return {};
}

} // namespace

Result<std::unique_ptr<Mp4Writer>> Mp4Writer::open(std::filesystem::path file, int width,
                                                   int height) {
    if (width < 2 || height < 2)
        return std::unexpected(Error::make("ffmpeg", AVERROR(EINVAL),
                                           "Mp4Writer: a picture needs at least 2x2 pixels"));
    auto s = std::make_unique<State>();
    s->file = file;
    s->partial = file.parent_path() / ("." + file.filename().string() + ".partial");
    s->sourceWidth = width;
    s->sourceHeight = height;
    AVFormatContext* format = nullptr;
    if (int r = avformat_alloc_output_context2(&format, nullptr, "mp4", s->partial.c_str()); r < 0)
        return std::unexpected(ffmpegError("avformat_alloc_output_context2", r));
    s->format.reset(format);
    const AVCodec* encoder = chooseEncoder();
    if (!encoder)
        return std::unexpected(ffmpegError("avcodec_find_encoder", AVERROR_ENCODER_NOT_FOUND));
    if (auto opened = openEncoder(*s, encoder, width & ~1, height & ~1); !opened)
        return std::unexpected(opened.error());
    if (auto opened = openPictures(*s); !opened)
        return std::unexpected(opened.error());
    if (int r = avio_open(&s->format->pb, s->partial.c_str(), AVIO_FLAG_WRITE); r < 0)
        return std::unexpected(ffmpegError("avio_open(" + s->partial.string() + ")", r));
    if (int r = avformat_write_header(s->format.get(), nullptr); r < 0)
        return std::unexpected(ffmpegError("avformat_write_header", r));
    return std::unique_ptr<Mp4Writer>(new Mp4Writer(std::move(s)));
}

Mp4Writer::Mp4Writer(std::unique_ptr<State> state) : state_(std::move(state)) {}

Mp4Writer::~Mp4Writer() {
    if (!state_->finished) {
        state_->format.reset();
        std::error_code ignored;
        std::filesystem::remove(state_->partial, ignored);
    }
}

const char* Mp4Writer::encoderName() const {
    return state_->codec->codec->name;
}

Result<void> Mp4Writer::State::drain() {
    for (;;) {
        int r = avcodec_receive_packet(codec.get(), packet.get());
        if (r == AVERROR(EAGAIN) || r == AVERROR_EOF)
            return {};
        if (r < 0)
            return std::unexpected(ffmpegError("avcodec_receive_packet", r));
        // A picture without a duration shows for no time at the end of the file, and players
        // drop it; let each last as long as the interval before it.
        if (packet->duration <= 0)
            packet->duration = frameDuration;
        av_packet_rescale_ts(packet.get(), codec->time_base, stream->time_base);
        packet->stream_index = stream->index;
        r = av_interleaved_write_frame(format.get(), packet.get());
        if (r < 0)
            return std::unexpected(ffmpegError("av_interleaved_write_frame", r));
    }
}

Result<void> Mp4Writer::write(const image::Image& picture, double time) {
    auto& s = *state_;
    if (s.finished || picture.width != s.sourceWidth || picture.height != s.sourceHeight)
        return std::unexpected(Error::make("ffmpeg", AVERROR(EINVAL),
                                           "Mp4Writer::write: the picture is not of the "
                                           "recording's size, or the recording has finished"));
    if (int r = av_frame_make_writable(s.frame.get()); r < 0)
        return std::unexpected(ffmpegError("av_frame_make_writable", r));
    const std::uint8_t* rows[] = {picture.rgba.data()};
    const int strides[] = {static_cast<int>(picture.stride())};
    sws_scale(s.scaler.get(), rows, strides, 0, picture.height, s.frame->data, s.frame->linesize);
    if (!s.firstTime)
        s.firstTime = time;
    auto pts = static_cast<std::int64_t>(std::llround((time - *s.firstTime) * 1000));
    pts = std::max(pts, s.lastPts + 1);
    if (s.lastPts >= 0)
        s.frameDuration = pts - s.lastPts;
    s.frame->pts = s.lastPts = pts;
    if (int r = avcodec_send_frame(s.codec.get(), s.frame.get()); r < 0)
        return std::unexpected(ffmpegError("avcodec_send_frame", r));
    ++s.pictures;
    return s.drain();
}

Result<std::uint64_t> Mp4Writer::finish() {
    auto& s = *state_;
    if (s.finished)
        return s.pictures;
    if (int r = avcodec_send_frame(s.codec.get(), nullptr); r < 0)
        return std::unexpected(ffmpegError("avcodec_send_frame", r));
    if (auto drained = s.drain(); !drained)
        return std::unexpected(drained.error());
    if (int r = av_write_trailer(s.format.get()); r < 0)
        return std::unexpected(ffmpegError("av_write_trailer", r));
    if (int r = avio_closep(&s.format->pb); r < 0)
        return std::unexpected(ffmpegError("avio_closep", r));
    std::error_code error;
    std::filesystem::rename(s.partial, s.file, error);
    if (error)
        return std::unexpected(Error::fromErrorCode("rename(" + s.file.string() + ")", error));
    s.finished = true;
    return s.pictures;
}

} // namespace pelkit::ar
