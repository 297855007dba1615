// An item's thread: decoding paced by the playback clock, pictures published to the renderer,
// sound queued to the audio output.
#include "AudioOutput.h"
#include "Decoder.h"
#include "FramePool.h"
#include "ItemCore.h"

#include <algorithm>
#include <cmath>
#include <deque>

namespace pelkit::media {
namespace {

using Steady = std::chrono::steady_clock;

constexpr double kAudioLead = 0.3;       // seconds of sound queued ahead of the device
constexpr double kMaxLead = 2.0;         // never decode further ahead, whatever is missing
constexpr std::size_t kPictureLead = 3;  // decoded pictures kept ahead of the clock
constexpr std::size_t kMaxPictures = 16; // bound when sound is ahead and pictures are dense
// Longest sleep while playing: the sound queue is topped up well before it runs dry.
constexpr double kLongestSleep = 0.05;
constexpr double kShortestSleep = 0.002;
// How far the pictures may drift from the sound before they are moved to it: sound more than
// about 45 ms late against the picture is noticed.
constexpr double kSyncTolerance = 0.04;

template <class... Ts> struct Overloaded : Ts... { using Ts::operator()...; };

/// Media time that advances with the steady clock while running.
class SteadyClock {
public:
    double now() const {
        return running_ ? base_ + std::chrono::duration<double>(Steady::now() - since_).count()
                        : base_;
    }
    void set(double position) {
        base_ = position;
        since_ = Steady::now();
    }
    void start() {
        if (!running_)
            since_ = Steady::now();
        running_ = true;
    }
    void stop() {
        base_ = now();
        running_ = false;
    }

private:
    double base_ = 0;
    Steady::time_point since_ = Steady::now();
    bool running_ = false;
};

class Playback {
public:
    explicit Playback(PlayerItem::Core& core) : core_(core), pool_(FramePool::create()) {}
    /// Opens the item, then follows its commands until it is cancelled or fails.
    void run();

private:
    Result<> follow();
    Result<> apply(const ItemCommands& wanted);
    void finish();
    Result<> open();
    Result<> preroll();
    Result<> rewind();
    Result<> fill();
    void take(Decoded decoded);
    bool wantsMore() const;
    void setPlaying(bool playing);
    double now();
    void present(double now);
    void show(const VideoFrame& picture);
    bool atEnd(double now) const;
    Steady::time_point nextWake(double now) const;

    PlayerItem::Core& core_;
    std::shared_ptr<FramePool> pool_;
    std::unique_ptr<Decoder> decoder_;
    std::unique_ptr<AudioOutput> audio_;
    AudioFormat audioFormat_;
    SteadyClock steady_;
    std::deque<VideoFrame> pictures_; // decoded, not yet shown, in time order
    ItemCommands applied_;            // what the thread has done of its commands
    bool playing_ = false;
    bool endOfStream_ = false;
    bool heardSound_ = false;
    double audioEnd_ = 0;        // media time at the end of the last sound decoded
    double mediaEnd_ = 0;        // media time at the end of everything decoded
    double lastQueued_ = -1;     // the sound queue's length when last seen
    Steady::time_point takenAt_; // when the device last took from the queue
};

void Playback::run() {
    Result<> outcome = open();
    if (outcome)
        outcome = preroll();
    if (outcome) {
        core_.status = Status::readyToPlay;
        // Rewinds asked for while opening are moot; a play is still to be done.
        applied_ = {false, core_.commands().seeks};
        outcome = follow();
    }
    if (!outcome && !core_.cancelled)
        core_.fail(outcome.error());
}

Result<> Playback::follow() {
    while (!core_.cancelled) {
        if (auto applied = apply(core_.commands()); !applied)
            return applied;
        std::optional<Steady::time_point> wake;
        if (playing_) {
            if (auto filled = fill(); !filled)
                return filled;
            const double position = now();
            present(position);
            if (atEnd(position)) {
                finish();
                continue;
            }
            wake = nextWake(position);
        }
        core_.waitForChange(applied_, wake);
    }
    return {};
}

Result<> Playback::apply(const ItemCommands& wanted) {
    if (wanted.seeks != applied_.seeks) {
        applied_.seeks = wanted.seeks;
        if (auto rewound = rewind(); !rewound)
            return rewound;
    }
    if (wanted.playing != applied_.playing) {
        applied_.playing = wanted.playing;
        setPlaying(wanted.playing);
    }
    return {};
}

void Playback::finish() {
    setPlaying(false);
    applied_.playing = false;
    core_.reachEnd(); // leaves the item's command at "paused" unless an observer plays again
}

Result<> Playback::open() {
    auto decoder = Decoder::open(core_.url, core_.cancelled);
    if (!decoder)
        return std::unexpected(decoder.error());
    decoder_ = std::move(*decoder);
    if (decoder_->hasAudio()) {
        audioFormat_ = decoder_->sourceAudioFormat();
        // Without an output device the sound is still decoded, for its timing, and dropped.
        if (auto output = AudioOutput::open(audioFormat_)) {
            audio_ = std::move(*output);
            audioFormat_ = audio_->format();
        }
        decoder_->setAudioOutput(audioFormat_);
    }
    return {};
}

// Decodes up to the first picture (or the first sound, when there is no picture) and shows it,
// so that a paused item at its start shows its first frame.
Result<> Playback::preroll() {
    while (!endOfStream_ && (decoder_->hasVideo() ? pictures_.empty() : !heardSound_)) {
        auto decoded = decoder_->next();
        if (!decoded)
            return std::unexpected(decoded.error());
        take(std::move(*decoded));
    }
    if (!pictures_.empty()) {
        show(pictures_.front());
        pictures_.pop_front();
    }
    return {};
}

Result<> Playback::rewind() {
    if (auto rewound = decoder_->rewind(); !rewound)
        return rewound;
    pictures_.clear();
    endOfStream_ = false;
    heardSound_ = false;
    audioEnd_ = 0;
    mediaEnd_ = 0;
    if (audio_)
        audio_->clear();
    lastQueued_ = -1;
    steady_.set(0);
    return preroll();
}

Result<> Playback::fill() {
    while (!endOfStream_ && wantsMore()) {
        auto decoded = decoder_->next();
        if (!decoded)
            return std::unexpected(decoded.error());
        take(std::move(*decoded));
    }
    return {};
}

void Playback::take(Decoded decoded) {
    std::visit(Overloaded{
                   [this](VideoFrame& picture) {
                       mediaEnd_ = std::max(mediaEnd_, picture.time + picture.duration);
                       pictures_.push_back(std::move(picture));
                   },
                   [this](AudioChunk& sound) {
                       heardSound_ = true;
                       audioEnd_ =
                           sound.time + sound.samples.size() / audioFormat_.bytesPerSecond();
                       mediaEnd_ = std::max(mediaEnd_, audioEnd_);
                       // A device that stops taking sound leaves the rest of the item silent,
                       // on the steady clock.
                       if (audio_ && !audio_->enqueue(sound.samples))
                           audio_.reset();
                   },
                   [this](EndOfStream&) { endOfStream_ = true; },
               },
               decoded);
}

bool Playback::wantsMore() const {
    const double soundLead = audio_ ? audio_->queuedSeconds() : audioEnd_ - steady_.now();
    if (pictures_.size() >= kMaxPictures || soundLead >= kMaxLead)
        return false;
    return (decoder_->hasVideo() && pictures_.size() < kPictureLead) ||
           (decoder_->hasAudio() && soundLead < kAudioLead);
}

void Playback::setPlaying(bool playing) {
    playing_ = playing;
    if (playing) {
        steady_.start();
        if (audio_)
            audio_->resume();
    } else {
        steady_.stop();
        if (audio_)
            audio_->pause();
    }
}

// While sound plays, the clock follows the sound's position: the device takes a period from the
// queue and plays it over the period's length, so the position is a period behind the queue's
// head at a take and runs on until the next. Takes come irregularly (a loaded machine delays
// the device's thread), so the steady clock keeps the pace and is moved to the sound only when
// the two drift apart by more than lip sync tolerates. Without sound to play (none, a gap, after
// its end, or paused), the steady clock carries on alone.
double Playback::now() {
    if (audio_ && playing_) {
        if (const double queued = audio_->queuedSeconds(); queued > 0) {
            const auto time = Steady::now();
            if (queued != lastQueued_) {
                lastQueued_ = queued;
                takenAt_ = time;
            }
            const double period = audio_->periodSeconds();
            const double sinceTake =
                std::min(std::chrono::duration<double>(time - takenAt_).count(), period);
            const double sound = audioEnd_ - queued - period + sinceTake;
            if (std::abs(sound - steady_.now()) > kSyncTolerance)
                steady_.set(sound);
        }
    }
    return steady_.now();
}

void Playback::present(double position) {
    // Late pictures are skipped unconverted; the last one due is shown.
    while (pictures_.size() >= 2 && pictures_[1].time <= position)
        pictures_.pop_front();
    if (!pictures_.empty() && pictures_.front().time <= position) {
        show(pictures_.front());
        pictures_.pop_front();
    }
}

void Playback::show(const VideoFrame& picture) {
    auto buffer = pool_->take(picture.width, picture.height);
    decoder_->convert(picture, *buffer);
    core_.frame.store(pool_->share(std::move(buffer)));
}

bool Playback::atEnd(double position) const {
    return endOfStream_ && pictures_.empty() && position >= mediaEnd_ &&
           (!audio_ || audio_->queuedSeconds() <= 0);
}

Steady::time_point Playback::nextWake(double position) const {
    double wait = kLongestSleep;
    if (!pictures_.empty())
        wait = std::min(wait, pictures_.front().time - position);
    else if (endOfStream_)
        wait = std::min(wait, mediaEnd_ - position);
    wait = std::max(wait, kShortestSleep);
    return Steady::now() +
           std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(wait));
}

} // namespace

void runItem(PlayerItem::Core& core) {
    Playback(core).run();
    AudioOutput::releaseThreadState();
}

} // namespace pelkit::media
