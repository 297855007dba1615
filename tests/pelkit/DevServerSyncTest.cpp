// Synchronisation of the demo project from pelkit-devserver, run in-process on 127.0.0.1.
#include "SyncTestSupport.h"

#include <devserver/DevServer.h>
#include <pelkit/PELProject.h>
#include <pelkit/foundation/FileSystem.h>

namespace pelkit::test {
namespace {

using devserver::DevServer;
using devserver::Endpoint;

const std::string kAppKey = "devserver-sync-key-0001";

std::filesystem::path demoProject() {
    return fixturesDirectory() / ".." / ".." / "examples" / "demo-project";
}

class DevServerSyncTest : public SyncFixture {
protected:
    std::unique_ptr<DevServer> server;

    void serve(devserver::DevServerOptions options) {
        options.project = demoProject();
        server = std::make_unique<DevServer>(std::move(options));
        auto port = server->start();
        ASSERT_TRUE(port) << port.error()->description();
    }
    void runOnce(const std::string& appKey = kAppKey) {
        auto ends = [&] {
            int n = 0;
            for (const auto& e : delegate->events())
                n += e.status.which() == PELStatus::Case::updateCompleted ||
                     e.status.which() == PELStatus::Case::alreadyUpToDate ||
                     e.status.which() == PELStatus::Case::updateFailed;
            return n;
        };
        int before = ends();
        PELSyncSupervisor::create(server->baseUrl(), appKey, delegate)->startSync(before == 0);
        ASSERT_TRUE(delegate->waitForEnd(before + 1));
        settleSharedCompletions();
    }
    std::size_t requestsTo(const std::string& path) const {
        std::size_t n = 0;
        for (const auto& r : server->requests())
            n += r.path == path;
        return n;
    }
};

TEST_F(DevServerSyncTest, DemoProjectSyncsThenIsUpToDate) {
    serve({.appKey = kAppKey});
    runOnce();
    EXPECT_EQ(delegate->sequence(),
              (std::vector<std::string>{"updateStarted(firstTime: true)", "downloadStarted",
                                        "downloadCompleted", "updateCompleted"}));
    auto project = PELProject::decode(readFile(demoProject() / "configuration.json").value());
    ASSERT_TRUE(project);
    for (const auto& target : project->targets)
        EXPECT_TRUE(std::filesystem::is_regular_file(projectDirectory(kAppKey) / target.name))
            << target.name << " was not unpacked";
    EXPECT_EQ(remembered(kAppKey), project->lastUpdated);

    runOnce();
    EXPECT_EQ(delegate->sequence().back(), "alreadyUpToDate");
    auto preparations = server->requests();
    std::erase_if(preparations,
                  [](const auto& r) { return r.path != "/prepareTargetsForDownload"; });
    ASSERT_EQ(preparations.size(), 2u);
    EXPECT_FALSE(preparations[0].header("lastupdated"));
    EXPECT_EQ(preparations[1].header("lastupdated"), project->lastUpdated);
}

TEST_F(DevServerSyncTest, WrongAppKeyIsRefusedWithItsStatus) {
    serve({.appKey = "another-key"});
    runOnce();
    auto end = delegate->events().back().status;
    ASSERT_EQ(end.which(), PELStatus::Case::updateFailed);
    EXPECT_EQ(end.error().which(), PELError::Case::networkError);
    EXPECT_EQ(end.error().payload()->code(), 401);
    EXPECT_EQ(lines.lines(), std::vector<std::string>{"Response StatusCode: 401"});
    EXPECT_FALSE(std::filesystem::exists(projectDirectory(kAppKey)));
}

TEST_F(DevServerSyncTest, UrlInTheBodyIsStoredAsTheArchiveWithoutADownload) {
    // The project directory exists once the configuration is saved, so the URL text is written
    // as "targets.zip", does not open as an archive, and the run completes.
    serve({.archive = devserver::ArchiveMode::Url});
    runOnce();
    EXPECT_EQ(delegate->sequence().back(), "updateCompleted");
    EXPECT_EQ(requestsTo("/archive/targets.zip"), 0u);
    auto stored = readFile(projectDirectory(kAppKey) / "targets.zip").value();
    EXPECT_EQ(textOf(stored), server->baseUrl() + "/archive/targets.zip");
}

TEST_F(DevServerSyncTest, ArchiveDownloadCutShortFailsTheRunAndKeepsTheConfiguration) {
    serve({.archive = devserver::ArchiveMode::Url,
           .faults = {{Endpoint::Archive, {.closeAfterBytes = 4096}}}});
    std::filesystem::create_directories(projectDirectory(kAppKey) / "targets.zip" / "in-the-way");
    runOnce();
    auto end = delegate->events().back().status;
    ASSERT_EQ(end.which(), PELStatus::Case::updateFailed);
    EXPECT_EQ(end.error().which(), PELError::Case::networkError);
    EXPECT_EQ(end.error().payload()->domain(), net::kTransportErrorDomain);
    EXPECT_EQ(requestsTo("/archive/targets.zip"), 1u);
    EXPECT_TRUE(
        PELProject::decode(readFile(projectDirectory(kAppKey) / "configuration.json").value()));
}

} // namespace
} // namespace pelkit::test
