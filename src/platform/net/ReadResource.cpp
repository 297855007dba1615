// A blocking read on its own curl easy handle. It shares nothing with the sessions' worker threads
// or callback queues, which is what lets a session's callback call it without waiting on itself.
#include <pelkit/net/ReadResource.h>

#include "Redirects.h"
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/net/HttpSession.h>

#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <mutex>

namespace pelkit::net {
namespace {

constexpr int kMaxRedirects = 16;
constexpr int kUnsupportedProtocol = CURLE_UNSUPPORTED_PROTOCOL;

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;

struct Body {
    std::size_t maxBytes;
    Bytes bytes;
    bool tooLarge = false;
};

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* context) {
    auto& body = *static_cast<Body*>(context);
    std::size_t length = size * count;
    if (length > body.maxBytes - body.bytes.size()) {
        body.tooLarge = true;
        return 0; // makes curl_easy_perform fail with CURLE_WRITE_ERROR
    }
    body.bytes.insert(body.bytes.end(), data, data + length);
    return length;
}

ErrorPtr curlError(std::string_view call, CURLcode code, const char* detail) {
    std::string description =
        std::string(call) + ": " + curl_easy_strerror(code) + " (" + std::to_string(code) + ")";
    if (detail && *detail)
        description += ": " + std::string(detail);
    return Error::make(kTransportErrorDomain, code, std::move(description));
}

ErrorPtr tooLarge(const Url& url, std::size_t maxBytes) {
    return Error::make(kTransportErrorDomain, CURLE_FILESIZE_EXCEEDED,
                       "readWholeResource(" + url.absoluteString() + "): larger than " +
                           std::to_string(maxBytes) + " bytes");
}

CURLcode setOptions(CURL* easy, const std::string& url, Body& body, const ReadLimits& limits,
                    char* errorBuffer) {
    auto seconds = std::max<long>(
        1, static_cast<long>(std::chrono::ceil<std::chrono::seconds>(limits.timeout).count()));
    CURLcode code = CURLE_OK;
    auto set = [&](CURLoption option, auto value) {
        if (code == CURLE_OK)
            code = curl_easy_setopt(easy, option, value);
    };
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_ERRORBUFFER, errorBuffer);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_PATH_AS_IS, 1L);
    set(CURLOPT_WRITEFUNCTION, onBody);
    set(CURLOPT_WRITEDATA, &body);
    set(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(limits.maxBytes));
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits.timeout.count()));
    // No byte for `timeout` ends the transfer; a slow but moving download goes on.
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, seconds);
    return code;
}

/// Where the answer just received sends the read next, or nothing when it is the final answer.
std::optional<std::string> redirectTarget(CURL* easy, long status, const std::string& requested,
                                          const std::string& answered) {
    if (status != 301 && status != 302 && status != 303 && status != 307 && status != 308)
        return std::nullopt;
    curl_header* location = nullptr;
    if (curl_easy_header(easy, "Location", 0, CURLH_HEADER, -1, &location) != CURLHE_OK)
        return std::nullopt;
    auto step = redirectStep(requested, answered, location->value);
    return step ? std::optional(step->url) : std::nullopt;
}

Result<Bytes> fetch(const Url& url, const ReadLimits& limits) {
    static std::once_flag once;
    CURLcode initialized = CURLE_OK;
    std::call_once(once, [&] { initialized = curl_global_init(CURL_GLOBAL_DEFAULT); });
    EasyHandle easy(initialized == CURLE_OK ? curl_easy_init() : nullptr);
    if (!easy)
        return std::unexpected(curlError("curl_easy_init", CURLE_FAILED_INIT, nullptr));
    char errorBuffer[CURL_ERROR_SIZE] = {};
    std::string current = url.absoluteString();
    for (int redirects = 0;; ++redirects) {
        Body body{limits.maxBytes, {}};
        if (auto code = setOptions(easy.get(), current, body, limits, errorBuffer);
            code != CURLE_OK)
            return std::unexpected(curlError("curl_easy_setopt", code, errorBuffer));
        CURLcode code = curl_easy_perform(easy.get());
        if (body.tooLarge || code == CURLE_FILESIZE_EXCEEDED)
            return std::unexpected(tooLarge(url, limits.maxBytes));
        if (code != CURLE_OK)
            return std::unexpected(curlError("curl_easy_perform", code, errorBuffer));
        long status = 0;
        curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
        if (redirects < kMaxRedirects) {
            if (auto next = redirectTarget(easy.get(), status, url.absoluteString(), current)) {
                current = std::move(*next);
                continue;
            }
        }
        if (status < 200 || status > 299)
            return std::unexpected(Error::make("http", static_cast<int>(status),
                                               "readWholeResource(" + url.absoluteString() +
                                                   "): HTTP status " + std::to_string(status)));
        return std::move(body.bytes);
    }
}

} // namespace

Result<Bytes> readWholeResource(const Url& url, const ReadLimits& limits) {
    if (url.isFileUrl()) {
        // A decoded "%00" would cut the path short at the system call.
        auto path = url.path();
        if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos)
            return std::unexpected(Error::make("posix", EINVAL,
                                               "readWholeResource(" + url.absoluteString() +
                                                   "): not an absolute file path"));
        return readRegularFile(path, limits.maxBytes);
    }
    auto scheme = url.scheme();
    if (scheme != "http" && scheme != "https")
        return std::unexpected(Error::make(kTransportErrorDomain, kUnsupportedProtocol,
                                           "readWholeResource(" + url.absoluteString() +
                                               "): only file, http and https URLs are read"));
    return fetch(url, limits);
}

} // namespace pelkit::net
