// Shared test fixtures: temporary directories, captured diagnostic lines, and a real HTTP server on
// 127.0.0.1 that runs on its own thread for the lifetime of the object.
#pragma once

#include <pelkit/foundation/Log.h>

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace pelkit::test {

/// A fresh directory under the system temp directory, removed with its contents at scope exit.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

/// Captures every diagnostic line while in scope.
class LineCapture {
public:
    LineCapture();
    ~LineCapture();
    std::vector<std::string> lines() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    LineSink previous_;
};

/// Sets an environment variable for the scope, restoring the previous value after.
class ScopedEnv {
public:
    ScopedEnv(std::string name, const std::string& value);
    ~ScopedEnv();

private:
    std::string name_;
    bool hadValue_ = false;
    std::string previous_;
};

/// A request as the server received it.
struct SeenRequest {
    std::string method, path;
    httplib::Headers headers;
    /// The value of the header `name` (any case), if sent.
    std::optional<std::string> header(const std::string& name) const;
};

/// An httplib server listening on 127.0.0.1 at a free port; register handlers on `server` before
/// calling `start()`. Stopped and joined at scope exit.
class HttpTestServer {
public:
    HttpTestServer();
    /// Serves https with the certificate and key that `pem` holds.
    explicit HttpTestServer(const std::filesystem::path& pem);
    ~HttpTestServer();

private:
    HttpTestServer(std::unique_ptr<httplib::Server> owned, std::string scheme);
    std::unique_ptr<httplib::Server> owned_;

public:
    httplib::Server& server;
    void start();
    int port() const { return port_; }
    /// "http://127.0.0.1:<port>", or https
    std::string baseUrl() const;
    /// Every request so far, in order. Each is on record before its handler runs, so once its
    /// answer has arrived. A pre-routing handler set on `server` replaces the recording.
    std::vector<SeenRequest> requests() const;
    /// Those of `requests()` whose path is `path`.
    std::vector<SeenRequest> requestsTo(const std::string& path) const;

private:
    mutable std::mutex requestsMutex_;
    std::vector<SeenRequest> requests_;
    std::string scheme_ = "http";
    int port_ = 0;
    std::thread thread_;
};

/// A TCP port on 127.0.0.1 that never answers. Refusing, it is bound but not listening; silent,
/// it accepts a connection, never answers, and notices when the other side closes it.
class SilentPort {
public:
    enum class Mode { refuse, silent };
    explicit SilentPort(Mode mode = Mode::silent);
    ~SilentPort();
    SilentPort(const SilentPort&) = delete;
    SilentPort& operator=(const SilentPort&) = delete;
    std::string url(const std::string& path = "/") const;
    bool accepted() const { return accepted_; }
    bool closedByPeer() const { return closedByPeer_; }

private:
    void serve();
    int listener_ = -1;
    int port_ = 0;
    std::thread thread_;
    std::atomic<bool> stop_{false}, accepted_{false}, closedByPeer_{false};
};

/// Holds callers of `wait()` until `open()` is called; open for good after that.
class Gate {
public:
    void wait();
    void open();

private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

/// `text` with every `from` replaced by `to`.
std::string replaced(std::string text, const std::string& from, const std::string& to);

/// The text of a file, or "<unreadable>".
std::string fileText(const std::filesystem::path& path);

/// How a program ended: its exit status, standard output and standard error.
struct ProgramRun {
    int status;
    std::string out, err;
};
/// Runs `commandLine` through the shell until it ends.
ProgramRun runProgram(const std::string& commandLine);

/// Polls `done` until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

/// Plays sound in real time without a device, unless the developer picked a driver.
void useDummyAudioDriver();

/// The directory of committed test fixtures ($PELKIT_TEST_FIXTURES).
std::filesystem::path fixturesDirectory();

/// The example project that ships with the sources, and its target pictures.
std::filesystem::path demoProject();
inline std::filesystem::path demoTargets() {
    return demoProject() / "targets";
}

} // namespace pelkit::test
