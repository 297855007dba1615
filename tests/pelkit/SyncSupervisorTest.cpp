// Synchronisation runs against a real HTTP server on 127.0.0.1: the statuses in order and the
// threads they arrive on, the log lines, the files on disk and the remembered revision.
#include <pelkit/PELProject.h>
#include <pelkit/PELSyncSupervisor.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/UserDefaults.h>
#include <pelkit/net/HttpSession.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <fstream>

namespace pelkit::test {
namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

const std::string kAppKey = "sync-test-app-key-0001";
const std::string kRevision = "2026-11-01T10:00:00Z";
const std::string kConfiguration = R"({"id":"p1","lastUpdated":")" + kRevision +
                                   R"(","targets":[{"id":"t1","name":"poster.jpg",)"
                                   R"("physicalWidth":0.2,"lastUpdated":"a","items":[]}]})";
const std::string kTrying =
    "failed to write the response data to file..trying to start download task..";
const std::string kNotAUrl = "provided data was not a correct url";

std::string fixture(const std::string& name) {
    return fileText(fixturesDirectory() / name);
}

bool isEnd(const PELStatus& status) {
    return status.which() == PELStatus::Case::updateCompleted ||
           status.which() == PELStatus::Case::alreadyUpToDate ||
           status.which() == PELStatus::Case::updateFailed;
}

/// Where a status was delivered.
enum class On { caller, sharedCompletionQueue, otherThread };

/// Records every status with the thread it arrived on, then calls `onStatus` on that thread.
class RecordingDelegate final : public PELStatusDelegate {
public:
    struct Event {
        PELStatus status;
        On thread;
    };
    std::function<void(const PELStatus&)> onStatus;

    void statusDidChange(const PELStatus& status) override {
        On on = std::this_thread::get_id() == caller_                    ? On::caller
                : net::HttpSession::shared().callbackQueue().isCurrent() ? On::sharedCompletionQueue
                                                                         : On::otherThread;
        {
            std::lock_guard lock(mutex_);
            events_.push_back({status, on});
            changed_.notify_all();
        }
        if (onStatus)
            onStatus(status);
    }
    /// Waits until `count` statuses of `which` (by default: end statuses) arrived in all.
    bool waitFor(int count, std::optional<PELStatus::Case> which = std::nullopt) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30),
                                 [&] { return countOf(events_, which) >= count; });
    }
    int ends() const { return countOf(events(), std::nullopt); }
    std::vector<Event> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    /// The statuses as printed, each run of downloadProgress folded into "downloadProgress...".
    Strings sequence() const {
        Strings names;
        for (const auto& e : events()) {
            bool progress = e.status.which() == PELStatus::Case::downloadProgress;
            if (!progress || names.empty() || names.back() != "downloadProgress...")
                names.push_back(progress ? "downloadProgress..." : e.status.description());
        }
        return names;
    }

private:
    static int countOf(const std::vector<Event>& events, std::optional<PELStatus::Case> which) {
        return static_cast<int>(std::ranges::count_if(events, [&](const Event& e) {
            return which ? e.status.which() == *which : isEnd(e.status);
        }));
    }
    std::thread::id caller_ = std::this_thread::get_id();
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

/// A fresh documents directory, captured diagnostic lines and a server that records requests.
class SyncSupervisorTest : public ::testing::Test {
protected:
    TempDir documents;
    ScopedEnv documentsVariable{"PELKIT_DOCUMENTS_DIR", documents.path().string()};
    LineCapture lines;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    HttpTestServer server;

    void serveConfiguration(const std::string& body) {
        server.server.Get("/configuration", [=](const httplib::Request&, httplib::Response& res) {
            res.set_content(body, "application/json");
        });
    }
    void servePreparation(std::function<void(httplib::Response&)> answer) {
        server.server.Get(
            "/prepareTargetsForDownload",
            [answer](const httplib::Request&, httplib::Response& res) { answer(res); });
    }
    void serveArchiveInBody(const std::string& name = "sync/targets.zip") {
        servePreparation(
            [name](httplib::Response& res) { res.set_content(fixture(name), "application/zip"); });
    }

    std::shared_ptr<PELSyncSupervisor> supervisor(const std::string& appKey = kAppKey) {
        if (server.port() == 0)
            server.start();
        return PELSyncSupervisor::create(server.baseUrl(), appKey, delegate);
    }
    /// Runs one synchronisation and waits for its end status.
    void runOnce(const std::string& appKey = kAppKey, bool firstTime = true) {
        const int before = delegate->ends();
        supervisor(appKey)->startSync(firstTime);
        ASSERT_TRUE(delegate->waitFor(before + 1)) << "the run never ended";
        net::HttpSession::shared().callbackQueue().sync([] {}); // let queued completions run
    }

    static fs::path projectDirectory() {
        return PELStorage(kAppKey).getConfigurationFilePath().parent_path();
    }
    static std::string stored(const std::string& name) {
        return fileText(projectDirectory() / name);
    }
    static std::optional<std::string> remembered() {
        return UserDefaults::standard().string(PELSyncSupervisor::lastUpdatedKey(kAppKey));
    }
    static void remember(const std::string& revision) {
        ASSERT_TRUE(
            UserDefaults::standard().set(PELSyncSupervisor::lastUpdatedKey(kAppKey), revision));
    }
};

TEST_F(SyncSupervisorTest, ArchiveInTheBodyIsStoredUnpackedAndItsRevisionRemembered) {
    serveConfiguration(kConfiguration);
    serveArchiveInBody();
    runOnce();

    EXPECT_EQ(delegate->sequence(), (Strings{"updateStarted(firstTime: true)", "downloadStarted",
                                             "downloadCompleted", "updateCompleted"}));
    auto events = delegate->events();
    EXPECT_EQ(events[0].thread, On::caller);
    for (std::size_t i = 1; i < events.size(); ++i)
        EXPECT_EQ(events[i].thread, On::sharedCompletionQueue) << events[i].status;
    EXPECT_EQ(stored("configuration.json"), kConfiguration);
    EXPECT_EQ(stored("targets.zip"), fixture("sync/targets.zip"));
    EXPECT_TRUE(fs::is_regular_file(projectDirectory() / "poster.jpg"));
    EXPECT_TRUE(fs::is_regular_file(projectDirectory() / "flyers" / "flyer.png"));
    EXPECT_EQ(remembered(), kRevision);
    EXPECT_TRUE(lines.lines().empty());
    for (const char* path : {"/configuration", "/prepareTargetsForDownload"}) {
        auto sent = server.requestsTo(path);
        ASSERT_EQ(sent.size(), 1u) << path;
        EXPECT_EQ(sent[0].header("appkey"), kAppKey) << "the whole key is sent";
        EXPECT_EQ(sent[0].header("Content-Type"), "application/json");
        EXPECT_EQ(sent[0].header("lastupdated"), std::nullopt) << "a first run sends no revision";
    }
}

// Keys sharing their first 20 characters share the project directory and the revision.
TEST_F(SyncSupervisorTest, NothingNewerEndsWithAlreadyUpToDateAfterSendingTheRevision) {
    const std::string sharingKey = kAppKey + "-other";
    serveConfiguration(kConfiguration);
    servePreparation([](httplib::Response& res) { res.status = 204; });
    remember("rev-before");
    runOnce(sharingKey, false);
    EXPECT_EQ(delegate->sequence(),
              (Strings{"updateStarted(firstTime: false)", "downloadStarted", "alreadyUpToDate"}));
    EXPECT_EQ(delegate->events().back().thread, On::sharedCompletionQueue);
    EXPECT_EQ(lines.lines(), Strings{"Response StatusCode: 204"});
    auto sent = server.requestsTo("/prepareTargetsForDownload").at(0);
    EXPECT_EQ(sent.header("lastupdated"), "rev-before");
    EXPECT_EQ(sent.header("appkey"), sharingKey);
    EXPECT_EQ(stored("configuration.json"), kConfiguration);
    EXPECT_EQ(remembered(), "rev-before") << "an up-to-date run changes no revision";
}

// After a good run, each failing one keeps the stored project and its revision. The project has
// no targets, so no run asks for an archive.
TEST_F(SyncSupervisorTest, ConfigurationFailuresEndTheRunAndKeepTheStoredProject) {
    const std::string empty = R"({"id":"p2","lastUpdated":"rev-empty","targets":[]})";
    const struct {
        int status;
        std::string body, end;
    } cases[] = {
        {200, empty, "updateCompleted"},
        {500, "",
         "updateFailed(error: networkError(500: The operation couldn't be completed. ( "
         "error 500.)))"},
        {204, "",
         "updateFailed(error: networkError(204: The operation couldn't be completed. ( "
         "error 204.)))"},
        {200, R"({"id":"p1","lastUpdated":"new","targets":[{"id":"t"}]})",
         R"(updateFailed(error: parsingError(DecodingError 0: keyNotFound "name" at targets[0])))"},
    };
    std::atomic<std::size_t> row{0};
    server.server.Get("/configuration", [&](const httplib::Request&, httplib::Response& res) {
        res.status = cases[row].status;
        if (!cases[row].body.empty())
            res.set_content(cases[row].body, "application/json");
    });
    for (row = 0; row < std::size(cases); ++row) {
        SCOPED_TRACE(cases[row].end);
        LineCapture captured;
        runOnce();
        EXPECT_EQ(delegate->sequence().back(), cases[row].end);
        EXPECT_EQ(captured.lines(),
                  cases[row].status == 200
                      ? Strings{}
                      : Strings{"Response StatusCode: " + std::to_string(cases[row].status)});
        EXPECT_EQ(delegate->events().back().thread, On::sharedCompletionQueue);
        EXPECT_EQ(stored("configuration.json"), empty);
        EXPECT_EQ(remembered(), "rev-empty");
    }
    EXPECT_EQ(std::ranges::count(delegate->sequence(), "downloadStarted"), 0);
    // A file where the project directory goes: the configuration cannot be saved.
    std::ofstream(documents / "file-in-the-way") << "";
    row = 0;
    runOnce("file-in-the-way");
    EXPECT_TRUE(delegate->sequence().back().starts_with(
        "updateFailed(error: parsingError(posix 20: mkstemp(" +
        (documents / "file-in-the-way").string() + "/.configuration.json."))
        << delegate->sequence().back();
}

// Such a key would put the project somewhere other than a directory of its own: the run is
// refused before any request, so nothing is written anywhere. The command-line tests run ".",
// ".." and "../../x" through the same path.
TEST_F(SyncSupervisorTest, AppKeyPrefixThatCannotNameADirectoryFailsBeforeAnyRequest) {
    const std::pair<std::string, std::string> cases[] = {
        {"", R"("" cannot name a project directory: it is empty)"},
        {"/proc/pelkit-x-0123456789", R"("/proc/pelkit-x-01234" cannot name a project )"
                                      R"(directory: it holds "/")"},
        {std::string("a\0b", 3), R"("a\u0000b" cannot name a project directory: it holds a )"
                                 R"(NUL character)"},
    };
    ScopedEnv nested{"PELKIT_DOCUMENTS_DIR", (documents / "a" / "b").string()};
    for (const auto& [key, reason] : cases) {
        SCOPED_TRACE(key);
        runOnce(key);
        auto sequence = delegate->sequence();
        EXPECT_EQ(Strings(sequence.end() - 2, sequence.end()),
                  (Strings{"updateStarted(firstTime: true)",
                           "updateFailed(error: fileError(posix 22: the app-key prefix " + reason +
                               "))"}));
    }
    EXPECT_TRUE(server.requestsTo("/configuration").empty());
    for (const auto& entry : fs::recursive_directory_iterator(documents.path()))
        ADD_FAILURE() << "written: " << entry.path();
}

TEST_F(SyncSupervisorTest, RevisionThatCannotBeSentAsAHeaderIsNotRemembered) {
    const std::string kDropped =
        "lastUpdated cannot be sent in a header; no revision is remembered";
    // As JSON text; the last one is an ordinary revision.
    const std::string stamps[] = {R"(2026\r\nx-injected: 1)", std::string(100000, '7'), kRevision};
    std::atomic<std::size_t> row{0};
    server.server.Get("/configuration", [&](const httplib::Request&, httplib::Response& res) {
        std::string configuration = kConfiguration;
        res.set_content(
            configuration.replace(configuration.find(kRevision), kRevision.size(), stamps[row]),
            "application/json");
    });
    serveArchiveInBody();
    for (row = 0; row < 2; ++row) {
        runOnce();
        runOnce();
        EXPECT_EQ(delegate->sequence().back(), "updateCompleted") << "a later run was refused";
        EXPECT_EQ(remembered(), std::nullopt);
    }
    // One remembered before this check existed is dropped as it is read.
    remember("2026\r\nx-injected: 1");
    runOnce();
    EXPECT_EQ(remembered(), kRevision);
    EXPECT_EQ(lines.lines(), Strings(5, kDropped));
    for (const auto& sent : server.requestsTo("/prepareTargetsForDownload"))
        EXPECT_EQ(sent.header("lastupdated"), std::nullopt);
}

Strings notAUrl(const std::string& error) {
    return {"Unexpected error: " + error, kTrying, kNotAUrl};
}
const std::string kServerError = "updateFailed(error: networkError(serverError))";

// A body is stored and unpacked as far as it goes; only when that fails is it read as a URL.
// Failures of the preparation itself arrive wrapped twice. Each run keeps the stored
// configuration and writes nothing outside the project and no link.
TEST_F(SyncSupervisorTest, PreparationAnswersEndTheRunAsFarAsTheyGo) {
    const Strings unstorable =
        notAUrl("open(" + (projectDirectory() / "targets.zip").string() + "): Is a directory (21)");
    const struct {
        int status; // 0: the transfer breaks off
        std::string body;
        bool blocked;    // a directory stands at "targets.zip"
        std::string end; // the end status, or its beginning
        Strings lines;
    } answers[] = {
        {500,
         "",
         false,
         "updateFailed(error: networkError(networkError(statusCodeError 500: The operation "
         "couldn't be completed. (statusCodeError error 500.))))",
         {"Response StatusCode: 500"}},
        {0, "", false, "updateFailed(error: networkError(networkError(curl 18: ", {}},
        {200, "not a url", true, kServerError, unstorable},
        // Too long to be read as a URL, whatever it begins with.
        {200, "http://a/" + std::string(20000, 'a'), true, kServerError, unstorable},
        // Archives the unzip tests cover in full: what the run makes of each kind of failure.
        {200, "ftp://files.example/targets.zip", false, "updateCompleted", {}},
        {200, fixture("archives/crc_mismatch.zip"), false, "updateCompleted", {}},
        {200, fixture("archives/not_a_zip.zip"), false, "updateCompleted", {}},
        {200, fixture("archives/zip_slip.zip"), false, kServerError,
         notAUrl("unzipFile(../evil.txt): entry path leaves the destination")},
        {200, fixture("archives/symlink.zip"), false, kServerError,
         notAUrl("unzipFile(link): symbolic link entries are not extracted")},
        {200, fixture("archives/corrupt_data.zip"), false, kServerError,
         notAUrl("zip_fread(broken.bin): Zlib error: data error (13)")},
    };
    std::atomic<std::size_t> row{0};
    serveConfiguration(kConfiguration);
    servePreparation([&](httplib::Response& res) {
        const auto& a = answers[row];
        res.status = a.status ? a.status : 200;
        if (!a.body.empty())
            res.set_content(a.body, "application/zip");
        if (a.status == 0) // announces more than it sends, then closes
            res.set_content_provider(1000, "application/zip",
                                     [](std::size_t, std::size_t, httplib::DataSink& sink) {
                                         return sink.write("PK", 2) && false;
                                     });
    });
    for (row = 0; row < std::size(answers); ++row) {
        const auto& a = answers[row];
        SCOPED_TRACE(a.end + " " + a.body.substr(0, 20));
        fs::remove_all(projectDirectory() / "targets.zip");
        if (a.blocked)
            fs::create_directories(projectDirectory() / "targets.zip" / "in-the-way");
        LineCapture captured;
        runOnce();
        auto sequence = delegate->sequence();
        EXPECT_TRUE(sequence.back().starts_with(a.end)) << sequence.back();
        EXPECT_EQ(sequence.end()[-2],
                  a.end == "updateCompleted" ? "downloadCompleted" : "downloadStarted");
        EXPECT_EQ(captured.lines(), a.lines);
        if (a.status == 200 && !a.blocked) {
            EXPECT_EQ(stored("targets.zip"), a.body);
        }
        EXPECT_EQ(stored("configuration.json"), kConfiguration);
        EXPECT_FALSE(fs::exists(documents / "evil.txt"));
        for (const auto& entry : fs::recursive_directory_iterator(documents.path()))
            EXPECT_FALSE(entry.is_symlink()) << entry.path();
    }
}

TEST_F(SyncSupervisorTest, AnArchiveEntryNamedConfigurationReplacesTheStoredOne) {
    serveConfiguration(kConfiguration);
    serveArchiveInBody("archives/normal.zip");
    remember("old");
    runOnce();
    // The replaced configuration no longer decodes: the run completes and forgets the revision.
    EXPECT_EQ(delegate->sequence().back(), "updateCompleted");
    EXPECT_EQ(stored("configuration.json"), "{\"name\": \"fixture\"}\n");
    EXPECT_EQ(remembered(), std::nullopt);
}

TEST_F(SyncSupervisorTest, SecondStartReportsAlreadySynchingAndTheFirstRunEndsSilently) {
    serveConfiguration(kConfiguration);
    serveArchiveInBody();
    auto sync = supervisor();
    // Started again while the first run's configuration request is under way.
    delegate->onStatus = [raw = sync.get(), again = true](const PELStatus& status) mutable {
        if (status == PELStatus::updateStarted(true) && std::exchange(again, false))
            raw->startSync(false);
    };
    sync->startSync(true);
    EXPECT_FALSE(sync->isSynching());
    EXPECT_EQ(delegate->events().at(1).thread, On::caller);
    ASSERT_TRUE(delegate->waitFor(1, PELStatus::Case::downloadCompleted));
    net::HttpSession::shared().callbackQueue().sync([] {});
    EXPECT_EQ(delegate->sequence(),
              (Strings{"updateStarted(firstTime: true)", "updateFailed(error: alreadySynching)",
                       "downloadStarted", "downloadCompleted"}));
    EXPECT_TRUE(fs::is_regular_file(projectDirectory() / "poster.jpg"));
    EXPECT_EQ(remembered(), std::nullopt) << "an unreported run remembered its revision";

    sync->startSync(true); // a third start begins a new run
    ASSERT_TRUE(delegate->waitFor(2));
    EXPECT_EQ(delegate->sequence().back(), "updateCompleted");
    EXPECT_EQ(remembered(), kRevision);
}

// The download task runs only when storing the body fails: a directory stands at "targets.zip"
// until the download's handler clears it.
class DownloadTaskTest : public SyncSupervisorTest,
                         public ::testing::WithParamInterface<bool /* announce length */> {
protected:
    fs::path zipPath = projectDirectory() / "targets.zip";
    std::string archive = fixture("sync/targets.zip");
    std::atomic<std::size_t> breakAfter{SIZE_MAX};

    DownloadTaskTest() {
        serveConfiguration(kConfiguration);
        // The scheme in capitals: it is compared without regard to case.
        servePreparation([this](httplib::Response& res) {
            res.set_content("HTTP://127.0.0.1:" + std::to_string(server.port()) + "/download",
                            "text/plain");
        });
        fs::create_directories(zipPath / "in-the-way");
    }
    /// Serves the archive 100 bytes at a time, up to `breakAfter`; `prepare` runs first.
    void serveDownload(std::function<void()> prepare) {
        server.server.Get("/download", [=, this](const httplib::Request&, httplib::Response& res) {
            prepare();
            auto provider = [this](std::size_t offset, httplib::DataSink& sink) {
                if (offset >= archive.size())
                    sink.done();
                return offset >= archive.size() ||
                       (offset < breakAfter &&
                        sink.write(archive.data() + offset,
                                   std::min<std::size_t>(
                                       {100, archive.size() - offset, breakAfter - offset})));
            };
            if (GetParam())
                res.set_content_provider(
                    archive.size(), "application/zip",
                    [provider](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                        return provider(offset, sink);
                    });
            else
                res.set_chunked_content_provider("application/zip", provider);
        });
    }
    void clearTheWay() { fs::remove_all(zipPath); }
    /// What the last progress status reports: the fraction, or minus the bytes when unannounced.
    float whole() const { return GetParam() ? 1.0f : -static_cast<float>(archive.size()); }
    static bool isProgressOf(const PELStatus& status, float whole) {
        return status.which() == PELStatus::Case::downloadProgress && status.percentage() == whole;
    }
};

TEST_P(DownloadTaskTest, DownloadedArchiveIsStoredWithProgressOnTheSessionQueue) {
    // The download replaces "targets.zip" whole: another name of the old file keeps it.
    serveDownload([this] {
        clearTheWay();
        std::ofstream(documents / "old.zip") << "old archive";
        fs::create_hard_link(documents / "old.zip", zipPath);
    });
    runOnce();

    ASSERT_EQ(delegate->sequence(),
              (Strings{"updateStarted(firstTime: true)", "downloadStarted", "downloadStarted",
                       "downloadProgress...", "downloadCompleted", "updateCompleted"}));
    auto events = delegate->events();
    EXPECT_EQ(events.at(2).thread, On::sharedCompletionQueue)
        << "the second downloadStarted is sent as the download is started";
    float last = 0;
    for (const auto& e : std::vector(events.begin() + 3, events.end() - 2)) {
        EXPECT_EQ(e.thread, On::otherThread) << "progress belongs on the gateway session's queue";
        EXPECT_EQ(e.status.percentage() < 0, !GetParam()) << "an unknown size gives negatives";
        EXPECT_GT(std::abs(e.status.percentage()), std::abs(last)) << "progress went backwards";
        last = e.status.percentage();
    }
    EXPECT_TRUE(isProgressOf(events.end()[-3].status, whole())) << events.end()[-3].status;
    EXPECT_EQ(stored("targets.zip"), archive);
    EXPECT_TRUE(readFile(documents / "old.zip") == bytesOf("old archive"));
    EXPECT_TRUE(fs::is_regular_file(projectDirectory() / "poster.jpg"));
    EXPECT_EQ(remembered(), kRevision);
    EXPECT_EQ(lines.lines(),
              (Strings{"Unexpected error: open(" + zipPath.string() + "): Is a directory (21)",
                       kTrying}));
    auto downloads = server.requestsTo("/download");
    ASSERT_EQ(downloads.size(), 1u);
    EXPECT_EQ(downloads[0].header("appkey"), std::nullopt) << "the download carries no headers";
}

TEST_P(DownloadTaskTest, FailedDownloadsEndTheRunOnTheSessionQueue) {
    std::atomic<bool> clear{false};
    serveDownload([&] {
        if (clear)
            clearTheWay();
    });
    for (const char* end : {"updateFailed(error: fileError(posix 21: rename(",
                            "updateFailed(error: networkError(curl 18: "}) {
        runOnce(); // first with the directory in the way, then cut short
        EXPECT_TRUE(delegate->sequence().back().starts_with(end)) << delegate->sequence().back();
        EXPECT_EQ(delegate->events().back().thread, On::otherThread);
        clear = true;
        breakAfter = 150;
    }
    EXPECT_EQ(stored("configuration.json"), kConfiguration);
    EXPECT_EQ(remembered(), std::nullopt);
}

// A cancelled run's download still ends on the gateway's delegate queue, where the next run's
// download begins. Held there until the next run starts its download, the stale callbacks must
// not race it (ThreadSanitizer watches).
TEST_P(DownloadTaskTest, StaleDownloadOfACancelledRunDoesNotRaceTheNextOne) {
    std::atomic<int> downloads{0};
    serveDownload([&] {
        if (++downloads == 2)
            clearTheWay();
    });
    struct Hold {
        std::atomic<bool> held{false}, released{false};
        std::atomic<int> started{0};
        void release() {
            released = true;
            released.notify_all();
        }
    };
    auto hold = std::make_shared<Hold>();
    std::shared_ptr<void> letGo(nullptr, [hold](void*) { hold->release(); }); // even on failure
    // Stale callbacks may still come while the fixture is torn down: nothing of it is used.
    delegate->onStatus = [whole = whole(), hold](const PELStatus& status) {
        if (status.which() == PELStatus::Case::downloadStarted && ++hold->started == 4)
            hold->release();
        if (isProgressOf(status, whole) && !hold->held.exchange(true))
            hold->released.wait(false);
    };
    auto sync = supervisor();
    sync->startSync(true);
    ASSERT_TRUE(waitUntil([&] { return hold->held.load(); }));
    sync->cancelSync();
    sync->startSync(false);
    ASSERT_TRUE(delegate->waitFor(1, PELStatus::Case::downloadCompleted));
    ASSERT_TRUE(delegate->waitFor(1));
    EXPECT_EQ(delegate->ends(), 1) << "the cancelled run reported its end";
    EXPECT_EQ(downloads, 2);
    EXPECT_TRUE(fs::is_regular_file(projectDirectory() / "poster.jpg"));
}

INSTANTIATE_TEST_SUITE_P(ContentLength, DownloadTaskTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Announced" : "Chunked"; });

} // namespace
} // namespace pelkit::test
