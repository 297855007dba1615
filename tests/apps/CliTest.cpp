// The `pelkit` program, run for real against an in-process dev server serving the demo project.
#include "devserver/DevServer.h"

#include <pelkit/foundation/FileSystem.h>
#include <pelkit/image/Image.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>

namespace pelkit {
namespace {

using Outcome = test::ProgramRun;

Outcome pelkit(const std::string& arguments) {
    return test::runProgram(std::string(PELKIT_CLI) + " " + arguments);
}

class PelkitCli : public ::testing::Test {
protected:
    test::TempDir documents;
    devserver::DevServer server{
        {.project = std::filesystem::path(PELKIT_SOURCE_DIR) / "examples" / "demo-project"}};

    void SetUp() override { ASSERT_TRUE(server.start()); }
    std::string sync(const std::string& key = "cli-test-app-key") {
        return "sync --server " + server.baseUrl() + " --app-key " + key + " --documents " +
               documents.path().string() + " --events";
    }
};

TEST_F(PelkitCli, SyncPrintsEveryStatusAndExitsZeroTwice) {
    Outcome first = pelkit(sync());
    EXPECT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.out, "updateStarted(firstTime: true)\ndownloadStarted\ndownloadCompleted\n"
                         "updateCompleted\n");
    Outcome second = pelkit(sync());
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(second.out, "updateStarted(firstTime: true)\ndownloadStarted\n"
                          "Response StatusCode: 204\nalreadyUpToDate\n");
    EXPECT_EQ(second.err, "pelkit: project cli-test-app-key is already up to date\n");
}

TEST_F(PelkitCli, FailedSyncExitsOneWithTheErrorOnStderr) {
    server.setFault(devserver::Endpoint::Configuration, {.status = 500});
    Outcome run = pelkit(sync());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "pelkit: sync failed: networkError(500: The operation couldn't be "
                       "completed. ( error 500.))\n");
    EXPECT_EQ(pelkit("sync --server 'http://bad host' --app-key k").status, 2);
    EXPECT_EQ(pelkit("sync --app-key k").status, 2);
}

TEST_F(PelkitCli, ShowPrintsTheStoredProjectWithImageSizes) {
    ASSERT_EQ(pelkit(sync()).status, 0);
    Outcome show =
        pelkit("show --app-key cli-test-app-key --documents " + documents.path().string());
    EXPECT_EQ(show.status, 0) << show.err;
    EXPECT_NE(show.out.find("revision: 2024-05-01T12:00:00Z (remembered: 2024-05-01T12:00:00Z)"),
              std::string::npos)
        << show.out;
    EXPECT_NE(show.out.find("mandelbrot.jpg (640x480 px)"), std::string::npos) << show.out;
    EXPECT_NE(show.out.find("item demo-greenscreen: greenScreen at (0, 0) size 480x360"),
              std::string::npos)
        << show.out;
    EXPECT_EQ(pelkit("show --app-key unknown --documents " + documents.path().string()).status, 1);
}

// Such keys would put the project somewhere other than a directory of its own.
TEST_F(PelkitCli, KeysWhosePrefixCannotNameADirectoryAreRefusedWritingNothing) {
    const std::pair<std::string, std::string> cases[] = {
        {"../../x", R"("../../x" cannot name a project directory: it holds "/")"},
        {"/proc/pelkit", R"("/proc/pelkit" cannot name a project directory: it holds "/")"},
        {"a/b", R"("a/b" cannot name a project directory: it holds "/")"},
        {".", R"("." cannot name a project directory: it names the documents directory itself)"},
        {"..", R"(".." cannot name a project directory: it names the parent of the documents )"
               R"(directory)"},
    };
    const std::string nested = " --documents " + (documents / "a/b").string();
    for (const auto& [key, reason] : cases) {
        const std::string refusal = "the app-key prefix " + reason;
        Outcome sync = pelkit("sync --server " + server.baseUrl() + " --app-key '" + key + "'" +
                              nested + " --events");
        EXPECT_EQ(sync.status, 1);
        EXPECT_EQ(sync.out, "updateStarted(firstTime: true)\nupdateFailed(error: fileError(posix "
                            "22: " +
                                refusal + "))\n");
        EXPECT_EQ(sync.err, "pelkit: sync failed: fileError(posix 22: " + refusal + ")\n");
        Outcome show = pelkit("show --app-key '" + key + "'" + nested);
        EXPECT_EQ(show.status, 1);
        EXPECT_EQ(show.err, "pelkit: " + refusal + "\n");
    }
    EXPECT_TRUE(server.requests().empty());
    EXPECT_TRUE(std::filesystem::is_empty(documents.path()));
}

// Target names come from the server: show reads nothing outside the project, and nothing that
// is not a regular file.
TEST_F(PelkitCli, ShowReadsTargetImagesOnlyFromInsideTheProject) {
    const auto project = documents / "hostile-key";
    std::filesystem::create_directories(project);
    std::ofstream(documents / "outside.jpg") << "secret";
    ASSERT_EQ(::mkfifo((project / "fifo").c_str(), 0644), 0);
    std::string targets;
    for (const char* name : {"../outside.jpg", "/dev/zero", "/proc/self/mem", "fifo"})
        targets += std::string(targets.empty() ? "" : ",") + R"({"id":"t","name":")" + name +
                   R"(","physicalWidth":1,"lastUpdated":"","items":[]})";
    std::ofstream(project / "configuration.json")
        << R"({"id":"p","lastUpdated":"r","targets":[)" + targets + "]}";
    Outcome show = pelkit("show --app-key hostile-key --documents " + documents.path().string());
    EXPECT_EQ(show.status, 0) << show.err;
    const std::string lines[] = {
        "image: refused (appendingPathComponent(../outside.jpg): the name leaves the directory)",
        "image: " + (project / "dev/zero").string() + " (missing)",
        "image: " + (project / "proc/self/mem").string() + " (missing)",
        "image: " + (project / "fifo").string() + " (readRegularFile(" +
            (project / "fifo").string() + "): not a regular file)",
    };
    for (const auto& line : lines)
        EXPECT_NE(show.out.find("    " + line + "\n"), std::string::npos) << show.out;
}

} // namespace
} // namespace pelkit

namespace pelkit {
namespace {

TEST_F(PelkitCli, PreviewDrawsTheContentWhereTheConfigurationPlacesIt) {
    ASSERT_EQ(pelkit(sync()).status, 0);
    test::ScopedEnv host("PELKIT_HOST", server.baseUrl());
    test::ScopedEnv audio("SDL_AUDIODRIVER", "dummy");
    const std::string preview =
        "preview --app-key cli-test-app-key --documents " + documents.path().string();
    Outcome run = pelkit(preview + " --target target-mandelbrot --out " +
                         (documents / "preview.png").string());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "wrote " + (documents / "preview.png").string() + " (640x480)\n");

    auto drawn = image::decode(*readFile(documents / "preview.png"));
    auto target = image::decode(*readFile(std::filesystem::path(PELKIT_SOURCE_DIR) /
                                          "examples/demo-project/targets/mandelbrot.jpg"));
    ASSERT_TRUE(drawn && target);
    auto same = [&](int x, int y) {
        return std::equal(drawn->pixel(x, y), drawn->pixel(x, y) + 3, target->pixel(x, y));
    };
    // The image item is centred 150 px left of and 90 px above the image centre, the link 160 px
    // right and 150 px below; mirrored places show the target itself.
    EXPECT_FALSE(same(170, 150));
    EXPECT_FALSE(same(480, 390));
    EXPECT_TRUE(same(170, 330));
    EXPECT_TRUE(same(480, 90));
    EXPECT_TRUE(same(620, 20));

    Outcome unknown = pelkit(preview + " --target nope --out " + (documents / "x.png").string());
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.err, "pelkit: the project has no target \"nope\"; its targets: "
                           "target-mandelbrot target-cellauto target-life\n");
    EXPECT_FALSE(std::filesystem::exists(documents / "x.png"));
}

} // namespace
} // namespace pelkit
