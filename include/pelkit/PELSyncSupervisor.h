// Drives one synchronisation run at a time for one app key and reports every step to its
// delegate. `startSync` and `cancelSync` may be called from any thread; statuses arrive on the
// thread that produced them: the caller's for `updateStarted` and `updateFailed(alreadySynching)`,
// the shared HTTP session's completion queue for the configuration and preparation steps, the
// gateway session's delegate queue after an archive download.
#pragma once

#include <pelkit/PELGateway.h>
#include <pelkit/PELStatus.h>
#include <pelkit/PELStorage.h>

#include <atomic>
#include <memory>
#include <string>

namespace pelkit {

/// One run: fetch the configuration, check that it decodes, store it, bring the target images up
/// to date, remember the project's revision ("lastUpdated" + the app-key prefix in the user
/// defaults) and end with exactly one of `updateCompleted`, `alreadyUpToDate` or `updateFailed`.
/// A revision that could not be sent back in the "lastupdated" header (a line break, kilobytes of
/// text) is not remembered, with a diagnostic line saying so.
///
///     auto supervisor = PELSyncSupervisor::create("http://127.0.0.1:8080", appKey, delegate);
///     supervisor->startSync(true);   // updateStarted(firstTime: true), downloadStarted, ...
class PELSyncSupervisor : public std::enable_shared_from_this<PELSyncSupervisor> {
public:
    static std::shared_ptr<PELSyncSupervisor> create(std::string host, std::string appKey,
                                                     std::shared_ptr<PELStatusDelegate> delegate);

    const std::string& appKey() const { return appKey_; }
    const std::string& host() const { return host_; }
    const PELStorage& storage() const { return storage_; }
    bool isSynching() const { return isSynching_; }

    /// Starts a run; `isFirstTime` is only passed on in `updateStarted`. While a run is in
    /// progress, a start reports `updateFailed(alreadySynching)` and lets that run end silently.
    /// An app key whose prefix cannot name a project directory (`checkAppKeyPrefix`) ends the run
    /// at once with `updateFailed(fileError)`, before any request.
    void startSync(bool isFirstTime);
    /// Lets the run in progress end silently; its requests still complete.
    void cancelSync();

    /// The user-defaults key of the remembered revision: "lastUpdated" + the app-key prefix.
    static std::string lastUpdatedKey(const std::string& appKey);

private:
    PELSyncSupervisor(std::string host, std::string appKey,
                      std::shared_ptr<PELStatusDelegate> delegate);

    void handleConfigurationResult(const Bytes& data);
    void downloadTargets();
    void conclude();
    /// Sends a run's end status, once, if the run is still being reported.
    void finish(const PELStatus& status);
    void fail(const PELError& error);

    std::string appKey_;
    std::string host_;
    std::shared_ptr<PELStatusDelegate> delegate_;
    std::shared_ptr<PELGateway> gateway_;
    PELStorage storage_;
    std::atomic<bool> isSynching_{false};
};

} // namespace pelkit
