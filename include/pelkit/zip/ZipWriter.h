// Writing ZIP archives from files on disk. Called on any thread; thread-safe (each call builds its
// own archive and shares no state), though two calls writing one path race for the last rename.
#pragma once

#include <pelkit/foundation/Error.h>

#include <filesystem>
#include <span>
#include <string>

namespace pelkit::zip {

/// One file to put into an archive: read from `source`, stored under `name` ("a.jpg",
/// "images/b.png").
struct ArchiveEntry {
    std::filesystem::path source;
    std::string name;
};

/// How entry data is stored.
enum class Compression {
    /// Already-compressed formats (JPEG, PNG, MP4, M4A, MP3, ZIP, ...) are stored as they are,
    /// everything else is deflated: recompressing a JPEG costs time and saves nothing.
    ByType,
    Store,
    Deflate,
};

/// Writes an archive holding `entries`, in the given order, to `archive`:
///
///     std::vector<zip::ArchiveEntry> entries{{targets / "poster.jpg", "poster.jpg"}};
///     if (auto written = zip::writeArchive(cache / "targets.zip", entries); !written)
///         printLine(written.error()->description());
///
/// The archive is written beside `archive` and renamed over it when complete: a reader sees the
/// old file or the new one, never a part, and a failure leaves the old file as it was. An empty
/// list writes a valid archive with no entries. The parent directory must exist.
///
/// Errors: a source that is not a readable regular file has domain "posix" and names the call
/// ("open(/p/a.jpg): No such file or directory (2)"; a directory gives EISDIR); an empty, absolute
/// or repeated name is refused before anything is written, with domain "zip", code 18
/// (ZIP_ER_INVAL): "writeArchive(a.jpg): entry name is repeated"; libzip failures have domain
/// "zip", libzip's code, and name the call ("zip_close(/c/targets.zip): Write error (6)").
[[nodiscard]] Result<> writeArchive(const std::filesystem::path& archive,
                                    std::span<const ArchiveEntry> entries,
                                    Compression compression = Compression::ByType);

} // namespace pelkit::zip
