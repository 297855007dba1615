#include "common/CommandLine.h"

#include <charconv>
#include <iostream>

namespace pelkit::apps {
namespace {

/// "pelkit sync": the program and the subcommands chosen so far, for pointing at their --help.
std::string commandPath(const CLI::App& app) {
    std::string path = app.get_name();
    for (const CLI::App* command = &app; !command->get_subcommands().empty();) {
        command = command->get_subcommands().front();
        path += " " + command->get_name();
    }
    return path;
}

} // namespace

std::expected<Parsed, std::string> parse(CLI::App& app,
                                         std::span<const std::string_view> arguments) {
    // CLI11 consumes its argument list from the back.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        app.parse(reversed);
    } catch (const CLI::CallForHelp&) {
        return Parsed{Parsed::Action::Help, app.help()};
    } catch (const CLI::CallForAllHelp&) {
        return Parsed{Parsed::Action::Help, app.help("", CLI::AppFormatMode::All)};
    } catch (const CLI::RequiredError& error) {
        // CLI11 reports a missing command before a leftover word, which is likelier a misspelt
        // command than a stray argument.
        if (app.get_require_subcommand_min() > 0 && app.get_subcommands().empty() &&
            !app.remaining().empty())
            return std::unexpected("unknown command: " + app.remaining().front());
        return std::unexpected(std::string(error.what()));
    } catch (const CLI::ParseError& error) {
        return std::unexpected(std::string(error.what()));
    }
    return Parsed{};
}

std::optional<int> parseMain(CLI::App& app, int argc, char** argv) {
    const std::vector<std::string_view> arguments(argv + 1, argv + argc);
    const auto parsed = parse(app, arguments);
    if (!parsed) {
        std::cerr << app.get_name() << ": " << parsed.error() << "\nRun '" << commandPath(app)
                  << " --help' for the options.\n";
        return badArgumentsStatus;
    }
    if (parsed->action == Parsed::Action::Help) {
        std::cout << parsed->help;
        return 0;
    }
    return std::nullopt;
}

std::expected<long long, std::string> wholeNumber(std::string_view text, long long low,
                                                  long long high) {
    long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || value < low ||
        value > high)
        return std::unexpected("needs a whole number from " + std::to_string(low) + " to " +
                               std::to_string(high) + ", got: " + std::string(text));
    return value;
}

CLI::Validator wholeNumber(long long low, long long high) {
    return CLI::Validator(
        [low, high](std::string& text) {
            const auto number = wholeNumber(text, low, high);
            return number ? std::string() : number.error();
        },
        "");
}

CLI::Validator notEmpty() {
    return CLI::Validator(
        [](std::string& text) { return text.empty() ? std::string("must not be empty") : ""; }, "");
}

} // namespace pelkit::apps
