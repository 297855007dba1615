// An owned POSIX file descriptor, and whole writes to one. Not thread-safe; one owner at a time.
#pragma once

#include <pelkit/foundation/Error.h>

#include <cstddef>
#include <span>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace pelkit {

/// Closes its descriptor when it goes away; a negative descriptor (a failed open) owns nothing.
///
///     FileDescriptor fd(::open(path, O_RDONLY | O_CLOEXEC));
///     if (fd.get() < 0) return std::unexpected(Error::fromErrno("open(...)", errno));
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&&) = delete;
    ~FileDescriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }

    int get() const { return fd_; }
    /// Closes now and returns close()'s result, which for a written file can carry a late write
    /// error that would otherwise go unseen.
    int close() { return ::close(std::exchange(fd_, -1)); }

private:
    int fd_;
};

/// Writes every byte to `fd`, going on after short writes and interrupting signals. A failure is
/// named after `name` (the file's path): "write(<name>): No space left on device (28)".
[[nodiscard]] Result<> writeAll(int fd, std::span<const std::byte> bytes, std::string_view name);

} // namespace pelkit
