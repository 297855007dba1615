#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/UserDefaults.h>

#include <nlohmann/json.hpp>

#include <map>
#include <mutex>
#include <sys/stat.h>

namespace pelkit {

struct UserDefaults::State {
    std::filesystem::path file;
    mutable std::mutex mutex;
    mutable std::map<std::string, std::string, std::less<>> values;
    // Identity of the file last read, so that a change by another process is picked up.
    mutable struct timespec loadedTime {};
    mutable off_t loadedSize = -1;
    mutable ino_t loadedInode = 0;

    // Re-reads the file if it changed since it was last read. Caller holds `mutex`.
    void refresh() const {
        struct stat info {};
        if (::stat(file.c_str(), &info) != 0) {
            if (loadedSize != -1)
                values.clear();
            loadedSize = -1;
            return;
        }
        if (info.st_size == loadedSize && info.st_ino == loadedInode &&
            info.st_mtim.tv_sec == loadedTime.tv_sec && info.st_mtim.tv_nsec == loadedTime.tv_nsec)
            return;
        loadedSize = info.st_size;
        loadedInode = info.st_ino;
        loadedTime = info.st_mtim;
        values.clear();
        auto bytes = readFile(file);
        if (!bytes)
            return;
        // A damaged file reads as empty rather than stopping the app; the next write replaces it.
        auto json = nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false);
        if (!json.is_object())
            return;
        for (const auto& [key, value] : json.items())
            if (value.is_string())
                values.emplace(key, value.get<std::string>());
    }

    Result<> persist() {
        std::error_code code;
        std::filesystem::create_directories(file.parent_path(), code);
        if (code)
            return std::unexpected(Error::fromErrorCode(
                "create_directories(" + file.parent_path().string() + ")", code));
        nlohmann::json json(values);
        auto written = writeFileAtomically(file, json.dump(2));
        if (written) {
            struct stat info {};
            if (::stat(file.c_str(), &info) == 0) {
                loadedSize = info.st_size;
                loadedInode = info.st_ino;
                loadedTime = info.st_mtim;
            }
        }
        return written;
    }
};

UserDefaults::UserDefaults(std::filesystem::path file) : state_(std::make_unique<State>()) {
    state_->file = std::move(file);
}

UserDefaults::~UserDefaults() = default;

UserDefaults& UserDefaults::standard() {
    // One store per documents directory, so that pointing the app at another directory (a test, a
    // command-line option) brings its own remembered values. Stores live for the whole process.
    static std::mutex mutex;
    static auto* stores = new std::map<std::filesystem::path, UserDefaults*>;
    auto file = documentsDirectory() / ".pelkit" / "defaults.json";
    std::lock_guard lock(mutex);
    auto& store = (*stores)[file];
    if (!store)
        store = new UserDefaults(file);
    return *store;
}

const std::filesystem::path& UserDefaults::file() const {
    return state_->file;
}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
    std::lock_guard lock(state_->mutex);
    state_->refresh();
    auto found = state_->values.find(key);
    if (found == state_->values.end())
        return std::nullopt;
    return found->second;
}

Result<> UserDefaults::set(std::string_view key, std::optional<std::string> value) {
    std::lock_guard lock(state_->mutex);
    // Merge into what is on disk now, so a value another process wrote meanwhile is kept.
    state_->refresh();
    if (value)
        state_->values.insert_or_assign(std::string(key), std::move(*value));
    else if (auto found = state_->values.find(key); found != state_->values.end())
        state_->values.erase(found);
    return state_->persist();
}

} // namespace pelkit
