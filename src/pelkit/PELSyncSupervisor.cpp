#include <pelkit/PELSyncSupervisor.h>

#include <pelkit/PELProject.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/UserDefaults.h>

namespace pelkit {

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
    auto lastUpdated = UserDefaults::standard().string(lastUpdatedKey(appKey_));
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
                       project ? std::optional(project->lastUpdated) : std::nullopt);
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
