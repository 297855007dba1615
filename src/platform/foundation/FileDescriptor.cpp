#include <pelkit/foundation/FileDescriptor.h>

#include <cerrno>
#include <string>

namespace pelkit {

Result<> writeAll(int fd, std::span<const std::byte> bytes, std::string_view name) {
    while (!bytes.empty()) {
        ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return std::unexpected(Error::fromErrno("write(" + std::string(name) + ")", errno));
        }
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
    return {};
}

} // namespace pelkit
