#include <pelkit/PELGateway.h>

#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/foundation/Text.h>
#include <pelkit/net/HttpSession.h>
#include <pelkit/zip/Unzip.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace pelkit {
namespace {

constexpr auto kRequestTimeout = std::chrono::seconds(60);

// A body longer than this is no URL: decoding it as text would only copy a large archive again.
constexpr std::size_t kMaxUrlBodyBytes = 16 * 1024;

net::HttpRequest makeRequest(const std::string& host, const char* path, const std::string& appKey) {
    std::string address = host + path;
    auto url = net::Url::parse(address);
    if (!url)
        fatalError("PELGateway: the request address '" + address + "' is not a URL");
    return {*url, {{"Content-Type", "application/json"}, {"appkey", appKey}}, kRequestTimeout};
}

std::optional<net::Url> urlInBody(const Bytes& body) {
    if (body.size() > kMaxUrlBodyBytes)
        return std::nullopt;
    return net::Url::parse(decodeUtf8Lossy(textOf(body)));
}

/// Whether `text` begins with "http" in any letter case, as "HTTP://" does.
bool beginsWithHttp(std::string_view text) {
    constexpr std::string_view http = "http";
    auto lowered = [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    };
    return text.size() >= http.size() &&
           std::equal(http.begin(), http.end(), text.begin(),
                      [&](char lower, char c) { return lower == lowered(c); });
}

// The gateway's own session must not hold the gateway for good (that would be a cycle of shared
// owners): it holds these forwarders, which reach the gateway while it lives.
template <class Call> void forward(const std::weak_ptr<PELGateway>& gateway, Call call) {
    if (auto strong = gateway.lock())
        call(*strong);
}

} // namespace

class PELGateway::SessionEvents final : public net::HttpSessionDelegate {
public:
    std::weak_ptr<PELGateway> gateway;

    void didWriteData(net::HttpSession&, net::HttpTask&, std::int64_t, std::int64_t totalWritten,
                      std::int64_t totalExpected) override {
        forward(gateway, [&](PELGateway& g) { g.didWriteData(totalWritten, totalExpected); });
    }
    void didFinishDownloading(net::HttpSession&, net::HttpTask&,
                              const std::filesystem::path& location) override {
        forward(gateway, [&](PELGateway& g) { g.didFinishDownloading(location); });
    }
    void didComplete(net::HttpSession&, net::HttpTask&, ErrorPtr error,
                     const std::optional<net::HttpResponse>&) override {
        forward(gateway, [&](PELGateway& g) { g.didComplete(error, "didCompleteWithError"); });
    }
    void didBecomeInvalid(net::HttpSession&, ErrorPtr error) override {
        forward(gateway, [&](PELGateway& g) { g.didComplete(error, "didBecomeInvalidWithError"); });
    }
};

PELGateway::PELGateway(std::string host, std::string appKey,
                       std::shared_ptr<PELStatusDelegate> delegate)
    : delegate_(std::move(delegate)), host_(std::move(host)), appKey_(std::move(appKey)) {}

std::shared_ptr<PELGateway> PELGateway::create(std::string host, std::string appKey,
                                               std::shared_ptr<PELStatusDelegate> delegate) {
    std::shared_ptr<PELGateway> gateway(
        new PELGateway(std::move(host), std::move(appKey), std::move(delegate)));
    auto events = std::make_shared<SessionEvents>();
    events->gateway = gateway;
    gateway->session_ = net::HttpSession::create(std::move(events));
    return gateway;
}

PELGateway::~PELGateway() {
    if (session_)
        session_->invalidateAndCancel();
}

void PELGateway::notify(const PELStatus& status) {
    if (delegate_)
        delegate_->statusDidChange(status);
}

void PELGateway::fetchRemoteConfiguration(ConfigurationCompletion completion) {
    auto request = makeRequest(host_, "/configuration", appKey_);
    net::HttpSession::shared()
        .dataTask(std::move(request),
                  [completion = std::move(completion)](net::DataTaskResult result) {
                      if (result.error)
                          return completion(std::unexpected(PELError::networkError(result.error)));
                      if (!result.response)
                          fatalError("PELGateway.fetchRemoteConfiguration: no HTTP response");
                      int status = result.response->statusCode;
                      if (status != 200) {
                          printLine("Response StatusCode: " + std::to_string(status));
                          return completion(
                              std::unexpected(PELError::networkError(Error::make("", status))));
                      }
                      if (!result.body) {
                          printLine("response did no include any data");
                          return completion(std::unexpected(PELError::serverError()));
                      }
                      completion(std::move(*result.body));
                  })
        ->resume();
}

void PELGateway::downloadTargets(std::filesystem::path destination,
                                 std::optional<std::string> lastUpdated,
                                 DownloadCompletion completion) {
    auto self = shared_from_this();
    prepareTargetsForDownload(
        std::move(lastUpdated), destination,
        [self, destination, completion = std::move(completion)](
            std::expected<std::optional<net::Url>, PELError> prepared) mutable {
            if (!prepared)
                return completion(PELError::networkError(prepared.error().share()));
            if (!*prepared)
                return completion(PELError::alreadyUpToDate());
            const net::Url& url = **prepared;
            if (beginsWithHttp(url.absoluteString()))
                return self->downloadFile(url, std::move(destination), std::move(completion));
            // The file URL of the archive that came in the body and is already unpacked.
            completion(std::nullopt);
        });
}

void PELGateway::prepareTargetsForDownload(std::optional<std::string> lastUpdated,
                                           std::filesystem::path destination,
                                           PrepareCompletion completion) {
    auto request = makeRequest(host_, "/prepareTargetsForDownload", appKey_);
    if (lastUpdated)
        request.headers.emplace("lastupdated", *lastUpdated);
    notify(PELStatus::downloadStarted());
    auto self = shared_from_this();
    auto handle = [self, destination = std::move(destination),
                   completion = std::move(completion)](net::DataTaskResult result) {
        if (result.error)
            return completion(std::unexpected(PELError::networkError(result.error)));
        if (!result.response)
            fatalError("PELGateway.prepareTargetsForDownload: no HTTP response");
        int status = result.response->statusCode;
        if (status == 200 && result.body) {
            auto archive = destination / "targets.zip";
            auto stored = writeFile(archive, *result.body);
            if (stored)
                stored = zip::unzipFile(archive, destination);
            if (stored) {
                self->notify(PELStatus::downloadCompleted());
                return completion(net::Url::fileUrl(archive));
            }
            printLine("Unexpected error: " + stored.error()->description());
            printLine("failed to write the response data to file..trying to start download task..");
            if (auto url = urlInBody(*result.body))
                return completion(std::optional(*url));
            printLine("provided data was not a correct url");
            return completion(std::unexpected(PELError::serverError()));
        }
        if (status == 200) {
            printLine("response did no include any data");
            return completion(std::unexpected(PELError::serverError()));
        }
        printLine("Response StatusCode: " + std::to_string(status));
        if (status == 204)
            return completion(std::optional<net::Url>());
        completion(std::unexpected(PELError::networkError(Error::make("statusCodeError", status))));
    };
    net::HttpSession::shared().dataTask(std::move(request), std::move(handle))->resume();
}

void PELGateway::downloadFile(const net::Url& url, std::filesystem::path destination,
                              DownloadCompletion completion) {
    notify(PELStatus::downloadStarted());
    if (!session_)
        fatalError("PELGateway.downloadFile: the gateway has no session");
    // The download fields belong to the session's delegate queue, where the download callbacks
    // read and clear them: a late callback of an earlier task then runs wholly before or after.
    session_->callbackQueue().async([self = shared_from_this(), url,
                                     destination = std::move(destination),
                                     completion = std::move(completion)]() mutable {
        self->downloadCompletion_ = std::move(completion);
        self->downloadDestination_ = std::move(destination);
        self->session_->downloadTask({url, {}, kRequestTimeout})->resume();
    });
}

void PELGateway::didWriteData(std::int64_t totalBytesWritten, std::int64_t totalBytesExpected) {
    notify(PELStatus::downloadProgress(static_cast<float>(totalBytesWritten) /
                                       static_cast<float>(totalBytesExpected)));
}

void PELGateway::didFinishDownloading(const std::filesystem::path& location) {
    if (!downloadDestination_)
        fatalError("PELGateway.didFinishDownloading: no destination for the download");
    auto destination = *downloadDestination_;
    auto archive = destination / "targets.zip";
    // Copied, not moved: the session removes its temporary file after this returns.
    auto stored = copyFileAtomically(location, archive);
    if (stored)
        stored = zip::unzipFile(archive, destination);
    auto completion = std::exchange(downloadCompletion_, nullptr);
    downloadDestination_.reset();
    if (stored) {
        notify(PELStatus::downloadCompleted());
        if (completion)
            completion(std::nullopt);
    } else if (completion) {
        completion(PELError::fileError(stored.error()));
    }
}

void PELGateway::didComplete(ErrorPtr error, const char* domainWhenNone) {
    auto completion = std::exchange(downloadCompletion_, nullptr);
    downloadDestination_.reset();
    if (completion)
        completion(PELError::networkError(error ? error : Error::make(domainWhenNone, 900)));
}

} // namespace pelkit
