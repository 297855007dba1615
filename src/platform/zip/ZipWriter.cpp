// Archive writing over libzip; the reading side lives in Unzip.cpp.
#include <pelkit/zip/ZipWriter.h>

#include <pelkit/foundation/FileSystem.h>

#include <zip.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <memory>
#include <set>
#include <string_view>

namespace pelkit::zip {
namespace {

namespace fs = std::filesystem;

struct ArchiveDiscarder {
    // Only reached when zip_close did not take the archive: discarding writes nothing.
    void operator()(zip_t* archive) const { zip_discard(archive); }
};
using ArchiveHandle = std::unique_ptr<zip_t, ArchiveDiscarder>;

ErrorPtr zipError(std::string_view call, std::string_view subject, zip_error_t* error) {
    const int code = zip_error_code_zip(error);
    return Error::make("zip", code,
                       std::string(call) + "(" + std::string(subject) +
                           "): " + zip_error_strerror(error) + " (" + std::to_string(code) + ")");
}

ErrorPtr zipError(std::string_view call, std::string_view subject, int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    auto result = zipError(call, subject, &error);
    zip_error_fini(&error);
    return result;
}

ErrorPtr refusal(std::string_view name, std::string_view reason) {
    return Error::make("zip", ZIP_ER_INVAL,
                       "writeArchive(" + std::string(name) + "): " + std::string(reason));
}

bool isAlreadyCompressed(const fs::path& source) {
    static constexpr std::array<std::string_view, 18> extensions{
        ".jpg", ".jpeg", ".png", ".gif", ".webp", ".heic", ".mp4", ".m4v", ".mov",
        ".m4a", ".mp3",  ".aac", ".ogg", ".zip",  ".gz",   ".bz2", ".xz",  ".7z"};
    auto extension = source.extension().string();
    std::ranges::transform(extension, extension.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::ranges::find(extensions, extension) != extensions.end();
}

Result<> checkNames(std::span<const ArchiveEntry> entries) {
    std::set<std::string_view> seen;
    for (const auto& entry : entries) {
        if (entry.name.empty())
            return std::unexpected(refusal(entry.name, "entry name is empty"));
        if (entry.name.starts_with('/'))
            return std::unexpected(refusal(entry.name, "entry name is absolute"));
        if (!seen.insert(entry.name).second)
            return std::unexpected(refusal(entry.name, "entry name is repeated"));
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
