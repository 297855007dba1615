// The `pelkit` program, run for real against an in-process dev server serving the demo project.
#include "devserver/DevServer.h"

#include <pelkit/foundation/FileSystem.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

namespace pelkit {
namespace {

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

Outcome pelkit(const std::string& arguments) {
    test::TempDir outputs;
    auto read = [](const std::filesystem::path& path) {
        auto bytes = readFile(path);
        return bytes ? std::string(textOf(*bytes)) : std::string();
    };
    int status = std::system((std::string(PELKIT_CLI) + " " + arguments + " >" +
                              (outputs / "out").string() + " 2>" + (outputs / "err").string())
                                 .c_str());
    return {WEXITSTATUS(status), read(outputs / "out"), read(outputs / "err")};
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

} // namespace
} // namespace pelkit
