#include <pelkit/foundation/FileSystem.h>

#include <pelkit/foundation/FileDescriptor.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <limits>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace pelkit {
namespace {

std::span<const std::byte> spanOf(const void* data, std::size_t size) {
    return {static_cast<const std::byte*>(data), size};
}

// The rename lives in the directory's own data: until the directory reaches the disk, a power
// cut can bring back the old file (or none) although the write reported success.
Result<> syncDirectory(const std::filesystem::path& directory) {
    FileDescriptor fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0)
        return std::unexpected(Error::fromErrno("open(" + directory.string() + ")", errno));
    // Some file systems cannot sync a directory at all (EINVAL); there is nothing more to do.
    if (::fsync(fd.get()) != 0 && errno != EINVAL)
        return std::unexpected(Error::fromErrno("fsync(" + directory.string() + ")", errno));
    return {};
}

/// Fills a temporary file beside `path` through `fill`, flushes it, then renames it over `path`.
template <class Fill> Result<> replaceAtomically(const std::filesystem::path& path, Fill fill) {
    std::string temporary =
        (path.parent_path() / ("." + path.filename().string() + ".XXXXXX")).string();
    FileDescriptor fd(::mkstemp(temporary.data()));
    if (fd.get() < 0)
        return std::unexpected(Error::fromErrno("mkstemp(" + temporary + ")", errno));
    auto discard = [&](ErrorPtr error) {
        ::unlink(temporary.c_str());
        return std::unexpected(std::move(error));
    };
    ::fchmod(fd.get(), 0644); // mkstemp's 0600 would hide user data from its other readers
    if (auto filled = fill(fd.get(), temporary); !filled)
        return discard(filled.error());
    if (::fsync(fd.get()) != 0)
        return discard(Error::fromErrno("fsync(" + temporary + ")", errno));
    if (fd.close() != 0)
        return discard(Error::fromErrno("close(" + temporary + ")", errno));
    if (::rename(temporary.c_str(), path.c_str()) != 0)
        return discard(Error::fromErrno("rename(" + temporary + ", " + path.string() + ")", errno));
    // The rename lives in the directory: without this a crash could bring the old file back.
    return syncDirectory(path.parent_path().empty() ? "." : path.parent_path());
}

Result<> writeAtomically(const std::filesystem::path& path, const void* data, std::size_t size) {
    return replaceAtomically(path, [&](int fd, const std::string& temporary) {
        return writeAll(fd, spanOf(data, size), temporary);
    });
}

} // namespace

std::filesystem::path documentsDirectory() {
    if (const char* dir = std::getenv("PELKIT_DOCUMENTS_DIR"); dir && *dir)
        return dir;
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data)
        return std::filesystem::path(data) / "pelkit" / "Documents";
    const char* home = std::getenv("HOME");
    if (!home || !*home)
        fatalError(
            "documentsDirectory(): neither PELKIT_DOCUMENTS_DIR, XDG_DATA_HOME nor HOME is set");
    return std::filesystem::path(home) / ".local" / "share" / "pelkit" / "Documents";
}

namespace {

ErrorPtr tooLargeError(const std::filesystem::path& path, std::size_t maxBytes) {
    return Error::make("posix", EFBIG,
                       "readRegularFile(" + path.string() + "): larger than " +
                           std::to_string(maxBytes) + " bytes");
}

/// Reads `fd` to its end straight into the result. `sizeHint` is only a hint: the file may grow
/// or shrink meanwhile, and some files report no size at all. More than `maxBytes` is an error.
Result<Bytes> readToEnd(int fd, const std::filesystem::path& path, std::size_t sizeHint,
                        std::size_t maxBytes) {
    Bytes bytes(std::min(sizeHint, maxBytes) + 1);
    std::size_t filled = 0;
    for (;;) {
        if (filled == bytes.size()) {
            if (filled > maxBytes)
                return std::unexpected(tooLargeError(path, maxBytes));
            bytes.resize(std::min(bytes.size() * 2, maxBytes + 1));
        }
        const ssize_t got = ::read(fd, bytes.data() + filled, bytes.size() - filled);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return std::unexpected(Error::fromErrno("read(" + path.string() + ")", errno));
        }
        if (got == 0)
            break;
        filled += static_cast<std::size_t>(got);
    }
    bytes.resize(filled);
    return bytes;
}

} // namespace

Result<Bytes> readFile(const std::filesystem::path& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return std::unexpected(Error::fromErrno("open(" + path.string() + ")", errno));
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0)
        return std::unexpected(Error::fromErrno("fstat(" + path.string() + ")", errno));
    if (S_ISDIR(info.st_mode))
        return std::unexpected(Error::fromErrno("read(" + path.string() + ")", EISDIR));
    return readToEnd(fd.get(), path, static_cast<std::size_t>(info.st_size),
                     std::numeric_limits<std::size_t>::max() - 1);
}

Result<> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
    return writeAtomically(path, bytes.data(), bytes.size());
}

Result<> writeFileAtomically(const std::filesystem::path& path, const Bytes& bytes) {
    return writeAtomically(path, bytes.data(), bytes.size());
}

Result<> writeFile(const std::filesystem::path& path, const Bytes& bytes) {
    FileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd.get() < 0)
        return std::unexpected(Error::fromErrno("open(" + path.string() + ")", errno));
    if (auto written = writeAll(fd.get(), std::as_bytes(std::span(bytes)), path.string()); !written)
        return written;
    if (fd.close() != 0)
        return std::unexpected(Error::fromErrno("close(" + path.string() + ")", errno));
    return {};
}

// Paths from outside and reading them safely.

namespace {

/// `name` as it can be shown in a one-line description: a NUL character would end the text.
std::string printableName(std::string_view name) {
    std::string shown;
    for (char c : name)
        shown += c == '\0' ? std::string("\\0") : std::string(1, c);
    return shown;
}

} // namespace

Result<std::filesystem::path> appendingPathComponent(const std::filesystem::path& directory,
                                                     std::string_view name) {
    auto refuse = [&](std::string_view reason) {
        return std::unexpected(Error::make("posix", EINVAL,
                                           "appendingPathComponent(" + printableName(name) +
                                               "): " + std::string(reason)));
    };
    if (name.find('\0') != std::string_view::npos)
        return refuse("the name holds a NUL character");
    std::vector<std::string_view> components;
    for (std::string_view rest = name; !rest.empty();) {
        const auto slash = rest.find('/');
        const auto component = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
        if (component == "..") {
            if (components.empty())
                return refuse("the name leaves the directory");
            components.pop_back();
        } else if (!component.empty() && component != ".") {
            components.push_back(component);
        }
    }
    auto path = directory;
    for (auto component : components)
        path /= std::filesystem::path(component);
    return path;
}

Result<Bytes> readRegularFile(const std::filesystem::path& path, std::size_t maxBytes) {
    // O_NONBLOCK: opening a FIFO to read would wait for a writer; regular files ignore it.
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (fd.get() < 0)
        return std::unexpected(Error::fromErrno("open(" + path.string() + ")", errno));
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0)
        return std::unexpected(Error::fromErrno("fstat(" + path.string() + ")", errno));
    if (!S_ISREG(info.st_mode))
        return std::unexpected(
            Error::make("posix", S_ISDIR(info.st_mode) ? EISDIR : EINVAL,
                        "readRegularFile(" + path.string() + "): not a regular file"));
    if (static_cast<std::uintmax_t>(info.st_size) > maxBytes)
        return std::unexpected(tooLargeError(path, maxBytes));
    return readToEnd(fd.get(), path, static_cast<std::size_t>(info.st_size), maxBytes);
}

Result<> copyFileAtomically(const std::filesystem::path& source,
                            const std::filesystem::path& destination) {
    FileDescriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0)
        return std::unexpected(Error::fromErrno("open(" + source.string() + ")", errno));
    return replaceAtomically(destination, [&](int out, const std::string& temporary) -> Result<> {
        // The kernel copies between the files; nothing passes through this process's memory.
        for (;;) {
            const ssize_t sent = ::sendfile(out, in.get(), nullptr, std::size_t{1} << 30);
            if (sent == 0)
                return {};
            if (sent < 0 && errno != EINTR)
                return std::unexpected(Error::fromErrno(
                    "sendfile(" + source.string() + ", " + temporary + ")", errno));
        }
    });
}

} // namespace pelkit
