// Conversions between the platform's pictures and OpenCV's matrices, for the files of this module
// that work on OpenCV. Any thread.
#pragma once

#include <pelkit/ar/FrameSource.h>
#include <pelkit/ar/ReferenceImage.h>
#include <pelkit/image/Image.h>

#include <opencv2/core.hpp>

namespace pelkit::ar::cvx {

/// An 8-bit grey copy of an RGBA picture.
cv::Mat grey(const image::Image& image);
/// The same into `out`, in its own pixels when it has the size and no one else holds them.
void grey(const image::Image& image, cv::Mat& out);
/// Lets go of `buffer`'s pixels when another matrix (perhaps on another thread) still holds them,
/// so that drawing into it again cannot change what that one sees.
void reclaim(cv::Mat& buffer);
/// An 8-bit BGR copy of an RGBA picture.
cv::Mat bgr(const image::Image& image);
/// An opaque RGBA picture of an 8-bit BGR or grey matrix.
image::Image toImage(const cv::Mat& picture);

/// The reference's picture turned upright (its orientation undone), in grey.
cv::Mat uprightGrey(const ReferenceImage& reference);

cv::Matx33d cameraMatrix(const CameraIntrinsics& intrinsics);

} // namespace pelkit::ar::cvx
