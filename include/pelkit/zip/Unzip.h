// Unpacking of ZIP archives into a directory. Called on any thread; thread-safe (each call works on
// its own archive handle and shares no state), though two calls into one destination race.
#pragma once

#include <pelkit/foundation/Error.h>

#include <filesystem>

namespace pelkit::zip {

/// Unpacks the archive at `archive` into `destination`, entry by entry in archive order, each to
/// `destination` plus the entry's stored path:
///
///     if (auto unpacked = zip::unzipFile(project / "targets.zip", project); !unpacked)
///         printLine("Unexpected error: " + unpacked.error()->description());
///
/// - An archive that cannot be opened (missing, not a ZIP, cut short before its directory) is
///   skipped: success, nothing extracted.
/// - Whatever exists at an entry's path (a file, or a directory with all its contents) is removed
///   first; this holds for directory entries (names ending in "/") too, which then create an empty
///   directory. Missing parent directories are created.
/// - Entry contents are streamed to disk in fixed-size chunks. CRC-32 is not checked: an entry
///   whose stored checksum is wrong is extracted as stored.
/// - The first failure ends the unpacking with an error; entries extracted before it stay, and the
///   failing entry's own file is not left half-written.
///
/// Errors: libzip failures have domain "zip", libzip's code, and name the call and the entry
/// ("zip_fread(images/a.jpg): Read error (5)"); file system failures have domain "posix" and the
/// errno ("open(/p/images/a.jpg): Permission denied (13)"). Hostile entries are refused, never
/// written, with domain "zip":
/// - a path that is absolute or has a ".." component, code 18:
///   "unzipFile(../evil.txt): entry path leaves the destination";
/// - a path that names `destination` itself ("./"), code 18:
///   "unzipFile(./): entry path names the destination itself";
/// - a symbolic link (a Unix file type of link in the external attributes), code 28:
///   "unzipFile(link): symbolic link entries are not extracted".
[[nodiscard]] Result<> unzipFile(const std::filesystem::path& archive,
                                 const std::filesystem::path& destination);

} // namespace pelkit::zip
