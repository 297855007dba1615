// Files as the framework sees them: the documents directory, whole-file reads, atomic writes.
// Thread-safe.
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/Error.h>

#include <filesystem>

namespace pelkit {

/// The app's documents directory: $PELKIT_DOCUMENTS_DIR, else $XDG_DATA_HOME/pelkit/Documents,
/// else ~/.local/share/pelkit/Documents. Only computed; nothing is created.
std::filesystem::path documentsDirectory();

[[nodiscard]] Result<Bytes> readFile(const std::filesystem::path& path);

/// Writes `bytes` to a temporary file beside `path`, flushes it, then renames it over `path`: a
/// reader sees the old file or the new one, never a part. The directory must exist.
[[nodiscard]] Result<> writeFileAtomically(const std::filesystem::path& path,
                                           std::string_view bytes);
[[nodiscard]] Result<> writeFileAtomically(const std::filesystem::path& path, const Bytes& bytes);

/// Replaces the file at `path` in place (truncate, then write), as a plain write does.
[[nodiscard]] Result<> writeFile(const std::filesystem::path& path, const Bytes& bytes);

} // namespace pelkit
