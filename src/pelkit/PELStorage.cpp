#include <pelkit/PELStorage.h>

#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Text.h>

namespace pelkit {

std::string appKeyPrefix(const std::string& appKey) {
    return characterPrefix(appKey, 20);
}

PELStorage::PELStorage(std::string appKey) : appKey_(std::move(appKey)) {}

std::filesystem::path PELStorage::getConfigurationFilePath() const {
    return documentsDirectory() / appKeyPrefix(appKey_) / "configuration.json";
}

Result<> PELStorage::saveConfigurationDataToFile(const Bytes& data) const {
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

} // namespace pelkit
