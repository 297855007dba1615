// Drawing synthetic camera frames: pictures placed by their corners over a background, then the
// blur, noise, lighting and compression of a real camera. Used by the scripted source and by the
// benchmarks. Any thread; no shared state.
#pragma once

#include <pelkit/ar/FrameSource.h>

#include <glm/mat4x4.hpp>
#include <opencv2/core.hpp>

#include <array>
#include <cstdint>
#include <vector>

namespace pelkit::ar::synthetic {

using Quad = std::array<cv::Point2d, 4>; // top-left, top-right, bottom-right, bottom-left

/// A picture drawn into the frame so that its outer corners land on `corners` (frame pixels,
/// pixel centres at integer coordinates).
struct Placement {
    cv::Mat picture; // 8-bit BGR
    Quad corners;
};

struct Effects {
    double gain = 1; ///< brightness factor
    double lightingRamp =
        0;                 ///< brightness changes by this fraction from the left edge to the right
    double blur = 0;       ///< Gaussian sigma, pixels
    double motionBlur = 0; ///< length of a straight smear, pixels
    double motionBlurAngle = 0; ///< its direction, degrees from the x axis
    double noise = 0;           ///< Gaussian sigma, grey levels
    int jpegQuality = 0;        ///< 1..100 compresses the frame; 0 leaves it alone
    std::uint64_t seed = 0;     ///< the noise's seed
};

/// `background` scaled and cropped to cover `size`.
cv::Mat cover(const cv::Mat& background, cv::Size size);

/// Draws the placements over `background` (already of the frame's size), then applies `effects`.
cv::Mat render(const cv::Mat& background, const std::vector<Placement>& placements,
               const Effects& effects);

/// Where the corners of a picture `physicalSize` metres large land when its pose (in the anchor
/// convention, camera coordinates with y up and z toward the viewer) is `transform`.
Quad project(const glm::dmat4& transform, glm::dvec2 physicalSize,
             const CameraIntrinsics& intrinsics);

/// The pose of a picture turned by `rotationDegrees` about the camera's x, then y, then z axes
/// from upright and facing the camera, with its centre at `position`.
glm::dmat4 pose(glm::dvec3 position, glm::dvec3 rotationDegrees);

} // namespace pelkit::ar::synthetic
