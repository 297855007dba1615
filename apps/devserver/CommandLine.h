// The command line of pelkit-devserver. Any thread.
#pragma once

#include "devserver/DevServer.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace pelkit::devserver {

/// Describes pelkit-devserver's options, its help and its checks; reading a command line with
/// apps::parse() or apps::parseMain() fills `options`, which must outlive the App:
///
///     DevServerOptions options;
///     const auto app = commandLine(options);
///     if (auto status = apps::parseMain(*app, argc, argv))
///         return *status;
///     DevServer server(options);
std::unique_ptr<CLI::App> commandLine(DevServerOptions& options);

} // namespace pelkit::devserver
