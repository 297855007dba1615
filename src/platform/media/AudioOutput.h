// The sound output of one item: an SDL audio device fed from a queue. Used by the item's thread
// only; the device's own thread drains the queue in real time.
#pragma once

#include <pelkit/foundation/Error.h>

#include <cstdint>
#include <memory>
#include <span>

namespace pelkit::media {

/// Interleaved 32-bit float samples.
struct AudioFormat {
    int sampleRate = 0;
    int channels = 0;

    double bytesPerSecond() const { return double(sampleRate) * channels * sizeof(float); }
};

class AudioOutput {
public:
    /// Opens the default output device, paused, for a format near `wanted`: the device may pick
    /// another rate or channel count, see `format()`.
    [[nodiscard]] static Result<std::unique_ptr<AudioOutput>> open(AudioFormat wanted);
    ~AudioOutput();
    AudioOutput(const AudioOutput&) = delete;
    AudioOutput& operator=(const AudioOutput&) = delete;

    AudioFormat format() const { return format_; }
    /// How much sound the device takes from the queue at a time.
    double periodSeconds() const { return period_; }

    [[nodiscard]] Result<> enqueue(std::span<const std::uint8_t> samples);
    /// How much queued sound the device has still to play.
    double queuedSeconds() const;
    void clear();
    void pause();
    void resume();

    /// Frees what SDL keeps for the calling thread (its error text); SDL frees it only for
    /// threads it started itself. Called by each item's thread on its way out.
    static void releaseThreadState();

private:
    AudioOutput(std::uint32_t device, AudioFormat format, double period)
        : device_(device), format_(format), period_(period) {}
    std::uint32_t device_;
    AudioFormat format_;
    double period_;
};

} // namespace pelkit::media
