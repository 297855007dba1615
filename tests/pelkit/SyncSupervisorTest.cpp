// Synchronisation runs against a real HTTP server on 127.0.0.1: the statuses in order and the
// threads they arrive on, the log lines, the files on disk and the remembered revision.
#include "SyncTestSupport.h"

#include <pelkit/PELProject.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Json.h>

#include <atomic>
#include <fstream>

namespace pelkit::test {
namespace {

const std::string kRevision = "2026-11-01T10:00:00Z";
const std::string kConfiguration = R"({"id":"p1","lastUpdated":")" + kRevision + R"(","targets":[
  {"id":"t1","name":"poster.jpg","physicalWidth":0.2,"lastUpdated":"a","items":[]}]})";
const std::string kEmptyProject = R"({"id":"p2","lastUpdated":"rev-empty","targets":[]})";
const std::string kAppKey = "sync-test-app-key-0001";

std::string archiveBytes() {
    auto bytes = readFile(fixturesDirectory() / "sync" / "targets.zip");
    return std::string(textOf(bytes.value()));
}

class SyncSupervisorTest : public SyncFixture {
protected:
    HttpTestServer server;
    std::mutex requestsMutex;
    std::vector<std::pair<std::string, httplib::Headers>> requests;

    void SetUp() override {
        // Recorded before the handler runs, so a request is on record once its answer arrives.
        server.server.set_pre_routing_handler(
            [this](const httplib::Request& request, httplib::Response&) {
                std::lock_guard lock(requestsMutex);
                requests.emplace_back(request.path, request.headers);
                return httplib::Server::HandlerResponse::Unhandled;
            });
    }

    void serveConfiguration(const std::string& body, int status = 200) {
        server.server.Get("/configuration", [=](const httplib::Request&, httplib::Response& res) {
            res.status = status;
            res.set_content(body, "application/json");
        });
    }
    void servePreparation(std::function<void(httplib::Response&)> answer) {
        server.server.Get(
            "/prepareTargetsForDownload",
            [answer](const httplib::Request&, httplib::Response& res) { answer(res); });
    }
    void serveArchiveInBody() {
        servePreparation(
            [](httplib::Response& res) { res.set_content(archiveBytes(), "application/zip"); });
    }

    std::shared_ptr<PELSyncSupervisor> supervisor(const std::string& appKey = kAppKey) {
        return PELSyncSupervisor::create(server.baseUrl(), appKey, delegate);
    }
    /// Starts the server, runs one synchronisation and waits for its end status.
    void runOnce(const std::string& appKey = kAppKey, bool firstTime = true) {
        if (server.port() == 0)
            server.start();
        int endsBefore = 0;
        for (const auto& e : delegate->events())
            endsBefore += e.status.which() == PELStatus::Case::updateCompleted ||
                          e.status.which() == PELStatus::Case::alreadyUpToDate ||
                          e.status.which() == PELStatus::Case::updateFailed;
        supervisor(appKey)->startSync(firstTime);
        ASSERT_TRUE(delegate->waitForEnd(endsBefore + 1)) << "the run never ended";
        settleSharedCompletions();
    }
    const PELError& endError() {
        static PELError none = PELError::serverError();
        auto events = delegate->events();
        if (events.empty() || events.back().status.which() != PELStatus::Case::updateFailed) {
            ADD_FAILURE() << "the run did not end with updateFailed";
            return none;
        }
        lastEnd_ = events.back().status.error();
        return *lastEnd_;
    }
    std::vector<httplib::Headers> requestsTo(const std::string& path) {
        std::lock_guard lock(requestsMutex);
        std::vector<httplib::Headers> found;
        for (const auto& [p, headers] : requests)
            if (p == path)
                found.push_back(headers);
        return found;
    }
    void expectStoredConfiguration(const std::string& appKey, const std::string& expected) {
        auto stored = readFile(projectDirectory(appKey) / "configuration.json");
        ASSERT_TRUE(stored) << "no stored configuration";
        EXPECT_EQ(textOf(*stored), expected);
        EXPECT_TRUE(PELProject::decode(*stored)) << "the stored project no longer decodes";
    }

private:
    std::optional<PELError> lastEnd_;
};

TEST_F(SyncSupervisorTest, ArchiveInTheBodyIsStoredUnpackedAndItsRevisionRemembered) {
    serveConfiguration(kConfiguration);
    serveArchiveInBody();
    runOnce();

    EXPECT_EQ(delegate->sequence(),
              (std::vector<std::string>{"updateStarted(firstTime: true)", "downloadStarted",
                                        "downloadCompleted", "updateCompleted"}));
    auto events = delegate->events();
    EXPECT_EQ(events[0].thread, On::caller);
    for (std::size_t i = 1; i < events.size(); ++i)
        EXPECT_EQ(events[i].thread, On::sharedCompletionQueue) << events[i].status;
    auto dir = projectDirectory(kAppKey);
    expectStoredConfiguration(kAppKey, kConfiguration);
    EXPECT_EQ(textOf(readFile(dir / "targets.zip").value()), archiveBytes());
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "poster.jpg"));
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "flyers" / "flyer.png"));
    EXPECT_EQ(remembered(kAppKey), kRevision);
    EXPECT_TRUE(lines.lines().empty());

    auto configurationRequests = requestsTo("/configuration");
    ASSERT_EQ(configurationRequests.size(), 1u);
    EXPECT_EQ(configurationRequests[0].find("appkey")->second, kAppKey) << "the whole key is sent";
    EXPECT_EQ(configurationRequests[0].find("Content-Type")->second, "application/json");
    auto preparations = requestsTo("/prepareTargetsForDownload");
    ASSERT_EQ(preparations.size(), 1u);
    EXPECT_EQ(preparations[0].count("lastupdated"), 0u) << "a first run sends no revision";
    EXPECT_EQ(preparations[0].find("appkey")->second, kAppKey);
}

TEST_F(SyncSupervisorTest, NothingNewerEndsWithAlreadyUpToDateAfterSendingTheRevision) {
    serveConfiguration(kConfiguration);
    servePreparation([](httplib::Response& res) { res.status = 204; });
    remember(kAppKey, "rev-before");
    runOnce(kAppKey, false);

    EXPECT_EQ(delegate->sequence(),
              (std::vector<std::string>{"updateStarted(firstTime: false)", "downloadStarted",
                                        "alreadyUpToDate"}));
    EXPECT_EQ(delegate->events().back().thread, On::sharedCompletionQueue);
    EXPECT_EQ(lines.lines(), std::vector<std::string>{"Response StatusCode: 204"});
    EXPECT_EQ(requestsTo("/prepareTargetsForDownload").at(0).find("lastupdated")->second,
              "rev-before");
    EXPECT_EQ(remembered(kAppKey), "rev-before") << "an up-to-date run changes no revision";
}

TEST_F(SyncSupervisorTest, ProjectWithoutTargetsSkipsThePreparation) {
    serveConfiguration(kEmptyProject);
    serveArchiveInBody();
    runOnce();
    EXPECT_EQ(delegate->sequence(),
              (std::vector<std::string>{"updateStarted(firstTime: true)", "updateCompleted"}));
    EXPECT_TRUE(requestsTo("/prepareTargetsForDownload").empty());
    EXPECT_EQ(remembered(kAppKey), "rev-empty");
}

TEST_F(SyncSupervisorTest, ConfigurationStatusOtherThan200FailsWithItsCode) {
    for (int status : {500, 404, 204}) {
        SCOPED_TRACE(status);
        HttpTestServer local;
        local.server.Get(
            "/configuration",
            [status](const httplib::Request&, httplib::Response& res) { res.status = status; });
        local.start();
        auto recorder = std::make_shared<RecordingDelegate>();
        LineCapture captured;
        PELSyncSupervisor::create(local.baseUrl(), kAppKey, recorder)->startSync(true);
        ASSERT_TRUE(recorder->waitForEnd());
        auto end = recorder->events().back();
        ASSERT_EQ(end.status.which(), PELStatus::Case::updateFailed);
        const PELError& error = end.status.error();
        ASSERT_EQ(error.which(), PELError::Case::networkError);
        EXPECT_EQ(error.payload()->domain(), "");
        EXPECT_EQ(error.payload()->code(), status);
        EXPECT_EQ(captured.lines(),
                  std::vector<std::string>{"Response StatusCode: " + std::to_string(status)});
        EXPECT_EQ(end.thread, On::sharedCompletionQueue);
    }
}

TEST_F(SyncSupervisorTest, UndecodableConfigurationFailsAndKeepsTheStoredProject) {
    std::atomic<bool> broken{false};
    server.server.Get("/configuration", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(broken ? R"({"id":"p1","lastUpdated":"new","targets":[{"id":"t"}]})"
                               : kConfiguration,
                        "application/json");
    });
    serveArchiveInBody();
    runOnce();
    broken = true;
    runOnce();
    const PELError& error = endError();
    ASSERT_EQ(error.which(), PELError::Case::parsingError);
    auto decoding = std::dynamic_pointer_cast<const DecodingError>(error.payload());
    ASSERT_TRUE(decoding) << "the decoding error is carried unchanged";
    EXPECT_EQ(delegate->sequence().back(), "updateFailed(error: " + error.description() + ")");
    expectStoredConfiguration(kAppKey, kConfiguration);
    EXPECT_EQ(remembered(kAppKey), kRevision);
}

TEST_F(SyncSupervisorTest, ConfigurationThatCannotBeSavedIsAParsingError) {
    serveConfiguration(kConfiguration);
    std::ofstream(documents / appKeyPrefix(kAppKey)) << "a file where the project directory goes";
    runOnce();
    const PELError& error = endError();
    ASSERT_EQ(error.which(), PELError::Case::parsingError);
    EXPECT_EQ(error.payload()->domain(), "posix");
    EXPECT_EQ(delegate->sequence().size(), 2u);
}

TEST_F(SyncSupervisorTest, PreparationFailuresArriveWrappedTwice) {
    serveConfiguration(kConfiguration);
    std::atomic<int> mode{0};
    servePreparation([&](httplib::Response& res) {
        if (mode == 0)
            res.status = 500;
        else
            res.set_content("not a url, and cannot be stored", "text/plain");
    });
    runOnce();
    const PELError& statusFailure = endError();
    ASSERT_EQ(statusFailure.which(), PELError::Case::networkError);
    auto inner = std::dynamic_pointer_cast<const PELError>(statusFailure.payload());
    ASSERT_TRUE(inner) << "the preparation's PELError is the payload";
    ASSERT_EQ(inner->which(), PELError::Case::networkError);
    EXPECT_EQ(inner->payload()->domain(), "statusCodeError");
    EXPECT_EQ(inner->payload()->code(), 500);
    EXPECT_EQ(lines.lines(), std::vector<std::string>{"Response StatusCode: 500"});
    EXPECT_EQ(
        delegate->sequence(),
        (std::vector<std::string>{"updateStarted(firstTime: true)", "downloadStarted",
                                  "updateFailed(error: " + statusFailure.description() + ")"}));

    // A body that is neither storable nor a URL: the write fails on a directory at targets.zip.
    mode = 1;
    auto zipPath = projectDirectory(kAppKey) / "targets.zip";
    std::filesystem::create_directories(zipPath / "in-the-way");
    runOnce();
    const PELError& bodyFailure = endError();
    auto innerBody = std::dynamic_pointer_cast<const PELError>(bodyFailure.payload());
    ASSERT_TRUE(innerBody);
    EXPECT_EQ(innerBody->which(), PELError::Case::serverError);
    auto logged = lines.lines();
    ASSERT_EQ(logged.size(), 4u);
    EXPECT_EQ(logged[1], "Unexpected error: open(" + zipPath.string() + "): Is a directory (21)");
    EXPECT_EQ(logged[2],
              "failed to write the response data to file..trying to start download task..");
    EXPECT_EQ(logged[3], "provided data was not a correct url");
    expectStoredConfiguration(kAppKey, kConfiguration);
    EXPECT_EQ(remembered(kAppKey), std::nullopt);
}

TEST_F(SyncSupervisorTest, PreparationTransportFailureIsANetworkErrorInsideANetworkError) {
    serveConfiguration(kConfiguration);
    servePreparation([](httplib::Response& res) {
        // Announce more than is sent, then close: the transfer breaks off.
        res.set_content_provider(1000, "application/zip",
                                 [](std::size_t, std::size_t, httplib::DataSink& sink) {
                                     sink.write("PK", 2);
                                     return false;
                                 });
    });
    runOnce();
    const PELError& error = endError();
    auto inner = std::dynamic_pointer_cast<const PELError>(error.payload());
    ASSERT_TRUE(inner);
    ASSERT_EQ(inner->which(), PELError::Case::networkError);
    EXPECT_EQ(inner->payload()->domain(), net::kTransportErrorDomain);
}

TEST_F(SyncSupervisorTest, BodyTextThatIsNotAnArchiveIsStoredAndTheRunCompletes) {
    serveConfiguration(kConfiguration);
    servePreparation([](httplib::Response& res) {
        res.set_content("ftp://files.example/targets.zip", "text/plain");
    });
    runOnce();
    EXPECT_EQ(delegate->sequence(),
              (std::vector<std::string>{"updateStarted(firstTime: true)", "downloadStarted",
                                        "downloadCompleted", "updateCompleted"}));
    EXPECT_EQ(textOf(readFile(projectDirectory(kAppKey) / "targets.zip").value()),
              "ftp://files.example/targets.zip");
}

TEST_F(SyncSupervisorTest, AnArchiveEntryNamedConfigurationReplacesTheStoredOne) {
    serveConfiguration(kConfiguration);
    servePreparation([](httplib::Response& res) {
        res.set_content(
            std::string(textOf(readFile(fixturesDirectory() / "archives" / "normal.zip").value())),
            "application/zip");
    });
    remember(kAppKey, "old");
    runOnce();
    // The replaced configuration no longer decodes: the run completes and forgets the revision.
    EXPECT_EQ(delegate->sequence().back(), "updateCompleted");
    EXPECT_FALSE(
        PELProject::decode(readFile(projectDirectory(kAppKey) / "configuration.json").value()));
    EXPECT_EQ(remembered(kAppKey), std::nullopt);
}

// The download task runs only when storing the body fails; a directory at "targets.zip" makes it
// fail, and the download handler clears it so the downloaded archive can be stored.
class DownloadTaskTest : public SyncSupervisorTest,
                         public ::testing::WithParamInterface<bool /* announce length */> {
protected:
    void SetUp() override {
        SyncSupervisorTest::SetUp();
        serveConfiguration(kConfiguration);
        server.start();
        servePreparation([this](httplib::Response& res) {
            res.set_content(server.baseUrl() + "/download/targets.zip", "text/plain");
        });
        zipPath = projectDirectory(kAppKey) / "targets.zip";
        std::filesystem::create_directories(zipPath / "in-the-way");
    }
    void serveDownload(bool clearTheWay, bool announceLength, std::size_t breakAfter = SIZE_MAX) {
        server.server.Get(
            "/download/targets.zip", [=, this](const httplib::Request&, httplib::Response& res) {
                if (clearTheWay)
                    std::filesystem::remove_all(zipPath);
                auto body = std::make_shared<std::string>(archiveBytes());
                auto provider = [body, breakAfter](std::size_t offset, httplib::DataSink& sink) {
                    if (offset >= body->size()) {
                        sink.done();
                        return true;
                    }
                    if (offset >= breakAfter)
                        return false;
                    std::size_t chunk =
                        std::min<std::size_t>({100, body->size() - offset, breakAfter - offset});
                    return sink.write(body->data() + offset, chunk);
                };
                if (announceLength)
                    res.set_content_provider(
                        body->size(), "application/zip",
                        [provider](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                            return provider(offset, sink);
                        });
                else
                    res.set_chunked_content_provider("application/zip", provider);
            });
    }
    std::filesystem::path zipPath;
};

TEST_P(DownloadTaskTest, DownloadedArchiveIsStoredWithProgressOnTheSessionQueue) {
    bool announceLength = GetParam();
    serveDownload(true, announceLength);
    runOnce();

    EXPECT_EQ(delegate->sequence(),
              (std::vector<std::string>{"updateStarted(firstTime: true)", "downloadStarted",
                                        "downloadStarted", "downloadProgress...",
                                        "downloadCompleted", "updateCompleted"}));
    auto events = delegate->events();
    std::optional<std::thread::id> sessionThread;
    float last = 0;
    for (const auto& e : events) {
        if (e.status.which() != PELStatus::Case::downloadProgress)
            continue;
        EXPECT_EQ(e.thread, On::otherThread) << "progress belongs on the gateway session's queue";
        if (sessionThread) {
            EXPECT_EQ(e.threadId, *sessionThread) << "progress moved between threads";
        }
        sessionThread = e.threadId;
        float value = e.status.percentage();
        if (announceLength) {
            EXPECT_GT(value, 0.0f);
        } else {
            EXPECT_LT(value, 0.0f) << "an unknown size gives negative fractions";
        }
        EXPECT_GT(std::abs(value), std::abs(last)) << "progress went backwards";
        last = value;
    }
    float size = static_cast<float>(archiveBytes().size());
    EXPECT_FLOAT_EQ(last, announceLength ? 1.0f : -size);
    EXPECT_EQ(events.at(1).thread, On::sharedCompletionQueue);
    EXPECT_EQ(events.at(2).thread, On::sharedCompletionQueue)
        << "the second downloadStarted is sent as the download is started";
    EXPECT_EQ(events.back().threadId, *sessionThread);
    EXPECT_TRUE(std::filesystem::is_regular_file(projectDirectory(kAppKey) / "poster.jpg"));
    EXPECT_EQ(remembered(kAppKey), kRevision);
    auto logged = lines.lines();
    ASSERT_EQ(logged.size(), 2u);
    EXPECT_EQ(logged[0], "Unexpected error: open(" + zipPath.string() + "): Is a directory (21)");
    EXPECT_EQ(logged[1],
              "failed to write the response data to file..trying to start download task..");
    auto downloads = requestsTo("/download/targets.zip");
    ASSERT_EQ(downloads.size(), 1u);
    EXPECT_EQ(downloads[0].count("appkey"), 0u) << "the archive download carries no headers";
}

TEST_P(DownloadTaskTest, DownloadedArchiveThatCannotBeStoredIsAFileError) {
    serveDownload(false, GetParam());
    runOnce();
    const PELError& error = endError();
    ASSERT_EQ(error.which(), PELError::Case::fileError);
    EXPECT_EQ(error.payload()->code(), EISDIR);
    auto sequence = delegate->sequence();
    EXPECT_EQ(sequence[2], "downloadStarted");
    EXPECT_EQ(sequence.back(), "updateFailed(error: " + error.description() + ")");
    EXPECT_EQ(delegate->events().back().thread, On::otherThread);
    expectStoredConfiguration(kAppKey, kConfiguration);
}

TEST_P(DownloadTaskTest, DownloadDroppedMidwayIsANetworkError) {
    serveDownload(true, GetParam(), 150);
    runOnce();
    const PELError& error = endError();
    ASSERT_EQ(error.which(), PELError::Case::networkError);
    EXPECT_EQ(error.payload()->domain(), net::kTransportErrorDomain);
    EXPECT_EQ(delegate->sequence()[2], "downloadStarted");
    EXPECT_EQ(remembered(kAppKey), std::nullopt);
    expectStoredConfiguration(kAppKey, kConfiguration);
}

INSTANTIATE_TEST_SUITE_P(ContentLength, DownloadTaskTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Announced" : "Chunked"; });

// A configuration request that waits until the test lets it answer.
class HeldConfigurationTest : public SyncSupervisorTest {
protected:
    std::mutex holdMutex;
    std::condition_variable released;
    bool release = false;
    std::atomic<int> arrived{0};

    void SetUp() override {
        SyncSupervisorTest::SetUp();
        server.server.Get("/configuration",
                          [this](const httplib::Request&, httplib::Response& res) {
                              ++arrived;
                              std::unique_lock lock(holdMutex);
                              released.wait(lock, [this] { return release; });
                              res.set_content(kConfiguration, "application/json");
                          });
        serveArchiveInBody();
        server.start();
    }
    void TearDown() override { letGo(); }
    void letGo() {
        std::lock_guard lock(holdMutex);
        release = true;
        released.notify_all();
    }
};

TEST_F(HeldConfigurationTest, SecondStartReportsAlreadySynchingAndTheFirstRunEndsSilently) {
    auto sync = supervisor();
    sync->startSync(true);
    ASSERT_TRUE(waitUntil([&] { return arrived == 1; }));
    sync->startSync(false);
    EXPECT_FALSE(sync->isSynching());
    auto events = delegate->events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].status, PELStatus::updateFailed(PELError::alreadySynching()));
    EXPECT_EQ(events[1].thread, On::caller);

    letGo();
    ASSERT_TRUE(delegate->waitFor(PELStatus::Case::downloadCompleted));
    settleSharedCompletions();
    EXPECT_EQ(delegate->sequence(),
              (std::vector<std::string>{"updateStarted(firstTime: true)",
                                        "updateFailed(error: alreadySynching)", "downloadStarted",
                                        "downloadCompleted"}));
    expectStoredConfiguration(kAppKey, kConfiguration);
    EXPECT_TRUE(std::filesystem::is_regular_file(projectDirectory(kAppKey) / "poster.jpg"));
    EXPECT_EQ(remembered(kAppKey), std::nullopt) << "an unreported run remembered its revision";

    sync->startSync(true); // a third start begins a new run
    ASSERT_TRUE(delegate->waitForEnd(2));
    EXPECT_EQ(delegate->sequence().back(), "updateCompleted");
    EXPECT_EQ(remembered(kAppKey), kRevision);
}

TEST_F(HeldConfigurationTest, CancelledRunStoresItsFilesButReportsNoEnd) {
    auto sync = supervisor();
    sync->startSync(true);
    ASSERT_TRUE(waitUntil([&] { return arrived == 1; }));
    sync->cancelSync();
    letGo();
    ASSERT_TRUE(delegate->waitFor(PELStatus::Case::downloadCompleted));
    settleSharedCompletions();
    EXPECT_EQ(delegate->sequence(),
              (std::vector<std::string>{"updateStarted(firstTime: true)", "downloadStarted",
                                        "downloadCompleted"}));
    EXPECT_EQ(remembered(kAppKey), std::nullopt);
    expectStoredConfiguration(kAppKey, kConfiguration);
}

TEST_F(SyncSupervisorTest, KeysSharingTwentyCharactersShareDirectoryAndRevision) {
    const std::string first = "shared-prefix-abcdefXone";
    const std::string second = "shared-prefix-abcdefYtwo";
    ASSERT_EQ(appKeyPrefix(first), appKeyPrefix(second));
    serveConfiguration(kConfiguration);
    std::atomic<int> preparations{0};
    servePreparation([&](httplib::Response& res) {
        if (preparations++ == 0)
            res.set_content(archiveBytes(), "application/zip");
        else
            res.status = 204;
    });
    runOnce(first);
    runOnce(second);
    EXPECT_EQ(delegate->sequence().back(), "alreadyUpToDate");
    auto sent = requestsTo("/prepareTargetsForDownload");
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].find("lastupdated")->second, kRevision);
    EXPECT_EQ(sent[1].find("appkey")->second, second);
    EXPECT_EQ(projectDirectory(first), projectDirectory(second));
}

TEST_F(SyncSupervisorTest, HostileArchivesInTheBodyHaveDefinedOutcomes) {
    struct Case {
        const char* fixture;
        bool completes;
        const char* refusal; // the "Unexpected error: " line, when the unpacking is refused
    };
    const Case cases[] = {
        {"zip_slip.zip", false, "unzipFile(../evil.txt): entry path leaves the destination"},
        {"absolute_path.zip", false, nullptr},
        {"symlink.zip", false, nullptr},
        {"corrupt_data.zip", false, nullptr},
        {"crc_mismatch.zip", true, nullptr},
        {"truncated.zip", true, nullptr},
        {"not_a_zip.zip", true, nullptr},
    };
    serveConfiguration(kConfiguration);
    std::atomic<std::size_t> served{0};
    servePreparation([&](httplib::Response& res) {
        auto archive = fixturesDirectory() / "archives" / cases[served].fixture;
        res.set_content(std::string(textOf(readFile(archive).value())), "application/zip");
    });
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.fixture);
        served = i;
        auto before = lines.lines().size();
        runOnce();
        auto logged = lines.lines();
        if (c.completes) {
            EXPECT_EQ(delegate->sequence().back(), "updateCompleted");
            EXPECT_EQ(logged.size(), before);
        } else {
            const PELError& error = endError();
            auto inner = std::dynamic_pointer_cast<const PELError>(error.payload());
            ASSERT_TRUE(inner);
            EXPECT_EQ(inner->which(), PELError::Case::serverError);
            ASSERT_EQ(logged.size(), before + 3);
            EXPECT_TRUE(logged[before].starts_with("Unexpected error: ")) << logged[before];
            if (c.refusal) {
                EXPECT_EQ(logged[before], std::string("Unexpected error: ") + c.refusal);
            }
            EXPECT_EQ(logged[before + 2], "provided data was not a correct url");
        }
        expectStoredConfiguration(kAppKey, kConfiguration);
        EXPECT_FALSE(std::filesystem::exists(documents / "evil.txt"));
        for (const auto& entry : std::filesystem::recursive_directory_iterator(documents.path()))
            EXPECT_FALSE(entry.is_symlink()) << entry.path();
    }
}

} // namespace
} // namespace pelkit::test
