// A persisted store of string values by key. Thread-safe within a process.
#pragma once

#include <pelkit/foundation/Error.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace pelkit {

/// Values are kept in one JSON file, rewritten atomically on every change, so they survive the
/// process and a crash during a write leaves the previous file intact. Reads pick up changes that
/// another process wrote since; a file that cannot be read keeps the values last read. Keys and
/// values are any bytes, UTF-8 or not, and come back exactly.
///
///     auto& defaults = UserDefaults::standard();
///     defaults.set("lastUpdatedABC", "2026-11-01T10:00:00Z");
///     auto stamp = defaults.string("lastUpdatedABC");   // "2026-11-01T10:00:00Z"
class UserDefaults {
public:
    explicit UserDefaults(std::filesystem::path file);
    ~UserDefaults();
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    /// The store of the current documents directory, in the file
    /// documentsDirectory()/".pelkit-user-defaults.json". The same directory always gives the
    /// same store.
    static UserDefaults& standard();

    const std::filesystem::path& file() const;

    std::optional<std::string> string(std::string_view key) const;
    /// Stores `value` under `key`; no value removes the key. The in-memory value changes even when
    /// the file cannot be written; the result says whether it was persisted.
    Result<> set(std::string_view key, std::optional<std::string> value);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace pelkit
