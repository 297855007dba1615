// The process's audio session: what kind of sound it makes, and whether its output is open.
// Thread-safe.
#pragma once

#include <pelkit/foundation/Error.h>

namespace pelkit::media {

/// Sound goes through SDL's audio subsystem. Its driver is SDL's choice, or `$SDL_AUDIODRIVER`:
/// headless machines and tests set `SDL_AUDIODRIVER=dummy`, which consumes sound in real time
/// without a device, so playback keeps its pace.
///
///     auto& session = media::AudioSession::shared();
///     auto ready = session.setCategory(Category::playback, Mode::defaultMode, Options::none);
///     if (ready)
///         ready = session.setActive(true);
///     if (!ready)
///         printLine(ready.error()->description());
class AudioSession {
public:
    enum class Category { playback };
    enum class Mode { defaultMode };
    enum class Options : unsigned { none = 0 };

    static AudioSession& shared();

    /// Checks that SDL's audio subsystem starts with the chosen driver, and records the category.
    [[nodiscard]] Result<> setCategory(Category category, Mode mode, Options options);
    /// Activating starts SDL's audio subsystem and checks that an output device opens; the
    /// subsystem stays up until the session is deactivated.
    [[nodiscard]] Result<> setActive(bool active);

    bool isActive() const;

private:
    AudioSession() = default;
};

} // namespace pelkit::media
