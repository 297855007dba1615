// Shared pieces of the synchronisation tests: a delegate that records every status with the
// thread it arrived on, and a fixture with its own documents directory.
#pragma once

#include <pelkit/PELStatus.h>
#include <pelkit/PELStorage.h>
#include <pelkit/PELSyncSupervisor.h>
#include <pelkit/foundation/UserDefaults.h>
#include <pelkit/net/HttpSession.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pelkit::test {

/// Where a status was delivered.
enum class On { caller, sharedCompletionQueue, otherThread };

class RecordingDelegate final : public PELStatusDelegate {
public:
    struct Event {
        PELStatus status;
        On thread;
        std::thread::id threadId;
    };

    explicit RecordingDelegate(std::thread::id caller = std::this_thread::get_id())
        : caller_(caller) {}

    void statusDidChange(const PELStatus& status) override {
        On on = std::this_thread::get_id() == caller_                    ? On::caller
                : net::HttpSession::shared().callbackQueue().isCurrent() ? On::sharedCompletionQueue
                                                                         : On::otherThread;
        std::lock_guard lock(mutex_);
        events_.push_back({status, on, std::this_thread::get_id()});
        switch (status.which()) {
        case PELStatus::Case::updateCompleted:
        case PELStatus::Case::alreadyUpToDate:
        case PELStatus::Case::updateFailed:
            ++ends_;
            changed_.notify_all();
            break;
        default:
            changed_.notify_all();
        }
    }

    /// Waits until `count` end statuses arrived.
    bool waitForEnd(int count = 1, std::chrono::seconds timeout = std::chrono::seconds(30)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return ends_ >= count; });
    }

    /// Waits until a status of `which` arrived.
    bool waitFor(PELStatus::Case which, std::chrono::seconds timeout = std::chrono::seconds(30)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            for (const auto& e : events_)
                if (e.status.which() == which)
                    return true;
            return false;
        });
    }

    std::vector<Event> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

    /// The statuses as printed, with each run of downloadProgress folded into
    /// "downloadProgress..." so that sequences compare independently of chunking.
    std::vector<std::string> sequence() const {
        std::vector<std::string> names;
        for (const auto& e : events()) {
            std::string name = e.status.which() == PELStatus::Case::downloadProgress
                                   ? "downloadProgress..."
                                   : e.status.description();
            if (names.empty() || names.back() != name || name != "downloadProgress...")
                names.push_back(name);
        }
        return names;
    }

private:
    std::thread::id caller_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
    int ends_ = 0;
};

/// A fresh documents directory and captured diagnostic lines for each test.
class SyncFixture : public ::testing::Test {
protected:
    TempDir documents;
    ScopedEnv documentsVariable{"PELKIT_DOCUMENTS_DIR", documents.path().string()};
    LineCapture lines;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();

    std::filesystem::path projectDirectory(const std::string& appKey) const {
        return PELStorage(appKey).getConfigurationFilePath().parent_path();
    }
    static std::optional<std::string> remembered(const std::string& appKey) {
        return UserDefaults::standard().string(PELSyncSupervisor::lastUpdatedKey(appKey));
    }
    static void remember(const std::string& appKey, const std::string& revision) {
        ASSERT_TRUE(
            UserDefaults::standard().set(PELSyncSupervisor::lastUpdatedKey(appKey), revision));
    }
    /// Lets every completion already queued on the shared session run.
    static void settleSharedCompletions() {
        net::HttpSession::shared().callbackQueue().sync([] {});
    }
};

} // namespace pelkit::test
