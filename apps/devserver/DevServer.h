// A development server that publishes a project folder over the REST interface the framework's
// client speaks, with knobs that make it misbehave on purpose. start() and stop() are called from
// the owning thread; faults, requests() and clearRequests() are thread-safe.
#pragma once

#include <pelkit/foundation/Error.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelkit::devserver {

/// The server's endpoints, by the names the command line uses for them.
enum class Endpoint {
    Configuration,  // "configuration": GET /configuration
    PrepareTargets, // "prepareTargetsForDownload": GET /prepareTargetsForDownload
    PrepareContent, // "preparecontent": GET /targets/{target}/content/{content}/preparecontent
    Files,          // "files": GET /files/{name}
    Archive,        // "archive": GET /archive/targets.zip
};

std::string_view endpointName(Endpoint endpoint);
std::optional<Endpoint> endpointNamed(std::string_view name);

/// How /prepareTargetsForDownload hands out the target archive.
enum class ArchiveMode {
    Body, // the archive is the answer's body
    Url,  // the body is the text of the URL of /archive/targets.zip
};

/// Whether the archive download (/archive/targets.zip) announces its size.
enum class ArchiveLength { Announced, Chunked };

/// Misbehaviour of one endpoint. The delay comes first; then either the injected status (with a
/// short text body) or the normal answer, cut off after `closeAfterBytes` bytes of its body:
/// the headers (Content-Length included) go out whole, then the connection is closed.
struct Fault {
    std::optional<int> status{};
    std::chrono::milliseconds delay{0};
    std::optional<std::size_t> closeAfterBytes{};
};

struct DevServerOptions {
    /// The project folder: configuration.json, targets/, files/.
    std::filesystem::path project{};
    /// 0 picks a free port.
    int port = 0;
    /// When set, API requests whose "appkey" header differs are answered 401.
    std::optional<std::string> appKey{};
    ArchiveMode archive = ArchiveMode::Body;
    ArchiveLength archiveLength = ArchiveLength::Announced;
    /// Served in place of the archive built from targets/, byte for byte (hostile archives).
    std::optional<std::filesystem::path> archiveFile{};
    std::map<Endpoint, Fault> faults{};
    /// Prints one line per answered request ("GET /configuration 200").
    bool printRequests = false;
};

/// A request as it arrived, before it was answered. Header names are lower case.
struct LoggedRequest {
    std::string method;
    std::string path;
    std::multimap<std::string, std::string> headers;

    /// The first value of the header `name` (lower case), if sent.
    std::optional<std::string> header(std::string_view name) const;
};

/// Serves one project folder on 127.0.0.1 until stopped or destroyed:
///
///     devserver::DevServer server({.project = "examples/demo-project"});
///     auto port = server.start();
///     if (!port) { printLine(port.error()->description()); return 1; }
///     // ... GET http://127.0.0.1:<*port>/configuration
///     EXPECT_FALSE(server.requests().front().header("lastupdated"));
///
/// The folder is read at request time, so edits to it are served at once; the target archive is
/// built once per project revision (the "lastUpdated" stamp plus the listing of targets/).
class DevServer {
public:
    explicit DevServer(DevServerOptions options);
    ~DevServer();
    DevServer(const DevServer&) = delete;
    DevServer& operator=(const DevServer&) = delete;

    /// Checks the folder, binds the port and starts serving; returns the port. Fails when the
    /// folder or its configuration.json is missing or has no "lastUpdated" text, or the port is
    /// taken. Call once.
    [[nodiscard]] Result<int> start();
    /// Stops serving and waits for requests in flight (delays are cut short). Idempotent.
    void stop();

    /// "http://127.0.0.1:<port>"; valid after start().
    std::string baseUrl() const;

    /// Replaces the fault of one endpoint (a default Fault removes it), for later requests.
    void setFault(Endpoint endpoint, Fault fault);

    /// Every request received so far, in arrival order.
    std::vector<LoggedRequest> requests() const;
    void clearRequests();

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace pelkit::devserver
