// The session's thread: takes run and pause requests, reads frames, paces recordings by the
// clock, tracks, and tells the delegate what changed.
#include "AnchorBook.h"
#include "ExitPass.h"

#include <pelkit/ar/ImageTracker.h>
#include <pelkit/ar/Session.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace pelkit::ar {

Anchor::~Anchor() = default;

SessionError::SessionError(Code code, std::string description,
                           std::optional<std::string> failureReason,
                           std::optional<std::string> recoverySuggestion)
    : code_(code), description_(std::move(description)), failureReason_(std::move(failureReason)),
      recoverySuggestion_(std::move(recoverySuggestion)) {}

SessionObserver::~SessionObserver() = default;
void SessionObserver::cameraDidChangeTrackingState(Session&, const TrackingState&) {}
void SessionObserver::didFailWithError(Session&, const ErrorPtr&) {}
void SessionObserver::wasInterrupted(Session&) {}
void SessionObserver::interruptionEnded(Session&) {}
bool SessionObserver::shouldAttemptRelocalization(Session&) {
    return false;
}
void SessionObserver::sourceDidEnd(Session&) {}
void SessionDelegate::didAddAnchors(Session&, const std::vector<AnchorPtr>&) {}
void SessionDelegate::didUpdateAnchors(Session&, const std::vector<AnchorPtr>&) {}
void SessionDelegate::didRemoveAnchors(Session&, const std::vector<AnchorPtr>&) {}
void SessionDelegate::didUpdateFrame(Session&, const std::shared_ptr<const Frame>&) {}

namespace {

// A camera is asked for a frame this often, so that requests are seen soon; this many empty
// waits in a row (half a second) mean it has stopped delivering.
constexpr std::chrono::milliseconds kFramePoll{100};
constexpr int kQuietPollsToInterrupt = 5;
// A clock stepped by a frame's duration sums to a hair less than the frame's time; that frame
// is still due.
constexpr double kClockSlack = 1e-6;

struct Request {
    enum class Kind { run, pause } kind = Kind::run;
    ImageTrackingConfiguration configuration;
    RunOptions options = RunOptions::none;
};

TrackingState stateFor(FrameQuality quality) {
    switch (quality) {
    case FrameQuality::good:
        return TrackingState::normal();
    case FrameQuality::initializing:
        return TrackingState::limited(TrackingState::Reason::initializing);
    case FrameQuality::excessiveMotion:
        return TrackingState::limited(TrackingState::Reason::excessiveMotion);
    case FrameQuality::insufficientFeatures:
        return TrackingState::limited(TrackingState::Reason::insufficientFeatures);
    }
    return TrackingState::notAvailable();
}

std::vector<ReferenceImagePtr> distinct(const std::vector<ReferenceImagePtr>& images) {
    std::vector<ReferenceImagePtr> once;
    for (const auto& image : images) {
        if (image && std::ranges::find(once, image) == once.end())
            once.push_back(image);
    }
    return once;
}

} // namespace

struct Session::State {
    explicit State(FrameFeed f) : feed(std::move(f)) {
        if (!feed.clock)
            feed.clock = Clock::steady();
    }

    // Shared with callers, under `mutex`.
    std::mutex mutex;
    std::condition_variable_any requested;
    std::deque<Request> requests;
    std::stop_source wake; // stops the session thread's current wait for a frame or the clock
    std::weak_ptr<SessionDelegate> delegate;
    std::optional<ImageTrackingConfiguration> configuration;
    std::shared_ptr<const Frame> currentFrame;

    // The session thread's own.
    FrameFeed feed;
    Session* owner = nullptr;
    std::unique_ptr<FrameSource> source;
    std::unique_ptr<ImageTracker> tracker;
    ImageTrackingConfiguration running;
    AnchorBook anchors;
    TrackingState trackingState;
    bool interrupted = false;
    bool relocalizing = false;
    int quietPolls = 0;
    double origin = 0;
    std::optional<double> firstTimestamp;

    std::jthread thread;

    void loop(std::stop_token stop);
    std::optional<std::deque<Request>> take(std::stop_token stop, std::stop_token& wakeToken);
    void apply(const Request& request);
    bool open();
    void makeTracker();
    void close();
    void step(std::stop_token wakeToken);
    void show(CameraFrame camera, double clockTime);
    void interrupt();
    void resume();
    void fail(SessionError::Code code, const ErrorPtr& cause);

    std::shared_ptr<SessionDelegate> listener() {
        std::lock_guard lock(mutex);
        return delegate.lock();
    }
    void setTrackingState(TrackingState state);
    void report(const AnchorChanges& changes);
    void publish(std::shared_ptr<const Frame> frame);
};

void Session::State::loop(std::stop_token stop) {
    while (!stop.stop_requested()) {
        std::stop_token wakeToken;
        auto requests = take(stop, wakeToken);
        if (!requests)
            break;
        for (const auto& request : *requests)
            apply(request);
        if (source)
            step(wakeToken);
    }
    close();
}

// Waits for a request while nothing runs; gives nothing when the session is going away.
std::optional<std::deque<Request>> Session::State::take(std::stop_token stop,
                                                        std::stop_token& wakeToken) {
    std::unique_lock lock(mutex);
    if (!source)
        requested.wait(lock, stop, [&] { return !requests.empty(); });
    if (stop.stop_requested())
        return std::nullopt;
    if (wake.stop_requested())
        wake = std::stop_source();
    wakeToken = wake.get_token();
    return std::exchange(requests, {});
}

void Session::State::apply(const Request& request) {
    if (request.kind == Request::Kind::pause) {
        close();
        return;
    }
    if (contains(request.options, RunOptions::removeExistingAnchors))
        report(anchors.removeAll());
    running = request.configuration;
    running.trackingImages = distinct(running.trackingImages);
    {
        std::lock_guard lock(mutex);
        configuration = running;
    }
    const bool fresh = !tracker || contains(request.options, RunOptions::resetTracking);
    if (!open())
        return;
    if (fresh) {
        report(anchors.loseAll());
        setTrackingState(TrackingState::limited(TrackingState::Reason::initializing));
    }
    makeTracker();
}

// A run while the camera is open keeps it open (a script goes on where it was).
bool Session::State::open() {
    if (source)
        return true;
    // Opening a camera or reading a script's pictures goes through OpenCV.
    std::optional<detail::ExitPass> pass(detail::ExitPass::enter());
    if (!*pass)
        return false;
    auto made = feed.makeSource();
    auto started = made->start();
    pass.reset(); // never held across the delegate's callbacks
    if (!started) {
        fail(SessionError::Code::cameraUnavailable, started.error());
        return false;
    }
    source = std::move(made);
    origin = feed.clock->now();
    firstTimestamp.reset();
    quietPolls = 0;
    interrupted = false;
    relocalizing = false;
    return true;
}

void Session::State::makeTracker() {
    auto mode =
        feed.kind == SourceKind::camera ? RecognitionMode::background : RecognitionMode::inline_;
    if (auto pass = detail::ExitPass::enter())
        tracker = ImageTracker::create(running.trackingImages, running.maximumNumberOfTrackedImages,
                                       mode);
}

void Session::State::close() {
    if (auto pass = detail::ExitPass::enter(); pass && source)
        source->stop();
    source.reset();
    tracker.reset();
}

void Session::State::step(std::stop_token wakeToken) {
    CameraFrame camera;
    std::optional<detail::ExitPass> pass(detail::ExitPass::enter());
    if (!*pass) {
        // The process is ending: no more frames, and no spinning either.
        std::this_thread::sleep_for(kFramePoll);
        return;
    }
    auto outcome = source->nextFrame(camera, kFramePoll);
    pass.reset(); // never held across the delegate's callbacks
    if (!outcome) {
        fail(SessionError::Code::cameraFailed, outcome.error());
        return;
    }
    switch (*outcome) {
    case FrameOutcome::ended:
        close();
        if (auto d = listener())
            d->sourceDidEnd(*owner);
        return;
    case FrameOutcome::timedOut:
        if (++quietPolls >= kQuietPollsToInterrupt && !interrupted)
            interrupt();
        return;
    case FrameOutcome::frame:
        break;
    }
    quietPolls = 0;
    if (interrupted)
        resume();
    double clockTime = feed.clock->now();
    if (feed.kind == SourceKind::recording) {
        if (!firstTimestamp)
            firstTimestamp = camera.timestamp;
        clockTime = origin + (camera.timestamp - *firstTimestamp);
        // A request that comes while the frame waits for its time drops the frame.
        if (!feed.clock->waitUntil(clockTime - kClockSlack, wakeToken))
            return;
    }
    show(std::move(camera), clockTime);
}

void Session::State::show(CameraFrame camera, double clockTime) {
    TrackingResult result;
    if (auto pass = detail::ExitPass::enter(); pass && tracker)
        result = tracker->process(camera);
    else
        return;
    auto changes =
        anchors.track(result.images, running.trackingImages, running.maximumNumberOfTrackedImages);
    auto state = stateFor(result.quality);
    // Relocalising lasts until the tracker is sure of a frame again.
    if (relocalizing && state.status != TrackingState::Status::normal)
        state = TrackingState::limited(TrackingState::Reason::relocalizing);
    else
        relocalizing = false;
    setTrackingState(state);
    report(changes);

    auto frame = std::make_shared<Frame>();
    frame->timestamp = camera.timestamp;
    frame->clockTime = clockTime;
    frame->camera = std::move(camera);
    frame->trackingState = trackingState;
    frame->anchors = anchors.anchors();
    publish(std::move(frame));
}

void Session::State::interrupt() {
    interrupted = true;
    report(anchors.loseAll());
    setTrackingState(TrackingState::notAvailable());
    if (auto d = listener())
        d->wasInterrupted(*owner);
}

void Session::State::resume() {
    interrupted = false;
    auto d = listener();
    if (d)
        d->interruptionEnded(*owner);
    if (d && d->shouldAttemptRelocalization(*owner)) {
        relocalizing = true;
        setTrackingState(TrackingState::limited(TrackingState::Reason::relocalizing));
        return;
    }
    makeTracker();
    setTrackingState(TrackingState::limited(TrackingState::Reason::initializing));
}

void Session::State::fail(SessionError::Code code, const ErrorPtr& cause) {
    close();
    std::shared_ptr<SessionError> error;
    if (code == SessionError::Code::cameraUnavailable)
        error = std::make_shared<SessionError>(
            code, "The session could not open its camera.", cause->description(),
            "Check that the camera is connected and that no other program uses it, then run "
            "the session again.");
    else
        error = std::make_shared<SessionError>(
            code, "The session's camera failed.", cause->description(),
            "Run the session again; if the camera fails again, reconnect it.");
    report(anchors.loseAll());
    setTrackingState(TrackingState::notAvailable());
    if (auto d = listener())
        d->didFailWithError(*owner, error);
}

void Session::State::setTrackingState(TrackingState state) {
    if (state == trackingState)
        return;
    trackingState = state;
    if (auto d = listener())
        d->cameraDidChangeTrackingState(*owner, state);
}

void Session::State::report(const AnchorChanges& changes) {
    if (changes.empty())
        return;
    if (!changes.removed.empty()) {
        // The current frame names the anchors that exist, so it follows removals at once.
        std::lock_guard lock(mutex);
        if (currentFrame) {
            auto updated = std::make_shared<Frame>(*currentFrame);
            updated->anchors = anchors.anchors();
            currentFrame = std::move(updated);
        }
    }
    auto d = listener();
    if (!d)
        return;
    if (!changes.removed.empty())
        d->didRemoveAnchors(*owner, changes.removed);
    if (!changes.added.empty())
        d->didAddAnchors(*owner, changes.added);
    if (!changes.updated.empty())
        d->didUpdateAnchors(*owner, changes.updated);
}

void Session::State::publish(std::shared_ptr<const Frame> frame) {
    {
        std::lock_guard lock(mutex);
        currentFrame = frame;
    }
    if (auto d = listener())
        d->didUpdateFrame(*owner, frame);
}

std::shared_ptr<Session> Session::create(FrameFeed feed) {
    return std::shared_ptr<Session>(new Session(std::move(feed)));
}

Session::Session(FrameFeed feed) : state_(std::make_shared<State>(std::move(feed))) {
    state_->owner = this;
    state_->thread = std::jthread([state = state_](std::stop_token stop) { state->loop(stop); });
}

Session::~Session() {
    {
        std::lock_guard lock(state_->mutex);
        state_->wake.request_stop();
    }
    if (state_->thread.get_id() == std::this_thread::get_id())
        fatalError("Session::~Session: destroyed by its own delegate on the session's thread");
    state_->thread.request_stop();
    state_->thread.join();
}

void Session::run(const ImageTrackingConfiguration& configuration, RunOptions options) {
    {
        std::lock_guard lock(state_->mutex);
        state_->requests.push_back({Request::Kind::run, configuration, options});
        state_->wake.request_stop();
    }
    state_->requested.notify_all();
}

void Session::pause() {
    {
        std::lock_guard lock(state_->mutex);
        state_->requests.push_back({Request::Kind::pause, {}, RunOptions::none});
        state_->wake.request_stop();
    }
    state_->requested.notify_all();
}

std::optional<ImageTrackingConfiguration> Session::configuration() const {
    std::lock_guard lock(state_->mutex);
    return state_->configuration;
}

std::shared_ptr<const Frame> Session::currentFrame() const {
    std::lock_guard lock(state_->mutex);
    return state_->currentFrame;
}

void Session::setDelegate(std::weak_ptr<SessionDelegate> delegate) {
    std::lock_guard lock(state_->mutex);
    state_->delegate = std::move(delegate);
}

} // namespace pelkit::ar
