#include "SessionTestSupport.h"

#include <pelkit/foundation/FileSystem.h>

#include <random>

namespace pelkit::ar::test {

ReferenceImagePtr loadReference(const std::filesystem::path& file, double physicalWidth) {
    auto bytes = readFile(file);
    EXPECT_TRUE(bytes) << file;
    auto picture = image::decode(bytes.value());
    EXPECT_TRUE(picture) << file;
    auto reference = ReferenceImage::create(std::make_shared<image::Image>(std::move(*picture)),
                                            ImageOrientation::up, physicalWidth);
    reference->setName(file.filename().string());
    return reference;
}

std::filesystem::path writeGeneratedTarget(const std::filesystem::path& folder, int seed) {
    std::mt19937 random(seed);
    auto next = [&](int low, int high) { return std::uniform_int_distribution(low, high)(random); };
    auto picture = image::Image::filled(320, 240, 0xffffffffu);
    auto paint = [&](int x, int y, std::uint32_t rgb) {
        auto* p = picture.pixel(x, y);
        p[0] = rgb >> 16, p[1] = rgb >> 8, p[2] = rgb;
    };
    for (int shape = 0; shape < 90; ++shape) {
        const int cx = next(0, 319), cy = next(0, 239), r = next(4, 26);
        const std::uint32_t rgb = next(0, 0xffffff);
        const bool disc = shape % 3 == 0;
        for (int y = std::max(cy - r, 0); y < std::min(cy + r, 240); ++y) {
            for (int x = std::max(cx - r, 0); x < std::min(cx + r, 320); ++x) {
                if (!disc || (x - cx) * (x - cx) + (y - cy) * (y - cy) < r * r)
                    paint(x, y, rgb);
            }
        }
    }
    auto path = folder / ("generated-" + std::to_string(seed) + ".png");
    EXPECT_TRUE(writeFile(path, image::encodePng(picture).value()));
    return path;
}

void EventLog::record(Event event) {
    event.thread = std::this_thread::get_id();
    {
        std::lock_guard lock(mutex_);
        event.time = -1; // set by the frame that follows
        events_.push_back(std::move(event));
    }
    changed_.notify_all();
}

namespace {

Event anchorEvent(std::string what, const AnchorPtr& anchor) {
    Event event(std::move(what));
    auto image = std::dynamic_pointer_cast<const ImageAnchor>(anchor);
    event.image = image ? image->referenceImage()->name().value_or("") : "";
    event.tracked = image && image->isTracked();
    event.anchor = anchor->identifier();
    event.transform = anchor->transform();
    return event;
}

} // namespace

void EventLog::didAdd(SceneView& view, const std::shared_ptr<scene::Node>& node,
                      const AnchorPtr& anchor) {
    record(anchorEvent("added", anchor));
    if (onAdd)
        onAdd(view, node, anchor);
}

void EventLog::didUpdate(SceneView&, const std::shared_ptr<scene::Node>&, const AnchorPtr& anchor) {
    record(anchorEvent("updated", anchor));
}

void EventLog::didRemove(SceneView&, const std::shared_ptr<scene::Node>&, const AnchorPtr& anchor) {
    record(anchorEvent("removed", anchor));
}

void EventLog::updateAtTime(SceneView&, double time) {
    {
        std::lock_guard lock(mutex_);
        for (auto event = events_.rbegin(); event != events_.rend() && event->time < 0; ++event)
            event->time = time;
    }
    changed_.notify_all();
}

void EventLog::cameraDidChangeTrackingState(Session&, const TrackingState& state) {
    Event event("state");
    event.state = state;
    record(event);
}

void EventLog::didFailWithError(Session&, const ErrorPtr& error) {
    Event event("failed");
    event.error = error;
    record(event);
}

void EventLog::wasInterrupted(Session&) {
    record(Event("interrupted"));
    if (onInterrupted)
        onInterrupted();
}

void EventLog::interruptionEnded(Session&) {
    record(Event("interruption ended"));
}

bool EventLog::shouldAttemptRelocalization(Session&) {
    record(Event("relocalize?"));
    return true;
}

void EventLog::sourceDidEnd(Session&) {
    record(Event("ended"));
}

std::vector<Event> EventLog::events() const {
    std::lock_guard lock(mutex_);
    return events_;
}

std::vector<Event> EventLog::events(const std::string& what) const {
    std::vector<Event> chosen;
    for (auto& event : events()) {
        if (event.what == what)
            chosen.push_back(event);
    }
    return chosen;
}

bool EventLog::waitFor(const std::function<bool(const EventLog&)>& done) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::minutes(1), [&] {
        lock.unlock();
        bool held = done(*this);
        lock.lock();
        return held;
    });
}

bool EventLog::waitForEvent(const std::string& what) {
    return waitFor([&](const EventLog& log) { return !log.events(what).empty(); });
}

std::filesystem::path SessionTest::writeScript(std::string json) {
    json = replaced(json, "TARGETS", demoTargets().string());
    auto path = dir_ / "script.json";
    EXPECT_TRUE(writeFile(path, Bytes(json.begin(), json.end())));
    return path;
}

FrameFeed SessionTest::scriptFeed(const std::filesystem::path& script,
                                  std::shared_ptr<Clock> clock) {
    return {[script] { return makeScriptedSource(script); }, SourceKind::recording,
            std::move(clock)};
}

std::shared_ptr<SceneView> SessionTest::makeView(FrameFeed feed) {
    auto view = SceneView::create(std::move(feed));
    view->setDelegate(log_);
    return view;
}

} // namespace pelkit::ar::test
