// An AR session: runs image tracking on a camera's frames and keeps one anchor per recognised
// reference image. Thread-safe: any thread may run, pause or read it; its delegate is called on
// the session's own thread (a scene view moves those calls to its renderer's thread).
#pragma once

#include <pelkit/ar/FrameFeed.h>
#include <pelkit/ar/ReferenceImage.h>
#include <pelkit/foundation/Error.h>

#include <glm/mat4x4.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pelkit::ar {

/// What a session looks for. Reference images are held by identity; one listed twice is one.
struct ImageTrackingConfiguration {
    /// The most images followed at once; others that come into view wait for one to be lost.
    int maximumNumberOfTrackedImages = 1;
    std::vector<ReferenceImagePtr> trackingImages;
};

/// How `Session::run` treats what the session had before; combine with `|`.
enum class RunOptions : unsigned {
    none = 0,
    /// Start tracking from scratch: every anchor counts as lost until its image is found again.
    resetTracking = 1,
    /// Remove every anchor (the delegate hears of each removal).
    removeExistingAnchors = 2,
};
constexpr RunOptions operator|(RunOptions a, RunOptions b) {
    return static_cast<RunOptions>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool contains(RunOptions set, RunOptions option) {
    return (static_cast<unsigned>(set) & static_cast<unsigned>(option)) != 0;
}

/// How well the session can follow the world through its camera.
struct TrackingState {
    enum class Status { notAvailable, limited, normal };
    /// Why tracking is limited.
    enum class Reason { none, initializing, excessiveMotion, insufficientFeatures, relocalizing };

    Status status = Status::notAvailable;
    Reason reason = Reason::none;

    static TrackingState notAvailable() { return {}; }
    static TrackingState normal() { return {Status::normal, Reason::none}; }
    static TrackingState limited(Reason reason) { return {Status::limited, reason}; }
    friend bool operator==(const TrackingState&, const TrackingState&) = default;
};

/// A place in the world that the session follows. Anchors are immutable snapshots: each change
/// makes a new one with the same identifier.
class Anchor {
public:
    virtual ~Anchor();
    /// Stays the same across a session's snapshots of one anchor.
    std::uint64_t identifier() const { return identifier_; }
    /// From the anchor's coordinates to the world's (the camera's: x right, y up, z toward the
    /// viewer).
    const glm::mat4& transform() const { return transform_; }

protected:
    Anchor(std::uint64_t identifier, const glm::mat4& transform)
        : identifier_(identifier), transform_(transform) {}

private:
    std::uint64_t identifier_;
    glm::mat4 transform_;
};
using AnchorPtr = std::shared_ptr<const Anchor>;

/// The anchor of a recognised reference image: the image's centre is the origin, x points to the
/// image's right, y out of the image toward the camera side, z toward its bottom edge. A lost
/// image keeps its anchor, at its last pose, with `isTracked()` false.
class ImageAnchor final : public Anchor {
public:
    ImageAnchor(std::uint64_t identifier, const glm::mat4& transform, ReferenceImagePtr image,
                bool isTracked)
        : Anchor(identifier, transform), referenceImage_(std::move(image)), isTracked_(isTracked) {}

    const ReferenceImagePtr& referenceImage() const { return referenceImage_; }
    bool isTracked() const { return isTracked_; }

private:
    ReferenceImagePtr referenceImage_;
    bool isTracked_;
};

/// One camera frame as the session saw it.
struct Frame {
    /// The source's time of the frame, in seconds.
    double timestamp = 0;
    /// The session clock's time when the frame was shown.
    double clockTime = 0;
    CameraFrame camera;
    TrackingState trackingState;
    /// Every anchor, in the order they were added.
    std::vector<AnchorPtr> anchors;
};

/// Why a session failed (`SessionObserver::didFailWithError`); the domain is "ar.session".
class SessionError final : public Error {
public:
    enum class Code { cameraUnavailable = 1, cameraFailed = 2 };

    SessionError(Code code, std::string description, std::optional<std::string> failureReason,
                 std::optional<std::string> recoverySuggestion);

    std::string domain() const override { return "ar.session"; }
    int code() const override { return static_cast<int>(code_); }
    std::string description() const override { return description_; }
    const std::optional<std::string>& failureReason() const { return failureReason_; }
    const std::optional<std::string>& recoverySuggestion() const { return recoverySuggestion_; }

private:
    Code code_;
    std::string description_;
    std::optional<std::string> failureReason_;
    std::optional<std::string> recoverySuggestion_;
};

class Session;

/// What happens to a session's camera and tracking. Every call has an empty default.
class SessionObserver {
public:
    virtual ~SessionObserver();

    virtual void cameraDidChangeTrackingState(Session& session, const TrackingState& state);
    /// The camera could not be opened or failed; the run ends (a later `run` tries again).
    /// The error is a `SessionError`.
    virtual void didFailWithError(Session& session, const ErrorPtr& error);
    /// The camera stopped delivering frames; tracked images count as lost meanwhile.
    virtual void wasInterrupted(Session& session);
    /// Frames come again.
    virtual void interruptionEnded(Session& session);
    /// Asked after an interruption: true keeps the anchors and tracking state while the images
    /// are found again (the tracking state is limited, relocalizing, meanwhile); false starts
    /// tracking from scratch.
    virtual bool shouldAttemptRelocalization(Session& session);
    /// A file or script has no more frames; the session keeps its anchors.
    virtual void sourceDidEnd(Session& session);
};

/// A session's anchors and frames as they change: per frame, removals, then additions, then
/// updates, then the frame itself.
class SessionDelegate : public SessionObserver {
public:
    virtual void didAddAnchors(Session& session, const std::vector<AnchorPtr>& anchors);
    virtual void didUpdateAnchors(Session& session, const std::vector<AnchorPtr>& anchors);
    virtual void didRemoveAnchors(Session& session, const std::vector<AnchorPtr>& anchors);
    virtual void didUpdateFrame(Session& session, const std::shared_ptr<const Frame>& frame);
};

/// Runs image tracking on a feed's frames, on a thread of its own.
///
///     auto session = ar::Session::create(ar::defaultFrameFeed());
///     session->setDelegate(delegate);
///     ar::ImageTrackingConfiguration configuration;
///     configuration.maximumNumberOfTrackedImages = 8;
///     configuration.trackingImages = images;
///     session->run(configuration, ar::RunOptions::resetTracking |
///                                     ar::RunOptions::removeExistingAnchors);
class Session {
public:
    static std::shared_ptr<Session> create(FrameFeed feed);
    /// Stops the session's thread and closes the camera.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Starts (or restarts) tracking with `configuration`: opens the camera and builds the
    /// recognition data on the session's thread, so it returns at once. Anchors of images no
    /// longer looked for stay, lost, unless `options` removes them.
    void run(const ImageTrackingConfiguration& configuration,
             RunOptions options = RunOptions::none);
    /// Stops tracking and closes the camera; anchors stay. Returns at once.
    void pause();

    /// The configuration of the last `run`, if any.
    std::optional<ImageTrackingConfiguration> configuration() const;
    /// The last frame shown, or null before the first.
    std::shared_ptr<const Frame> currentFrame() const;

    /// Receives the session's events on the session's thread. Held weakly.
    void setDelegate(std::weak_ptr<SessionDelegate> delegate);

private:
    struct State;
    explicit Session(FrameFeed feed);
    std::shared_ptr<State> state_;
};

} // namespace pelkit::ar
