// The development server, run in-process on a project folder made by each test, and checked with
// plain HTTP clients (httplib's, and a raw socket where the exact bytes on the wire matter).
#include "devserver/DevServer.h"

#include <pelkit/foundation/FileSystem.h>
#include <pelkit/zip/Unzip.h>

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

namespace pelkit::devserver {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path) {
    auto bytes = readFile(path);
    return bytes ? std::string(textOf(*bytes)) : "<unreadable>";
}

std::string configuration(const std::string& lastUpdated) {
    return R"({"id": "p", "lastUpdated": ")" + lastUpdated + R"(", "targets": []})";
}

/// Everything that arrived on one connection until the server closed it, split after the headers.
std::pair<std::string, std::string> rawGet(int port, const std::string& path) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string all;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        const auto request = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
        (void)!::write(fd, request.data(), request.size());
        char buffer[65536];
        for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;)
            all.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
    const auto end = std::min(all.find("\r\n\r\n"), all.size());
    return {all.substr(0, end), all.substr(std::min(end + 4, all.size()))};
}

class DevServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        write("configuration.json", configuration("rev-1"));
        std::string photo(200 * 1024, '\0'); // several write slices
        for (std::size_t i = 0; i < photo.size(); ++i)
            photo[i] = static_cast<char>(i * 7919 % 251);
        write("targets/a.jpg", photo);
        write("targets/b.png", "PNG");
        write("targets/.b.png.swp", "an editor's scratch file");
        write("files/clip.mp4", "0123456789abcdefghij");
        write("files/photo one.jpg", "JPEG");
    }
    void write(const std::string& name, const std::string& text) {
        fs::create_directories((project / name).parent_path());
        ASSERT_TRUE(writeFileAtomically(project / name, text).has_value()) << name;
    }

    void serve(DevServerOptions options = {}) {
        options.project = project;
        server = std::make_unique<DevServer>(std::move(options));
        auto started = server->start();
        ASSERT_TRUE(started.has_value()) << started.error()->description();
        port = *started;
        client = std::make_unique<httplib::Client>("127.0.0.1", port);
    }
    httplib::Result get(const std::string& path, const httplib::Headers& headers = {}) {
        return client->Get(path, headers);
    }

    /// Each entry of `archive` by name, with its size and a hash of its bytes.
    std::map<std::string, std::string> unpacked(const std::string& archive) {
        const auto into = dir / ("unpacked-" + std::to_string(++unpackCount));
        fs::create_directories(into);
        EXPECT_TRUE(writeFileAtomically(dir / "received.zip", archive).has_value());
        EXPECT_TRUE(zip::unzipFile(dir / "received.zip", into).has_value());
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::directory_iterator(into))
            files[entry.path().filename()] = summary(contents(entry.path()));
        return files;
    }
    static std::string summary(const std::string& bytes) {
        return std::to_string(bytes.size()) + " bytes #" +
               std::to_string(std::hash<std::string>{}(bytes));
    }
    std::map<std::string, std::string> targets(std::vector<std::string> names = {"a.jpg",
                                                                                 "b.png"}) {
        std::map<std::string, std::string> files;
        for (const auto& name : names)
            files[name] = summary(contents(project / "targets" / name));
        return files;
    }

    test::TempDir dir;
    fs::path project = dir / "project";
    std::unique_ptr<DevServer> server;
    std::unique_ptr<httplib::Client> client;
    int port = 0;
    int unpackCount = 0;
};

TEST_F(DevServerTest, ConfigurationIsServedVerbatimAndReadAtEveryRequest) {
    serve();
    const auto first = get("/configuration");
    EXPECT_EQ(first->status, 200);
    EXPECT_EQ(first->get_header_value("Content-Type"), "application/json");
    EXPECT_EQ(first->body, configuration("rev-1"));

    write("configuration.json", "{ \"edited\": true }");
    EXPECT_EQ(get("/configuration")->body, "{ \"edited\": true }") << "verbatim, even unstamped";

    fs::remove(project / "configuration.json");
    EXPECT_EQ(get("/configuration")->status, 500);
    EXPECT_EQ(get("/prepareTargetsForDownload")->body,
              "open(" + (project / "configuration.json").string() +
                  "): No such file or directory (2)");
}

TEST_F(DevServerTest, AppKeyIsRequiredOnTheApiEndpointsOnly) {
    serve({.appKey = "key-123"});
    const std::tuple<const char*, const char*, int> cases[] = {
        {"/configuration", nullptr, 401},
        {"/configuration", "key-12", 401},
        {"/configuration", "key-123", 200},
        {"/prepareTargetsForDownload", "KEY-123", 401},
        {"/prepareTargetsForDownload", "key-123", 200},
        {"/targets/t/content/clip/preparecontent", nullptr, 401},
        {"/targets/t/content/clip/preparecontent", "key-123", 200},
        {"/files/clip.mp4", nullptr, 200},
        {"/archive/targets.zip", nullptr, 200},
    };
    for (const auto& [path, key, status] : cases) {
        const auto response =
            get(path, key ? httplib::Headers{{"appkey", key}} : httplib::Headers{});
        EXPECT_EQ(response->status, status) << path << " with appkey " << (key ? key : "-");
        EXPECT_EQ(response->body == "appkey does not match", status == 401) << path;
    }
}

TEST_F(DevServerTest, PrepareAnswers204OnlyForTheCurrentStamp) {
    serve();
    auto check = [&](std::vector<std::pair<const char*, int>> cases) {
        for (const auto& [sent, status] : cases) {
            const auto response =
                get("/prepareTargetsForDownload",
                    sent ? httplib::Headers{{"lastupdated", sent}} : httplib::Headers{});
            EXPECT_EQ(response->status, status) << "lastupdated " << (sent ? sent : "<absent>");
            EXPECT_EQ(response->body.empty(), status == 204);
        }
    };
    check({{nullptr, 200}, {"rev-1", 204}, {"rev-0", 200}, {"REV-1", 200}});
    write("configuration.json", configuration("rev-2"));
    check({{"rev-1", 200}, {"rev-2", 204}});
}

TEST_F(DevServerTest, ArchiveHoldsTheVisibleTargetsAndFollowsTheirChanges) {
    serve();
    const auto first = get("/prepareTargetsForDownload");
    EXPECT_EQ(first->get_header_value("Content-Type"), "application/zip");
    EXPECT_EQ(first->get_header_value("Content-Length"), std::to_string(first->body.size()));
    EXPECT_EQ(unpacked(first->body), targets());
    EXPECT_TRUE(get("/prepareTargetsForDownload")->body == first->body) << "same revision";

    write("targets/c.jpg", "third"); // a new image without a new stamp still counts
    EXPECT_EQ(unpacked(get("/prepareTargetsForDownload")->body),
              targets({"a.jpg", "b.png", "c.jpg"}));

    fs::remove_all(project / "targets");
    EXPECT_EQ(unpacked(get("/prepareTargetsForDownload")->body), targets({}))
        << "a project without targets/ gets an empty archive";
}

TEST_F(DevServerTest, UrlModeHandsOutTheDownloadUrlWithOrWithoutContentLength) {
    for (auto length : {ArchiveLength::Announced, ArchiveLength::Chunked}) {
        const bool chunked = length == ArchiveLength::Chunked;
        SCOPED_TRACE(chunked ? "chunked" : "with Content-Length");
        serve({.archive = ArchiveMode::Url, .archiveLength = length});

        const auto answer = get("/prepareTargetsForDownload");
        EXPECT_EQ(answer->status, 200);
        EXPECT_EQ(answer->body, server->baseUrl() + "/archive/targets.zip");

        const auto download = get("/archive/targets.zip");
        EXPECT_EQ(download->status, 200);
        EXPECT_EQ(download->has_header("Content-Length"), !chunked);
        EXPECT_EQ(download->get_header_value("Transfer-Encoding"), chunked ? "chunked" : "");
        EXPECT_EQ(unpacked(download->body), targets());
    }
}

TEST_F(DevServerTest, PrepareContentPointsAtAFileServedWithItsType) {
    write("files/a.m4a", "m4a");
    write("files/b.wav", "wav");
    write("files/c.mp3", "mp3");
    write("files/d.png", "png");
    write("files/e.bin", "bin");
    serve();
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"clip", "/files/clip.mp4", "video/mp4"},
        {"photo%20one", "/files/photo%20one.jpg", "image/jpeg"},
        {"a", "/files/a.m4a", "audio/mp4"},
        {"b", "/files/b.wav", "audio/wav"},
        {"c", "/files/c.mp3", "audio/mpeg"},
        {"d", "/files/d.png", "image/png"},
        {"e", "/files/e.bin", "application/octet-stream"},
    };
    for (const auto& [contentId, path, type] : cases) {
        const auto prepared =
            get("/targets/t1/content/" + std::string(contentId) + "/preparecontent");
        EXPECT_EQ(prepared->status, 200) << contentId;
        EXPECT_EQ(prepared->body, path);
        const auto media = get(prepared->body);
        EXPECT_EQ(media->status, 200) << path;
        EXPECT_EQ(media->get_header_value("Content-Type"), type) << path;
    }
    EXPECT_EQ(get("/targets/t1/content/clip.mp4/preparecontent")->body,
              "no file named clip.mp4.* in files/");

    const auto part = get("/files/clip.mp4", {{"Range", "bytes=10-14"}});
    EXPECT_EQ(part->status, 206);
    EXPECT_EQ(part->body, "abcde");

    for (const auto* path : {"/targets/t1/content/missing/preparecontent", "/files/missing.jpg",
                             "/files/..%2Fconfiguration.json", "/files/..", "/files/"})
        EXPECT_EQ(get(path)->status, 404) << path;
}

TEST_F(DevServerTest, InjectedStatusReplacesTheAnswerOfItsEndpointOnly) {
    const std::pair<Endpoint, const char*> endpoints[] = {
        {Endpoint::Configuration, "/configuration"},
        {Endpoint::PrepareTargets, "/prepareTargetsForDownload"},
        {Endpoint::PrepareContent, "/targets/t/content/clip/preparecontent"},
        {Endpoint::Files, "/files/clip.mp4"},
        {Endpoint::Archive, "/archive/targets.zip"},
    };
    serve();
    for (const auto& [faulty, _] : endpoints) {
        server->setFault(faulty, {.status = 503});
        for (const auto& [endpoint, path] : endpoints) {
            const auto response = get(path);
            EXPECT_EQ(response->status, endpoint == faulty ? 503 : 200)
                << path << " while " << endpointName(faulty) << " is faulty";
            EXPECT_EQ(response->body == "injected status 503", endpoint == faulty) << path;
        }
        server->setFault(faulty, {});
    }
    server->setFault(Endpoint::PrepareTargets, {.status = 204});
    EXPECT_EQ(get("/prepareTargetsForDownload")->body, "") << "a 204 carries no body";
}

TEST_F(DevServerTest, CloseAfterSendsTheFullLengthThenDropsTheConnection) {
    serve({.archive = ArchiveMode::Url});
    const auto whole = get("/archive/targets.zip")->body;
    server->setFault(Endpoint::Archive, {.closeAfterBytes = 1000});

    const auto [head, body] = rawGet(port, "/archive/targets.zip");
    EXPECT_TRUE(head.starts_with("HTTP/1.1 200 OK")) << head;
    EXPECT_NE(head.find("\r\nContent-Length: " + std::to_string(whole.size()) + "\r\n"),
              std::string::npos)
        << "the announced length is the whole archive's: " << head;
    EXPECT_TRUE(body == whole.substr(0, 1000)) << body.size() << " bytes came";

    // Chunked, the cut leaves out the terminating chunk.
    serve({.archiveLength = ArchiveLength::Chunked,
           .faults = {{Endpoint::PrepareTargets, {.closeAfterBytes = 0}}}});
    const auto [chunkedHead, chunkedBody] = rawGet(port, "/prepareTargetsForDownload");
    EXPECT_NE(chunkedHead.find("Transfer-Encoding: chunked"), std::string::npos) << chunkedHead;
    EXPECT_EQ(chunkedBody, "");
}

TEST_F(DevServerTest, DelayHoldsTheAnswerUntilStopCutsItShort) {
    serve({.faults = {{Endpoint::Configuration, {.delay = std::chrono::hours(1)}}}});
    auto answer = std::async(std::launch::async, [this] { return get("/configuration"); });
    ASSERT_TRUE(test::waitUntil([&] { return !server->requests().empty(); }));
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout)
        << "an hour's delay cannot have passed";
    server->stop(); // must return long before the hour is up
    answer.get();
}

TEST_F(DevServerTest, ArchiveFileIsServedByteForByteInPlaceOfTheTargets) {
    const std::string hostile = "PK\x03\x04 not much of an archive";
    ASSERT_TRUE(writeFileAtomically(dir / "hostile.zip", hostile).has_value());
    for (auto mode : {ArchiveMode::Body, ArchiveMode::Url}) {
        serve({.archive = mode, .archiveFile = dir / "hostile.zip"});
        EXPECT_EQ(get("/archive/targets.zip")->body, hostile);
        EXPECT_EQ(get("/prepareTargetsForDownload")->body == hostile, mode == ArchiveMode::Body);
    }
}

TEST_F(DevServerTest, RequestLogRecordsMethodPathAndLowerCaseHeaders) {
    serve();
    get("/prepareTargetsForDownload", {{"LastUpdated", "rev-0"}, {"appkey", "k"}});
    get("/prepareTargetsForDownload", {{"appkey", "k"}});
    get("/no/such/endpoint");

    const auto log = server->requests();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].method, "GET");
    EXPECT_EQ(log[0].path, "/prepareTargetsForDownload");
    EXPECT_EQ(log[0].header("lastupdated"), "rev-0");
    EXPECT_EQ(log[0].header("appkey"), "k");
    EXPECT_EQ(log[0].header("remote_addr"), std::nullopt) << "only what the client sent";
    EXPECT_EQ(log[1].header("lastupdated"), std::nullopt);
    EXPECT_EQ(log[2].path, "/no/such/endpoint");
    server->clearRequests();
    EXPECT_TRUE(server->requests().empty());
}

TEST_F(DevServerTest, StartFailsWithAClearErrorForAnUnservableFolderOrATakenPort) {
    const auto file = (project / "configuration.json").string();
    const std::pair<const char*, std::string> cases[] = {
        {nullptr, "open(" + file + "): No such file or directory (2)"},
        {"{not json", file + ": not a JSON document"},
        {R"({"id": "p", "targets": []})", file + ": no \"lastUpdated\" text"},
        {R"({"lastUpdated": 20240501})", file + ": no \"lastUpdated\" text"},
        {R"(["lastUpdated"])", file + ": no \"lastUpdated\" text"},
    };
    for (const auto& [text, description] : cases) {
        fs::remove(file);
        if (text)
            write("configuration.json", text);
        DevServer unservable({.project = project});
        EXPECT_EQ(unservable.start().error()->description(), description);
    }
    DevServer missing({.project = dir / "nowhere"});
    EXPECT_EQ(missing.start().error()->description(),
              "project folder not found: " + (dir / "nowhere").string());

    write("configuration.json", configuration("rev-1"));
    serve();
    DevServer second({.project = project, .port = port});
    EXPECT_EQ(second.start().error()->description(),
              "bind(127.0.0.1:" + std::to_string(port) + "): Address already in use (98)");
}

} // namespace
} // namespace pelkit::devserver
