#include "TestSupport.h"

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

HttpTestServer::HttpTestServer() {
    // One request per connection: a kept-alive connection would hold stop() for the server's
    // keep-alive time-out.
    server.set_keep_alive_max_count(1);
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
    return "http://127.0.0.1:" + std::to_string(port_);
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

std::filesystem::path fixturesDirectory() {
    const char* dir = std::getenv("PELKIT_TEST_FIXTURES");
    return dir ? std::filesystem::path(dir) : std::filesystem::path("tests/fixtures");
}

} // namespace pelkit::test
