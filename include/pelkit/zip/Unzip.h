// Unpacking of ZIP archives into a directory. Called on any thread; thread-safe (each call works on
// its own archive handle and shares no state), though two calls into one destination race.
#pragma once

#include <pelkit/foundation/Error.h>

#include <cstdint>
#include <filesystem>

namespace pelkit::zip {

/// How much an archive may unpack to before it is refused unextracted, so that a small archive
/// cannot fill the disk.
struct UnpackLimits {
    /// All entries together, as the archive declares them (extraction never writes more).
    std::uint64_t maxUnpackedBytes = std::uint64_t{4} << 30;
    /// How many times its stored size an entry of more than 1 MiB may expand to; ordinary
    /// files stay far below, data made to explode (zeros deflated) far above.
    std::uint64_t maxExpansionRatio = 200;
};

/// Unpacks the archive at `archive` into `destination`, entry by entry in archive order, each to
/// `destination` plus the entry's stored path:
///
///     if (auto unpacked = zip::unzipFile(project / "targets.zip", project); !unpacked)
///         printLine("Unexpected error: " + unpacked.error()->description());
///
/// - An archive that cannot be opened (missing, not a ZIP, cut short before its directory) is
///   skipped: success, nothing extracted.
/// - An archive that would unpack to more than `limits` allow, or to more than the free space at
///   `destination`, is refused before anything is extracted.
/// - A file entry is extracted to a temporary file beside its path, which then replaces whatever
///   is at the path (a file, a link, or a directory with all its contents): a failing entry
///   leaves the file of the last good archive in place. A directory entry (a name ending in "/")
///   removes whatever is at its path and creates an empty directory. Missing parent directories
///   are created.
/// - Entry contents are streamed to disk in fixed-size chunks. CRC-32 is not checked: an entry
///   whose stored checksum is wrong is extracted as stored.
/// - The first failure ends the unpacking with an error; entries extracted before it stay.
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
///   "unzipFile(link): symbolic link entries are not extracted";
/// - an entry that expands too much, code 18: "unzipFile(zeros.bin): entry expands to 8388608
///   bytes, more than 200 times its stored size";
/// - an archive that expands too much, code 18: "unzipFile(/p/targets.zip): entries expand to
///   more than the limit of 4294967296 bytes";
/// - and with domain "posix", code ENOSPC: "unzipFile(/p/targets.zip): entries expand to 5000
///   bytes, more than the 4096 bytes free in /p".
[[nodiscard]] Result<> unzipFile(const std::filesystem::path& archive,
                                 const std::filesystem::path& destination,
                                 const UnpackLimits& limits = {});

} // namespace pelkit::zip
