// Where a project lives on disk, and the stored configuration. Any thread; keeps no state beyond
// the app key, so concurrent use is safe.
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/Error.h>

#include <cstddef>
#include <filesystem>
#include <string>

namespace pelkit {

/// The project directory is the documents directory plus the first 20 characters of the app key;
/// two keys sharing those characters share one directory.
///
///     PELStorage storage("0123456789abcdefghij-rest");
///     storage.getConfigurationFilePath();  // <documents>/0123456789abcdefghij/configuration.json
class PELStorage {
public:
    explicit PELStorage(std::string appKey);

    const std::string& appKey() const { return appKey_; }

    /// The path of "configuration.json" in the project directory. Only computed: check the key
    /// with `checkAppKeyPrefix` before using it.
    std::filesystem::path getConfigurationFilePath() const;

    /// Creates the project directory if nothing stands at its path, then replaces the stored
    /// configuration atomically with `data`, byte for byte. Errors come back unchanged; a key
    /// whose prefix cannot name a directory is refused as by `checkAppKeyPrefix`.
    [[nodiscard]] Result<> saveConfigurationDataToFile(const Bytes& data) const;

    /// The file of the target image `name` (a target's "name" from the configuration) in the
    /// project directory. The name is appended as path components that cannot leave the
    /// directory (see `appendingPathComponent`). Only computed.
    [[nodiscard]] Result<std::filesystem::path> getTargetImagePath(const std::string& name) const;

private:
    std::string appKey_;
};

/// The first 20 characters of an app key, which name its project directory and its remembered
/// revision.
std::string appKeyPrefix(const std::string& appKey);

/// Whether the prefix of `appKey` can name a directory of its own inside the documents
/// directory: an empty prefix, "." or "..", or one holding "/" or a NUL character would put the
/// project elsewhere, and is refused with domain "posix", code EINVAL:
/// `the app-key prefix "../../x" cannot name a project directory: it holds "/"`.
/// Every other prefix names the directory as it is.
[[nodiscard]] Result<> checkAppKeyPrefix(const std::string& appKey);

/// Target images longer than this are refused unread.
inline constexpr std::size_t kMaxTargetImageBytes = std::size_t{64} << 20;

/// Reads a target image at a path from `getTargetImagePath`: only a regular file of at most
/// `kMaxTargetImageBytes` is read (see `readRegularFile`).
[[nodiscard]] Result<Bytes> readTargetImage(const std::filesystem::path& path);

} // namespace pelkit
