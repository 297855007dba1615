// The development server, run in-process on a project folder made by each test, and checked with
// a plain HTTP client.
#include "devserver/DevServer.h"

#include <pelkit/foundation/FileSystem.h>
#include <pelkit/zip/Unzip.h>

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <future>

namespace pelkit::devserver {
namespace {

namespace fs = std::filesystem;

std::string configuration(const std::string& lastUpdated) {
    return R"({"id": "p", "lastUpdated": ")" + lastUpdated + R"(", "targets": []})";
}

/// One request and what must come back; an absent body or an empty type is not checked.
struct Exchange {
    std::string path;
    int status;
    std::optional<std::string> body = std::nullopt;
    std::string type = "";
    httplib::Headers headers = {};
};

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
        client = std::make_unique<httplib::Client>("127.0.0.1", *started);
    }
    httplib::Result get(const std::string& path, const httplib::Headers& headers = {}) {
        return client->Get(path, headers);
    }
    void expect(std::initializer_list<Exchange> exchanges) {
        for (const auto& exchange : exchanges) {
            const auto answer = get(exchange.path, exchange.headers);
            ASSERT_TRUE(answer) << exchange.path;
            EXPECT_EQ(answer->status, exchange.status) << exchange.path;
            EXPECT_EQ(answer->body, exchange.body.value_or(answer->body)) << exchange.path;
            EXPECT_EQ(answer->get_header_value("Content-Type"),
                      exchange.type.empty() ? answer->get_header_value("Content-Type")
                                            : exchange.type)
                << exchange.path;
        }
    }

    /// The sorted names of the entries of `archive`, each checked to hold its target's bytes.
    std::vector<std::string> unpacked(const std::string& archive) {
        const auto into = dir / ("unpacked-" + std::to_string(++unpackCount));
        fs::create_directories(into); // an empty archive makes none
        EXPECT_TRUE(writeFileAtomically(dir / "received.zip", archive).has_value());
        EXPECT_TRUE(zip::unzipFile(dir / "received.zip", into).has_value());
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(into)) {
            names.push_back(entry.path().filename());
            EXPECT_TRUE(test::fileText(entry.path()) ==
                        test::fileText(project / "targets" / names.back()))
                << names.back();
        }
        std::ranges::sort(names);
        return names;
    }

    test::TempDir dir;
    fs::path project = dir / "project";
    std::unique_ptr<DevServer> server;
    std::unique_ptr<httplib::Client> client;
    int unpackCount = 0;
};

// Every request is logged with its method, path and the headers the client sent, in lower case.
TEST_F(DevServerTest, EndpointsAnswerFromTheFolderAndAreLogged) {
    write("files/e.bin", "bin");
    serve();
    expect({
        {"/no/such/endpoint", 404, {}, "", {{"LastUpdated", "rev-0"}, {"appkey", "k"}}},
        {"/configuration", 200, configuration("rev-1"), "application/json"},
        {"/prepareTargetsForDownload", 204, "", "", {{"lastupdated", "rev-1"}}},
        {"/prepareTargetsForDownload", 200, {}, "application/zip", {{"lastupdated", "REV-1"}}},
        {"/targets/t1/content/clip/preparecontent", 200, "/files/clip.mp4"},
        {"/targets/t1/content/photo%20one/preparecontent", 200, "/files/photo%20one.jpg"},
        {"/targets/t1/content/clip.mp4/preparecontent", 404, "no file named clip.mp4.* in files/"},
        {"/files/clip.mp4", 200, "0123456789abcdefghij", "video/mp4"},
        {"/files/clip.mp4", 206, "abcde", "", {{"Range", "bytes=10-14"}}},
        {"/files/photo%20one.jpg", 200, "JPEG", "image/jpeg"},
        {"/files/e.bin", 200, {}, "application/octet-stream"},
        {"/files/missing.jpg", 404},
        {"/files/..%2Fconfiguration.json", 404},
        {"/files/..", 404},
        {"/files/", 404},
    });
    const auto log = server->requests();
    ASSERT_EQ(log.size(), 15u);
    EXPECT_EQ(log[0].method + " " + log[0].path, "GET /no/such/endpoint");
    EXPECT_EQ(log[0].header("lastupdated"), "rev-0");
    EXPECT_EQ(log[0].header("appkey"), "k");
    EXPECT_EQ(log[0].header("remote_addr"), std::nullopt) << "only what the client sent";
    server->clearRequests();
    EXPECT_TRUE(server->requests().empty());
}

TEST_F(DevServerTest, EditsToTheFolderShowAtTheNextRequest) {
    serve();
    const auto first = get("/prepareTargetsForDownload")->body;
    EXPECT_EQ(unpacked(first), (std::vector<std::string>{"a.jpg", "b.png"}));
    EXPECT_TRUE(get("/prepareTargetsForDownload")->body == first) << "same revision";

    write("targets/c.jpg", "third"); // a new image without a new stamp still counts
    EXPECT_EQ(unpacked(get("/prepareTargetsForDownload")->body),
              (std::vector<std::string>{"a.jpg", "b.png", "c.jpg"}));
    fs::remove_all(project / "targets");
    EXPECT_TRUE(unpacked(get("/prepareTargetsForDownload")->body).empty());

    const auto file = (project / "configuration.json").string();
    write("configuration.json", "{ \"edited\": true }");
    expect({{"/configuration", 200, "{ \"edited\": true }"}, // verbatim, even unstamped
            {"/prepareTargetsForDownload", 500, file + ": no \"lastUpdated\" text"}});
    write("configuration.json", configuration("rev-2"));
    expect({{"/prepareTargetsForDownload", 200, {}, "", {{"lastupdated", "rev-1"}}},
            {"/prepareTargetsForDownload", 204, "", "", {{"lastupdated", "rev-2"}}}});
    fs::remove(file);
    expect({{"/configuration", 500, "open(" + file + "): No such file or directory (2)"}});
}

TEST_F(DevServerTest, AppKeyIsRequiredOnTheApiEndpointsOnly) {
    serve({.appKey = "key-123"});
    const auto key = [](const char* value) { return httplib::Headers{{"appkey", value}}; };
    const auto refused = "appkey does not match";
    expect({{"/configuration", 401, refused},
            {"/configuration", 401, refused, "", key("key-12")},
            {"/configuration", 200, {}, "", key("key-123")},
            {"/prepareTargetsForDownload", 401, refused, "", key("KEY-123")},
            {"/prepareTargetsForDownload", 200, {}, "", key("key-123")},
            {"/targets/t/content/clip/preparecontent", 401, refused},
            {"/targets/t/content/clip/preparecontent", 200, "/files/clip.mp4", "", key("key-123")},
            {"/files/clip.mp4", 200},
            {"/archive/targets.zip", 200}});
}

TEST_F(DevServerTest, ArchiveIsHandedOutInEveryMode) {
    const auto hostile = dir / "hostile.zip";
    ASSERT_TRUE(writeFileAtomically(hostile, std::string("PK\x03\x04 not an archive")).has_value());
    const std::tuple<ArchiveMode, ArchiveLength, std::optional<fs::path>> modes[] = {
        {ArchiveMode::Body, ArchiveLength::Announced, std::nullopt},
        {ArchiveMode::Url, ArchiveLength::Chunked, std::nullopt},
        {ArchiveMode::Url, ArchiveLength::Announced, hostile},
    };
    for (const auto& [mode, length, file] : modes) {
        SCOPED_TRACE(file ? "from a file" : mode == ArchiveMode::Body ? "in the body" : "chunked");
        serve({.archive = mode, .archiveLength = length, .archiveFile = file});
        const auto prepared = get("/prepareTargetsForDownload");
        const auto download = get("/archive/targets.zip");
        const bool chunked = length == ArchiveLength::Chunked;
        EXPECT_EQ(download->get_header_value("Content-Length"),
                  chunked ? "" : std::to_string(download->body.size()));
        EXPECT_EQ(download->get_header_value("Transfer-Encoding"), chunked ? "chunked" : "");
        EXPECT_TRUE(prepared->body == (mode == ArchiveMode::Body
                                           ? download->body
                                           : server->baseUrl() + "/archive/targets.zip"));
        if (file)
            EXPECT_TRUE(download->body == test::fileText(*file)) << "served byte for byte";
        else
            EXPECT_EQ(unpacked(download->body), (std::vector<std::string>{"a.jpg", "b.png"}));
    }
}

TEST_F(DevServerTest, InjectedStatusReplacesTheAnswerOfItsEndpointOnly) {
    serve({.faults = {{Endpoint::Configuration, {.status = 500}},
                      {Endpoint::PrepareTargets, {.status = 204}},
                      {Endpoint::PrepareContent, {.status = 503}},
                      {Endpoint::Files, {.status = 404}}}});
    expect({{"/configuration", 500, "injected status 500"},
            {"/prepareTargetsForDownload", 204, ""}, // a 204 carries no body
            {"/targets/t/content/clip/preparecontent", 503, "injected status 503"},
            {"/files/clip.mp4", 404, "injected status 404"},
            {"/archive/targets.zip", 200}});
    server->setFault(Endpoint::Archive, {.status = 502});
    server->setFault(Endpoint::Files, {});
    expect({{"/archive/targets.zip", 502, "injected status 502"}, {"/files/clip.mp4", 200}});
}

TEST_F(DevServerTest, CloseAfterSendsTheFullLengthThenDropsTheConnection) {
    serve({.archive = ArchiveMode::Url});
    const auto whole = get("/archive/targets.zip")->body;
    server->setFault(Endpoint::Archive, {.closeAfterBytes = 1000});
    std::string length;
    std::string body;
    client->Get(
        "/archive/targets.zip",
        [&](const httplib::Response& head) {
            length = head.get_header_value("Content-Length");
            return true;
        },
        [&](const char* data, std::size_t size) {
            body.append(data, size);
            return true;
        });
    EXPECT_EQ(length, std::to_string(whole.size())) << "the announced length is the whole one";
    EXPECT_TRUE(body == whole.substr(0, 1000)) << body.size() << " bytes came";

    // Chunked, the cut leaves out the terminating chunk: even an empty body is incomplete.
    serve({.archiveLength = ArchiveLength::Chunked,
           .faults = {{Endpoint::PrepareTargets, {.closeAfterBytes = 0}}}});
    EXPECT_FALSE(get("/prepareTargetsForDownload"));
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

// A missing project folder is refused by the program tests.
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

    write("configuration.json", configuration("rev-1"));
    DevServer first({.project = project});
    const auto port = first.start();
    DevServer second({.project = project, .port = *port});
    EXPECT_EQ(second.start().error()->description(),
              "bind(127.0.0.1:" + std::to_string(*port) + "): Address already in use (98)");
}

} // namespace
} // namespace pelkit::devserver
