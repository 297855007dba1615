// The identity of the host application. Thread-safe.
#pragma once

#include <optional>
#include <string>

namespace pelkit {

/// The host application's identifier: the one it set with `setMainBundleIdentifier`, else the
/// file name of the running program. Nothing when the host set an empty one, or the program's
/// file cannot be named.
///
///     setMainBundleIdentifier("com.example.poster-app");
///     mainBundleIdentifier();   // "com.example.poster-app"
std::optional<std::string> mainBundleIdentifier();
/// Sets the identifier; nothing goes back to the program's file name.
void setMainBundleIdentifier(std::optional<std::string> identifier);

} // namespace pelkit
