// The programs' command lines: the shared reading rules, pelkit-devserver's options in-process,
// then the real devserver program on the committed demo project.
#include "common/CommandLine.h"
#include "devserver/CommandLine.h"

#include <pelkit/foundation/FileSystem.h>

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdio>
#include <ranges>

namespace pelkit::devserver {
namespace {

namespace fs = std::filesystem;

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> split;
    for (const auto word : std::views::split(line, ' '))
        split.emplace_back(word.begin(), word.end());
    return line.empty() ? std::vector<std::string_view>{} : split;
}

/// The options that `line` (split at spaces) sets, or the reason it is refused.
std::expected<DevServerOptions, std::string> parse(const std::string& line) {
    DevServerOptions options;
    const auto parsed = apps::parse(*commandLine(options), words(line));
    if (!parsed)
        return std::unexpected(parsed.error());
    return options;
}

/// The reason a parse refused its arguments, or "<accepted>".
template <class Value> std::string refusal(const std::expected<Value, std::string>& parsed) {
    return parsed ? "<accepted>" : parsed.error();
}

TEST(CommandLine, ReadsEveryDevServerOption) {
    const auto options = parse("--project /p --port 0 --app-key k --archive url "
                               "--no-content-length --archive-file /h.zip --status "
                               "configuration=500 --delay files=250 --close-after archive=1000 "
                               "--status files=404 --verbose");
    ASSERT_TRUE(options.has_value()) << options.error();
    EXPECT_EQ(options->project, "/p");
    EXPECT_EQ(options->port, 0);
    EXPECT_EQ(options->appKey, "k");
    EXPECT_EQ(options->archive, ArchiveMode::Url);
    EXPECT_EQ(options->archiveLength, ArchiveLength::Chunked);
    EXPECT_EQ(options->archiveFile, fs::path("/h.zip"));
    EXPECT_TRUE(options->printRequests);
    ASSERT_EQ(options->faults.size(), 3u);
    EXPECT_EQ(options->faults.at(Endpoint::Configuration).status, 500);
    EXPECT_EQ(options->faults.at(Endpoint::Files).delay, std::chrono::milliseconds(250));
    EXPECT_EQ(options->faults.at(Endpoint::Files).status, 404) << "faults of one endpoint add up";
    EXPECT_EQ(options->faults.at(Endpoint::Archive).closeAfterBytes, 1000u);

    EXPECT_EQ(parse("--project /p")->port, 8080) << "the port apps are pointed at by default";
}

TEST(CommandLine, RefusesBadDevServerValuesWithOneLineReasons) {
    const std::pair<const char*, std::string> cases[] = {
        {"--port 80", "--project is required"},
        {"--project /p --port 65536", "--port: needs a whole number from 0 to 65535, got: 65536"},
        {"--project /p --port -1", "--port: needs a whole number from 0 to 65535, got: -1"},
        {"--project /p --port 80x", "--port: needs a whole number from 0 to 65535, got: 80x"},
        {"--project /p --archive zip", "--archive: needs one of body|url, got: zip"},
        {"--project /p --status 500", "--status: needs ENDPOINT=CODE, got: 500"},
        {"--project /p --delay config=5",
         "--delay: unknown endpoint: config (one of configuration, prepareTargetsForDownload, "
         "preparecontent, files, archive)"},
        {"--project /p --status files=99",
         "--status: needs a whole number from 100 to 599, got: 99"},
        {"--project /p --delay files=soon",
         "--delay: needs a whole number from 0 to 2147483647, got: soon"},
        {"--project /p --close-after archive=",
         "--close-after: needs a whole number from 0 to 9223372036854775807, got: "},
    };
    for (const auto& [arguments, reason] : cases)
        EXPECT_EQ(refusal(parse(arguments)), reason) << arguments;
}

/// A program made of commands, as pelkit is: `sync --server S` and `show`.
std::unique_ptr<CLI::App> programWithCommands(std::string& server) {
    auto app = std::make_unique<CLI::App>("A program with commands.", "program");
    app->require_subcommand(1);
    app->add_subcommand("sync", "Syncs.")->add_option("--server", server, "the server")->required();
    app->add_subcommand("show", "Shows.");
    return app;
}

TEST(CommandLine, HelpAndMistakesConcernTheCommandNamed) {
    std::string server;
    const auto help = apps::parse(*programWithCommands(server), words("sync --help"));
    ASSERT_TRUE(help.has_value()) << help.error();
    EXPECT_EQ(help->action, apps::Parsed::Action::Help);
    EXPECT_NE(help->help.find("--server"), std::string::npos) << help->help;

    const std::pair<const char*, std::string> mistakes[] = {
        {"", "A subcommand is required"},
        {"synk --server s", "unknown command: synk"},
        {"sync", "--server is required"},
    };
    for (const auto& [arguments, reason] : mistakes)
        EXPECT_EQ(refusal(apps::parse(*programWithCommands(server), words(arguments))), reason)
            << arguments;
}

/// Runs the devserver program with `arguments` to its end.
test::ProgramRun runToEnd(const std::string& arguments) {
    return test::runProgram(std::string(PELKIT_DEVSERVER) + " " + arguments);
}

TEST(DevServerProgram, HelpExits0BadArgumentsExit2AndAnUnservableFolderExits1) {
    const auto help = runToEnd("--help");
    EXPECT_EQ(help.status, 0);
    DevServerOptions options;
    EXPECT_EQ(help.out, commandLine(options)->help());
    EXPECT_NE(help.out.find("Exit status"), std::string::npos) << "the folder layout and more";

    const auto bad = runToEnd("--project /p --bogus");
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.out, "");
    EXPECT_EQ(bad.err, "pelkit-devserver: The following argument was not expected: --bogus\n"
                       "Run 'pelkit-devserver --help' for the options.\n");

    test::TempDir dir;
    const auto missing = runToEnd("--project " + (dir / "nowhere").string() + " --port 0");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err,
              "pelkit-devserver: project folder not found: " + (dir / "nowhere").string() + "\n");
}

/// What the demo project promises: every content item is prepared to a media file.
void expectDemoServed(int port, const fs::path& demo) {
    httplib::Client client("127.0.0.1", port);
    const httplib::Headers key{{"appkey", "demo"}};
    const auto configuration = client.Get("/configuration", key);
    ASSERT_TRUE(configuration && configuration->status == 200);
    EXPECT_EQ(configuration->body, test::fileText(demo / "configuration.json"));
    const auto project = nlohmann::json::parse(configuration->body);
    std::set<std::string> types;
    for (const auto& target : project["targets"]) {
        for (const auto& item : target["items"]) {
            types.insert(item["type"].get<std::string>());
            const auto prepared =
                client.Get("/targets/" + target["id"].get<std::string>() + "/content/" +
                               item["id"].get<std::string>() + "/preparecontent",
                           key);
            ASSERT_EQ(prepared->status, 200) << item["id"];
            const auto media = client.Get(prepared->body);
            EXPECT_TRUE(media->status == 200 && !media->body.empty()) << prepared->body;
        }
    }
    EXPECT_EQ(types, (std::set<std::string>{"IMAGE", "LINK", "VIDEO", "GREEN_SCREEN", "AUDIO"}));
}

TEST(DevServerProgram, ServesTheDemoProjectUntilTerminated) {
    const auto demo = fs::path(PELKIT_SOURCE_DIR) / "examples" / "demo-project";
    // The shell tells the program's pid, and through `wait` ends with the program's exit status.
    FILE* out = ::popen((std::string(PELKIT_DEVSERVER) + " --project " + demo.string() +
                         " --port 0 --app-key demo & echo pid $!; wait $!")
                            .c_str(),
                        "r");
    ASSERT_NE(out, nullptr);
    int pid = 0;
    int port = 0;
    char line[256];
    while ((pid == 0 || port == 0) && std::fgets(line, sizeof line, out)) {
        std::sscanf(line, "pid %d", &pid);
        std::sscanf(line, "listening on http://127.0.0.1:%d", &port);
    }
    EXPECT_GT(port, 0) << "no listening line";
    if (port > 0)
        expectDemoServed(port, demo);
    if (pid > 0)
        ::kill(pid, SIGTERM);
    EXPECT_EQ(::pclose(out), 0) << "the exit status after SIGTERM";
}

} // namespace
} // namespace pelkit::devserver
