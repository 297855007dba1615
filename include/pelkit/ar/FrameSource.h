// Where an AR session's camera frames come from: a V4L2 camera, a video file, or a script that
// draws target images at given poses. One interface, so a session does not know which it has.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>

#include <glm/mat3x3.hpp>
#include <glm/vec2.hpp>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace pelkit::ar {

/// A pinhole camera: `matrix` maps camera coordinates (x right, y down, z forward, metres) to
/// pixels, as OpenCV's camera matrix does (fx, fy, cx, cy); column-major as glm stores it.
struct CameraIntrinsics {
    glm::dmat3 matrix{1.0};
    glm::ivec2 imageResolution{0, 0};

    /// The intrinsics of a camera whose picture of `resolution` spans `horizontalFieldOfView`
    /// radians, with square pixels and the principal point in the middle.
    static CameraIntrinsics fromFieldOfView(double horizontalFieldOfView, glm::ivec2 resolution);
};

/// One picture from a camera.
struct CameraFrame {
    std::shared_ptr<const image::Image> image;
    /// Seconds on the source's clock: a camera's capture time, a file's presentation time, a
    /// script's time. Increasing from frame to frame.
    double timestamp = 0;
    CameraIntrinsics intrinsics;
};

/// What `nextFrame` found.
enum class FrameOutcome {
    frame,    ///< a new frame
    timedOut, ///< nothing within the wait: a camera that stopped delivering
    ended,    ///< a finite source (file, script) has no more frames
};

/// A source of camera frames, used from one thread (the session's).
class FrameSource {
public:
    virtual ~FrameSource();

    /// Opens the device or file. The error names what could not be opened and why.
    [[nodiscard]] virtual Result<void> start() = 0;
    /// Waits up to `timeout` for the next frame and stores it in `frame`. Errors are failures of
    /// the device or the decoder after `start`.
    [[nodiscard]] virtual Result<FrameOutcome> nextFrame(CameraFrame& frame,
                                                         std::chrono::milliseconds timeout) = 0;
    /// Closes the device or file; `start` may open it again.
    virtual void stop() = 0;
    /// A readable name for logs, e.g. "camera /dev/video0" or "script demo.json".
    virtual std::string description() const = 0;
};

/// A V4L2 camera, e.g. "/dev/video0"; its intrinsics from `horizontalFieldOfView` (radians).
std::unique_ptr<FrameSource> makeCameraSource(std::string device,
                                              double horizontalFieldOfView = 1.1);
/// The frames of a video file, at its own pace or as fast as asked for; intrinsics from
/// `horizontalFieldOfView`.
std::unique_ptr<FrameSource> makeVideoFileSource(std::filesystem::path file,
                                                 double horizontalFieldOfView = 1.1);
/// Frames drawn from a JSON timeline (target images at poses over a background), with exact
/// intrinsics. Timestamps come from the timeline, so a run is the same on every machine. The
/// format is described at the top of src/platform/ar/ScriptedSource.cpp;
/// examples/scripts/demo-targets.json follows the demo targets.
std::unique_ptr<FrameSource> makeScriptedSource(std::filesystem::path script);

} // namespace pelkit::ar
