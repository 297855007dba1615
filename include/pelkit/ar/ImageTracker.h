// Recognising reference images in camera frames and following them from frame to frame.
#pragma once

#include <pelkit/ar/FrameSource.h>
#include <pelkit/ar/ReferenceImage.h>

#include <glm/mat4x4.hpp>
#include <glm/vec2.hpp>

#include <array>
#include <memory>
#include <vector>

namespace pelkit::ar {

/// Where one reference image is in a frame.
struct ImageObservation {
    ReferenceImagePtr referenceImage;
    /// The image's corners in frame pixels: top-left, top-right, bottom-right, bottom-left.
    std::array<glm::dvec2, 4> corners;
    /// The image's pose in the camera's coordinates (x right, y up, z toward the viewer, as the
    /// scene's camera looks down -z), in the anchor convention: origin at the image centre, x to
    /// the image's right, y along its normal toward the camera side, z toward its bottom edge.
    glm::dmat4 transform{1.0};
};

/// How well a frame can be tracked, for the session's tracking state.
enum class FrameQuality { good, initializing, excessiveMotion, insufficientFeatures };

struct TrackingResult {
    /// The images found or followed in this frame, at most `maximumNumberOfTrackedImages`.
    std::vector<ImageObservation> images;
    FrameQuality quality = FrameQuality::good;
};

/// When recognition of new images runs.
enum class RecognitionMode {
    /// On a worker thread, so `process` returns after following the images already tracked;
    /// what the worker finds joins a later frame's result. For live cameras.
    background,
    /// Inside `process`, every frame that needs it: the same frames give the same results.
    /// For tests and scripted runs.
    inline_,
};

/// Finds and follows a fixed set of reference images. The feature database is built once, when
/// the tracker is made. Used from one thread (the session's), except for its own worker.
class ImageTracker {
public:
    static std::unique_ptr<ImageTracker> create(std::vector<ReferenceImagePtr> images,
                                                int maximumNumberOfTrackedImages,
                                                RecognitionMode mode);
    virtual ~ImageTracker();

    virtual TrackingResult process(const CameraFrame& frame) = 0;
};

} // namespace pelkit::ar
