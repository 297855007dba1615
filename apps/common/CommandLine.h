// Reading the programs' command lines, one way for every program: each describes its options and
// subcommands on a CLI::App, and these helpers turn the outcome into what the program does next
// (run, show the help, or stop with a one-line reason). Any thread; one App per parse.
//
//     CLI::App app{"Serves a folder.", "pelkit-example"};
//     int port = 8080;
//     app.add_option("--port", port, "the port")->check(apps::wholeNumber(0, 65535));
//     if (auto status = apps::parseMain(app, argc, argv))
//         return *status; // the help was shown, or an argument was bad
#pragma once

#include <CLI/CLI.hpp>

#include <expected>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pelkit::apps {

/// The exit status of a program stopped by a bad argument.
inline constexpr int badArgumentsStatus = 2;

/// What a command line asks for once read.
struct Parsed {
    enum class Action { Run, Help };
    Action action = Action::Run;
    /// With Action::Help: the help of the command asked about (a subcommand's own, when given).
    std::string help;
};

/// Reads `arguments` (those after the program name) into `app`'s options. On a bad argument, the
/// one-line reason ("--port: needs a whole number from 0 to 65535, got: x").
[[nodiscard]] std::expected<Parsed, std::string> parse(CLI::App& app,
                                                       std::span<const std::string_view> arguments);

/// main()'s whole handling of its arguments: on --help, prints the help on stdout and returns 0;
/// on a bad argument, prints "NAME: reason" and where to find the options on stderr and returns
/// badArgumentsStatus; returns nothing when the program is to run.
[[nodiscard]] std::optional<int> parseMain(CLI::App& app, int argc, char** argv);

/// `text` as a whole number from `low` to `high`, or the reason it is not one
/// ("needs a whole number from 0 to 65535, got: 80x").
[[nodiscard]] std::expected<long long, std::string> wholeNumber(std::string_view text,
                                                                long long low, long long high);
/// Accepts only whole numbers from `low` to `high`.
CLI::Validator wholeNumber(long long low, long long high);
/// Refuses an empty value.
CLI::Validator notEmpty();

/// Adds the option `name` whose value is one of `choices` by name ("--archive body|url"); the
/// chosen value is stored in `target`, which must outlive the parse.
template <class Value>
CLI::Option* addChoice(CLI::App& app, const std::string& name, Value& target,
                       std::vector<std::pair<std::string, Value>> choices,
                       const std::string& description) {
    std::string names;
    for (const auto& choice : choices)
        names += (names.empty() ? "" : "|") + choice.first;
    auto check = [choices, names](std::string& text) {
        for (const auto& choice : choices) {
            if (choice.first == text)
                return std::string();
        }
        return "needs one of " + names + ", got: " + text;
    };
    auto store = [&target, choices](const std::string& text) {
        for (const auto& choice : choices) {
            if (choice.first == text)
                target = choice.second;
        }
    };
    return app.add_option_function<std::string>(name, store, description)
        ->type_name(names)
        ->check(CLI::Validator(check, ""));
}

} // namespace pelkit::apps
