// The framework's own resources (the play and pause pictures), found wherever this build or
// installation put them. Thread-safe.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace pelkit {

/// The path of the resource `name`.`extension`, from the first of these directories that holds it
/// as a regular file: $PELKIT_RESOURCES_DIR, the build tree's share/pelkit (for programs run
/// uninstalled), then share/pelkit beside the running executable's prefix (<prefix>/bin/app finds
/// <prefix>/share/pelkit). Nothing when none does, or when `name` or `extension` is empty or holds
/// '/' or a NUL character.
///
///     auto play = resourcePath("play", "png");
[[nodiscard]] std::optional<std::filesystem::path> resourcePath(std::string_view name,
                                                                std::string_view extension);

} // namespace pelkit
