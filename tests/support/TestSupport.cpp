#include "TestSupport.h"

#include <pelkit/foundation/FileSystem.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <stdexcept>

namespace pelkit::test {

TempDir::TempDir() {
    std::random_device random;
    auto base = std::filesystem::temp_directory_path();
    for (;;) {
        path_ = base / ("pelkit-test-" + std::to_string(random()));
        if (std::filesystem::create_directory(path_))
            break;
    }
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

LineCapture::LineCapture() {
    previous_ = setLineSink([this](std::string_view line) {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    });
}

LineCapture::~LineCapture() {
    setLineSink(previous_);
}

std::vector<std::string> LineCapture::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

ScopedEnv::ScopedEnv(std::string name, const std::string& value) : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) {
        hadValue_ = true;
        previous_ = old;
    }
    ::setenv(name_.c_str(), value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
    if (hadValue_)
        ::setenv(name_.c_str(), previous_.c_str(), 1);
    else
        ::unsetenv(name_.c_str());
}

std::optional<std::string> SeenRequest::header(const std::string& name) const {
    auto found = headers.find(name);
    return found == headers.end() ? std::nullopt : std::optional(found->second);
}

HttpTestServer::HttpTestServer() : HttpTestServer(std::make_unique<httplib::Server>(), "http") {}

HttpTestServer::HttpTestServer(const std::filesystem::path& pem)
    : HttpTestServer(std::make_unique<httplib::SSLServer>(pem.c_str(), pem.c_str()), "https") {}

HttpTestServer::HttpTestServer(std::unique_ptr<httplib::Server> owned, std::string scheme)
    : owned_(std::move(owned)), server(*owned_), scheme_(std::move(scheme)) {
    // One request per connection: a kept-alive connection would hold stop() for the server's
    // keep-alive time-out.
    server.set_keep_alive_max_count(1);
    server.set_pre_routing_handler([this](const httplib::Request& request, auto&) {
        std::lock_guard lock(requestsMutex_);
        requests_.push_back({request.method, request.path, request.headers});
        return httplib::Server::HandlerResponse::Unhandled;
    });
}

std::vector<SeenRequest> HttpTestServer::requests() const {
    std::lock_guard lock(requestsMutex_);
    return requests_;
}

std::vector<SeenRequest> HttpTestServer::requestsTo(const std::string& path) const {
    auto found = requests();
    std::erase_if(found, [&](const SeenRequest& r) { return r.path != path; });
    return found;
}

HttpTestServer::~HttpTestServer() {
    server.stop();
    if (thread_.joinable())
        thread_.join();
}

void HttpTestServer::start() {
    port_ = server.bind_to_any_port("127.0.0.1");
    if (port_ <= 0)
        throw std::runtime_error("HttpTestServer: cannot bind 127.0.0.1");
    thread_ = std::thread([this] { server.listen_after_bind(); });
    // stop() is a no-op until the accept loop runs, so wait for it: a server stopped too early
    // would keep serving.
    while (!server.is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

std::string HttpTestServer::baseUrl() const {
    return scheme_ + "://127.0.0.1:" + std::to_string(port_);
}

SilentPort::SilentPort(Mode mode) : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        (mode == Mode::silent && ::listen(listener_, 8) != 0))
        throw std::runtime_error("SilentPort: cannot set up a socket on 127.0.0.1");
    port_ = ntohs(address.sin_port);
    if (mode == Mode::silent)
        thread_ = std::thread([this] { serve(); });
}

SilentPort::~SilentPort() {
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    ::close(listener_);
}

std::string SilentPort::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

// Polls in short steps so that the destructor is never kept waiting. Later connections wait in
// the backlog, connected and unanswered as well.
void SilentPort::serve() {
    int connection = -1;
    while (!stop_ && !closedByPeer_) {
        pollfd watched{connection < 0 ? listener_ : connection, POLLIN, 0};
        if (::poll(&watched, 1, 20) <= 0)
            continue;
        if (connection < 0) {
            connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            accepted_ = connection >= 0;
            continue;
        }
        char buffer[1024];
        if (::recv(connection, buffer, sizeof buffer, 0) <= 0)
            closedByPeer_ = true;
    }
    if (connection >= 0)
        ::close(connection);
}

void Gate::wait() {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [&] { return open_; });
}

void Gate::open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    opened_.notify_all();
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

std::string fileText(const std::filesystem::path& path) {
    auto bytes = readFile(path);
    return bytes ? std::string(textOf(*bytes)) : "<unreadable>";
}

ProgramRun runProgram(const std::string& commandLine) {
    TempDir outputs;
    const int status = std::system(
        (commandLine + " >" + (outputs / "out").string() + " 2>" + (outputs / "err").string())
            .c_str());
    return {WEXITSTATUS(status), fileText(outputs / "out"), fileText(outputs / "err")};
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void useDummyAudioDriver() {
    ::setenv("SDL_AUDIODRIVER", "dummy", 0);
}

std::filesystem::path fixturesDirectory() {
    const char* dir = std::getenv("PELKIT_TEST_FIXTURES");
    return dir ? std::filesystem::path(dir) : std::filesystem::path("tests/fixtures");
}

std::filesystem::path demoProject() {
    return fixturesDirectory() / ".." / ".." / "examples" / "demo-project";
}

} // namespace pelkit::test
