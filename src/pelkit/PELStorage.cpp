#include <pelkit/PELStorage.h>

#include "DescriptionFormat.h"

#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Text.h>

#include <cerrno>

namespace pelkit {

std::string appKeyPrefix(const std::string& appKey) {
    return characterPrefix(appKey, 20);
}

Result<> checkAppKeyPrefix(const std::string& appKey) {
    const std::string prefix = appKeyPrefix(appKey);
    const char* reason = prefix.empty()   ? "it is empty"
                         : prefix == "."  ? "it names the documents directory itself"
                         : prefix == ".." ? "it names the parent of the documents directory"
                         : prefix.find('/') != std::string::npos  ? "it holds \"/\""
                         : prefix.find('\0') != std::string::npos ? "it holds a NUL character"
                                                                  : nullptr;
    if (!reason)
        return {};
    return std::unexpected(Error::make("posix", EINVAL,
                                       "the app-key prefix " + detail::quoted(prefix) +
                                           " cannot name a project directory: " + reason));
}

PELStorage::PELStorage(std::string appKey) : appKey_(std::move(appKey)) {}

std::filesystem::path PELStorage::getConfigurationFilePath() const {
    return documentsDirectory() / appKeyPrefix(appKey_) / "configuration.json";
}

Result<> PELStorage::saveConfigurationDataToFile(const Bytes& data) const {
    if (auto usable = checkAppKeyPrefix(appKey_); !usable)
        return usable;
    auto path = getConfigurationFilePath();
    auto directory = path.parent_path();
    std::error_code code;
    // Anything standing at the directory's path counts, even a file: the write then fails.
    bool exists = std::filesystem::exists(std::filesystem::symlink_status(directory, code));
    if (!exists) {
        std::filesystem::create_directories(directory, code);
        if (code)
            return std::unexpected(
                Error::fromErrorCode("create_directories(" + directory.string() + ")", code));
    }
    return writeFileAtomically(path, data);
}

Result<std::filesystem::path> PELStorage::getTargetImagePath(const std::string& name) const {
    return appendingPathComponent(getConfigurationFilePath().parent_path(), name);
}

Result<Bytes> readTargetImage(const std::filesystem::path& path) {
    return readRegularFile(path, kMaxTargetImageBytes);
}

} // namespace pelkit
