#include <pelkit/PELSyncSupervisor.h>

#include <pelkit/PELProject.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/foundation/UserDefaults.h>

#include <algorithm>

namespace pelkit {
namespace {

// Far beyond any revision stamp, well below the header sizes servers accept.
constexpr std::size_t kMaxRevisionBytes = 1024;

/// Whether `revision` can go into the "lastupdated" header as it is: visible characters, spaces
/// and tabs only (a line break would end the header), and not too long for a server to accept.
bool canBeSentAsHeader(const std::string& revision) {
    return revision.size() <= kMaxRevisionBytes && std::ranges::all_of(revision, [](char c) {
               const auto byte = static_cast<unsigned char>(c);
               return byte == '\t' || (byte >= 0x20 && byte != 0x7f);
           });
}

/// `revision`, or none when it cannot be sent back: remembering such a value would get every
/// later preparation request refused.
std::optional<std::string> sendableRevision(std::optional<std::string> revision) {
    if (!revision || canBeSentAsHeader(*revision))
        return revision;
    printLine("lastUpdated cannot be sent in a header; no revision is remembered");
    return std::nullopt;
}

} // namespace

PELSyncSupervisor::PELSyncSupervisor(std::string host, std::string appKey,
                                     std::shared_ptr<PELStatusDelegate> delegate)
    : appKey_(std::move(appKey)), host_(std::move(host)), delegate_(std::move(delegate)),
      gateway_(PELGateway::create(host_, appKey_, delegate_)), storage_(appKey_) {}

std::shared_ptr<PELSyncSupervisor>
PELSyncSupervisor::create(std::string host, std::string appKey,
                          std::shared_ptr<PELStatusDelegate> delegate) {
    if (!delegate)
        fatalError("PELSyncSupervisor.create: a status delegate is required");
    return std::shared_ptr<PELSyncSupervisor>(
        new PELSyncSupervisor(std::move(host), std::move(appKey), std::move(delegate)));
}

std::string PELSyncSupervisor::lastUpdatedKey(const std::string& appKey) {
    return "lastUpdated" + appKeyPrefix(appKey);
}

void PELSyncSupervisor::startSync(bool isFirstTime) {
    if (isSynching_.exchange(true)) {
        // A second start resets the flag: the running run ends unreported, a third start begins
        // anew.
        isSynching_ = false;
        delegate_->statusDidChange(PELStatus::updateFailed(PELError::alreadySynching()));
        return;
    }
    delegate_->statusDidChange(PELStatus::updateStarted(isFirstTime));
    // Checked before any request, so a key that would put the project elsewhere writes nothing.
    if (auto usable = checkAppKeyPrefix(appKey_); !usable)
        return fail(PELError::fileError(usable.error()));
    auto self = shared_from_this();
    gateway_->fetchRemoteConfiguration([self](std::expected<Bytes, PELError> result) {
        if (!result)
            return self->fail(result.error());
        self->handleConfigurationResult(*result);
    });
}

void PELSyncSupervisor::cancelSync() {
    isSynching_ = false;
}

void PELSyncSupervisor::handleConfigurationResult(const Bytes& data) {
    // Decoding and storing do not look at isSynching: a cancelled run still keeps a good
    // configuration and still fetches its targets.
    auto project = PELProject::decode(data);
    if (!project)
        return fail(PELError::parsingError(project.error()));
    if (auto saved = storage_.saveConfigurationDataToFile(data); !saved)
        return fail(PELError::parsingError(saved.error()));
    if (project->targets.empty())
        return conclude();
    downloadTargets();
}

void PELSyncSupervisor::downloadTargets() {
    auto destination = storage_.getConfigurationFilePath().parent_path();
    auto& defaults = UserDefaults::standard();
    auto stored = defaults.string(lastUpdatedKey(appKey_));
    auto lastUpdated = sendableRevision(stored);
    if (stored && !lastUpdated)
        (void)defaults.set(lastUpdatedKey(appKey_), std::nullopt);
    auto self = shared_from_this();
    gateway_->downloadTargets(destination, lastUpdated, [self](std::optional<PELError> error) {
        if (error)
            return self->fail(*error);
        self->conclude();
    });
}

void PELSyncSupervisor::conclude() {
    if (!isSynching_)
        return;
    // A configuration that cannot be read or decoded any more forgets the revision.
    std::optional<PELProject> project;
    if (auto bytes = readFile(storage_.getConfigurationFilePath()))
        if (auto decoded = PELProject::decode(*bytes))
            project = std::move(*decoded);
    auto& defaults = UserDefaults::standard();
    // A store that cannot be written keeps the value for this process; the next run then asks
    // for the targets again, which is the safe side.
    (void)defaults.set(lastUpdatedKey(appKey_),
                       project ? sendableRevision(project->lastUpdated) : std::nullopt);
    finish(PELStatus::updateCompleted());
}

void PELSyncSupervisor::fail(const PELError& error) {
    if (error.which() == PELError::Case::alreadyUpToDate)
        return finish(PELStatus::alreadyUpToDate());
    finish(PELStatus::updateFailed(error));
}

void PELSyncSupervisor::finish(const PELStatus& status) {
    if (isSynching_.exchange(false))
        delegate_->statusDidChange(status);
}

} // namespace pelkit
