// What the session and scene view tests share: scripts over the demo targets, generated targets,
// and a delegate that writes down every callback.
#pragma once

#include <pelkit/ar/SceneView.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pelkit::ar::test {

using namespace pelkit::test;

/// A reference image of a picture file, named after the file.
ReferenceImagePtr loadReference(const std::filesystem::path& file, double physicalWidth);

/// A picture of random coloured rectangles and discs, different for every seed, written as PNG.
std::filesystem::path writeGeneratedTarget(const std::filesystem::path& folder, int seed);

/// One callback as the delegate heard it.
struct Event {
    Event() = default;
    explicit Event(std::string kind) : what(std::move(kind)) {}

    std::string what; ///< "added", "updated", "removed", "state", "failed", "interrupted",
                      ///< "interruption ended", "relocalize?", "ended"
    std::string image;
    bool tracked = false;
    std::uint64_t anchor = 0;
    glm::mat4 transform{1};
    double time = -1; ///< the clock time of the frame it came with; -1 without one
    std::thread::id thread;
    TrackingState state;
    ErrorPtr error;
};

/// A scene view delegate that records every callback and lets a test wait for one.
class EventLog final : public SceneViewDelegate {
public:
    /// Run on the renderer thread after an anchor's node was added.
    std::function<void(SceneView&, const std::shared_ptr<scene::Node>&, const AnchorPtr&)> onAdd;
    /// Run on the renderer thread after the session reports an interruption.
    std::function<void()> onInterrupted;

    void didAdd(SceneView& view, const std::shared_ptr<scene::Node>& node,
                const AnchorPtr& anchor) override;
    void didUpdate(SceneView&, const std::shared_ptr<scene::Node>&,
                   const AnchorPtr& anchor) override;
    void didRemove(SceneView&, const std::shared_ptr<scene::Node>&,
                   const AnchorPtr& anchor) override;
    void updateAtTime(SceneView&, double time) override;
    void cameraDidChangeTrackingState(Session&, const TrackingState& state) override;
    void didFailWithError(Session&, const ErrorPtr& error) override;
    void wasInterrupted(Session&) override;
    void interruptionEnded(Session&) override;
    bool shouldAttemptRelocalization(Session&) override;
    void sourceDidEnd(Session&) override;

    std::vector<Event> events() const;
    std::vector<Event> events(const std::string& what) const;
    /// Waits (up to a minute, a guard against a hang, not a measure) for `done` to hold.
    bool waitFor(const std::function<bool(const EventLog&)>& done);
    bool waitForEvent(const std::string& what);

private:
    void record(Event event);
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

/// A test with a temporary folder for scripts and recordings.
class SessionTest : public ::testing::Test {
protected:
    /// Writes `json` as a script, with every "TARGETS" replaced by the demo targets' folder.
    std::filesystem::path writeScript(std::string json);
    FrameFeed scriptFeed(const std::filesystem::path& script, std::shared_ptr<Clock> clock);
    /// A view on `feed` with `log_` as its delegate.
    std::shared_ptr<SceneView> makeView(FrameFeed feed);

    TempDir dir_;
    std::shared_ptr<EventLog> log_ = std::make_shared<EventLog>();
};

} // namespace pelkit::ar::test
