// The command line of pelkit-devserver. Pure functions; any thread.
#pragma once

#include "devserver/DevServer.h"

#include <expected>
#include <span>
#include <string>
#include <string_view>

namespace pelkit::devserver {

/// What the command line asks for: the help text, or serving with these options.
struct Command {
    enum class Action { Serve, Help };
    Action action = Action::Serve;
    DevServerOptions options;
};

/// Reads the arguments after the program name. On failure, the one-line reason
/// ("unknown option: --colour", "--port needs a number from 0 to 65535, got: x").
std::expected<Command, std::string> parseCommandLine(std::span<const std::string_view> arguments);

/// The one-line synopsis shown after a bad argument.
std::string usageText();
/// The full --help text: the folder layout, the endpoints and every option.
std::string helpText();

} // namespace pelkit::devserver
