// The one place that talks to libzip: unpacking and writing archives.
#include <pelkit/zip/Unzip.h>
#include <pelkit/zip/ZipWriter.h>

#include <pelkit/foundation/FileDescriptor.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Text.h>

#include <zip.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace pelkit::zip {
namespace {

namespace fs = std::filesystem;

// Large enough that a typical target image takes a handful of reads, small enough to stay cheap
// next to the archive itself; allocated once per archive.
constexpr std::size_t chunkSize = 256 * 1024;

// Smaller entries may expand as much as they like (a blank image, a padded text): whatever they
// expand to cannot hurt.
constexpr std::uint64_t ratioCheckedFrom = 1 << 20;

struct ArchiveDiscarder {
    // Discarding never writes back: read-only archives are closed this way, and an archive being
    // written is discarded only when zip_close did not take it.
    void operator()(zip_t* archive) const { zip_discard(archive); }
};
using ArchiveHandle = std::unique_ptr<zip_t, ArchiveDiscarder>;

struct EntryCloser {
    void operator()(zip_file_t* entry) const { zip_fclose(entry); }
};
using EntryHandle = std::unique_ptr<zip_file_t, EntryCloser>;

ErrorPtr zipError(std::string_view call, std::string_view entry, zip_error_t* error) {
    const int code = zip_error_code_zip(error);
    return Error::make("zip", code,
                       std::string(call) + "(" + std::string(entry) +
                           "): " + zip_error_strerror(error) + " (" + std::to_string(code) + ")");
}

ErrorPtr zipError(std::string_view call, std::string_view entry, int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    auto result = zipError(call, entry, &error);
    zip_error_fini(&error);
    return result;
}

ErrorPtr refusal(std::string_view entry, int code, std::string_view reason) {
    return Error::make("zip", code,
                       "unzipFile(" + std::string(entry) + "): " + std::string(reason));
}

ErrorPtr posixError(std::string_view call, const fs::path& path, int err) {
    return Error::fromErrno(std::string(call) + "(" + path.string() + ")", err);
}

ErrorPtr fileSystemError(std::string_view call, const fs::path& path, std::error_code code) {
    return Error::fromErrorCode(std::string(call) + "(" + path.string() + ")", code);
}

/// The entry's path below the destination, normalised ("a//./b" is "a/b"); empty when it names
/// the destination itself; nothing when it is absolute or climbs out with "..".
std::optional<fs::path> pathBelowDestination(std::string_view name) {
    if (name.starts_with('/'))
        return std::nullopt;
    fs::path relative;
    while (!name.empty()) {
        const auto slash = name.find('/');
        const auto component = name.substr(0, slash);
        name = slash == std::string_view::npos ? std::string_view{} : name.substr(slash + 1);
        if (component == "..")
            return std::nullopt;
        if (!component.empty() && component != ".")
            relative /= component;
    }
    return relative;
}

bool isSymbolicLink(zip_t* archive, zip_uint64_t index) {
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    if (zip_file_get_external_attributes(archive, index, 0, &system, &attributes) != 0)
        return false;
    // Unix tools keep st_mode in the upper half; other systems put DOS flags there or nothing.
    return system == ZIP_OPSYS_UNIX && ((attributes >> 16) & S_IFMT) == S_IFLNK;
}

/// Free bytes for an unprivileged writer on the file system that holds `directory`, or on that
/// of its nearest existing parent; nothing when that cannot be found out.
std::optional<std::uint64_t> freeBytes(fs::path directory) {
    for (;;) {
        struct statvfs info {};
        if (::statvfs(directory.c_str(), &info) == 0)
            return std::uint64_t{info.f_bavail} * info.f_frsize;
        if (errno != ENOENT || directory.empty() || directory == directory.parent_path())
            return std::nullopt;
        directory = directory.parent_path();
    }
}

class Unpacker {
public:
    Unpacker(zip_t* archive, const fs::path& path, const fs::path& destination,
             const UnpackLimits& limits)
        : archive_(archive), path_(path), destination_(destination), limits_(limits),
          buffer_(new char[chunkSize]) {}

    Result<> unpack() {
        const auto count = zip_get_num_entries(archive_, 0);
        if (auto fits = checkSizes(count); !fits)
            return fits;
        for (zip_int64_t index = 0; index < count; ++index) {
            if (auto extracted = extract(static_cast<zip_uint64_t>(index)); !extracted)
                return extracted;
        }
        return {};
    }

private:
    /// Refuses, before anything is written, an archive that would fill the disk: the sizes are
    /// the ones the archive declares, and extraction never writes more than an entry declares.
    Result<> checkSizes(zip_int64_t count) {
        std::uint64_t total = 0;
        for (zip_int64_t index = 0; index < count; ++index) {
            zip_stat_t stat;
            zip_stat_init(&stat);
            if (zip_stat_index(archive_, static_cast<zip_uint64_t>(index), 0, &stat) != 0 ||
                !(stat.valid & ZIP_STAT_SIZE))
                continue; // reported when the entry's turn comes
            const std::uint64_t stored = (stat.valid & ZIP_STAT_COMP_SIZE) ? stat.comp_size : 0;
            if (stat.size > ratioCheckedFrom &&
                stat.size / std::max<std::uint64_t>(limits_.maxExpansionRatio, 1) > stored)
                return std::unexpected(refusal(
                    stat.name, ZIP_ER_INVAL,
                    "entry expands to " + std::to_string(stat.size) + " bytes, more than " +
                        std::to_string(limits_.maxExpansionRatio) + " times its stored size"));
            total += stat.size;
            if (total > limits_.maxUnpackedBytes)
                return std::unexpected(Error::make(
                    "zip", ZIP_ER_INVAL,
                    "unzipFile(" + path_.string() + "): entries expand to more than the limit of " +
                        std::to_string(limits_.maxUnpackedBytes) + " bytes"));
        }
        if (auto free = freeBytes(destination_); free && total > *free)
            return std::unexpected(
                Error::make("posix", ENOSPC,
                            "unzipFile(" + path_.string() + "): entries expand to " +
                                std::to_string(total) + " bytes, more than the " +
                                std::to_string(*free) + " bytes free in " + destination_.string()));
        return {};
    }

    Result<> extract(zip_uint64_t index) {
        zip_stat_t stat;
        zip_stat_init(&stat);
        if (zip_stat_index(archive_, index, 0, &stat) != 0)
            return std::unexpected(
                zipError("zip_stat_index", "#" + std::to_string(index), zip_get_error(archive_)));
        const std::string_view name = (stat.valid & ZIP_STAT_NAME) ? stat.name : "";

        const auto relative = pathBelowDestination(name);
        if (!relative)
            return std::unexpected(
                refusal(name, ZIP_ER_INVAL, "entry path leaves the destination"));
        if (relative->empty())
            return std::unexpected(
                refusal(name, ZIP_ER_INVAL, "entry path names the destination itself"));
        if (isSymbolicLink(archive_, index))
            return std::unexpected(
                refusal(name, ZIP_ER_OPNOTSUPP, "symbolic link entries are not extracted"));

        const auto target = destination_ / *relative;
        std::error_code error;
        if (name.ends_with('/')) {
            fs::remove_all(target, error);
            if (error)
                return std::unexpected(fileSystemError("remove_all", target, error));
            fs::create_directories(target, error);
            if (error)
                return std::unexpected(fileSystemError("create_directories", target, error));
            return {};
        }
        fs::create_directories(target.parent_path(), error);
        if (error)
            return std::unexpected(
                fileSystemError("create_directories", target.parent_path(), error));
        if (!(stat.valid & ZIP_STAT_SIZE))
            return std::unexpected(zipError("zip_stat_index", name, ZIP_ER_INCONS));
        return extractFile(index, name, stat.size, target);
    }

    /// Extracts to a temporary file beside `target` and renames it over `target` once complete,
    /// so a failing entry leaves the file of the last good archive in place.
    Result<> extractFile(zip_uint64_t index, std::string_view name, zip_uint64_t size,
                         const fs::path& target) {
        // Opened before the output file, so an entry that cannot be read (encrypted, unknown
        // compression) leaves nothing behind.
        EntryHandle entry{zip_fopen_index(archive_, index, 0)};
        if (!entry)
            return std::unexpected(zipError("zip_fopen_index", name, zip_get_error(archive_)));

        std::string temporary = (target.parent_path() / ".pelkit-unzip-XXXXXX").string();
        FileDescriptor file{::mkostemp(temporary.data(), O_CLOEXEC)};
        if (file.get() < 0)
            return std::unexpected(posixError("mkostemp", temporary, errno));
        ::fchmod(file.get(), 0644); // mkostemp's 0600 would hide the images from other readers

        auto written = copy(entry.get(), name, size, file.get(), temporary);
        if (written && file.close() != 0)
            written = std::unexpected(posixError("close", temporary, errno));
        if (written)
            written = replace(temporary, target);
        if (!written)
            ::unlink(temporary.c_str());
        return written;
    }

    /// rename() replaces a file or a link in one step (never writing through the link); a
    /// directory standing where the file goes has to be removed first.
    static Result<> replace(const std::string& temporary, const fs::path& target) {
        std::error_code error;
        if (fs::is_directory(fs::symlink_status(target, error))) {
            fs::remove_all(target, error);
            if (error)
                return std::unexpected(fileSystemError("remove_all", target, error));
        }
        if (::rename(temporary.c_str(), target.c_str()) != 0)
            return std::unexpected(
                Error::fromErrno("rename(" + temporary + ", " + target.string() + ")", errno));
        return {};
    }

    Result<> copy(zip_file_t* entry, std::string_view name, zip_uint64_t size, int fd,
                  const fs::path& target) {
        // libzip compares the CRC-32 only once a read reaches the end of the data. Asking for
        // exactly the entry's size never gets there, which is how the checksum stays unchecked.
        for (zip_uint64_t remaining = size; remaining > 0;) {
            const auto read =
                zip_fread(entry, buffer_.get(), std::min<zip_uint64_t>(remaining, chunkSize));
            if (read < 0)
                return std::unexpected(zipError("zip_fread", name, zip_file_get_error(entry)));
            if (read == 0)
                return std::unexpected(zipError("zip_fread", name, ZIP_ER_EOF));
            const auto chunk =
                std::as_bytes(std::span(buffer_.get(), static_cast<std::size_t>(read)));
            if (auto done = writeAll(fd, chunk, target.string()); !done)
                return done;
            remaining -= static_cast<zip_uint64_t>(read);
        }
        return {};
    }

    zip_t* archive_;
    fs::path path_;
    fs::path destination_;
    UnpackLimits limits_;
    std::unique_ptr<char[]> buffer_;
};

} // namespace

Result<> unzipFile(const fs::path& archive, const fs::path& destination,
                   const UnpackLimits& limits) {
    int openError = 0;
    ArchiveHandle handle{zip_open(archive.c_str(), ZIP_RDONLY, &openError)};
    if (!handle)
        return {}; // Whatever is there is not an archive we can read: nothing to unpack.
    return Unpacker(handle.get(), archive, destination, limits).unpack();
}

// Writing archives.

namespace {

ErrorPtr writerRefusal(std::string_view name, std::string_view reason) {
    return Error::make("zip", ZIP_ER_INVAL,
                       "writeArchive(" + std::string(name) + "): " + std::string(reason));
}

bool isAlreadyCompressed(const fs::path& source) {
    static constexpr std::array<std::string_view, 18> extensions{
        ".jpg", ".jpeg", ".png", ".gif", ".webp", ".heic", ".mp4", ".m4v", ".mov",
        ".m4a", ".mp3",  ".aac", ".ogg", ".zip",  ".gz",   ".bz2", ".xz",  ".7z"};
    return std::ranges::find(extensions, asciiLowercase(source.extension().string())) !=
           extensions.end();
}

Result<> checkNames(std::span<const ArchiveEntry> entries) {
    std::set<std::string_view> seen;
    for (const auto& entry : entries) {
        if (entry.name.empty())
            return std::unexpected(writerRefusal(entry.name, "entry name is empty"));
        if (entry.name.starts_with('/'))
            return std::unexpected(writerRefusal(entry.name, "entry name is absolute"));
        if (!seen.insert(entry.name).second)
            return std::unexpected(writerRefusal(entry.name, "entry name is repeated"));
    }
    return {};
}

/// Checked up front so that a missing source is reported by its own path; libzip would only
/// notice while writing, and name nothing but the archive.
Result<> checkSource(const fs::path& source) {
    const int fd = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::unexpected(Error::fromErrno("open(" + source.string() + ")", errno));
    struct stat info {};
    const int statResult = ::fstat(fd, &info);
    const int statErrno = errno;
    ::close(fd);
    if (statResult != 0)
        return std::unexpected(Error::fromErrno("fstat(" + source.string() + ")", statErrno));
    if (!S_ISREG(info.st_mode))
        return std::unexpected(Error::fromErrno("open(" + source.string() + ")", EISDIR));
    return {};
}

Result<> addEntry(zip_t* archive, const ArchiveEntry& entry, Compression compression) {
    zip_source_t* source = zip_source_file(archive, entry.source.c_str(), 0, -1);
    if (!source)
        return std::unexpected(
            zipError("zip_source_file", entry.source.string(), zip_get_error(archive)));
    const auto index = zip_file_add(archive, entry.name.c_str(), source, ZIP_FL_ENC_UTF_8);
    if (index < 0) {
        zip_source_free(source); // Not taken by the archive when adding fails.
        return std::unexpected(zipError("zip_file_add", entry.name, zip_get_error(archive)));
    }
    const bool store = compression == Compression::Store ||
                       (compression == Compression::ByType && isAlreadyCompressed(entry.source));
    if (zip_set_file_compression(archive, static_cast<zip_uint64_t>(index),
                                 store ? ZIP_CM_STORE : ZIP_CM_DEFLATE, 0) != 0)
        return std::unexpected(
            zipError("zip_set_file_compression", entry.name, zip_get_error(archive)));
    return {};
}

} // namespace

Result<> writeArchive(const fs::path& archive, std::span<const ArchiveEntry> entries,
                      Compression compression) {
    if (auto names = checkNames(entries); !names)
        return names;
    for (const auto& entry : entries) {
        if (auto readable = checkSource(entry.source); !readable)
            return readable;
    }

    if (entries.empty()) {
        // libzip deletes an archive left without entries instead of writing one, so the empty
        // archive (an end-of-central-directory record and nothing else) is written here.
        static constexpr std::string_view emptyArchive{
            "PK\x05\x06\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 22};
        return writeFileAtomically(archive, emptyArchive);
    }

    // ZIP_TRUNCATE: whatever is at the path now is replaced, never read or appended to. libzip
    // writes the new archive to a temporary file beside it and renames it into place on close.
    int openError = 0;
    ArchiveHandle handle{zip_open(archive.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &openError)};
    if (!handle)
        return std::unexpected(zipError("zip_open", archive.string(), openError));
    for (const auto& entry : entries) {
        if (auto added = addEntry(handle.get(), entry, compression); !added)
            return added;
    }
    if (zip_close(handle.get()) != 0)
        return std::unexpected(
            zipError("zip_close", archive.string(), zip_get_error(handle.get())));
    (void)handle.release(); // zip_close freed it.
    return {};
}

} // namespace pelkit::zip
