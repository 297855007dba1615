// libcurl for sessions (the blocking one-shot read lives in ReadResource.cpp). Each session owns a
// multi handle that only its worker thread touches; other threads hand it work through a locked
// inbox and wake it with curl_multi_wakeup.
// Results travel to the session's serial callback queue, so callbacks of one task arrive in order.
// Redirects are followed here rather than by libcurl, which would send the request's headers (the
// app key among them) to whatever host a redirect names.
#include <pelkit/net/HttpSession.h>

#include "Redirects.h"
#include <pelkit/foundation/FileDescriptor.h>
#include <pelkit/foundation/Text.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <mutex>
#include <span>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <unistd.h>

namespace pelkit::net {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMaxRedirects = 16;
constexpr int kIdlePollMilliseconds = 10'000;
constexpr int kBusyPollMilliseconds = 1'000;

void initializeCurl() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (auto code = curl_global_init(CURL_GLOBAL_DEFAULT); code != CURLE_OK)
            fatalError(std::string("curl_global_init: ") + curl_easy_strerror(code) + " (" +
                       std::to_string(code) + ")");
    });
}

ErrorPtr curlError(std::string_view call, CURLcode code, std::string_view detail) {
    std::string description =
        std::string(call) + ": " + curl_easy_strerror(code) + " (" + std::to_string(code) + ")";
    if (!detail.empty())
        description += ": " + std::string(detail);
    return Error::make(kTransportErrorDomain, code, std::move(description));
}

ErrorPtr cancellationError() {
    return curlError("curl_easy_perform", CURLE_ABORTED_BY_CALLBACK, "cancelled");
}

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;

struct MultiDeleter {
    void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
using MultiHandle = std::unique_ptr<CURLM, MultiDeleter>;

struct HeaderListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListDeleter>;

/// A file made with mkstemp in the temp directory, removed when the owner goes away.
class TempFile {
public:
    static Result<TempFile> create() {
        std::error_code ignored;
        auto directory = std::filesystem::temp_directory_path(ignored);
        if (directory.empty())
            directory = "/tmp";
        std::string pattern = (directory / "pelkit-download-XXXXXX").string();
        int fd = ::mkstemp(pattern.data());
        if (fd < 0)
            return std::unexpected(Error::fromErrno("mkstemp(" + pattern + ")", errno));
        return TempFile(fd, pattern);
    }

    TempFile(TempFile&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {
        other.path_.clear();
    }
    TempFile& operator=(TempFile&&) = delete;
    ~TempFile() {
        if (fd_ >= 0)
            ::close(fd_);
        if (!path_.empty()) {
            std::error_code ignored;
            std::filesystem::remove(path_, ignored);
        }
    }

    const std::filesystem::path& path() const { return path_; }

    Result<> write(const char* data, std::size_t size) {
        return writeAll(fd_, std::as_bytes(std::span(data, size)), path_.string());
    }

    Result<> close() {
        int result = ::close(std::exchange(fd_, -1));
        if (result != 0)
            return std::unexpected(Error::fromErrno("close(" + path_.string() + ")", errno));
        return {};
    }

private:
    TempFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    int fd_;
    std::filesystem::path path_;
};

enum class TaskKind { Data, Download };
enum class TaskState { Suspended, Running, Completed };

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                             text.back() == '\n'))
        text.remove_suffix(1);
    return text;
}

// Header text goes onto the wire as is, so a line break in it would smuggle in a header of its own.
bool isSafeHeaderText(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

ErrorPtr appendHeaders(const std::map<std::string, std::string>& headers, HeaderList& list) {
    for (const auto& [name, value] : headers) {
        if (name.empty() || name.find(':') != std::string::npos || !isSafeHeaderText(name) ||
            !isSafeHeaderText(value))
            return curlError("curl_slist_append", CURLE_BAD_FUNCTION_ARGUMENT,
                             "header '" + name + "' is not a single header line");
        // "Name;" is libcurl's way of sending a header with an empty value.
        std::string line = value.empty() ? name + ";" : name + ": " + value;
        curl_slist* appended = curl_slist_append(list.get(), line.c_str());
        if (!appended)
            return curlError("curl_slist_append", CURLE_OUT_OF_MEMORY, "");
        list.release();
        list.reset(appended);
    }
    return nullptr;
}

std::string multiFailure(std::string_view call, CURLMcode code) {
    return std::string(call) + ": " + curl_multi_strerror(code) + " (" + std::to_string(code) + ")";
}

// "HTTP/1.1 302 Found" gives 302; a line without a status gives 0.
int statusOf(std::string_view statusLine) {
    int status = 0;
    if (auto space = statusLine.find(' '); space != std::string_view::npos)
        std::from_chars(statusLine.data() + space + 1, statusLine.data() + statusLine.size(),
                        status);
    return status;
}

bool isRedirect(int status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

struct UrlDeleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlDeleter>;

UrlHandle parsedUrl(std::string_view text) {
    UrlHandle url(curl_url());
    if (!url || curl_url_set(url.get(), CURLUPART_URL, std::string(text).c_str(), 0) != CURLUE_OK)
        return nullptr;
    return url;
}

std::optional<std::string> urlPart(CURLU* url, CURLUPart part, unsigned int flags = 0) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, flags) != CURLUE_OK)
        return std::nullopt;
    std::string out(text);
    curl_free(text);
    return out;
}

/// Scheme, host and port, compared so that "HTTP://Host" and "http://host:80" are one origin.
struct Origin {
    std::string scheme, host, port;
    bool operator==(const Origin&) const = default;
};

std::optional<Origin> originOf(CURLU* url) {
    auto scheme = urlPart(url, CURLUPART_SCHEME);
    auto host = urlPart(url, CURLUPART_HOST);
    auto port = urlPart(url, CURLUPART_PORT, CURLU_DEFAULT_PORT);
    if (!scheme || !host || !port)
        return std::nullopt;
    return Origin{asciiLowercase(*scheme), asciiLowercase(*host), *port};
}

/// Transfer state that only the worker thread touches while the transfer runs.
struct Transfer {
    EasyHandle easy;
    HeaderList headers;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    std::size_t bodyLimit = 0;
    // Of the response being received; each redirect starts them again.
    int status = 0;
    std::map<std::string, std::string> responseHeaders;
    int redirects = 0;
    // Set at the end of a redirect's headers: the transfer stops there and goes on to this.
    std::optional<RedirectStep> redirect;
    curl_off_t expectedLength = -1;
    bool bodyStarted = false;
    Bytes body;
    std::optional<TempFile> file;
    std::int64_t totalWritten = 0;
    Clock::time_point lastActivity;
    // Why a callback stopped the transfer, when it was us rather than the network.
    ErrorPtr callbackFailure;
};

// At the end of a response's headers: false when the transfer must stop before the body, for a
// redirect to follow or for one redirect too many.
bool continuesAfterHeaders(Transfer& transfer, const HttpRequest& request) {
    auto location = transfer.responseHeaders.find("location");
    if (!isRedirect(transfer.status) || location == transfer.responseHeaders.end())
        return true;
    char* answered = nullptr;
    curl_easy_getinfo(transfer.easy.get(), CURLINFO_EFFECTIVE_URL, &answered);
    auto step =
        redirectStep(request.url.absoluteString(), answered ? answered : "", location->second);
    // A redirect that is not followed is the answer.
    if (!step)
        return true;
    if (transfer.redirects == kMaxRedirects) {
        transfer.callbackFailure =
            curlError("curl_easy_perform", CURLE_TOO_MANY_REDIRECTS,
                      "Maximum (" + std::to_string(kMaxRedirects) + ") redirects followed");
        return false;
    }
    transfer.redirect = std::move(step);
    return false;
}

// The body grows in memory up to the session's limit; a longer one, announced or not, fails.
ErrorPtr keepData(Transfer& transfer, const char* data, std::size_t length) {
    const std::size_t limit = transfer.bodyLimit;
    if ((transfer.expectedLength > 0 &&
         static_cast<std::uint64_t>(transfer.expectedLength) > limit) ||
        length > limit - transfer.body.size())
        return curlError("curl_easy_perform", CURLE_FILESIZE_EXCEEDED,
                         "the body exceeds the session's limit of " + std::to_string(limit) +
                             " bytes");
    if (transfer.body.capacity() == 0 && transfer.expectedLength > 0)
        transfer.body.reserve(static_cast<std::size_t>(transfer.expectedLength));
    transfer.body.insert(transfer.body.end(), data, data + length);
    return nullptr;
}

HttpResponse responseOf(Transfer& transfer) {
    long status = 0;
    char* effectiveUrl = nullptr;
    curl_off_t length = -1;
    curl_easy_getinfo(transfer.easy.get(), CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(transfer.easy.get(), CURLINFO_EFFECTIVE_URL, &effectiveUrl);
    curl_easy_getinfo(transfer.easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    return {static_cast<int>(status), effectiveUrl ? effectiveUrl : "",
            std::move(transfer.responseHeaders), static_cast<std::int64_t>(length)};
}

} // namespace

std::optional<RedirectStep> redirectStep(std::string_view requested, std::string_view answered,
                                         std::string_view location) {
    auto target = parsedUrl(answered);
    if (!target)
        return std::nullopt;
    auto from = originOf(target.get());
    // The flags libcurl itself resolves a Location with.
    if (curl_url_set(target.get(), CURLUPART_URL, std::string(location).c_str(),
                     CURLU_URLENCODE | CURLU_ALLOW_SPACE | CURLU_PATH_AS_IS) != CURLUE_OK)
        return std::nullopt;
    auto to = originOf(target.get());
    auto url = urlPart(target.get(), CURLUPART_URL);
    if (!from || !to || !url || (to->scheme != "http" && to->scheme != "https") ||
        (from->scheme == "https" && to->scheme == "http"))
        return std::nullopt;
    auto first = parsedUrl(requested);
    auto origin = first ? originOf(first.get()) : std::nullopt;
    return RedirectStep{*url, origin == to ? RequestHeaders::Sent : RequestHeaders::Dropped};
}

class HttpSession::Impl : public std::enable_shared_from_this<Impl> {
public:
    class Task;

    Impl(HttpSession* owner, std::shared_ptr<HttpSessionDelegate> delegate,
         HttpSessionConfiguration configuration, bool isShared);
    ~Impl();

    void start();
    std::shared_ptr<HttpTask> makeTask(TaskKind kind, HttpRequest request,
                                       DataCompletion completion);
    void resume(const std::shared_ptr<Task>& task);
    void cancel(const std::shared_ptr<Task>& task);
    void invalidate(bool cancelRunning);
    void destroy();

    DispatchQueue& queue() { return *queue_; }
    bool hasDelegate() const { return hasDelegate_; }

private:
    enum class Invalidation { None, Finishing, Cancelling };

    // The worker thread's loop and its steps.
    void run();
    std::optional<Invalidation> acceptWork();
    void performTransfers();
    void reportInvalidation(Invalidation invalidation);
    void poll();
    int pollTimeout() const;

    void startTransfer(const std::shared_ptr<Task>& task);
    ErrorPtr configure(Task& task);
    static ErrorPtr setOptions(Task& task);
    void finishTransfer(const std::shared_ptr<Task>& task, CURLcode code);
    void followRedirect(const std::shared_ptr<Task>& task);
    void complete(const std::shared_ptr<Task>& task, ErrorPtr error);
    std::optional<HttpResponse> detach(Task& task, const ErrorPtr& error);
    void reportData(std::shared_ptr<Task> task, ErrorPtr error,
                    std::optional<HttpResponse> response);
    void reportDownload(std::shared_ptr<Task> task, ErrorPtr error,
                        std::optional<HttpResponse> response);
    void cancelActive(std::uint64_t id);
    void expireIdleTransfers();
    void abandonAll();
    void wake() { curl_multi_wakeup(multi_.get()); }
    bool onQueueThread() const { return std::this_thread::get_id() == queueThread_; }

    // Called from libcurl on the worker thread.
    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* task);
    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* task);
    ErrorPtr keepDownload(Task& task, const char* data, std::size_t length);

    HttpSession* const owner_;
    const bool isShared_;
    const bool hasDelegate_;
    const HttpSessionConfiguration configuration_;
    // Read and released only on the callback queue, or by `destroy()` once the queue is past all
    // callbacks.
    std::shared_ptr<HttpSessionDelegate> delegate_;
    std::unique_ptr<DispatchQueue> queue_;
    std::thread::id queueThread_;
    MultiHandle multi_;
    std::thread worker_;
    // Set once callbacks must stop: items already queued see it and do nothing.
    std::atomic<bool> destroyed_{false};

    std::mutex mutex_;
    std::uint64_t nextId_ = 1;
    std::unordered_map<std::uint64_t, std::weak_ptr<Task>> suspended_;
    std::vector<std::shared_ptr<Task>> toStart_;
    std::vector<std::uint64_t> toCancel_;
    Invalidation invalidation_ = Invalidation::None;
    bool shutdown_ = false;

    // Worker thread only.
    std::unordered_map<CURL*, std::shared_ptr<Task>> active_;
    bool invalidationReported_ = false;
};

class HttpSession::Impl::Task final : public HttpTask, public std::enable_shared_from_this<Task> {
public:
    Task(std::weak_ptr<Impl> session, std::uint64_t id, TaskKind kind, HttpRequest request,
         DataCompletion completion)
        : completion(std::move(completion)), session_(std::move(session)), id_(id), kind_(kind),
          request_(std::move(request)) {}

    std::uint64_t identifier() const override { return id_; }

    void resume() override {
        if (auto session = session_.lock())
            session->resume(shared_from_this());
    }

    void cancel() override {
        if (auto session = session_.lock())
            session->cancel(shared_from_this());
    }

    TaskKind kind() const { return kind_; }
    const HttpRequest& request() const { return request_; }

    // Guarded by the session's mutex.
    TaskState state = TaskState::Suspended;
    bool cancelledBeforeStart = false;

    // Moved out by whoever runs it: the callback queue.
    DataCompletion completion;
    Transfer transfer;
    Impl* impl = nullptr;

private:
    std::weak_ptr<Impl> session_;
    const std::uint64_t id_;
    const TaskKind kind_;
    const HttpRequest request_;
};

HttpSession::Impl::Impl(HttpSession* owner, std::shared_ptr<HttpSessionDelegate> delegate,
                        HttpSessionConfiguration configuration, bool isShared)
    : owner_(owner), isShared_(isShared), hasDelegate_(delegate != nullptr),
      configuration_(configuration), delegate_(std::move(delegate)),
      queue_(std::make_unique<DispatchQueue>(isShared ? "net.shared-session" : "net.session")) {
    initializeCurl();
    multi_.reset(curl_multi_init());
    if (!multi_)
        fatalError("curl_multi_init: failed to create a multi handle");
    queue_->sync([this] { queueThread_ = std::this_thread::get_id(); });
}

HttpSession::Impl::~Impl() {
    multi_.reset();
    // The last reference can go away inside a callback; a queue cannot join its own thread, so
    // another thread finishes it once that callback returns.
    if (onQueueThread())
        std::thread([queue = std::move(queue_)]() mutable { queue.reset(); }).detach();
}

void HttpSession::Impl::start() {
    worker_ = std::thread([self = shared_from_this()] { self->run(); });
}

std::shared_ptr<HttpTask> HttpSession::Impl::makeTask(TaskKind kind, HttpRequest request,
                                                      DataCompletion completion) {
    if (request.timeout <= std::chrono::milliseconds::zero())
        fatalError("HttpSession: request timeout must be positive, got " +
                   std::to_string(request.timeout.count()) + " ms");
    std::lock_guard lock(mutex_);
    if (invalidation_ != Invalidation::None || shutdown_)
        fatalError("HttpSession: task created in a session that has been invalidated");
    // Tasks dropped without ever being resumed leave expired entries behind; sweep them now and
    // then so a long-lived session does not collect them.
    if (suspended_.size() >= 64)
        std::erase_if(suspended_, [](const auto& entry) { return entry.second.expired(); });
    auto id = nextId_++;
    auto task = std::make_shared<Task>(weak_from_this(), id, kind, std::move(request),
                                       std::move(completion));
    task->impl = this;
    suspended_.emplace(id, task);
    return task;
}

void HttpSession::Impl::resume(const std::shared_ptr<Task>& task) {
    {
        std::lock_guard lock(mutex_);
        if (task->state != TaskState::Suspended || shutdown_)
            return;
        task->state = TaskState::Running;
        suspended_.erase(task->identifier());
        toStart_.push_back(task);
    }
    wake();
}

void HttpSession::Impl::cancel(const std::shared_ptr<Task>& task) {
    {
        std::lock_guard lock(mutex_);
        if (shutdown_)
            return;
        switch (task->state) {
        case TaskState::Suspended:
            // Still reported, like any other end of a task.
            task->state = TaskState::Running;
            task->cancelledBeforeStart = true;
            suspended_.erase(task->identifier());
            toStart_.push_back(task);
            break;
        case TaskState::Running:
            toCancel_.push_back(task->identifier());
            break;
        case TaskState::Completed:
            return;
        }
    }
    wake();
}

void HttpSession::Impl::invalidate(bool cancelRunning) {
    // The shared session lives as long as the process, whoever asks.
    if (isShared_)
        return;
    {
        std::lock_guard lock(mutex_);
        if (shutdown_)
            return;
        if (cancelRunning)
            invalidation_ = Invalidation::Cancelling;
        else if (invalidation_ == Invalidation::None)
            invalidation_ = Invalidation::Finishing;
        // Tasks never resumed would hold the session open forever; they end as cancelled.
        for (auto& [id, weak] : suspended_) {
            if (auto task = weak.lock()) {
                task->state = TaskState::Running;
                task->cancelledBeforeStart = true;
                toStart_.push_back(std::move(task));
            }
        }
        suspended_.clear();
    }
    wake();
}

void HttpSession::Impl::destroy() {
    if (onQueueThread())
        destroyed_ = true;
    else
        queue_->sync([this] { destroyed_ = true; });
    {
        std::lock_guard lock(mutex_);
        shutdown_ = true;
    }
    wake();
    // Only a completion dropped by the worker itself can bring us here on the worker thread; the
    // worker holds its own reference and ends by itself.
    if (worker_.get_id() == std::this_thread::get_id())
        worker_.detach();
    else
        worker_.join();
    auto delegate = std::move(delegate_);
}

void HttpSession::Impl::run() {
    while (auto invalidation = acceptWork()) {
        performTransfers();
        reportInvalidation(*invalidation);
        poll();
    }
    abandonAll();
}

// Starts and cancels what other threads asked for; nothing once the session is shutting down.
std::optional<HttpSession::Impl::Invalidation> HttpSession::Impl::acceptWork() {
    std::vector<std::shared_ptr<Task>> starting;
    std::vector<std::uint64_t> cancelling;
    Invalidation invalidation;
    {
        std::lock_guard lock(mutex_);
        if (shutdown_)
            return std::nullopt;
        starting.swap(toStart_);
        cancelling.swap(toCancel_);
        invalidation = invalidation_;
    }
    for (auto& task : starting)
        startTransfer(task);
    for (auto id : cancelling)
        cancelActive(id);
    if (invalidation == Invalidation::Cancelling) {
        while (!active_.empty())
            complete(active_.begin()->second, cancellationError());
    }
    return invalidation;
}

void HttpSession::Impl::performTransfers() {
    int running = 0;
    if (auto code = curl_multi_perform(multi_.get(), &running); code != CURLM_OK)
        fatalError(multiFailure("curl_multi_perform", code));
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        // The message dies with its handle's removal, so copy it out first.
        CURL* easy = message->easy_handle;
        CURLcode result = message->data.result;
        if (auto found = active_.find(easy); found != active_.end())
            finishTransfer(found->second, result);
    }
    expireIdleTransfers();
}

void HttpSession::Impl::reportInvalidation(Invalidation invalidation) {
    if (invalidation == Invalidation::None || !active_.empty() || invalidationReported_)
        return;
    invalidationReported_ = true;
    queue_->async([self = shared_from_this()] {
        if (self->destroyed_)
            return;
        // Released after the callback: the session holds its delegate until here.
        auto delegate = std::move(self->delegate_);
        if (delegate)
            delegate->didBecomeInvalid(*self->owner_, nullptr);
    });
}

void HttpSession::Impl::poll() {
    if (auto code = curl_multi_poll(multi_.get(), nullptr, 0, pollTimeout(), nullptr);
        code != CURLM_OK)
        fatalError(multiFailure("curl_multi_poll", code));
}

int HttpSession::Impl::pollTimeout() const {
    if (active_.empty())
        return kIdlePollMilliseconds;
    auto now = Clock::now();
    auto wait = std::chrono::milliseconds(kBusyPollMilliseconds);
    for (auto& [easy, task] : active_) {
        auto deadline = task->transfer.lastActivity + task->request().timeout;
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        wait = std::clamp(left, std::chrono::milliseconds::zero(), wait);
    }
    return static_cast<int>(wait.count());
}

void HttpSession::Impl::startTransfer(const std::shared_ptr<Task>& task) {
    if (task->cancelledBeforeStart) {
        complete(task, cancellationError());
        return;
    }
    if (auto error = configure(*task)) {
        complete(task, std::move(error));
        return;
    }
    auto& transfer = task->transfer;
    if (auto code = curl_multi_add_handle(multi_.get(), transfer.easy.get()); code != CURLM_OK) {
        complete(task, Error::make(kTransportErrorDomain, CURLE_FAILED_INIT,
                                   multiFailure("curl_multi_add_handle", code)));
        return;
    }
    transfer.lastActivity = Clock::now();
    active_.emplace(transfer.easy.get(), task);
}

ErrorPtr HttpSession::Impl::configure(Task& task) {
    const auto& text = task.request().url.absoluteString();
    auto& transfer = task.transfer;
    // libcurl would guess "http://" for a bare name; a relative reference names no server.
    if (task.request().url.scheme().empty())
        return curlError("curl_easy_setopt", CURLE_URL_MALFORMAT, "no scheme in '" + text + "'");
    if (auto error = appendHeaders(task.request().headers, transfer.headers))
        return error;
    if (task.kind() == TaskKind::Download) {
        auto file = TempFile::create();
        if (!file)
            return file.error();
        transfer.file.emplace(std::move(*file));
    }
    transfer.bodyLimit = configuration_.dataBodyLimit;
    transfer.easy.reset(curl_easy_init());
    if (!transfer.easy)
        return curlError("curl_easy_init", CURLE_FAILED_INIT, "");
    return setOptions(task);
}

ErrorPtr HttpSession::Impl::setOptions(Task& task) {
    auto& transfer = task.transfer;
    CURL* easy = transfer.easy.get();
    CURLcode code = CURLE_OK;
    auto set = [&](CURLoption option, auto value) {
        if (code == CURLE_OK)
            code = curl_easy_setopt(easy, option, value);
    };
    set(CURLOPT_ERRORBUFFER, transfer.errorBuffer);
    set(CURLOPT_URL, task.request().url.absoluteString().c_str());
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_HTTPGET, 1L);
    // The path goes out as the server wrote it, dot segments included.
    set(CURLOPT_PATH_AS_IS, 1L);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    // libcurl would take our headers to any host a redirect names; `followRedirect` does not.
    set(CURLOPT_FOLLOWLOCATION, 0L);
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(task.request().timeout.count()));
    set(CURLOPT_HTTPHEADER, transfer.headers.get());
    set(CURLOPT_HEADERFUNCTION, &Impl::onHeader);
    set(CURLOPT_HEADERDATA, static_cast<void*>(&task));
    set(CURLOPT_WRITEFUNCTION, &Impl::onBody);
    set(CURLOPT_WRITEDATA, static_cast<void*>(&task));
    if (code != CURLE_OK)
        return curlError("curl_easy_setopt", code, transfer.errorBuffer);
    return nullptr;
}

std::size_t HttpSession::Impl::onHeader(char* data, std::size_t size, std::size_t count,
                                        void* userData) {
    auto& task = *static_cast<Task*>(userData);
    auto& transfer = task.transfer;
    const std::size_t length = size * count;
    transfer.lastActivity = Clock::now();
    try {
        std::string_view line(data, length);
        // Each response of a redirect chain starts with its status line; keep the last one's.
        if (line.starts_with("HTTP/")) {
            transfer.responseHeaders.clear();
            transfer.status = statusOf(line);
        } else if (trimmed(line).empty()) {
            if (!continuesAfterHeaders(transfer, task.request()))
                return 0;
        } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
            transfer.responseHeaders[asciiLowercase(trimmed(line.substr(0, colon)))] =
                std::string(trimmed(line.substr(colon + 1)));
        }
    } catch (const std::exception& exception) {
        transfer.callbackFailure =
            curlError("curl_easy_perform", CURLE_WRITE_ERROR, exception.what());
        return 0;
    }
    return length;
}

std::size_t HttpSession::Impl::onBody(char* data, std::size_t size, std::size_t count,
                                      void* userData) {
    auto& task = *static_cast<Task*>(userData);
    auto& transfer = task.transfer;
    const std::size_t length = size * count;
    transfer.lastActivity = Clock::now();
    if (!transfer.bodyStarted) {
        transfer.bodyStarted = true;
        curl_easy_getinfo(transfer.easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T,
                          &transfer.expectedLength);
    }
    ErrorPtr failure;
    try {
        failure = task.kind() == TaskKind::Data ? keepData(transfer, data, length)
                                                : task.impl->keepDownload(task, data, length);
    } catch (const std::exception& exception) {
        failure = curlError("curl_easy_perform", CURLE_WRITE_ERROR, exception.what());
    }
    if (failure) {
        transfer.callbackFailure = std::move(failure);
        return 0;
    }
    return length;
}

// A download goes to its file as it arrives, so its size is bounded by the disk, not by memory.
ErrorPtr HttpSession::Impl::keepDownload(Task& task, const char* data, std::size_t length) {
    auto& transfer = task.transfer;
    if (auto written = transfer.file->write(data, length); !written)
        return curlError("curl_easy_perform", CURLE_WRITE_ERROR, written.error()->description());
    transfer.totalWritten += static_cast<std::int64_t>(length);
    queue_->async([self = shared_from_this(), task = task.shared_from_this(),
                   written = static_cast<std::int64_t>(length), total = transfer.totalWritten,
                   expected = static_cast<std::int64_t>(transfer.expectedLength)] {
        if (self->destroyed_)
            return;
        self->delegate_->didWriteData(*self->owner_, *task, written, total, expected);
    });
    return nullptr;
}

void HttpSession::Impl::finishTransfer(const std::shared_ptr<Task>& task, CURLcode code) {
    auto& transfer = task->transfer;
    if (transfer.redirect) {
        followRedirect(task);
    } else if (code == CURLE_OK) {
        complete(task, nullptr);
    } else if (transfer.callbackFailure) {
        complete(task, transfer.callbackFailure);
    } else {
        complete(task, curlError("curl_easy_perform", code, transfer.errorBuffer));
    }
}

// Runs the same handle again for the next URL; the request's headers go along only to its origin.
void HttpSession::Impl::followRedirect(const std::shared_ptr<Task>& task) {
    auto& transfer = task->transfer;
    auto step = std::move(*transfer.redirect);
    transfer.redirect.reset();
    ++transfer.redirects;
    transfer.status = 0;
    transfer.responseHeaders.clear();
    CURL* easy = transfer.easy.get();
    curl_multi_remove_handle(multi_.get(), easy);
    curl_slist* headers = step.headers == RequestHeaders::Sent ? transfer.headers.get() : nullptr;
    CURLcode code = curl_easy_setopt(easy, CURLOPT_URL, step.url.c_str());
    if (code == CURLE_OK)
        code = curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    if (code != CURLE_OK) {
        complete(task, curlError("curl_easy_setopt", code, transfer.errorBuffer));
        return;
    }
    if (auto added = curl_multi_add_handle(multi_.get(), easy); added != CURLM_OK) {
        complete(task, Error::make(kTransportErrorDomain, CURLE_FAILED_INIT,
                                   multiFailure("curl_multi_add_handle", added)));
        return;
    }
    transfer.lastActivity = Clock::now();
}

void HttpSession::Impl::cancelActive(std::uint64_t id) {
    for (auto& [easy, task] : active_) {
        if (task->identifier() == id) {
            complete(task, cancellationError());
            return;
        }
    }
}

void HttpSession::Impl::expireIdleTransfers() {
    auto now = Clock::now();
    std::vector<std::shared_ptr<Task>> expired;
    for (auto& [easy, task] : active_) {
        if (now - task->transfer.lastActivity >= task->request().timeout)
            expired.push_back(task);
    }
    for (auto& task : expired) {
        complete(task, curlError("curl_easy_perform", CURLE_OPERATION_TIMEDOUT,
                                 "nothing received for " +
                                     std::to_string(task->request().timeout.count()) + " ms"));
    }
}

// Ends a task: detaches its transfer and queues the callbacks that report it.
void HttpSession::Impl::complete(const std::shared_ptr<Task>& task, ErrorPtr error) {
    // Keeps the task alive while it leaves `active_`.
    auto keep = task;
    auto response = detach(*keep, error);
    {
        std::lock_guard lock(mutex_);
        keep->state = TaskState::Completed;
    }
    if (keep->kind() == TaskKind::Data)
        reportData(std::move(keep), std::move(error), std::move(response));
    else
        reportDownload(std::move(keep), std::move(error), std::move(response));
}

// Takes the transfer off the multi handle, reading the response while the handle still has it.
std::optional<HttpResponse> HttpSession::Impl::detach(Task& task, const ErrorPtr& error) {
    auto& transfer = task.transfer;
    CURL* easy = transfer.easy.get();
    if (!easy)
        return std::nullopt;
    if (active_.erase(easy) > 0)
        curl_multi_remove_handle(multi_.get(), easy);
    std::optional<HttpResponse> response;
    if (!error)
        response = responseOf(transfer);
    transfer.easy.reset();
    transfer.headers.reset();
    return response;
}

void HttpSession::Impl::reportData(std::shared_ptr<Task> task, ErrorPtr error,
                                   std::optional<HttpResponse> response) {
    DataTaskResult result;
    if (error) {
        result.error = std::move(error);
    } else {
        result.response = std::move(response);
        result.body = std::move(task->transfer.body);
    }
    // The completion is moved out and run on the queue, so the worker never destroys what the
    // caller captured in it.
    queue_->async([self = shared_from_this(), task = std::move(task),
                   result = std::make_shared<DataTaskResult>(std::move(result))] {
        if (self->destroyed_)
            return;
        auto completion = std::move(task->completion);
        completion(std::move(*result));
    });
}

void HttpSession::Impl::reportDownload(std::shared_ptr<Task> task, ErrorPtr error,
                                       std::optional<HttpResponse> response) {
    auto& transfer = task->transfer;
    std::shared_ptr<TempFile> file;
    if (transfer.file) {
        if (!error) {
            if (auto closed = transfer.file->close(); !closed)
                error = closed.error();
        }
        if (!error)
            file = std::make_shared<TempFile>(std::move(*transfer.file));
        transfer.file.reset();
    }
    if (error)
        response.reset();
    // Moved, not copied: the worker must hold no reference to the file once it is queued.
    queue_->async([self = shared_from_this(), task = std::move(task), file = std::move(file),
                   error = std::move(error), response = std::move(response)]() mutable {
        if (self->destroyed_)
            return;
        auto delegate = self->delegate_;
        if (file) {
            delegate->didFinishDownloading(*self->owner_, *task, file->path());
            // The file is only lent to the callback: it is gone before the task completes.
            file.reset();
            if (self->destroyed_)
                return;
        }
        delegate->didComplete(*self->owner_, *task, error, response);
    });
}

void HttpSession::Impl::abandonAll() {
    // The session is being destroyed: no callback may follow, so transfers end silently.
    for (auto& [easy, task] : active_) {
        curl_multi_remove_handle(multi_.get(), easy);
        task->transfer.easy.reset();
        task->transfer.file.reset();
    }
    active_.clear();
    std::lock_guard lock(mutex_);
    toStart_.clear();
    toCancel_.clear();
    suspended_.clear();
}

// Only the shared session is made without a delegate; `create` insists on one.
HttpSession::HttpSession(std::shared_ptr<HttpSessionDelegate> delegate,
                         HttpSessionConfiguration configuration) {
    const bool isShared = delegate == nullptr;
    impl_ = std::make_shared<Impl>(this, std::move(delegate), configuration, isShared);
    impl_->start();
}

HttpSession::~HttpSession() {
    impl_->destroy();
}

HttpSession& HttpSession::shared() {
    // Leaked on purpose: completions may still arrive while the process exits.
    static auto* session = new HttpSession(nullptr, {});
    return *session;
}

std::shared_ptr<HttpSession> HttpSession::create(std::shared_ptr<HttpSessionDelegate> delegate,
                                                 HttpSessionConfiguration configuration) {
    if (!delegate)
        fatalError("HttpSession::create(): a session needs a delegate");
    return std::shared_ptr<HttpSession>(new HttpSession(std::move(delegate), configuration));
}

std::shared_ptr<HttpTask> HttpSession::dataTask(HttpRequest request, DataCompletion completion) {
    if (!completion)
        fatalError("HttpSession::dataTask(): no completion");
    return impl_->makeTask(TaskKind::Data, std::move(request), std::move(completion));
}

std::shared_ptr<HttpTask> HttpSession::downloadTask(HttpRequest request) {
    if (!impl_->hasDelegate())
        fatalError("HttpSession::downloadTask(): the session has no delegate to report to");
    return impl_->makeTask(TaskKind::Download, std::move(request), {});
}

DispatchQueue& HttpSession::callbackQueue() {
    return impl_->queue();
}

void HttpSession::finishTasksAndInvalidate() {
    impl_->invalidate(false);
}

void HttpSession::invalidateAndCancel() {
    impl_->invalidate(true);
}

} // namespace pelkit::net
