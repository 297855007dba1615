#include "devserver/CommandLine.h"

#include "common/CommandLine.h"

#include <functional>
#include <limits>

namespace pelkit::devserver {
namespace {

// The port a developer's app is pointed at unless they ask for another.
constexpr int defaultPort = 8080;

constexpr const char* about =
    R"(Serves a project folder over the REST interface of the PELkit client, on 127.0.0.1 only.
Prints "listening on http://127.0.0.1:PORT" once it accepts requests; stop it with Ctrl-C.
)";

constexpr const char* layout = R"(
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

Fault injection: ENDPOINT is configuration, prepareTargetsForDownload, preparecontent,
files or archive; each fault option may be given for several endpoints. The delay comes
first; --close-after sends the headers whole (Content-Length included), then closes the
connection after BYTES bytes of the body.

Exit status: 0 after Ctrl-C or SIGTERM, 1 when the folder cannot be served, 2 for bad
arguments.)";

/// Sets one field of a fault from the text after "ENDPOINT="; the reason when the text is bad.
using FaultField = std::function<std::string(Fault&, std::string_view)>;

/// Adds a fault option: "ENDPOINT=VALUE", repeatable, each occurrence setting `field` of that
/// endpoint's fault in `faults`.
void addFaultOption(CLI::App& app, std::map<Endpoint, Fault>& faults, const std::string& name,
                    const std::string& valueName, const std::string& description,
                    FaultField field) {
    auto set = [&faults, valueName, field](std::string& text) -> std::string {
        const auto equals = text.find('=');
        if (equals == std::string::npos)
            return "needs ENDPOINT=" + valueName + ", got: " + text;
        const auto endpoint = endpointNamed(std::string_view(text).substr(0, equals));
        if (!endpoint)
            return "unknown endpoint: " + text.substr(0, equals) +
                   " (one of configuration, prepareTargetsForDownload, preparecontent, files, "
                   "archive)";
        return field(faults[*endpoint], std::string_view(text).substr(equals + 1));
    };
    app.add_option(name, description)
        ->type_name("ENDPOINT=" + valueName)
        ->expected(1)
        ->take_all()
        ->group("Fault injection")
        ->check(CLI::Validator(set, ""));
}

void addFaultOptions(CLI::App& app, std::map<Endpoint, Fault>& faults) {
    addFaultOption(app, faults, "--status", "CODE",
                   "answer CODE with a short text instead of the normal answer",
                   [](Fault& fault, std::string_view text) {
                       const auto status = apps::wholeNumber(text, 100, 599);
                       if (!status)
                           return status.error();
                       fault.status = static_cast<int>(*status);
                       return std::string();
                   });
    addFaultOption(app, faults, "--delay", "MS", "wait MS milliseconds before answering",
                   [](Fault& fault, std::string_view text) {
                       const auto delay =
                           apps::wholeNumber(text, 0, std::numeric_limits<int>::max());
                       if (!delay)
                           return delay.error();
                       fault.delay = std::chrono::milliseconds(*delay);
                       return std::string();
                   });
    addFaultOption(app, faults, "--close-after", "BYTES",
                   "close the connection after BYTES bytes of the body (see below)",
                   [](Fault& fault, std::string_view text) {
                       const auto bytes =
                           apps::wholeNumber(text, 0, std::numeric_limits<long long>::max());
                       if (!bytes)
                           return bytes.error();
                       fault.closeAfterBytes = static_cast<std::size_t>(*bytes);
                       return std::string();
                   });
}

} // namespace

std::unique_ptr<CLI::App> commandLine(DevServerOptions& options) {
    auto app = std::make_unique<CLI::App>(about, "pelkit-devserver");
    app->footer(layout);
    options.port = defaultPort;
    app->add_option("--project", options.project, "the project folder")
        ->required()
        ->type_name("DIR");
    app->add_option("--port", options.port,
                    "the port to listen on (default 8080; 0 picks a free port)")
        ->type_name("N")
        ->check(apps::wholeNumber(0, 65535));
    app->add_option_function<std::string>(
           "--app-key", [&options](const std::string& key) { options.appKey = key; },
           "the app key the API endpoints require")
        ->type_name("KEY");
    apps::addChoice(*app, "--archive", options.archive,
                    {{"body", ArchiveMode::Body}, {"url", ArchiveMode::Url}},
                    "how the target archive is handed out (default body)");
    app->add_flag_function(
        "--no-content-length",
        [&options](std::int64_t) { options.archiveLength = ArchiveLength::Chunked; },
        "send the archive chunked, without a Content-Length");
    app->add_option_function<std::string>(
           "--archive-file", [&options](const std::string& file) { options.archiveFile = file; },
           "serve FILE, byte for byte, in place of the archive of targets/")
        ->type_name("FILE");
    app->add_flag("--verbose", options.printRequests, "print one line per answered request");
    addFaultOptions(*app, options.faults);
    return app;
}

} // namespace pelkit::devserver
