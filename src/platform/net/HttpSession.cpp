// The one place that talks to libcurl. Each session owns a multi handle that only its worker thread
// touches; other threads hand it work through a locked inbox and wake it with curl_multi_wakeup.
// Results travel to the session's serial callback queue, so callbacks of one task arrive in order.
#include <pelkit/net/HttpSession.h>

#include <pelkit/foundation/FileDescriptor.h>
#include <pelkit/foundation/Text.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
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

constexpr long kMaxRedirects = 16;
// A lying Content-Length must not make us reserve gigabytes up front; past this the body grows.
constexpr curl_off_t kMaxReservation = curl_off_t{256} << 20;
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

} // namespace

class Task;

class HttpSession::Impl : public std::enable_shared_from_this<Impl> {
public:
    Impl(HttpSession* owner, std::shared_ptr<HttpSessionDelegate> delegate, bool isShared);
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

    // Called from libcurl on the worker thread.
    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* task);
    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* task);

private:
    enum class Invalidation { None, Finishing, Cancelling };

    void run();
    void startTransfer(const std::shared_ptr<Task>& task);
    ErrorPtr configure(Task& task);
    void finishTransfer(const std::shared_ptr<Task>& task, CURLcode code);
    void complete(const std::shared_ptr<Task>& task, ErrorPtr error);
    void cancelActive(std::uint64_t id);
    void expireIdleTransfers();
    void abandonAll();
    int pollTimeout() const;
    void wake() { curl_multi_wakeup(multi_.get()); }
    bool onQueueThread() const { return std::this_thread::get_id() == queueThread_; }

    HttpSession* const owner_;
    const bool isShared_;
    const bool hasDelegate_;
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

/// Transfer state that only the worker thread touches while the transfer runs.
struct Transfer {
    EasyHandle easy;
    HeaderList headers;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    std::map<std::string, std::string> responseHeaders;
    curl_off_t expectedLength = -1;
    bool bodyStarted = false;
    Bytes body;
    std::optional<TempFile> file;
    std::int64_t totalWritten = 0;
    Clock::time_point lastActivity;
    // Why a callback stopped the transfer, when it was us rather than the network.
    ErrorPtr callbackFailure;
};

class Task final : public HttpTask, public std::enable_shared_from_this<Task> {
public:
    Task(std::weak_ptr<HttpSession::Impl> session, std::uint64_t id, TaskKind kind,
         HttpRequest request, HttpSession::DataCompletion completion)
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
    HttpSession::DataCompletion completion;
    Transfer transfer;
    HttpSession::Impl* impl = nullptr;

private:
    std::weak_ptr<HttpSession::Impl> session_;
    const std::uint64_t id_;
    const TaskKind kind_;
    const HttpRequest request_;
};

HttpSession::Impl::Impl(HttpSession* owner, std::shared_ptr<HttpSessionDelegate> delegate,
                        bool isShared)
    : owner_(owner), isShared_(isShared), hasDelegate_(delegate != nullptr),
      delegate_(std::move(delegate)),
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
    for (;;) {
        std::vector<std::shared_ptr<Task>> starting;
        std::vector<std::uint64_t> cancelling;
        Invalidation invalidation;
        {
            std::lock_guard lock(mutex_);
            if (shutdown_)
                break;
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

        int running = 0;
        if (auto code = curl_multi_perform(multi_.get(), &running); code != CURLM_OK)
            fatalError(std::string("curl_multi_perform: ") + curl_multi_strerror(code) + " (" +
                       std::to_string(code) + ")");
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

        if (invalidation != Invalidation::None && active_.empty() && !invalidationReported_) {
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

        if (auto code = curl_multi_poll(multi_.get(), nullptr, 0, pollTimeout(), nullptr);
            code != CURLM_OK)
            fatalError(std::string("curl_multi_poll: ") + curl_multi_strerror(code) + " (" +
                       std::to_string(code) + ")");
    }
    abandonAll();
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
        complete(task,
                 Error::make(kTransportErrorDomain, CURLE_FAILED_INIT,
                             std::string("curl_multi_add_handle: ") + curl_multi_strerror(code) +
                                 " (" + std::to_string(code) + ")"));
        return;
    }
    transfer.lastActivity = Clock::now();
    active_.emplace(transfer.easy.get(), task);
}

ErrorPtr HttpSession::Impl::configure(Task& task) {
    const auto& request = task.request();
    auto& transfer = task.transfer;
    const auto& text = request.url.absoluteString();
    // libcurl would guess "http://" for a bare name; a relative reference names no server.
    if (request.url.scheme().empty())
        return curlError("curl_easy_setopt", CURLE_URL_MALFORMAT, "no scheme in '" + text + "'");

    for (const auto& [name, value] : request.headers) {
        if (name.empty() || name.find(':') != std::string::npos || !isSafeHeaderText(name) ||
            !isSafeHeaderText(value))
            return curlError("curl_slist_append", CURLE_BAD_FUNCTION_ARGUMENT,
                             "header '" + name + "' is not a single header line");
        // "Name;" is libcurl's way of sending a header with an empty value.
        std::string line = value.empty() ? name + ";" : name + ": " + value;
        curl_slist* appended = curl_slist_append(transfer.headers.get(), line.c_str());
        if (!appended)
            return curlError("curl_slist_append", CURLE_OUT_OF_MEMORY, "");
        transfer.headers.release();
        transfer.headers.reset(appended);
    }

    if (task.kind() == TaskKind::Download) {
        auto file = TempFile::create();
        if (!file)
            return file.error();
        transfer.file.emplace(std::move(*file));
    }

    transfer.easy.reset(curl_easy_init());
    if (!transfer.easy)
        return curlError("curl_easy_init", CURLE_FAILED_INIT, "");
    CURL* easy = transfer.easy.get();
    CURLcode code = CURLE_OK;
    auto set = [&](CURLoption option, auto value) {
        if (code == CURLE_OK)
            code = curl_easy_setopt(easy, option, value);
    };
    set(CURLOPT_ERRORBUFFER, transfer.errorBuffer);
    set(CURLOPT_URL, text.c_str());
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_HTTPGET, 1L);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, kMaxRedirects);
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.timeout.count()));
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
    try {
        if (task.kind() == TaskKind::Data) {
            if (transfer.body.capacity() == 0 && transfer.expectedLength > 0)
                transfer.body.reserve(
                    static_cast<std::size_t>(std::min(transfer.expectedLength, kMaxReservation)));
            transfer.body.insert(transfer.body.end(), data, data + length);
            return length;
        }
        if (auto written = transfer.file->write(data, length); !written) {
            transfer.callbackFailure =
                curlError("curl_easy_perform", CURLE_WRITE_ERROR, written.error()->description());
            return 0;
        }
    } catch (const std::exception& exception) {
        transfer.callbackFailure =
            curlError("curl_easy_perform", CURLE_WRITE_ERROR, exception.what());
        return 0;
    }
    transfer.totalWritten += static_cast<std::int64_t>(length);
    auto* impl = task.impl;
    impl->queue_->async([self = impl->shared_from_this(), task = task.shared_from_this(),
                         written = static_cast<std::int64_t>(length), total = transfer.totalWritten,
                         expected = static_cast<std::int64_t>(transfer.expectedLength)] {
        if (self->destroyed_)
            return;
        self->delegate_->didWriteData(*self->owner_, *task, written, total, expected);
    });
    return length;
}

void HttpSession::Impl::finishTransfer(const std::shared_ptr<Task>& task, CURLcode code) {
    auto& transfer = task->transfer;
    if (code == CURLE_OK) {
        complete(task, nullptr);
    } else if (transfer.callbackFailure) {
        complete(task, transfer.callbackFailure);
    } else {
        complete(task, curlError("curl_easy_perform", code, transfer.errorBuffer));
    }
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

// Ends a task: detaches its handle, gathers the response and queues the callbacks that report it.
void HttpSession::Impl::complete(const std::shared_ptr<Task>& task, ErrorPtr error) {
    // Keeps the task alive while it leaves `active_`.
    auto keep = task;
    auto& transfer = keep->transfer;
    std::optional<HttpResponse> response;
    if (CURL* easy = transfer.easy.get()) {
        if (active_.erase(easy) > 0)
            curl_multi_remove_handle(multi_.get(), easy);
        if (!error) {
            long status = 0;
            char* effectiveUrl = nullptr;
            curl_off_t length = -1;
            curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
            curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effectiveUrl);
            curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
            response = HttpResponse{static_cast<int>(status), effectiveUrl ? effectiveUrl : "",
                                    std::move(transfer.responseHeaders),
                                    static_cast<std::int64_t>(length)};
        }
        transfer.easy.reset();
        transfer.headers.reset();
    }
    {
        std::lock_guard lock(mutex_);
        keep->state = TaskState::Completed;
    }

    if (keep->kind() == TaskKind::Data) {
        DataTaskResult result;
        if (error) {
            result.error = std::move(error);
        } else {
            result.response = std::move(response);
            result.body = std::move(transfer.body);
        }
        // The completion is moved out and run on the queue, so the worker never destroys what the
        // caller captured in it.
        queue_->async([self = shared_from_this(), task = keep,
                       result = std::make_shared<DataTaskResult>(std::move(result))] {
            if (self->destroyed_)
                return;
            auto completion = std::move(task->completion);
            completion(std::move(*result));
        });
        return;
    }

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
    queue_->async([self = shared_from_this(), task = keep, file = std::move(file),
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
HttpSession::HttpSession(std::shared_ptr<HttpSessionDelegate> delegate) {
    const bool isShared = delegate == nullptr;
    impl_ = std::make_shared<Impl>(this, std::move(delegate), isShared);
    impl_->start();
}

HttpSession::~HttpSession() {
    impl_->destroy();
}

HttpSession& HttpSession::shared() {
    // Leaked on purpose: completions may still arrive while the process exits.
    static auto* session = new HttpSession(nullptr);
    return *session;
}

std::shared_ptr<HttpSession> HttpSession::create(std::shared_ptr<HttpSessionDelegate> delegate) {
    if (!delegate)
        fatalError("HttpSession::create(): a session needs a delegate");
    return std::shared_ptr<HttpSession>(new HttpSession(std::move(delegate)));
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
