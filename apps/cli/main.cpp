// pelkit: the command line of PELkit. `pelkit sync` runs one synchronisation of a project and
// `pelkit show` prints the stored project. See `pelkit --help`.
#include "Progress.h"

#include <pelkit/PELProject.h>
#include <pelkit/PELStorage.h>
#include <pelkit/PELSyncSupervisor.h>
#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/foundation/UserDefaults.h>
#include <pelkit/image/Image.h>
#include <pelkit/net/Url.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace pelkit;

constexpr const char* kUsage = R"(usage: pelkit <command> [options]

Commands:
  sync   --server URL --app-key KEY [--documents DIR] [--events]
         Runs one synchronisation of the project of KEY with the server at URL (scheme and
         host, no trailing slash): fetches the configuration, stores it, brings the target
         images up to date and remembers the revision. Exits 0 on updateCompleted or
         alreadyUpToDate, 1 on updateFailed (the error is printed on stderr).
         On a terminal, a progress bar (or, without progress, a live line with the elapsed
         time) is drawn on stderr.
         --events prints every status on stdout, one per line, case name first, then the
         payload in parentheses:
           updateStarted(firstTime: true)     downloadProgress(percentage: 0.25)
           downloadStarted                    downloadCompleted
           updateCompleted                    alreadyUpToDate
           updateFailed(error: networkError(<underlying error>))
         A progress percentage is a fraction of 1; it is negative when the server announced
         no size (its magnitude is then the number of bytes received).

  show   --app-key KEY [--documents DIR]
         Prints the stored project: revision, targets with their image files on disk and
         pixel size, and content items with type, position and size.

Options:
  --documents DIR   the documents directory holding the projects (default:
                    $PELKIT_DOCUMENTS_DIR, else $XDG_DATA_HOME/pelkit/Documents, else
                    ~/.local/share/pelkit/Documents)
  -h, --help        this text
)";

struct Arguments {
    std::string command;
    std::map<std::string, std::string> values;
    bool events = false;
    bool help = false;
};

[[noreturn]] void usageError(const std::string& message) {
    std::cerr << "pelkit: " << message << "\n\n" << kUsage;
    std::exit(2);
}

Arguments parse(int argc, char** argv) {
    Arguments arguments;
    std::vector<std::string> words(argv + 1, argv + argc);
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "-h" || word == "--help") {
            arguments.help = true;
        } else if (word == "--events") {
            arguments.events = true;
        } else if (word == "--server" || word == "--app-key" || word == "--documents") {
            if (i + 1 >= words.size())
                usageError(word + " needs a value");
            arguments.values[word] = words[++i];
        } else if (word.starts_with("-")) {
            usageError("unknown option " + word);
        } else if (arguments.command.empty()) {
            arguments.command = word;
        } else {
            usageError("unexpected argument " + word);
        }
    }
    return arguments;
}

std::string required(const Arguments& arguments, const std::string& option) {
    auto found = arguments.values.find(option);
    if (found == arguments.values.end() || found->second.empty())
        usageError(arguments.command + " needs " + option);
    return found->second;
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

int runSync(const Arguments& arguments) {
    std::string server = required(arguments, "--server");
    std::string appKey = required(arguments, "--app-key");
    // The framework treats an unusable server address as a programming error; catch it here.
    if ((!server.starts_with("http://") && !server.starts_with("https://")) ||
        !net::Url::parse(server + "/configuration"))
        usageError("--server must be an http:// or https:// address, e.g. http://127.0.0.1:8080");

    Progress progress(isatty(STDERR_FILENO) != 0);
    // Framework diagnostics go to stdout, above the live progress line.
    setLineSink([&progress](std::string_view line) { progress.printAbove(line); });
    auto delegate = std::make_shared<CommandLineDelegate>(arguments.events, progress);
    auto supervisor = PELSyncSupervisor::create(server, appKey, delegate);
    DispatchQueue::main().async([&] { supervisor->startSync(true); });
    progress.start();
    runMainLoop();
    progress.finish();
    setLineSink(nullptr);

    auto end = delegate->end();
    switch (end->which()) {
    case PELStatus::Case::updateCompleted:
        std::cerr << "pelkit: project " << appKeyPrefix(appKey) << " updated in "
                  << supervisor->storage().getConfigurationFilePath().parent_path().string()
                  << "\n";
        return 0;
    case PELStatus::Case::alreadyUpToDate:
        std::cerr << "pelkit: project " << appKeyPrefix(appKey) << " is already up to date\n";
        return 0;
    default:
        std::cerr << "pelkit: sync failed: " << end->error().description() << "\n";
        return 1;
    }
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

int runShow(const Arguments& arguments) {
    std::string appKey = required(arguments, "--app-key");
    if (auto usable = checkAppKeyPrefix(appKey); !usable) {
        std::cerr << "pelkit: " << usable.error()->description() << "\n";
        return 1;
    }
    PELStorage storage(appKey);
    auto path = storage.getConfigurationFilePath();
    auto bytes = readFile(path);
    auto project = bytes ? PELProject::decode(*bytes) : std::unexpected(bytes.error());
    if (!project) {
        std::cerr << "pelkit: no usable project at " << path.string() << ": "
                  << project.error()->description() << "\n";
        return 1;
    }
    auto remembered = UserDefaults::standard().string(PELSyncSupervisor::lastUpdatedKey(appKey));
    std::cout << "project " << project->id << " in " << path.parent_path().string() << "\n"
              << "  revision: " << project->lastUpdated
              << " (remembered: " << remembered.value_or("none") << ")\n"
              << "  targets: " << project->targets.size() << "\n";
    for (const auto& target : project->targets)
        printTarget(storage, target);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    Arguments arguments = parse(argc, argv);
    if (arguments.help) {
        std::cout << kUsage;
        return 0;
    }
    if (arguments.command.empty())
        usageError("a command is needed");
    if (auto documents = arguments.values.find("--documents"); documents != arguments.values.end())
        ::setenv("PELKIT_DOCUMENTS_DIR", documents->second.c_str(), 1);
    if (arguments.command == "sync")
        return runSync(arguments);
    if (arguments.command == "show")
        return runShow(arguments);
    usageError("unknown command " + arguments.command);
}
