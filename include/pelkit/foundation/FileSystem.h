// Files as the framework sees them: the documents directory, whole-file reads, atomic writes.
// Thread-safe.
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/Error.h>

#include <filesystem>

namespace pelkit {

/// The app's documents directory: $PELKIT_DOCUMENTS_DIR, else $XDG_DATA_HOME/pelkit/Documents,
/// else ~/.local/share/pelkit/Documents. Only computed; nothing is created.
std::filesystem::path documentsDirectory();

[[nodiscard]] Result<Bytes> readFile(const std::filesystem::path& path);

/// Writes `bytes` to a temporary file beside `path`, flushes it, then renames it over `path`: a
/// reader sees the old file or the new one, never a part. The directory must exist.
[[nodiscard]] Result<> writeFileAtomically(const std::filesystem::path& path,
                                           std::string_view bytes);
[[nodiscard]] Result<> writeFileAtomically(const std::filesystem::path& path, const Bytes& bytes);

/// Replaces the file at `path` in place (truncate, then write), as a plain write does.
[[nodiscard]] Result<> writeFile(const std::filesystem::path& path, const Bytes& bytes);

// Paths from outside (a configuration, an archive) and reading them safely.

/// `name` appended to `directory` as relative path components, as a file URL's
/// appendingPathComponent does, where std::filesystem's `/` would let an absolute name replace
/// the directory: "/dev/zero" gives `<directory>/dev/zero`. Empty and "." components are dropped;
/// ".." steps back, but never above `directory`. Only computed; nothing is touched.
///
///     appendingPathComponent(project, "images/a.jpg");  // <project>/images/a.jpg
///
/// A name that would leave `directory`, or that holds a NUL character, is refused with domain
/// "posix", code EINVAL: "appendingPathComponent(../x.jpg): the name leaves the directory".
[[nodiscard]] Result<std::filesystem::path>
appendingPathComponent(const std::filesystem::path& directory, std::string_view name);

/// Reads the regular file at `path` whole, refusing anything else without blocking on it or
/// reading it (a directory, a FIFO, a device, a socket: "readRegularFile(/p/fifo): not a regular
/// file", code EINVAL or EISDIR) and any file longer than `maxBytes` ("readRegularFile(/p/a.jpg):
/// larger than 1024 bytes", code EFBIG). Domain "posix"; open and read failures name the call.
[[nodiscard]] Result<Bytes> readRegularFile(const std::filesystem::path& path,
                                            std::size_t maxBytes);

/// Copies the file at `source` to a temporary file beside `destination`, flushes it, then
/// renames it over `destination`, streaming (never holding the file in memory): a reader sees the
/// old file or the new one, never a part, and a failure leaves the old one as it was. The
/// directory must exist.
[[nodiscard]] Result<> copyFileAtomically(const std::filesystem::path& source,
                                          const std::filesystem::path& destination);

} // namespace pelkit
