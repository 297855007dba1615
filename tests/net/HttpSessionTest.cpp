#include <pelkit/foundation/FileSystem.h>
#include <pelkit/net/HttpSession.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <future>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pelkit::net {
namespace {

using namespace std::chrono_literals;

std::string payload(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 31) % 251);
    return bytes;
}

/// A TCP socket on 127.0.0.1. Bound only, it refuses connections; listening, it lets clients
/// connect but never answers unless `serveOnce` takes the connection.
class RawSocket {
public:
    enum class Mode { Refuse, Listen };
    explicit RawSocket(Mode mode) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
            (mode == Mode::Listen && ::listen(fd_, 8) != 0))
            ADD_FAILURE() << "cannot set up a socket on 127.0.0.1";
        port_ = ntohs(address.sin_port);
    }
    ~RawSocket() {
        ::shutdown(fd_, SHUT_RDWR);
        if (thread_.joinable())
            thread_.join();
        ::close(fd_);
    }
    /// Accepts one connection, reads the request, writes `reply` and closes.
    void serveOnce(std::string reply) {
        thread_ = std::thread([this, reply = std::move(reply)] {
            int client = ::accept(fd_, nullptr, nullptr);
            if (client < 0)
                return;
            std::string request;
            char buffer[4096];
            while (request.find("\r\n\r\n") == std::string::npos) {
                auto got = ::read(client, buffer, sizeof buffer);
                if (got <= 0)
                    break;
                request.append(buffer, static_cast<std::size_t>(got));
            }
            [[maybe_unused]] auto sent = ::write(client, reply.data(), reply.size());
            ::close(client);
        });
    }
    std::string url(const std::string& path = "/") const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

private:
    int fd_;
    int port_ = 0;
    std::thread thread_;
};

HttpRequest requestFor(const std::string& url,
                       std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    auto parsed = Url::parse(url);
    if (!parsed)
        ADD_FAILURE() << "test URL does not parse: " << url;
    return {parsed.value_or(*Url::parse("invalid")), {}, timeout};
}

enum class Cancel { Never, BeforeResume, AfterResume };

DataTaskResult fetch(HttpSession& session, HttpRequest request, Cancel cancel = Cancel::Never) {
    std::promise<DataTaskResult> promise;
    auto future = promise.get_future();
    auto task = session.dataTask(std::move(request), [&](DataTaskResult result) {
        EXPECT_TRUE(session.callbackQueue().isCurrent())
            << "data-task completions run on the session's callback queue";
        promise.set_value(std::move(result));
    });
    if (cancel == Cancel::BeforeResume)
        task->cancel();
    task->resume();
    if (cancel == Cancel::AfterResume)
        task->cancel();
    // The caller keeps no reference: a resumed task keeps itself alive.
    task.reset();
    if (future.wait_for(30s) != std::future_status::ready) {
        ADD_FAILURE() << "the completion never ran";
        std::abort();
    }
    return future.get();
}

/// A download delegate that records every callback; the record outlives the delegate.
struct Event {
    std::string kind;
    std::int64_t written = 0, total = 0, expected = 0;
    std::string fileContents;
    std::filesystem::path location;
    ErrorPtr error;
    std::optional<HttpResponse> response;
};

struct Recording {
    std::mutex mutex;
    std::vector<Event> events;
    bool offQueue = false;

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
        if (onDestroy)
            onDestroy();
    }
    void didWriteData(HttpSession& session, HttpTask&, std::int64_t written, std::int64_t total,
                      std::int64_t expected) override {
        add(session, "write", [&](Event& e) {
            e.written = written;
            e.total = total;
            e.expected = expected;
        });
    }
    void didFinishDownloading(HttpSession& session, HttpTask&,
                              const std::filesystem::path& location) override {
        auto bytes = readFile(location);
        add(session, "finish", [&](Event& e) {
            e.fileContents = bytes ? std::string(textOf(*bytes)) : "";
            e.location = location;
        });
    }
    void didComplete(HttpSession& session, HttpTask&, ErrorPtr error,
                     const std::optional<HttpResponse>& response) override {
        add(session, "complete", [&](Event& e) {
            e.error = error;
            e.response = response;
        });
    }
    void didBecomeInvalid(HttpSession& session, ErrorPtr error) override {
        add(session, "invalid", [&](Event& e) { e.error = error; });
    }

    std::shared_ptr<HttpSession> ownSession;
    std::function<void()> onDestroy;

private:
    void add(HttpSession& session, std::string kind, const std::function<void(Event&)>& fill) {
        Event event;
        event.kind = std::move(kind);
        fill(event);
        std::lock_guard lock(recording_->mutex);
        recording_->offQueue = recording_->offQueue || !session.callbackQueue().isCurrent();
        recording_->events.push_back(std::move(event));
    }
    std::shared_ptr<Recording> recording_;
};

class HttpSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        server.server.Get("/echo", [this](const httplib::Request& request, httplib::Response&) {
            std::lock_guard lock(mutex);
            receivedHeaders = request.headers;
        });
        server.server.Get(
            R"(/status/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
                response.status = std::stoi(request.matches[1]);
                response.set_header("X-Pelkit-Status", request.matches[1]);
                if (response.status != 204)
                    response.set_content("status " + std::string(request.matches[1]), "text/plain");
            });
        server.server.Get(
            R"(/redirect/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
                int left = std::stoi(request.matches[1]);
                response.set_redirect(left > 0 ? "/redirect/" + std::to_string(left - 1)
                                               : "/status/200");
            });
        server.server.Get(R"(/bytes/(\d+))",
                          [](const httplib::Request& request, httplib::Response& response) {
                              response.set_content(payload(std::stoul(request.matches[1])),
                                                   "application/octet-stream");
                          });
        server.server.Get("/chunked", [](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider(
                "application/octet-stream", [](std::size_t offset, httplib::DataSink& sink) {
                    if (offset >= kChunkedSize) {
                        sink.done();
                        return true;
                    }
                    auto chunk = payload(kChunkedSize).substr(offset, 10'000);
                    return sink.write(chunk.data(), chunk.size());
                });
        });
        server.start();
    }

    std::shared_ptr<HttpSession> makeSession() {
        auto delegate = std::make_shared<RecordingDelegate>(recording);
        delegateAlive = delegate;
        return HttpSession::create(std::move(delegate));
    }

    static constexpr std::size_t kChunkedSize = 45'000;
    test::HttpTestServer server;
    std::mutex mutex;
    httplib::Headers receivedHeaders;
    std::shared_ptr<Recording> recording = std::make_shared<Recording>();
    std::weak_ptr<RecordingDelegate> delegateAlive;
};

TEST_F(HttpSessionTest, RequestHeadersArriveAsSent) {
    auto request = requestFor(server.baseUrl() + "/echo");
    request.headers = {{"Content-Type", "application/json"},
                       {"appkey", "0123456789abcdefghijKLMN"},
                       {"lastupdated", "2024-05-01 10:00:00"}};
    auto result = fetch(HttpSession::shared(), request);
    ASSERT_FALSE(result.error) << *result.error;
    std::lock_guard lock(mutex);
    for (const auto& [name, value] : request.headers) {
        auto found = receivedHeaders.find(name);
        ASSERT_NE(found, receivedHeaders.end()) << "header " << name << " was not sent";
        EXPECT_EQ(found->second, value) << "header " << name;
    }
}

TEST_F(HttpSessionTest, DataTaskDeliversStatusHeadersAndBodyAfterRedirects) {
    struct Case {
        std::string path;
        int status;
        std::string body;
    };
    for (const auto& [path, status, body] : std::vector<Case>{{"/status/200", 200, "status 200"},
                                                              {"/status/204", 204, ""},
                                                              {"/status/404", 404, "status 404"},
                                                              {"/status/500", 500, "status 500"},
                                                              {"/redirect/3", 200, "status 200"}}) {
        auto result = fetch(HttpSession::shared(), requestFor(server.baseUrl() + path));
        ASSERT_FALSE(result.error) << path << ": an HTTP status is not a transport failure";
        ASSERT_TRUE(result.response && result.body) << path;
        EXPECT_EQ(result.response->statusCode, status) << path;
        EXPECT_EQ(result.response->url, server.baseUrl() + "/status/" + std::to_string(status))
            << path << ": the URL that answered, after redirects";
        EXPECT_EQ(textOf(*result.body), body) << path;
        EXPECT_EQ(result.response->headers["x-pelkit-status"], std::to_string(status))
            << path << ": header names are lower-cased";
        EXPECT_EQ(result.response->headers.count("location"), 0u)
            << path << ": headers come from the final response only";
        EXPECT_EQ(result.response->expectedContentLength, std::int64_t(body.size())) << path;
    }
}

TEST_F(HttpSessionTest, LargeBodyArrivesWholeIntoOneReservedBuffer) {
    constexpr std::size_t size = 20 << 20;
    auto result = fetch(HttpSession::shared(),
                        requestFor(server.baseUrl() + "/bytes/" + std::to_string(size)));
    ASSERT_FALSE(result.error) << *result.error;
    ASSERT_EQ(result.body->size(), size);
    EXPECT_TRUE(textOf(*result.body) == payload(size)) << "body bytes differ";
    EXPECT_EQ(result.body->capacity(), size) << "the body buffer is sized by Content-Length";
}

TEST_F(HttpSessionTest, ConcurrentTasksAllCompleteWhenDropped) {
    // More simultaneous connects than the test server's small listen backlog would only wait
    // for SYN retries.
    constexpr int count = 6;
    std::atomic<int> completed{0};
    for (int i = 0; i < count; ++i) {
        HttpSession::shared()
            .dataTask(requestFor(server.baseUrl() + "/bytes/" + std::to_string(1000 + i)),
                      [&completed, i](DataTaskResult result) {
                          if (!result.error && result.body &&
                              result.body->size() == std::size_t(1000 + i))
                              ++completed;
                      })
            ->resume();
    }
    EXPECT_TRUE(test::waitUntil([&] { return completed == count; }))
        << completed << " of " << count << " tasks completed";
}

TEST_F(HttpSessionTest, TransportFailuresBecomeCurlErrors) {
    RawSocket refusing(RawSocket::Mode::Refuse);
    RawSocket silent(RawSocket::Mode::Listen);
    RawSocket dropping(RawSocket::Mode::Listen);
    dropping.serveOnce("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + payload(100));
    RawSocket garbling(RawSocket::Mode::Listen);
    garbling.serveOnce("this is not HTTP\r\n\r\n");
    auto withBadHeader = requestFor(server.baseUrl() + "/echo");
    withBadHeader.headers = {{"appkey", "key\r\nX-Injected: yes"}};

    struct Case {
        std::string name;
        HttpRequest request;
        int code;
        std::string description; // exact, or a prefix when it ends with ": "
        Cancel cancel = Cancel::Never;
    };
    const std::string cancelled =
        "curl_easy_perform: Operation was aborted by an application callback (42): cancelled";
    std::vector<Case> cases = {
        {"refused", requestFor(refusing.url()), 7,
         "curl_easy_perform: Couldn't connect to server (7): "},
        {"never answers", requestFor(silent.url(), 300ms), 28,
         "curl_easy_perform: Timeout was reached (28): nothing received for 300 ms"},
        {"drops mid-body", requestFor(dropping.url()), 18,
         "curl_easy_perform: Transferred a partial file (18): "},
        {"malformed reply", requestFor(garbling.url()), 1,
         "curl_easy_perform: Unsupported protocol (1): "},
        {"relative URL", requestFor("files/a.png"), 3,
         "curl_easy_setopt: URL using bad/illegal format or missing URL (3): no scheme in "
         "'files/a.png'"},
        {"line break in a header", withBadHeader, 43,
         "curl_slist_append: A libcurl function was given a bad argument (43): header 'appkey' "
         "is not a single header line"},
        {"cancelled while running", requestFor(silent.url()), 42, cancelled, Cancel::AfterResume},
        {"cancelled before resuming", requestFor(silent.url()), 42, cancelled,
         Cancel::BeforeResume},
    };
    for (const auto& [name, request, code, description, cancel] : cases) {
        auto result = fetch(HttpSession::shared(), request, cancel);
        ASSERT_TRUE(result.error) << name << ": expected a transport failure";
        EXPECT_EQ(result.error->domain(), kTransportErrorDomain) << name;
        EXPECT_EQ(result.error->code(), code) << name << ": " << *result.error;
        if (description.ends_with(": "))
            EXPECT_TRUE(result.error->description().starts_with(description))
                << name << ": " << *result.error;
        else
            EXPECT_EQ(result.error->description(), description) << name;
        EXPECT_FALSE(result.response || result.body) << name << ": a failure carries no response";
    }
}

TEST_F(HttpSessionTest, DownloadReportsOrderedProgressThenFileThenCompletion) {
    test::TempDir temporaries;
    test::ScopedEnv tmpdir("TMPDIR", temporaries.path().string());
    RawSocket dropping(RawSocket::Mode::Listen);
    dropping.serveOnce("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + payload(100));
    struct Case {
        std::string name, url;
        std::int64_t expected;
        std::size_t received;
        int errorCode;
    };
    for (const auto& [name, url, expected, received, errorCode] :
         std::vector<Case>{{"with length", server.baseUrl() + "/bytes/300000", 300'000, 300'000, 0},
                           {"chunked", server.baseUrl() + "/chunked", -1, kChunkedSize, 0},
                           {"dropped mid-body", dropping.url(), 1000, 100, 18}}) {
        recording = std::make_shared<Recording>();
        auto session = makeSession();
        session->downloadTask(requestFor(url))->resume();
        ASSERT_TRUE(recording->waitFor("complete")) << name;
        auto events = recording->snapshot();
        EXPECT_FALSE(recording->offQueue) << name << ": callbacks run on the session's queue";

        std::int64_t total = 0;
        std::size_t i = 0;
        for (; i < events.size() && events[i].kind == "write"; ++i) {
            total += events[i].written;
            EXPECT_EQ(events[i].total, total) << name << ": totals add up in order, event " << i;
            EXPECT_EQ(events[i].expected, expected) << name << ", event " << i;
        }
        EXPECT_EQ(total, std::int64_t(received)) << name;
        if (errorCode == 0) {
            ASSERT_EQ(events.size(), i + 2) << name << ": one file, then the completion";
            EXPECT_TRUE(events[i].fileContents == payload(received)) << name << ": file differs";
            EXPECT_FALSE(std::filesystem::exists(events[i].location))
                << name << ": the temporary file is removed after the callback";
            EXPECT_FALSE(events.back().error) << name;
            EXPECT_EQ(events.back().response->statusCode, 200) << name;
        } else {
            ASSERT_EQ(events.size(), i + 1) << name << ": a failed transfer reports no file";
            ASSERT_TRUE(events.back().error) << name;
            EXPECT_EQ(events.back().error->code(), errorCode) << name;
            EXPECT_FALSE(events.back().response) << name;
        }
        EXPECT_TRUE(std::filesystem::is_empty(temporaries.path())) << name << ": file left behind";
    }
}

TEST_F(HttpSessionTest, InvalidationReportsAfterTasksEndThenReleasesDelegate) {
    RawSocket silent(RawSocket::Mode::Listen);
    for (bool cancel : {false, true}) {
        recording = std::make_shared<Recording>();
        auto session = makeSession();
        // Finishing waits for a transfer that ends by itself; cancelling ends one that never would.
        session->downloadTask(requestFor(cancel ? silent.url() : server.baseUrl() + "/bytes/5000"))
            ->resume();
        if (cancel)
            session->invalidateAndCancel();
        else
            session->finishTasksAndInvalidate();
        ASSERT_TRUE(recording->waitFor("invalid")) << "cancel=" << cancel;
        auto events = recording->snapshot();
        ASSERT_GE(events.size(), 2u);
        EXPECT_EQ(events[events.size() - 2].kind, "complete") << "the task ends first";
        EXPECT_EQ(events[events.size() - 2].error ? events[events.size() - 2].error->code() : 0,
                  cancel ? 42 : 0);
        EXPECT_FALSE(events.back().error) << "a requested invalidation carries no error";
        EXPECT_TRUE(test::waitUntil([&] { return delegateAlive.expired(); }))
            << "the session releases its delegate once invalid";
    }
}

TEST_F(HttpSessionTest, DestroyingASessionEndsTransfersWithoutCallbacks) {
    RawSocket silent(RawSocket::Mode::Listen);
    auto session = makeSession();
    session->downloadTask(requestFor(silent.url()))->resume();
    session.reset();
    EXPECT_TRUE(recording->snapshot().empty()) << "no callback after destruction";
    EXPECT_TRUE(delegateAlive.expired()) << "the destroyed session released its delegate";
}

TEST_F(HttpSessionTest, SessionOwnedByItsDelegateIsDestroyedFromItsOwnQueue) {
    auto session = makeSession();
    std::promise<void> destroyed;
    {
        auto delegate = delegateAlive.lock();
        delegate->ownSession = session;
        delegate->onDestroy = [&destroyed, self = delegate.get()] {
            self->ownSession.reset();
            destroyed.set_value();
        };
    }
    session->finishTasksAndInvalidate();
    session.reset();
    // Releasing the delegate after the invalidation callback drops the last session reference on
    // the session's own callback thread.
    ASSERT_EQ(destroyed.get_future().wait_for(30s), std::future_status::ready);
    EXPECT_EQ(recording->snapshot().back().kind, "invalid");
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
