// HTTP sessions over libcurl: data tasks that complete through a callback, and download tasks
// that report to a delegate. One worker thread per session drives all of its transfers.
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/Error.h>
#include <pelkit/net/Url.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace pelkit::net {

/// Error domain of transport failures; the code is libcurl's result code.
inline constexpr const char* kTransportErrorDomain = "curl";

struct HttpRequest {
    Url url;
    /// Header names are sent as written.
    std::map<std::string, std::string> headers;
    /// Longest wait for the connection or for more data before the request fails.
    std::chrono::milliseconds timeout = std::chrono::seconds(60);
};

struct HttpResponse {
    int statusCode = 0;
    /// The URL that answered, after redirects.
    std::string url;
    /// Header names lower-cased; the last value wins.
    std::map<std::string, std::string> headers;
    /// The announced length of the body, or -1 when the server did not announce one.
    std::int64_t expectedContentLength = -1;
};

/// What a data task ends with. After a transport failure, `error` is set and the rest is empty;
/// otherwise `response` and `body` are present (`body` possibly empty).
struct DataTaskResult {
    ErrorPtr error;
    std::optional<HttpResponse> response;
    std::optional<Bytes> body;
};

/// Settings fixed when a session is made.
struct HttpSessionConfiguration {
    /// The largest body a data task holds in memory; a longer one (announced or received) fails
    /// the task with CURLE_FILESIZE_EXCEEDED. Download tasks stream to a file and have no limit.
    std::size_t dataBodyLimit = std::size_t{64} << 20;
};

class HttpSession;

/// One transfer. Tasks start suspended; `resume()` starts them. A resumed task stays alive until
/// its completion (or `didComplete`) has run, even when the caller drops it. Thread-safe.
class HttpTask {
public:
    virtual ~HttpTask() = default;
    /// Identifies the task within its session.
    virtual std::uint64_t identifier() const = 0;
    virtual void resume() = 0;
    /// Ends the transfer early, or before it started; it completes with a transport error
    /// (CURLE_ABORTED_BY_CALLBACK). Does nothing once the task has completed.
    virtual void cancel() = 0;
};

/// Receives a session's download-task events, on the session's own serial delegate queue, in this
/// order per task: `didWriteData` per received chunk, `didFinishDownloading` when the transfer
/// completed without a transport error, whatever the HTTP status (the temporary file is removed
/// when it returns), `didComplete` always.
class HttpSessionDelegate {
public:
    virtual ~HttpSessionDelegate() = default;
    /// `totalBytesExpected` is -1 when the server announces no length.
    virtual void didWriteData(HttpSession& /*session*/, HttpTask& /*task*/,
                              std::int64_t /*bytesWritten*/, std::int64_t /*totalBytesWritten*/,
                              std::int64_t /*totalBytesExpected*/) {}
    virtual void didFinishDownloading(HttpSession& /*session*/, HttpTask& /*task*/,
                                      const std::filesystem::path& /*location*/) {}
    /// `response` is absent after a transport failure.
    virtual void didComplete(HttpSession& /*session*/, HttpTask& /*task*/, ErrorPtr /*error*/,
                             const std::optional<HttpResponse>& /*response*/) {}
    /// The session has been invalidated; no callback follows. `error` is null for a requested
    /// invalidation.
    virtual void didBecomeInvalid(HttpSession& /*session*/, ErrorPtr /*error*/) {}
};

/// A set of transfers sharing one curl multi handle and one worker thread.
///
///     HttpSession::shared().dataTask(
///         {*Url::parse("http://127.0.0.1:8080/configuration"), {{"appkey", key}}},
///         [](DataTaskResult result) { ... })->resume();
///
/// Thread-safe. Data-task completions and delegate callbacks run on the session's own serial
/// `callbackQueue()`. A session keeps its delegate alive until invalidated. Destroying a session
/// ends its transfers silently: once the destructor returns no callback of it runs (it may be
/// destroyed from inside one of its own callbacks).
///
/// A request fails with CURLE_OPERATION_TIMEDOUT when nothing arrives for `timeout`: no connection,
/// or no further headers or body bytes.
class HttpSession {
public:
    using DataCompletion = std::function<void(DataTaskResult)>;

    /// The process-wide session, with no delegate and the default configuration. Never destroyed.
    static HttpSession& shared();
    /// A session whose download tasks report to `delegate` on a serial queue of its own. A null
    /// delegate is a fatal error.
    static std::shared_ptr<HttpSession> create(std::shared_ptr<HttpSessionDelegate> delegate,
                                               HttpSessionConfiguration configuration = {});

    ~HttpSession();
    HttpSession(const HttpSession&) = delete;
    HttpSession& operator=(const HttpSession&) = delete;

    /// A GET whose outcome goes to `completion` on the completion queue. The path is sent as
    /// written (dot segments included). Only http and https are fetched; a relative URL or a header
    /// with a line break fails the task. Redirects (301, 302, 303, 307, 308) are followed up to 16
    /// times, to http or https only and never from https to http; a redirect not followed is the
    /// response. The request's headers go only to the scheme, host and port the request was made
    /// for, so a redirect elsewhere carries none of them. Creating a task in an invalidated
    /// session, or with a timeout that is not positive, is a fatal error.
    std::shared_ptr<HttpTask> dataTask(HttpRequest request, DataCompletion completion);
    /// A GET like `dataTask`'s whose body is written to a temporary file as it arrives, reported
    /// to the delegate. A session without a delegate cannot download: that is a fatal error.
    std::shared_ptr<HttpTask> downloadTask(HttpRequest request);

    /// The serial queue that runs this session's data-task completions and delegate callbacks.
    DispatchQueue& callbackQueue();

    /// Lets running tasks finish, accepts no new ones, then tells the delegate `didBecomeInvalid`.
    /// Tasks that were never resumed end as cancelled. The shared session ignores it.
    void finishTasksAndInvalidate();
    /// Cancels running tasks, then tells the delegate `didBecomeInvalid`. The shared session
    /// ignores it.
    void invalidateAndCancel();

private:
    class Impl;
    HttpSession(std::shared_ptr<HttpSessionDelegate> delegate,
                HttpSessionConfiguration configuration);
    std::shared_ptr<Impl> impl_;
};

} // namespace pelkit::net
