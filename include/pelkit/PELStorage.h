// Where a project lives on disk, and the stored configuration. Any thread; keeps no state beyond
// the app key, so concurrent use is safe.
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/Error.h>

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

    /// The path of "configuration.json" in the project directory. Only computed.
    std::filesystem::path getConfigurationFilePath() const;

    /// Creates the project directory if nothing stands at its path, then replaces the stored
    /// configuration atomically with `data`, byte for byte. Errors come back unchanged.
    [[nodiscard]] Result<> saveConfigurationDataToFile(const Bytes& data) const;

private:
    std::string appKey_;
};

/// The first 20 characters of an app key, which name its project directory and its remembered
/// revision.
std::string appKeyPrefix(const std::string& appKey);

} // namespace pelkit
