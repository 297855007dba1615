// The framework's own resources (the play and pause pictures), found wherever this build or
// installation put them. Thread-safe.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace pelkit {

/// The path of the resource `name`.`extension`, from the first of these directories that holds it
/// as a regular file: `$PELKIT_RESOURCES_DIR`; the build tree's `share/pelkit`, for code run from
/// the build tree; `share/pelkit` of the prefix PELkit is installed in, found from the shared
/// library's own file (`<prefix>/lib/libpelkit_foundation.so` finds `<prefix>/share/pelkit`) or,
/// for a static library, from the program it is linked into (`<prefix>/bin/app`); then
/// `share/pelkit` of the prefix PELkit was configured to install in. Nothing when none does, or when `name` or
/// `extension` is empty or holds '/' or a NUL character.
///
///     auto play = resourcePath("play", "png");
[[nodiscard]] std::optional<std::filesystem::path> resourcePath(std::string_view name,
                                                                std::string_view extension);

} // namespace pelkit
