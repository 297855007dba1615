#include <pelkit/foundation/FileSystem.h>
#include <pelkit/net/HttpSession.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <future>

namespace pelkit::net {
namespace {

using namespace std::chrono_literals;

std::string payload(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 31) % 251);
    return bytes;
}

HttpRequest requestFor(const std::string& url,
                       std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    return {Url::parse(url).value(), {}, timeout}; // a URL that does not parse fails the test
}

enum class Cancel { Never, BeforeResume, AfterResume };

struct Fetch {
    HttpRequest request;
    Cancel cancel = Cancel::Never;
};

/// Starts every request at once, keeping no task (a resumed task keeps itself alive), and waits
/// for all completions.
std::vector<DataTaskResult> fetchAll(HttpSession& session, const std::vector<Fetch>& fetches) {
    std::vector<std::promise<DataTaskResult>> promises(fetches.size());
    for (std::size_t i = 0; i < fetches.size(); ++i) {
        auto task = session.dataTask(fetches[i].request, [&, i](DataTaskResult result) {
            EXPECT_TRUE(session.callbackQueue().isCurrent())
                << "data-task completions run on the session's callback queue";
            promises[i].set_value(std::move(result));
        });
        if (fetches[i].cancel == Cancel::BeforeResume)
            task->cancel();
        task->resume();
        if (fetches[i].cancel == Cancel::AfterResume)
            task->cancel();
    }
    std::vector<DataTaskResult> results;
    for (auto& promise : promises) {
        auto future = promise.get_future();
        if (future.wait_for(30s) != std::future_status::ready) {
            ADD_FAILURE() << "a completion never ran";
            std::abort();
        }
        results.push_back(future.get());
    }
    return results;
}

/// A download delegate that records every callback, then its own destruction; the record outlives
/// the delegate.
struct Event {
    std::string kind;
    std::int64_t written = 0, total = 0, expected = 0;
    std::string fileContents{};
    std::filesystem::path location{};
    ErrorPtr error{};
    std::optional<HttpResponse> response{};
};

struct Recording {
    std::mutex mutex;
    std::vector<Event> events;

    std::vector<Event> snapshot() {
        std::lock_guard lock(mutex);
        return events;
    }
    bool waitFor(const std::string& kind) {
        return test::waitUntil(
            [&] { return !snapshot().empty() && snapshot().back().kind == kind; });
    }
};

class RecordingDelegate : public HttpSessionDelegate {
public:
    explicit RecordingDelegate(std::shared_ptr<Recording> recording)
        : recording_(std::move(recording)) {}
    ~RecordingDelegate() override {
        ownSession.reset(); // the last reference, when the session is owned here
        std::lock_guard lock(recording_->mutex);
        recording_->events.push_back({.kind = "destroyed"});
    }
    void didWriteData(HttpSession& session, HttpTask&, std::int64_t written, std::int64_t total,
                      std::int64_t expected) override {
        add(session, {.kind = "write", .written = written, .total = total, .expected = expected});
    }
    void didFinishDownloading(HttpSession& session, HttpTask&,
                              const std::filesystem::path& location) override {
        auto bytes = readFile(location);
        add(session, {.kind = "finish",
                      .fileContents = bytes ? std::string(textOf(*bytes)) : "",
                      .location = location});
    }
    void didComplete(HttpSession& session, HttpTask&, ErrorPtr error,
                     const std::optional<HttpResponse>& response) override {
        add(session, {.kind = "complete", .error = error, .response = response});
    }
    void didBecomeInvalid(HttpSession& session, ErrorPtr error) override {
        add(session, {.kind = "invalid", .error = error});
    }

    std::shared_ptr<HttpSession> ownSession;

private:
    void add(HttpSession& session, Event event) {
        EXPECT_TRUE(session.callbackQueue().isCurrent()) << "callbacks run on the session's queue";
        std::lock_guard lock(recording_->mutex);
        recording_->events.push_back(std::move(event));
    }
    std::shared_ptr<Recording> recording_;
};

/// Two servers on 127.0.0.1: `server`, the origin of most requests, and `other` on another port.
/// Both record what reaches ".../echo" and redirect "/to" to its `url` parameter.
class HttpSessionTest : public ::testing::Test {
protected:
    struct Received {
        int port;
        std::string path;
        httplib::Headers headers;
    };

    void SetUp() override {
        for (auto* each : {&server, &other}) {
            each->server.Get(".*/echo", [this, each](const httplib::Request& request, auto&) {
                std::lock_guard lock(mutex);
                received.push_back({each->port(), request.path, request.headers});
            });
            each->server.Get("/to", [](const httplib::Request& request, httplib::Response& reply) {
                reply.set_redirect(request.get_param_value("url"));
                reply.set_header("X-Pelkit-Status", "302");
            });
        }
        other.server.Get("/back", [this](const auto&, httplib::Response& reply) {
            reply.set_redirect(server.baseUrl() + "/echo");
        });
        server.server.Get(R"(/status/(\d+))", [](const auto& request, httplib::Response& reply) {
            reply.status = std::stoi(request.matches[1]);
            reply.set_header("X-Pelkit-Status", request.matches[1]);
            if (reply.status != 204)
                reply.set_content("status " + std::string(request.matches[1]), "text/plain");
        });
        server.server.Get(R"(/redirect/(\d+))", [](const auto& request, httplib::Response& reply) {
            int left = std::stoi(request.matches[1]);
            reply.set_redirect(left > 0 ? "/redirect/" + std::to_string(left - 1) : "/status/200");
        });
        server.server.Get(R"(/bytes/(\d+))", [](const auto& request, httplib::Response& reply) {
            reply.set_content(payload(std::stoul(request.matches[1])), "application/octet-stream");
        });
        // Announces 1000 bytes, sends 100 and hangs up.
        server.server.Get("/dropped", [](const auto&, httplib::Response& reply) {
            reply.set_content_provider(1000, "application/octet-stream",
                                       [](std::size_t, std::size_t, httplib::DataSink& sink) {
                                           sink.write(payload(100).data(), 100);
                                           return false;
                                       });
        });
        // Chunked, with no announced length; "/chunks/0" never ends.
        server.server.Get(R"(/chunks/(\d+))", [](const auto& request, httplib::Response& reply) {
            std::size_t size = std::stoul(request.matches[1]);
            reply.set_chunked_content_provider(
                "application/octet-stream", [size](std::size_t offset, httplib::DataSink& sink) {
                    if (size > 0 && offset >= size) {
                        sink.done();
                        return true;
                    }
                    auto chunk =
                        payload(offset + 10'000).substr(offset, size > 0 ? size - offset : 10'000);
                    return sink.write(chunk.data(), chunk.size());
                });
        });
        server.start();
        other.start();
    }

    std::shared_ptr<HttpSession> makeSession(HttpSessionConfiguration configuration = {}) {
        auto delegate = std::make_shared<RecordingDelegate>(recording);
        delegateAlive = delegate;
        return HttpSession::create(std::move(delegate), configuration);
    }

    std::vector<Received> requests() {
        std::lock_guard lock(mutex);
        return received;
    }

    test::HttpTestServer server, other;
    std::mutex mutex;
    std::vector<Received> received;
    std::shared_ptr<Recording> recording = std::make_shared<Recording>();
    std::weak_ptr<RecordingDelegate> delegateAlive;
};

TEST_F(HttpSessionTest, ConcurrentDataTasksDeliverStatusHeadersAndBodyAfterRedirects) {
    struct Case {
        std::string path;
        int status;
        std::string answeredPath, body;
    };
    const std::string toFtp = "/to?url=ftp://127.0.0.1/targets.zip";
    const std::vector<Case> cases = {{"/status/200", 200, "/status/200", "status 200"},
                                     {"/status/204", 204, "/status/204", ""},
                                     {"/status/404", 404, "/status/404", "status 404"},
                                     {"/status/500", 500, "/status/500", "status 500"},
                                     {"/redirect/3", 200, "/status/200", "status 200"},
                                     {toFtp, 302, toFtp, ""}};
    std::vector<Fetch> fetches;
    for (const auto& c : cases)
        fetches.push_back({requestFor(server.baseUrl() + c.path)});
    auto results = fetchAll(HttpSession::shared(), fetches);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& [path, status, answeredPath, body] = cases[i];
        auto& result = results[i];
        ASSERT_FALSE(result.error) << path << ": an HTTP status is not a transport failure";
        ASSERT_TRUE(result.response && result.body) << path;
        EXPECT_EQ(result.response->statusCode, status) << path;
        EXPECT_EQ(result.response->url, server.baseUrl() + answeredPath)
            << path << ": the URL that answered, after redirects";
        EXPECT_EQ(textOf(*result.body), body) << path;
        EXPECT_EQ(result.response->headers["x-pelkit-status"], std::to_string(status))
            << path << ": header names are lower-cased";
        EXPECT_EQ(result.response->headers.count("location"), status == 302 ? 1u : 0u)
            << path << ": headers come from the final response only; only http(s) is followed";
        EXPECT_EQ(result.response->expectedContentLength, std::int64_t(body.size())) << path;
    }
}

TEST_F(HttpSessionTest, RequestGoesOutAsWrittenAndItsHeadersOnlyToItsOrigin) {
    const std::map<std::string, std::string> headers = {{"Content-Type", "application/json"},
                                                        {"appkey", "0123456789abcdefghijKLMN"},
                                                        {"lastupdated", "2024-05-01 10:00:00"}};
    struct Case {
        std::string name, path;
        int receivedOn;
        std::string receivedPath;
        bool withHeaders;
    };
    const std::string localhost = "http://localhost:" + std::to_string(server.port());
    for (const auto& [name, path, receivedOn, receivedPath, withHeaders] : std::vector<Case>{
             {"no redirect", "/a/./b/../echo", server.port(), "/a/./b/../echo", true},
             {"same origin", "/to?url=/echo", server.port(), "/echo", true},
             {"other port", "/to?url=" + other.baseUrl() + "/echo", other.port(), "/echo", false},
             {"other host name", "/to?url=" + localhost + "/echo", server.port(), "/echo", false},
             {"back at the origin", "/to?url=" + other.baseUrl() + "/back", server.port(), "/echo",
              true}}) {
        auto request = requestFor(server.baseUrl() + path);
        request.headers = headers;
        auto result = std::move(fetchAll(HttpSession::shared(), {{request}}).front());
        ASSERT_FALSE(result.error) << name << ": " << *result.error;
        ASSERT_EQ(result.response->statusCode, 200) << name << ": the redirect must be followed";
        auto last = requests().back();
        EXPECT_EQ(last.port, receivedOn) << name;
        EXPECT_EQ(last.path, receivedPath) << name << ": the path is sent as written";
        std::map<std::string, std::string> arrived;
        for (const auto& [header, value] : headers) {
            if (auto found = last.headers.find(header); found != last.headers.end())
                arrived[header] = found->second;
        }
        EXPECT_EQ(arrived, withHeaders ? headers : decltype(headers){})
            << name << ": the request's headers go to its own origin only, as sent";
    }
}

TEST_F(HttpSessionTest, DataBodyStopsAtTheSessionLimit) {
    auto session = makeSession({.dataBodyLimit = 100'000});
    auto results = fetchAll(*session, {{requestFor(server.baseUrl() + "/bytes/100000")},
                                       {requestFor(server.baseUrl() + "/bytes/100001")},
                                       {requestFor(server.baseUrl() + "/chunks/0")}});
    ASSERT_FALSE(results[0].error) << *results[0].error;
    EXPECT_TRUE(textOf(*results[0].body) == payload(100'000)) << "body bytes differ";
    EXPECT_EQ(results[0].body->capacity(), 100'000u) << "the body buffer is sized by its length";
    for (const auto& tooLong : {results[1], results[2]}) {
        ASSERT_TRUE(tooLong.error) << "a body past the limit, announced or not, fails the task";
        EXPECT_EQ(tooLong.error->description(),
                  "curl_easy_perform: Maximum file size exceeded (63): the body exceeds the "
                  "session's limit of 100000 bytes");
    }
}

TEST_F(HttpSessionTest, TransportFailuresBecomeCurlErrors) {
    test::SilentPort refusing(test::SilentPort::Mode::refuse);
    test::SilentPort silent;
    auto withBadHeader = requestFor(server.baseUrl() + "/echo");
    withBadHeader.headers = {{"appkey", "key\r\nX-Injected: yes"}};

    struct Case {
        Fetch fetch;
        int code;
        std::string description; // exact, or a prefix when it ends with ": "
    };
    const std::string cancelled =
        "curl_easy_perform: Operation was aborted by an application callback (42): cancelled";
    const std::vector<Case> cases = {
        {{requestFor(refusing.url())}, 7, "curl_easy_perform: Couldn't connect to server (7): "},
        {{requestFor(silent.url(), 300ms)},
         28,
         "curl_easy_perform: Timeout was reached (28): nothing received for 300 ms"},
        {{requestFor("ftp://127.0.0.1/targets.zip")},
         1,
         "curl_easy_perform: Unsupported protocol (1): "},
        {{requestFor(server.baseUrl() + "/redirect/17")},
         47,
         "curl_easy_perform: Number of redirects hit maximum amount (47): Maximum (16) redirects "
         "followed"},
        {{requestFor("127.0.0.1:8000/test")},
         3,
         "curl_easy_setopt: URL using bad/illegal format or missing URL (3): no scheme in "
         "'127.0.0.1:8000/test'"},
        {{withBadHeader},
         43,
         "curl_slist_append: A libcurl function was given a bad argument (43): header 'appkey' "
         "is not a single header line"},
        {{requestFor(silent.url()), Cancel::AfterResume}, 42, cancelled},
        {{requestFor(silent.url()), Cancel::BeforeResume}, 42, cancelled},
    };
    std::vector<Fetch> fetches;
    for (const auto& c : cases)
        fetches.push_back(c.fetch);
    auto results = fetchAll(HttpSession::shared(), fetches);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& [fetch, code, description] = cases[i];
        const auto& result = results[i];
        const std::string name = "case " + std::to_string(i) + " (" + description + ")";
        ASSERT_TRUE(result.error) << name << ": expected a transport failure";
        EXPECT_EQ(result.error->domain(), kTransportErrorDomain) << name;
        EXPECT_EQ(result.error->code(), code) << name << ": " << *result.error;
        if (description.ends_with(": "))
            EXPECT_TRUE(result.error->description().starts_with(description)) << *result.error;
        else
            EXPECT_EQ(result.error->description(), description) << name;
        EXPECT_FALSE(result.response || result.body) << name << ": a failure carries no response";
    }
}

TEST_F(HttpSessionTest, DownloadStreamsOrderedProgressThenFileThenCompletion) {
    test::TempDir temporaries;
    test::ScopedEnv tmpdir("TMPDIR", temporaries.path().string());
    struct Case {
        std::string url;
        std::int64_t expected;
        std::size_t received;
        int errorCode;
    };
    for (const auto& [url, expected, received, errorCode] :
         std::vector<Case>{{server.baseUrl() + "/bytes/300000", 300'000, 300'000, 0},
                           {server.baseUrl() + "/chunks/45000", -1, 45'000, 0},
                           {server.baseUrl() + "/dropped", 1000, 100, 18}}) {
        recording = std::make_shared<Recording>();
        // A download goes to its file as it arrives, so the data-body limit does not apply.
        auto session = makeSession({.dataBodyLimit = 1000});
        session->downloadTask(requestFor(url))->resume();
        ASSERT_TRUE(recording->waitFor("complete")) << url;
        auto events = recording->snapshot();

        std::int64_t total = 0;
        std::size_t i = 0;
        for (; i < events.size() && events[i].kind == "write"; ++i) {
            total += events[i].written;
            EXPECT_EQ(events[i].total, total) << url << ": totals add up in order, event " << i;
            EXPECT_EQ(events[i].expected, expected) << url << ", event " << i;
        }
        EXPECT_EQ(total, std::int64_t(received)) << url;
        ASSERT_EQ(events.size(), i + (errorCode ? 1 : 2))
            << url << ": progress, the file unless the transfer failed, then the completion";
        if (errorCode == 0) {
            EXPECT_TRUE(events[i].fileContents == payload(received)) << url << ": file differs";
            EXPECT_FALSE(std::filesystem::exists(events[i].location))
                << url << ": the temporary file is removed after the callback";
        }
        EXPECT_EQ(events.back().error ? events.back().error->code() : 0, errorCode) << url;
        EXPECT_EQ(events.back().response.has_value(), errorCode == 0) << url;
        EXPECT_TRUE(std::filesystem::is_empty(temporaries.path())) << url << ": file left behind";
    }
}

// Ended by finishing or cancelling, a session owned by its delegate alone is destroyed from its
// own callback thread when it lets the delegate go; destroyed outright, it calls back no more.
TEST_F(HttpSessionTest, EndingASessionReportsAfterTasksEndThenReleasesDelegate) {
    test::SilentPort silent;
    enum class End { finish, cancel, destroy };
    for (End end : {End::finish, End::cancel, End::destroy}) {
        recording = std::make_shared<Recording>();
        auto session = makeSession();
        // Finishing waits for a transfer that ends by itself; the others end one that never would.
        session
            ->downloadTask(
                requestFor(end == End::finish ? server.baseUrl() + "/bytes/5000" : silent.url()))
            ->resume();
        const int name = static_cast<int>(end);
        if (end == End::destroy) {
            session.reset();
            ASSERT_EQ(recording->snapshot().size(), 1u) << "no callback after destruction";
            EXPECT_EQ(recording->snapshot().front().kind, "destroyed") << "delegate released";
            continue;
        }
        delegateAlive.lock()->ownSession = session;
        end == End::cancel ? session->invalidateAndCancel() : session->finishTasksAndInvalidate();
        session.reset();
        ASSERT_TRUE(recording->waitFor("destroyed")) << "end " << name << ": delegate released";
        auto events = recording->snapshot();
        ASSERT_GE(events.size(), 3u) << "end " << name;
        const auto& ended = events[events.size() - 3];
        EXPECT_EQ(ended.kind, "complete") << "end " << name << ": the task ends first";
        EXPECT_EQ(ended.error ? ended.error->code() : 0, end == End::cancel ? 42 : 0);
        EXPECT_EQ(events[events.size() - 2].kind, "invalid") << "end " << name;
        EXPECT_FALSE(events[events.size() - 2].error) << "a requested invalidation has no error";
    }
}

TEST(HttpSessionDeathTest, DownloadOnASessionWithoutDelegateIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(HttpSession::shared().downloadTask(
                     {*Url::parse("http://127.0.0.1/"), {}, std::chrono::seconds(1)}),
                 "Fatal error: HttpSession::downloadTask\\(\\): the session has no delegate to "
                 "report to");
}

} // namespace
} // namespace pelkit::net
