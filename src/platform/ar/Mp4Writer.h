// Writes RGBA pictures to an MP4 file with FFmpeg's encoders. Used from one thread at a time.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>

#include <cstdint>
#include <filesystem>
#include <memory>

namespace pelkit::ar {

class Mp4Writer {
public:
    /// Starts `file` for pictures of `size` (odd sizes are scaled down to the even size the
    /// encoders need), H.264 through libx264 where FFmpeg has it, else MPEG-4 part 2. The file
    /// is written under a temporary name beside `file` until `finish`.
    [[nodiscard]] static Result<std::unique_ptr<Mp4Writer>> open(std::filesystem::path file,
                                                                 int width, int height);
    /// Drops the temporary file unless `finish` has succeeded.
    ~Mp4Writer();
    Mp4Writer(const Mp4Writer&) = delete;
    Mp4Writer& operator=(const Mp4Writer&) = delete;

    /// Adds `picture` (the size given to `open`) at `time` seconds; times must grow, a repeated
    /// one is moved on by a millisecond.
    [[nodiscard]] Result<void> write(const image::Image& picture, double time);
    /// Flushes the encoder, completes the file and gives it its name; the number of pictures.
    [[nodiscard]] Result<std::uint64_t> finish();

    /// The encoder in use, e.g. "libx264".
    const char* encoderName() const;

    struct State;

private:
    explicit Mp4Writer(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

} // namespace pelkit::ar
