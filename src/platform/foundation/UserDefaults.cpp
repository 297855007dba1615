#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Text.h>
#include <pelkit/foundation/UserDefaults.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <map>
#include <mutex>
#include <sys/stat.h>

namespace pelkit {
namespace {

using nlohmann::json;
using Values = std::map<std::string, std::string, std::less<>>;

// JSON strings hold only UTF-8, but keys and values are any bytes (an app key is the host's
// choice). Entries that are UTF-8 on both sides stay readable under "values"; the others are kept
// as [key, value] pairs of hex digits under "hex", so every byte comes back exactly.
constexpr std::string_view hexDigits = "0123456789abcdef";

std::string hexEncoded(std::string_view bytes) {
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (unsigned char byte : bytes) {
        hex.push_back(hexDigits[byte >> 4]);
        hex.push_back(hexDigits[byte & 0xf]);
    }
    return hex;
}

std::optional<std::string> hexDecoded(const json& hex) {
    if (!hex.is_string() || hex.get_ref<const std::string&>().size() % 2 != 0)
        return std::nullopt;
    const auto& digits = hex.get_ref<const std::string&>();
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        auto high = hexDigits.find(digits[i]), low = hexDigits.find(digits[i + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos)
            return std::nullopt;
        bytes.push_back(static_cast<char>(high << 4 | low));
    }
    return bytes;
}

std::string serialized(const Values& values) {
    json document{{"values", json::object()}, {"hex", json::array()}};
    for (const auto& [key, value] : values) {
        if (isValidUtf8(key) && isValidUtf8(value))
            document["values"][key] = value;
        else
            document["hex"].push_back({hexEncoded(key), hexEncoded(value)});
    }
    return document.dump(2);
}

// The values of a stored file, or nothing when it is not a store this code wrote.
std::optional<Values> parsed(const Bytes& bytes) {
    auto document = json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (!document.is_object() || !document.contains("values") || !document["values"].is_object())
        return std::nullopt;
    Values values;
    for (const auto& [key, value] : document["values"].items())
        if (value.is_string())
            values.emplace(key, value.get<std::string>());
    if (auto hex = document.find("hex"); hex != document.end() && hex->is_array())
        for (const auto& pair : *hex) {
            if (!pair.is_array() || pair.size() != 2)
                continue;
            auto key = hexDecoded(pair[0]), value = hexDecoded(pair[1]);
            if (key && value)
                values.insert_or_assign(std::move(*key), std::move(*value));
        }
    return values;
}

} // namespace

struct UserDefaults::State {
    std::filesystem::path file;
    mutable std::mutex mutex;
    mutable Values values;
    // Identity of the file last read, so that a change by another process is picked up.
    mutable struct timespec loadedTime {};
    mutable off_t loadedSize = -1;
    mutable ino_t loadedInode = 0;

    void remember(const struct stat& info) const {
        loadedSize = info.st_size;
        loadedInode = info.st_ino;
        loadedTime = info.st_mtim;
    }

    // Re-reads the file if it changed since it was last read. Caller holds `mutex`.
    void refresh() const {
        struct stat info {};
        if (::stat(file.c_str(), &info) != 0) {
            // Only a removed store empties it; any other failure may pass, and the next write
            // must not lose the values of other keys.
            if (errno == ENOENT && loadedSize != -1) {
                values.clear();
                loadedSize = -1;
            }
            return;
        }
        if (info.st_size == loadedSize && info.st_ino == loadedInode &&
            info.st_mtim.tv_sec == loadedTime.tv_sec && info.st_mtim.tv_nsec == loadedTime.tv_nsec)
            return;
        // A file that cannot be read or parsed now keeps the values last read, and is tried
        // again on the next call; the next write replaces a damaged one.
        auto bytes = readFile(file);
        if (!bytes)
            return;
        auto read = parsed(*bytes);
        if (!read)
            return;
        values = std::move(*read);
        remember(info);
    }

    Result<> persist() {
        std::error_code code;
        std::filesystem::create_directories(file.parent_path(), code);
        if (code)
            return std::unexpected(Error::fromErrorCode(
                "create_directories(" + file.parent_path().string() + ")", code));
        auto written = writeFileAtomically(file, serialized(values));
        struct stat info {};
        if (written && ::stat(file.c_str(), &info) == 0)
            remember(info);
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
    // A file right in the documents directory, beside the project directories. Those are named by
    // the first 20 characters of an app key, so a name of more than 20 characters can never be
    // one of them, whatever key a host uses.
    auto file = documentsDirectory() / ".pelkit-user-defaults.json";
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
