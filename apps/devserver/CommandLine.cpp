#include "devserver/CommandLine.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace pelkit::devserver {
namespace {

// The port a developer's app is pointed at unless they ask for another.
constexpr int defaultPort = 8080;

template <class Number>
std::optional<Number> number(std::string_view text, Number low, Number high) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || value < low ||
        value > high)
        return std::nullopt;
    return value;
}

/// "ENDPOINT=VALUE" with a known endpoint; the reason when it is not.
std::expected<std::pair<Endpoint, std::string_view>, std::string>
endpointSetting(std::string_view option, std::string_view text, std::string_view valueName) {
    const auto equals = text.find('=');
    if (equals == std::string_view::npos)
        return std::unexpected(std::string(option) + " needs ENDPOINT=" + std::string(valueName) +
                               ", got: " + std::string(text));
    const auto name = text.substr(0, equals);
    const auto endpoint = endpointNamed(name);
    if (!endpoint)
        return std::unexpected("unknown endpoint: " + std::string(name) +
                               " (one of configuration, prepareTargetsForDownload, "
                               "preparecontent, files, archive)");
    return std::pair{*endpoint, text.substr(equals + 1)};
}

} // namespace

std::expected<Command, std::string> parseCommandLine(std::span<const std::string_view> arguments) {
    Command command;
    command.options.port = defaultPort;
    bool haveProject = false;

    if (std::ranges::any_of(arguments, [](auto a) { return a == "-h" || a == "--help"; })) {
        command.action = Command::Action::Help;
        return command;
    }
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const auto option = arguments[i];
        if (option == "--no-content-length") {
            command.options.archiveLength = ArchiveLength::Chunked;
            continue;
        }
        if (option == "--verbose") {
            command.options.printRequests = true;
            continue;
        }

        static constexpr std::string_view withValue[] = {"--project", "--port",         "--app-key",
                                                         "--archive", "--archive-file", "--status",
                                                         "--delay",   "--close-after"};
        if (std::ranges::find(withValue, option) == std::end(withValue))
            return std::unexpected("unknown option: " + std::string(option));
        if (i + 1 == arguments.size())
            return std::unexpected("missing value for " + std::string(option));
        const auto value = arguments[++i];
        auto& options = command.options;

        if (option == "--project") {
            options.project = value;
            haveProject = true;
        } else if (option == "--port") {
            const auto port = number(value, 0, 65535);
            if (!port)
                return std::unexpected("--port needs a number from 0 to 65535, got: " +
                                       std::string(value));
            options.port = *port;
        } else if (option == "--app-key") {
            options.appKey = std::string(value);
        } else if (option == "--archive") {
            if (value == "body")
                options.archive = ArchiveMode::Body;
            else if (value == "url")
                options.archive = ArchiveMode::Url;
            else
                return std::unexpected("--archive needs body or url, got: " + std::string(value));
        } else if (option == "--archive-file") {
            options.archiveFile = value;
        } else {
            const auto valueName = option == "--status"  ? "CODE"
                                   : option == "--delay" ? "MS"
                                                         : "BYTES";
            auto setting = endpointSetting(option, value, valueName);
            if (!setting)
                return std::unexpected(setting.error());
            const auto [endpoint, text] = *setting;
            auto& fault = options.faults[endpoint];
            if (option == "--status") {
                const auto status = number(text, 100, 599);
                if (!status)
                    return std::unexpected("--status needs a code from 100 to 599, got: " +
                                           std::string(text));
                fault.status = *status;
            } else if (option == "--delay") {
                const auto delay = number<long long>(text, 0, std::numeric_limits<int>::max());
                if (!delay)
                    return std::unexpected("--delay needs milliseconds, got: " + std::string(text));
                fault.delay = std::chrono::milliseconds(*delay);
            } else {
                const auto bytes =
                    number<std::size_t>(text, 0, std::numeric_limits<std::size_t>::max());
                if (!bytes)
                    return std::unexpected("--close-after needs a byte count, got: " +
                                           std::string(text));
                fault.closeAfterBytes = *bytes;
            }
        }
    }
    if (!haveProject)
        return std::unexpected(std::string("--project is required"));
    return command;
}

std::string usageText() {
    return "usage: pelkit-devserver --project DIR [--port N] [--app-key KEY] [--archive body|url]\n"
           "                        [--no-content-length] [--archive-file FILE] [--verbose]\n"
           "                        [--status|--delay|--close-after ENDPOINT=VALUE]...\n"
           "Run pelkit-devserver --help for the folder layout and the endpoints.\n";
}

std::string helpText() {
    return R"(usage: pelkit-devserver --project DIR [options]

Serves a project folder over the REST interface of the PELkit client, on 127.0.0.1 only.
Prints "listening on http://127.0.0.1:PORT" once it accepts requests; stop it with Ctrl-C.

Project folder:
  DIR/configuration.json  the project configuration, served verbatim; it must hold a
                          "lastUpdated" text. Read at every request, so edits show at once.
  DIR/targets/<file>      the target images. The archive holds each at its file name, at
                          the archive root; name each file as its target's "name".
  DIR/files/<file>        content media. A content item is served from the file whose
                          name without its extension is the item's id (c1: files/c1.mp4).
  Files whose names start with '.' are left out.

Endpoints:
  GET /configuration      configuration.json, as application/json.
  GET /prepareTargetsForDownload
                          204 when the "lastupdated" header equals the configuration's
                          "lastUpdated"; otherwise 200 with the ZIP of targets/ as the
                          body (--archive body) or with the text of its download URL,
                          http://127.0.0.1:PORT/archive/targets.zip (--archive url). The
                          archive is built once per revision (stamp and targets/ listing).
  GET /targets/{targetId}/content/{contentId}/preparecontent
                          200 with the path /files/<file> of the file in files/ whose
                          name without its extension is contentId; 404 when there is none.
  GET /files/<file>       the media in files/, typed by extension (jpg, png, mp4, m4a,
                          mp3, wav, ...); ranges are honoured.
  GET /archive/targets.zip
                          the target archive.
  With --app-key, the first three answer 401 unless the "appkey" header equals KEY.

Options:
  --project DIR           the project folder (required)
  --port N                the port to listen on (default 8080; 0 picks a free port)
  --app-key KEY           the app key the API endpoints require
  --archive body|url      how the target archive is handed out (default body)
  --no-content-length     send the archive chunked, without a Content-Length
  --archive-file FILE     serve FILE, byte for byte, in place of the archive of targets/
  --verbose               print one line per answered request
  -h, --help              show this text

Fault injection (ENDPOINT: configuration, prepareTargetsForDownload, preparecontent,
files or archive; each option may be given for several endpoints):
  --status ENDPOINT=CODE  answer CODE with a short text instead of the normal answer
  --delay ENDPOINT=MS     wait MS milliseconds before answering
  --close-after ENDPOINT=BYTES
                          send the headers whole (Content-Length included), then close
                          the connection after BYTES bytes of the body

Exit status: 0 after Ctrl-C or SIGTERM, 1 when the folder cannot be served, 2 for bad
arguments.
)";
}

} // namespace pelkit::devserver
