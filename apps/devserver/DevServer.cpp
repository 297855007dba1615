#include "devserver/DevServer.h"

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/foundation/Text.h>
#include <pelkit/zip/ZipWriter.h>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <sys/socket.h>
#include <thread>
#include <utility>

namespace pelkit::devserver {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view archivePath = "/archive/targets.zip";

// Large enough that a 20 MB archive takes a few hundred writes, small enough that a cut-off body
// stops close to where it was asked to.
constexpr std::size_t writeSlice = 64 * 1024;

struct Body {
    std::shared_ptr<const Bytes> bytes;
    std::string type;
    /// The target archive, which --no-content-length sends chunked.
    bool isArchive = false;
};

/// What an endpoint answers, before faults cut it short.
struct Answer {
    int status;
    Body body;
};

Answer textAnswer(int status, std::string text) {
    return {status, {std::make_shared<const Bytes>(bytesOf(text)), "text/plain; charset=utf-8"}};
}

Answer dataAnswer(std::shared_ptr<const Bytes> bytes, std::string type, bool isArchive = false) {
    return {200, {std::move(bytes), std::move(type), isArchive}};
}

ErrorPtr projectError(std::string description) {
    return Error::make("devserver", 1, std::move(description));
}

struct Revision {
    Bytes configuration;
    std::string lastUpdated;
};

Result<Revision> readRevision(const fs::path& project) {
    const auto path = project / "configuration.json";
    auto bytes = readFile(path);
    if (!bytes)
        return std::unexpected(bytes.error());
    const auto json = nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false);
    if (json.is_discarded())
        return std::unexpected(projectError(path.string() + ": not a JSON document"));
    const auto stamp = json.is_object() ? json.find("lastUpdated") : json.end();
    if (stamp == json.end() || !stamp->is_string())
        return std::unexpected(projectError(path.string() + ": no \"lastUpdated\" text"));
    return Revision{std::move(*bytes), stamp->get<std::string>()};
}

/// The regular files of `directory` whose names do not start with '.', sorted by name; nothing
/// when the directory does not exist.
std::vector<fs::directory_entry> visibleFiles(const fs::path& directory) {
    std::vector<fs::directory_entry> files;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end;
         it.increment(error)) {
        if (it->is_regular_file(error) && !it->path().filename().string().starts_with('.'))
            files.push_back(*it);
    }
    std::ranges::sort(files, {}, [](const auto& file) { return file.path().filename(); });
    return files;
}

std::string contentType(const fs::path& file) {
    static const std::map<std::string, std::string, std::less<>> types{
        {".jpg", "image/jpeg"},       {".jpeg", "image/jpeg"}, {".png", "image/png"},
        {".gif", "image/gif"},        {".mp4", "video/mp4"},   {".m4v", "video/mp4"},
        {".m4a", "audio/mp4"},        {".mp3", "audio/mpeg"},  {".wav", "audio/wav"},
        {".json", "application/json"}};
    const auto found = types.find(asciiLowercase(file.extension().string()));
    return found == types.end() ? "application/octet-stream" : found->second;
}

/// `name` as a URL path segment: unreserved characters stay, everything else is %XX.
std::string percentEncoded(std::string_view name) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string encoded;
    for (const unsigned char c : name) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            encoded += static_cast<char>(c);
        } else {
            encoded += '%';
            encoded += hex[c >> 4];
            encoded += hex[c & 15];
        }
    }
    return encoded;
}

// Headers the server adds to each request for its own bookkeeping; no client sent them.
bool isConnectionDetail(const std::string& name) {
    return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
           name == "LOCAL_PORT";
}

} // namespace

std::string_view endpointName(Endpoint endpoint) {
    switch (endpoint) {
    case Endpoint::Configuration:
        return "configuration";
    case Endpoint::PrepareTargets:
        return "prepareTargetsForDownload";
    case Endpoint::PrepareContent:
        return "preparecontent";
    case Endpoint::Files:
        return "files";
    case Endpoint::Archive:
        return "archive";
    }
    fatalError("endpointName(): not an endpoint");
}

std::optional<Endpoint> endpointNamed(std::string_view name) {
    for (auto endpoint : {Endpoint::Configuration, Endpoint::PrepareTargets,
                          Endpoint::PrepareContent, Endpoint::Files, Endpoint::Archive}) {
        if (endpointName(endpoint) == name)
            return endpoint;
    }
    return std::nullopt;
}

std::optional<std::string> LoggedRequest::header(std::string_view name) const {
    const auto found = headers.find(std::string(name));
    if (found == headers.end())
        return std::nullopt;
    return found->second;
}

struct DevServer::State {
    explicit State(DevServerOptions options)
        : options(std::move(options)), faults(this->options.faults) {}

    void routes();
    /// Runs the endpoint's fault, then `answer` unless the fault's status replaces it, then sends
    /// the resulting body through the fault's cut-off.
    void serve(Endpoint endpoint, httplib::Response& response,
               const std::function<Answer()>& answer);
    void send(httplib::Response& response, Answer answer,
              std::optional<std::size_t> closeAfter) const;
    /// `answer` when the request carries the app key (or none is required), else 401.
    Answer withAppKey(const httplib::Request& request, const std::function<Answer()>& answer) const;
    Answer configuration() const;
    Answer prepareTargets(const httplib::Request& request);
    Answer prepareContent(const std::string& contentId) const;
    Answer file(const std::string& name) const;
    Answer archive();
    Result<std::shared_ptr<const Bytes>> archiveBytes(const std::string& lastUpdated);
    void pause(std::chrono::milliseconds delay);

    DevServerOptions options;
    httplib::Server server;
    std::thread thread;
    std::atomic<bool> listening{false};
    int port = 0;
    bool started = false;

    mutable std::mutex mutex; // faults, log
    std::map<Endpoint, Fault> faults;
    std::vector<LoggedRequest> log;

    std::mutex stopMutex;
    std::condition_variable stopCondition;
    bool stopping = false;

    std::mutex archiveMutex; // the cache below, and building into cacheDirectory
    fs::path cacheDirectory;
    std::string archiveRevision;
    std::shared_ptr<const Bytes> archiveCache;
};

void DevServer::State::routes() {
    server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
        LoggedRequest entry{request.method, request.path, {}};
        for (const auto& [name, value] : request.headers) {
            if (!isConnectionDetail(name))
                entry.headers.emplace(asciiLowercase(name), value);
        }
        std::lock_guard lock(mutex);
        log.push_back(std::move(entry));
        return httplib::Server::HandlerResponse::Unhandled;
    });
    if (options.printRequests) {
        server.set_logger([](const httplib::Request& request, const httplib::Response& response) {
            printLine(request.method + " " + request.path + " " + std::to_string(response.status));
        });
    }

    server.Get("/configuration", [this](const auto& request, auto& response) {
        serve(Endpoint::Configuration, response,
              [&] { return withAppKey(request, [&] { return configuration(); }); });
    });
    server.Get("/prepareTargetsForDownload", [this](const auto& request, auto& response) {
        serve(Endpoint::PrepareTargets, response,
              [&] { return withAppKey(request, [&] { return prepareTargets(request); }); });
    });
    server.Get(R"(/targets/([^/]+)/content/([^/]+)/preparecontent)", [this](const auto& request,
                                                                            auto& response) {
        serve(Endpoint::PrepareContent, response, [&] {
            return withAppKey(request, [&] { return prepareContent(request.matches[2].str()); });
        });
    });
    server.Get(R"(/files/([^/]+))", [this](const auto& request, auto& response) {
        serve(Endpoint::Files, response, [&] { return file(request.matches[1].str()); });
    });
    server.Get(std::string(archivePath), [this](const auto&, auto& response) {
        serve(Endpoint::Archive, response, [&] { return archive(); });
    });
}

void DevServer::State::serve(Endpoint endpoint, httplib::Response& response,
                             const std::function<Answer()>& answer) {
    Fault fault;
    {
        std::lock_guard lock(mutex);
        if (auto found = faults.find(endpoint); found != faults.end())
            fault = found->second;
    }
    if (fault.delay.count() > 0)
        pause(fault.delay);
    send(response,
         fault.status
             ? textAnswer(*fault.status, "injected status " + std::to_string(*fault.status))
             : answer(),
         fault.closeAfterBytes);
}

void DevServer::State::send(httplib::Response& response, Answer answer,
                            std::optional<std::size_t> closeAfter) const {
    const auto status = answer.status;
    if (status == 204 || status == 304 || status < 200) {
        response.status = status;
        return; // These carry no body at all.
    }
    // A 200 is left for the server to set, which makes it 206 when the request asked for a range
    // and sends only that range of the body.
    if (status != 200)
        response.status = status;
    const auto& body = answer.body;
    const auto bytes = body.bytes;
    const std::size_t limit = closeAfter.value_or(bytes->size());
    // A provider hands out slices of the shared bytes, so a body is never copied into the
    // response; returning false makes the server drop the connection right there.
    auto slice = [bytes, limit](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        if (offset >= limit)
            return false;
        const auto size = std::min({length, limit - offset, writeSlice});
        return sink.write(reinterpret_cast<const char*>(bytes->data()) + offset, size);
    };
    if (body.isArchive && options.archiveLength == ArchiveLength::Chunked) {
        response.set_chunked_content_provider(
            body.type, [bytes, limit, slice](std::size_t offset, httplib::DataSink& sink) {
                if (offset == bytes->size() && offset <= limit) {
                    sink.done();
                    return true;
                }
                return slice(offset, bytes->size() - offset, sink);
            });
    } else if (bytes->empty()) {
        response.set_content(std::string(), body.type);
    } else {
        response.set_content_provider(bytes->size(), body.type, slice);
    }
}

Answer DevServer::State::withAppKey(const httplib::Request& request,
                                    const std::function<Answer()>& answer) const {
    if (options.appKey &&
        !(request.has_header("appkey") && request.get_header_value("appkey") == *options.appKey))
        return textAnswer(401, "appkey does not match");
    return answer();
}

Answer DevServer::State::configuration() const {
    auto bytes = readFile(options.project / "configuration.json");
    if (!bytes)
        return textAnswer(500, bytes.error()->description());
    return dataAnswer(std::make_shared<const Bytes>(std::move(*bytes)), "application/json");
}

Answer DevServer::State::prepareTargets(const httplib::Request& request) {
    auto revision = readRevision(options.project);
    if (!revision)
        return textAnswer(500, revision.error()->description());
    if (request.has_header("lastupdated") &&
        request.get_header_value("lastupdated") == revision->lastUpdated)
        return {204, {}}; // no body
    if (options.archive == ArchiveMode::Url)
        return textAnswer(200,
                          "http://127.0.0.1:" + std::to_string(port) + std::string(archivePath));
    auto bytes = archiveBytes(revision->lastUpdated);
    if (!bytes)
        return textAnswer(500, bytes.error()->description());
    return dataAnswer(*bytes, "application/zip", true);
}

Answer DevServer::State::prepareContent(const std::string& contentId) const {
    for (const auto& file : visibleFiles(options.project / "files")) {
        if (file.path().stem() == contentId)
            return textAnswer(200, "/files/" + percentEncoded(file.path().filename().string()));
    }
    return textAnswer(404, "no file named " + contentId + ".* in files/");
}

Answer DevServer::State::file(const std::string& name) const {
    // The route admits no '/', so only these two could climb out of files/.
    if (name == "." || name == "..")
        return textAnswer(404, "no file " + name + " in files/");
    const auto path = options.project / "files" / name;
    std::error_code error;
    if (!fs::is_regular_file(path, error))
        return textAnswer(404, "no file " + name + " in files/");
    auto bytes = readFile(path);
    if (!bytes)
        return textAnswer(500, bytes.error()->description());
    return dataAnswer(std::make_shared<const Bytes>(std::move(*bytes)), contentType(path));
}

Answer DevServer::State::archive() {
    auto revision = readRevision(options.project);
    if (!revision)
        return textAnswer(500, revision.error()->description());
    auto bytes = archiveBytes(revision->lastUpdated);
    if (!bytes)
        return textAnswer(500, bytes.error()->description());
    return dataAnswer(*bytes, "application/zip", true);
}

Result<std::shared_ptr<const Bytes>>
DevServer::State::archiveBytes(const std::string& lastUpdated) {
    if (options.archiveFile) {
        auto bytes = readFile(*options.archiveFile);
        if (!bytes)
            return std::unexpected(bytes.error());
        return std::make_shared<const Bytes>(std::move(*bytes));
    }

    // The stamp alone would miss images replaced without a new stamp, so the listing of
    // targets/ is part of the revision too.
    const auto targets = visibleFiles(options.project / "targets");
    std::string revision = lastUpdated;
    std::vector<zip::ArchiveEntry> entries;
    for (const auto& target : targets) {
        std::error_code error;
        const auto size = target.file_size(error);
        const auto modified = target.last_write_time(error).time_since_epoch().count();
        const auto name = target.path().filename().string();
        revision += "\n" + name + " " + std::to_string(size) + " " + std::to_string(modified);
        entries.push_back({target.path(), name});
    }

    // Held while building, so that concurrent requests for a new revision build it once.
    std::lock_guard lock(archiveMutex);
    if (archiveCache && archiveRevision == revision)
        return archiveCache;
    const auto path = cacheDirectory / "targets.zip";
    if (auto written = zip::writeArchive(path, entries); !written)
        return std::unexpected(written.error());
    auto bytes = readFile(path);
    if (!bytes)
        return std::unexpected(bytes.error());
    archiveCache = std::make_shared<const Bytes>(std::move(*bytes));
    archiveRevision = std::move(revision);
    return archiveCache;
}

void DevServer::State::pause(std::chrono::milliseconds delay) {
    std::unique_lock lock(stopMutex);
    stopCondition.wait_for(lock, delay, [this] { return stopping; });
}

DevServer::DevServer(DevServerOptions options)
    : state_(std::make_unique<State>(std::move(options))) {}

DevServer::~DevServer() {
    stop();
}

Result<int> DevServer::start() {
    auto& state = *state_;
    if (state.started)
        fatalError("DevServer::start(): already started");
    state.started = true;

    std::error_code error;
    if (!fs::is_directory(state.options.project, error))
        return std::unexpected(
            projectError("project folder not found: " + state.options.project.string()));
    if (auto revision = readRevision(state.options.project); !revision)
        return std::unexpected(revision.error());

    std::string cache = (fs::temp_directory_path(error) / "pelkit-devserver-XXXXXX").string();
    if (!::mkdtemp(cache.data()))
        return std::unexpected(Error::fromErrno("mkdtemp(" + cache + ")", errno));
    state.cacheDirectory = cache;

    state.routes();
    // One request per connection: a client's idle keep-alive connection would otherwise hold
    // stop() for the whole keep-alive time-out.
    state.server.set_keep_alive_max_count(1);
    // SO_REUSEADDR only: the server's default adds SO_REUSEPORT, with which a second server on a
    // taken port would bind too and quietly take half the connections.
    state.server.set_socket_options([](int socket) {
        const int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    errno = 0;
    if (state.options.port == 0) {
        state.port = state.server.bind_to_any_port("127.0.0.1");
    } else {
        state.port =
            state.server.bind_to_port("127.0.0.1", state.options.port) ? state.options.port : -1;
    }
    if (state.port < 0) {
        const int err = errno ? errno : EADDRINUSE;
        return std::unexpected(
            Error::fromErrno("bind(127.0.0.1:" + std::to_string(state.options.port) + ")", err));
    }

    state.thread = std::thread([&state] {
        state.server.listen_after_bind();
        state.listening = true; // Also when listening ended at once, so start() stops waiting.
    });
    // stop() is only heard once the accept loop runs; connections made before then wait in the
    // kernel's backlog, so this is about stopping, not about being reachable.
    while (!state.server.is_running() && !state.listening)
        std::this_thread::yield();
    return state.port;
}

void DevServer::stop() {
    auto& state = *state_;
    {
        std::lock_guard lock(state.stopMutex);
        state.stopping = true;
    }
    state.stopCondition.notify_all();
    if (state.thread.joinable()) {
        state.server.stop();
        state.thread.join();
    }
    if (!state.cacheDirectory.empty()) {
        std::error_code error;
        fs::remove_all(state.cacheDirectory, error);
        state.cacheDirectory.clear();
    }
}

std::string DevServer::baseUrl() const {
    return "http://127.0.0.1:" + std::to_string(state_->port);
}

void DevServer::setFault(Endpoint endpoint, Fault fault) {
    std::lock_guard lock(state_->mutex);
    state_->faults[endpoint] = fault;
}

std::vector<LoggedRequest> DevServer::requests() const {
    std::lock_guard lock(state_->mutex);
    return state_->log;
}

void DevServer::clearRequests() {
    std::lock_guard lock(state_->mutex);
    state_->log.clear();
}

} // namespace pelkit::devserver
