// The client of the REST server: fetches the configuration and brings the target images of a
// project up to date. Completions and statuses arrive on the HTTP session threads named below;
// one run at a time (the sync supervisor sees to that).
#pragma once

#include <pelkit/PELError.h>
#include <pelkit/PELStatus.h>
#include <pelkit/foundation/Bytes.h>
#include <pelkit/net/Url.h>

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace pelkit {

namespace net {
class HttpSession;
}

/// Every request is a GET of `host` + path with the headers "Content-Type: application/json" and
/// "appkey: <the whole app key>" and a 60-second time-out, on the shared HTTP session; the archive
/// download, if the server asks for one, runs on the gateway's own session.
///
///     auto gateway = PELGateway::create("http://127.0.0.1:8080", appKey, delegate);
///     gateway->fetchRemoteConfiguration([](std::expected<Bytes, PELError> result) { ... });
class PELGateway : public std::enable_shared_from_this<PELGateway> {
public:
    using ConfigurationCompletion = std::function<void(std::expected<Bytes, PELError>)>;
    /// No error means the targets are in place.
    using DownloadCompletion = std::function<void(std::optional<PELError>)>;

    /// `host` is scheme and host without a trailing slash; paths are appended to it as they are.
    static std::shared_ptr<PELGateway> create(std::string host, std::string appKey,
                                              std::shared_ptr<PELStatusDelegate> delegate);
    ~PELGateway();
    PELGateway(const PELGateway&) = delete;
    PELGateway& operator=(const PELGateway&) = delete;

    const std::string& host() const { return host_; }
    const std::string& appKey() const { return appKey_; }

    /// GET "/configuration". Completes on the shared session's completion queue with the body
    /// (status 200), or `networkError` (transport failure; other status, as an error of domain ""
    /// and code = status), or `serverError` (200 without a body).
    void fetchRemoteConfiguration(ConfigurationCompletion completion);

    /// Asks the server to prepare the archive of target images ("lastupdated" header when
    /// `lastUpdated` is set), stores it as "targets.zip" in `destination` and unpacks it there,
    /// downloading it first when the server answers with its address. Completes with no error,
    /// `alreadyUpToDate` (204), `networkError` wrapping the preparation's failure, `networkError`
    /// for a failed download, or `fileError` for a downloaded archive that cannot be stored.
    void downloadTargets(std::filesystem::path destination, std::optional<std::string> lastUpdated,
                         DownloadCompletion completion);

    class SessionEvents;

private:
    PELGateway(std::string host, std::string appKey, std::shared_ptr<PELStatusDelegate> delegate);

    using PrepareCompletion = std::function<void(std::expected<std::optional<net::Url>, PELError>)>;
    void prepareTargetsForDownload(std::optional<std::string> lastUpdated,
                                   std::filesystem::path destination, PrepareCompletion completion);
    void downloadFile(const net::Url& url, std::filesystem::path destination,
                      DownloadCompletion completion);
    void notify(const PELStatus& status);

    // Download-task events, on the gateway session's delegate queue.
    void didWriteData(std::int64_t totalBytesWritten, std::int64_t totalBytesExpected);
    void didFinishDownloading(const std::filesystem::path& location);
    void didComplete(ErrorPtr error, const char* domainWhenNone);

    std::shared_ptr<net::HttpSession> session_;
    std::shared_ptr<PELStatusDelegate> delegate_;
    std::string host_;
    std::string appKey_;
    // The download in flight; read and written only on the gateway session's delegate queue.
    DownloadCompletion downloadCompletion_;
    std::optional<std::filesystem::path> downloadDestination_;
};

} // namespace pelkit
