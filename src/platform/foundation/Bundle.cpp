#include <pelkit/foundation/Bundle.h>

#include <filesystem>
#include <mutex>

namespace pelkit {
namespace {

std::mutex mutex;
std::optional<std::string> chosen;

} // namespace

std::optional<std::string> mainBundleIdentifier() {
    {
        std::lock_guard lock(mutex);
        if (chosen)
            return chosen->empty() ? std::nullopt : chosen;
    }
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error || executable.filename().empty())
        return std::nullopt;
    return executable.filename().string();
}

void setMainBundleIdentifier(std::optional<std::string> identifier) {
    std::lock_guard lock(mutex);
    chosen = std::move(identifier);
}

} // namespace pelkit
