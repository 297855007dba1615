// pelkit: the command line of PELkit. `pelkit sync` runs one synchronisation of a project,
// `pelkit show` prints the stored project and `pelkit preview` draws a target with its content. See
// `pelkit --help`. A command is a function that adds the subcommand with its options and returns
// what runs it.
#include "Preview.h"
#include "Progress.h"
#include "Track.h"

#include "common/CommandLine.h"

#include <pelkit/PELProject.h>
#include <pelkit/PELStorage.h>
#include <pelkit/PELSyncSupervisor.h>
#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/foundation/UserDefaults.h>
#include <pelkit/image/Image.h>
#include <pelkit/net/Url.h>
#include <pelkit/render/Renderer.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

using namespace pelkit;

constexpr const char* documentsFooter = R"(
The documents directory holding the projects is, without --documents, $PELKIT_DOCUMENTS_DIR,
else $XDG_DATA_HOME/pelkit/Documents, else ~/.local/share/pelkit/Documents.)";

constexpr const char* syncFooter = R"(
Fetches the configuration, stores it, brings the target images up to date and remembers the
revision. Exits 0 on updateCompleted or alreadyUpToDate, 1 on updateFailed (the error is
printed on stderr). On a terminal, a progress bar (or, without progress, a live line with the
elapsed time) is drawn on stderr.

--events prints every status on stdout, one per line, case name first, then the payload in
parentheses:
  updateStarted(firstTime: true)     downloadProgress(percentage: 0.25)
  downloadStarted                    downloadCompleted
  updateCompleted                    alreadyUpToDate
  updateFailed(error: networkError(<underlying error>))
A progress percentage is a fraction of 1; it is negative when the server announced no size
(its magnitude is then the number of bytes received).
)";

/// A subcommand: where the command line names it, and what runs it once its options are read
/// (giving the program's exit status).
struct Command {
    const CLI::App* app;
    std::function<int()> run;
};

void addAppKey(CLI::App& command, std::string& appKey) {
    command.add_option("--app-key", appKey, "the app key of the project")
        ->required()
        ->type_name("KEY")
        ->check(apps::notEmpty());
}

// The framework finds the documents directory in the environment.
void addDocuments(CLI::App& command) {
    command
        .add_option_function<std::string>(
            "--documents",
            [](const std::string& directory) {
                ::setenv("PELKIT_DOCUMENTS_DIR", directory.c_str(), 1);
            },
            "the documents directory holding the projects (default below)")
        ->type_name("DIR");
}

/// The framework treats an unusable server address as a programming error; refuse it here.
CLI::Validator serverAddress() {
    return CLI::Validator(
        [](std::string& server) {
            const bool http = server.starts_with("http://") || server.starts_with("https://");
            return http && net::Url::parse(server + "/configuration")
                       ? std::string()
                       : "must be an http:// or https:// address, e.g. http://127.0.0.1:8080";
        },
        "");
}

// Receives the statuses of the run on whichever thread sends them, and ends the main loop on the
// run's end status.
class CommandLineDelegate final : public PELStatusDelegate {
public:
    CommandLineDelegate(bool printEvents, Progress& progress)
        : printEvents_(printEvents), progress_(progress) {}

    void statusDidChange(const PELStatus& status) override {
        if (printEvents_)
            progress_.printAbove(status.description());
        switch (status.which()) {
        case PELStatus::Case::downloadStarted:
            progress_.setPhase("downloading targets");
            break;
        case PELStatus::Case::downloadProgress:
            progress_.setFraction(status.percentage());
            break;
        case PELStatus::Case::downloadCompleted:
            progress_.setPhase("unpacked targets");
            break;
        case PELStatus::Case::updateStarted:
            progress_.setPhase("fetching configuration");
            break;
        case PELStatus::Case::updateCompleted:
        case PELStatus::Case::alreadyUpToDate:
        case PELStatus::Case::updateFailed: {
            std::lock_guard lock(mutex_);
            end_ = status;
            DispatchQueue::main().async([] { stopMainLoop(); });
            break;
        }
        }
    }

    std::optional<PELStatus> end() const {
        std::lock_guard lock(mutex_);
        return end_;
    }

private:
    bool printEvents_;
    Progress& progress_;
    mutable std::mutex mutex_;
    std::optional<PELStatus> end_;
};

struct SyncOptions {
    std::string server;
    std::string appKey;
    bool events = false;
};

int runSync(const SyncOptions& options) {
    Progress progress(isatty(STDERR_FILENO) != 0);
    // Framework diagnostics go to stdout, above the live progress line.
    setLineSink([&progress](std::string_view line) { progress.printAbove(line); });
    auto delegate = std::make_shared<CommandLineDelegate>(options.events, progress);
    auto supervisor = PELSyncSupervisor::create(options.server, options.appKey, delegate);
    DispatchQueue::main().async([&] { supervisor->startSync(true); });
    progress.start();
    runMainLoop();
    progress.finish();
    setLineSink(nullptr);

    auto end = delegate->end();
    switch (end->which()) {
    case PELStatus::Case::updateCompleted:
        std::cerr << "pelkit: project " << appKeyPrefix(options.appKey) << " updated in "
                  << supervisor->storage().getConfigurationFilePath().parent_path().string()
                  << "\n";
        return 0;
    case PELStatus::Case::alreadyUpToDate:
        std::cerr << "pelkit: project " << appKeyPrefix(options.appKey)
                  << " is already up to date\n";
        return 0;
    default:
        std::cerr << "pelkit: sync failed: " << end->error().description() << "\n";
        return 1;
    }
}

Command addSync(CLI::App& pelkit) {
    auto* command = pelkit.add_subcommand("sync", "Runs one synchronisation of a project.");
    command->footer(std::string(syncFooter) + documentsFooter);
    auto options = std::make_shared<SyncOptions>();
    command
        ->add_option("--server", options->server, "the server: scheme and host, no trailing slash")
        ->required()
        ->type_name("URL")
        ->check(serverAddress());
    addAppKey(*command, options->appKey);
    addDocuments(*command);
    command->add_flag("--events", options->events, "print every status on stdout");
    return {command, [options] { return runSync(*options); }};
}

/// A target's image file and what it holds; a name that would leave the project directory, and
/// anything but a regular file of reasonable size, is refused unread.
std::string describeImage(const PELStorage& storage, const std::string& name) {
    auto path = storage.getTargetImagePath(name);
    if (!path)
        return "refused (" + path.error()->description() + ")";
    auto bytes = readTargetImage(*path);
    if (!bytes)
        return path->string() + " (" +
               (bytes.error()->code() == ENOENT ? "missing" : bytes.error()->description()) + ")";
    auto image = image::decode(*bytes);
    if (!image)
        return path->string() + " (not an image (" + std::to_string(bytes->size()) + " bytes))";
    return path->string() + " (" + std::to_string(image->width) + "x" +
           std::to_string(image->height) + " px)";
}

std::string number(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

void printTarget(const PELStorage& storage, const PELTarget& target) {
    std::cout << "  target " << target.id << " \"" << target.name << "\"\n"
              << "    image: " << describeImage(storage, target.name) << "\n"
              << "    physical width: " << number(target.physicalWidth) << " m";
    if (target.targetWidth && target.targetHeight)
        std::cout << ", authored size: " << number(*target.targetWidth) << "x"
                  << number(*target.targetHeight) << " px";
    std::cout << "\n";
    for (const auto& item : target.items) {
        std::cout << "    item " << item.id << ": " << item.type << " at (" << number(item.x)
                  << ", " << number(item.y) << ") size " << number(item.width) << "x"
                  << number(item.height);
        if (item.isFullscreen)
            std::cout << ", full screen";
        if (item.url)
            std::cout << ", url " << item.url->absoluteString();
        if (item.linkToOpenOnClick)
            std::cout << ", opens " << *item.linkToOpenOnClick;
        std::cout << "\n";
    }
}

/// The stored project of `appKey`, or a line on stderr saying why there is none.
std::optional<PELProject> loadProject(const std::string& appKey) {
    if (auto usable = checkAppKeyPrefix(appKey); !usable) {
        std::cerr << "pelkit: " << usable.error()->description() << "\n";
        return std::nullopt;
    }
    auto path = PELStorage(appKey).getConfigurationFilePath();
    auto bytes = readFile(path);
    auto project = bytes ? PELProject::decode(*bytes) : std::unexpected(bytes.error());
    if (!project) {
        std::cerr << "pelkit: no usable project at " << path.string() << ": "
                  << project.error()->description() << "\n";
        return std::nullopt;
    }
    return std::move(*project);
}

int runShow(const std::string& appKey) {
    auto project = loadProject(appKey);
    if (!project)
        return 1;
    PELStorage storage(appKey);
    auto path = storage.getConfigurationFilePath();
    auto remembered = UserDefaults::standard().string(PELSyncSupervisor::lastUpdatedKey(appKey));
    std::cout << "project " << project->id << " in " << path.parent_path().string() << "\n"
              << "  revision: " << project->lastUpdated
              << " (remembered: " << remembered.value_or("none") << ")\n"
              << "  targets: " << project->targets.size() << "\n";
    for (const auto& target : project->targets)
        printTarget(storage, target);
    return 0;
}

Command addShow(CLI::App& pelkit) {
    auto* command = pelkit.add_subcommand(
        "show", "Prints the stored project: revision, targets and content items.");
    command->footer(std::string(R"(
Lists each target with its image file on disk and its pixel size, and each content item with
its type, position and size.
)") + documentsFooter);
    auto appKey = std::make_shared<std::string>();
    addAppKey(*command, *appKey);
    addDocuments(*command);
    return {command, [appKey] { return runShow(*appKey); }};
}

constexpr auto kContentTimeout = std::chrono::seconds(30);
constexpr auto kPlayTimeout = std::chrono::seconds(10);

struct PreviewOptions {
    std::string appKey;
    std::string targetId;
    double at = 0;
    bool play = false;
    std::string out;
};

int runPreview(const PreviewOptions& options) {
    auto project = loadProject(options.appKey);
    if (!project)
        return 1;
    auto target = std::ranges::find(project->targets, options.targetId, &PELTarget::id);
    if (target == project->targets.end()) {
        std::cerr << "pelkit: the project has no target \"" << options.targetId
                  << "\"; its targets:";
        for (const auto& known : project->targets)
            std::cerr << " " << known.id;
        std::cerr << "\n";
        return 1;
    }
    auto reference = apps::referenceImageFor(*target, options.appKey);
    if (!reference) {
        std::cerr << "pelkit: the image of target " << target->id
                  << " cannot be used: " << reference.error()->description() << "\n";
        return 1;
    }
    std::cerr << "pelkit: loading " << target->items.size() << " content items of " << target->id
              << "\n";
    auto scene = apps::makePreviewScene(std::move(*reference), options.appKey);
    if (!apps::waitForContent(scene, kContentTimeout))
        std::cerr << "pelkit: content still loading after 30 s; drawing what has arrived\n";
    if (options.play) {
        int tapped = apps::playAll(scene, kPlayTimeout);
        std::cerr << "pelkit: playing " << tapped << " media items for " << options.at << " s\n";
        std::this_thread::sleep_for(std::chrono::duration<double>(options.at));
    }
    auto renderer = render::Renderer::createOffscreen(scene.viewSize);
    Result<image::Image> picture =
        renderer ? Result<image::Image>() : std::unexpected(renderer.error());
    if (renderer) {
        auto drawn = (*renderer)->render(apps::previewFrame(scene, options.at));
        picture = drawn ? (*renderer)->snapshot() : std::unexpected(drawn.error());
    }
    auto png = picture ? image::encodePng(*picture) : std::nullopt;
    auto written =
        png ? writeFileAtomically(options.out, *png)
            : Result<>(std::unexpected(picture ? Error::make("png", 1, "encodePng failed")
                                               : picture.error()));
    if (!written) {
        std::cerr << "pelkit: no preview written: " << written.error()->description() << "\n";
        return 1;
    }
    std::cout << "wrote " << options.out << " (" << picture->width << "x" << picture->height
              << ")\n";
    return 0;
}

Command addPreview(CLI::App& pelkit) {
    auto* command = pelkit.add_subcommand(
        "preview", "Renders a stored target with its content to a PNG, seen from straight above.");
    command->footer(std::string(R"(
Builds the target's content as the viewer does when it recognises the target, fetching content
from the server that PELKIT_HOST names (as content nodes do), and draws it over the target's
image, headless. With --play, every video, green-screen and audio item is tapped first, and the
picture shows them --at seconds later.
)") + documentsFooter);
    auto options = std::make_shared<PreviewOptions>();
    addAppKey(*command, options->appKey);
    command->add_option("--target", options->targetId, "the id of the target")->required();
    addDocuments(*command);
    command->add_option("--at", options->at, "seconds of play before the picture (default 0)")
        ->check(CLI::Range(0.0, 600.0));
    command->add_flag("--play", options->play, "tap every video, green-screen and audio item");
    command->add_option("--out", options->out, "the PNG file to write")->required();
    return {command, [options] { return runPreview(*options); }};
}

} // namespace

int main(int argc, char** argv) {
    CLI::App pelkit("The command line of PELkit. Run 'pelkit COMMAND --help' for a command's "
                    "options.",
                    "pelkit");
    pelkit.require_subcommand(1);
    const auto track = apps::addTrack(pelkit);
    const Command commands[] = {
        addSync(pelkit), addShow(pelkit), addPreview(pelkit), {track.app, track.run}};
    if (const auto status = apps::parseMain(pelkit, argc, argv))
        return *status;
    for (const auto& command : commands) {
        if (command.app->parsed())
            return command.run();
    }
    return apps::badArgumentsStatus; // not reached: parsing requires one command
}
