// The one place that talks to SDL: its audio subsystem, the items' output devices and the
// process's audio session.
#include "AudioOutput.h"

#include <pelkit/media/AudioSession.h>

#include <SDL2/SDL.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace pelkit::media {
namespace {

// Samples per device period: about 20 ms at 48 kHz, which is also how finely the audio clock
// advances.
constexpr Uint16 kPeriodSamples = 1024;

// SDL counts starts and stops of its subsystems but does not lock them; opening and closing
// devices shares that bookkeeping. Never destroyed, so a device closed during exit still finds it.
std::mutex& sdlMutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
}

ErrorPtr sdlError(std::string_view call) {
    return Error::make("SDL", -1, std::string(call) + ": " + SDL_GetError());
}

/// One start of SDL's audio subsystem, stopped again with the owner. Locks are the caller's.
class AudioSubsystem {
public:
    static Result<AudioSubsystem> start() {
        if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0)
            return std::unexpected(sdlError("SDL_InitSubSystem(audio)"));
        return AudioSubsystem();
    }
    AudioSubsystem(AudioSubsystem&& other) noexcept
        : started_(std::exchange(other.started_, false)) {}
    AudioSubsystem& operator=(AudioSubsystem&& other) noexcept {
        std::swap(started_, other.started_);
        return *this;
    }
    ~AudioSubsystem() {
        if (started_)
            SDL_QuitSubSystem(SDL_INIT_AUDIO);
    }
    /// Leaves stopping the subsystem to whoever took over this start.
    void handOver() { started_ = false; }

private:
    AudioSubsystem() = default;
    bool started_ = true;
};

struct OpenDevice {
    SDL_AudioDeviceID id = 0;
    AudioFormat format;
    double period = 0;
};

/// Opens the default device for interleaved float samples, near `wanted`. Locks are the caller's.
Result<OpenDevice> openDevice(AudioFormat wanted) {
    SDL_AudioSpec desired{};
    desired.freq = wanted.sampleRate > 0 ? wanted.sampleRate : 48000;
    desired.format = AUDIO_F32SYS;
    desired.channels = Uint8(std::clamp(wanted.channels, 1, 2));
    desired.samples = kPeriodSamples;
    SDL_AudioSpec obtained{};
    const SDL_AudioDeviceID device =
        SDL_OpenAudioDevice(nullptr, 0, &desired, &obtained,
                            SDL_AUDIO_ALLOW_FREQUENCY_CHANGE | SDL_AUDIO_ALLOW_CHANNELS_CHANGE);
    if (device == 0)
        return std::unexpected(sdlError("SDL_OpenAudioDevice"));
    return OpenDevice{device,
                      {obtained.freq, obtained.channels},
                      double(obtained.samples) / std::max(obtained.freq, 1)};
}

// Output devices open now. Some drivers (SDL's dummy driver among them) open one output at a
// time, so while one is open, probing for another would fail although sound works.
int openOutputs = 0;

} // namespace

// Each open device holds one start of the subsystem, so the subsystem stays up while any
// device is open, whatever the audio session does.
Result<std::unique_ptr<AudioOutput>> AudioOutput::open(AudioFormat wanted) {
    std::lock_guard lock(sdlMutex());
    auto subsystem = AudioSubsystem::start();
    if (!subsystem)
        return std::unexpected(subsystem.error());
    auto device = openDevice(wanted);
    if (!device)
        return std::unexpected(device.error());
    subsystem->handOver(); // the output stops it when it closes
    ++openOutputs;
    return std::unique_ptr<AudioOutput>(
        new AudioOutput(device->id, device->format, device->period));
}

AudioOutput::~AudioOutput() {
    std::lock_guard lock(sdlMutex());
    SDL_CloseAudioDevice(device_);
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
    --openOutputs;
}

Result<> AudioOutput::enqueue(std::span<const std::uint8_t> samples) {
    if (SDL_QueueAudio(device_, samples.data(), Uint32(samples.size())) != 0)
        return std::unexpected(sdlError("SDL_QueueAudio"));
    return {};
}

double AudioOutput::queuedSeconds() const {
    return SDL_GetQueuedAudioSize(device_) / format_.bytesPerSecond();
}

void AudioOutput::clear() {
    SDL_ClearQueuedAudio(device_);
}

void AudioOutput::pause() {
    SDL_PauseAudioDevice(device_, 1);
}

void AudioOutput::resume() {
    SDL_PauseAudioDevice(device_, 0);
}

void AudioOutput::releaseThreadState() {
    SDL_TLSCleanup();
}

// --- AudioSession ---------------------------------------------------------------------------

namespace {

struct SessionState {
    std::optional<AudioSubsystem> active; // held while the session is active
};

SessionState& sessionState() {
    static auto* state = new SessionState;
    return *state;
}

} // namespace

AudioSession& AudioSession::shared() {
    static AudioSession session;
    return session;
}

Result<> AudioSession::setCategory(Category, Mode, Options) {
    // Playback is the only category, so there is nothing to configure: what can fail is that
    // SDL finds no audio driver.
    std::lock_guard lock(sdlMutex());
    auto subsystem = AudioSubsystem::start();
    if (!subsystem)
        return std::unexpected(subsystem.error());
    return {};
}

Result<> AudioSession::setActive(bool active) {
    std::lock_guard lock(sdlMutex());
    SessionState& state = sessionState();
    if (!active) {
        state.active.reset();
        return {};
    }
    if (state.active)
        return {};
    auto subsystem = AudioSubsystem::start();
    if (!subsystem)
        return std::unexpected(subsystem.error());
    if (openOutputs == 0) {
        auto device = openDevice({});
        if (!device)
            return std::unexpected(device.error());
        SDL_CloseAudioDevice(device->id);
    }
    state.active.emplace(std::move(*subsystem));
    return {};
}

bool AudioSession::isActive() const {
    std::lock_guard lock(sdlMutex());
    return sessionState().active.has_value();
}

} // namespace pelkit::media
