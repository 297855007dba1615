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
/// An 8-bit BGR copy of an RGBA picture.
cv::Mat bgr(const image::Image& image);
/// An opaque RGBA picture of an 8-bit BGR or grey matrix.
image::Image toImage(const cv::Mat& picture);

/// The reference's picture turned upright (its orientation undone), in grey.
cv::Mat uprightGrey(const ReferenceImage& reference);

cv::Matx33d cameraMatrix(const CameraIntrinsics& intrinsics);

/// OpenCV keeps per-thread data that the process's exit tears down; a thread still inside OpenCV
/// then aborts the whole process ("Can't fetch data from terminated TLS container"). The module's
/// own threads (session, recognition, validation) hold a pass while they use OpenCV: at exit the
/// gate closes, waits for the passes out (a few seconds at most) and turns later ones away. The
/// scene view's renderer thread holds one while it draws: EGL's state goes at exit as well.
///
///     if (auto pass = cvx::Pass::enter()) { ...OpenCV work... } else { ...give up: exiting... }
class Pass {
public:
    [[nodiscard]] static Pass enter();
    Pass(Pass&& other) noexcept;
    Pass& operator=(Pass&&) = delete;
    ~Pass();
    explicit operator bool() const { return admitted_; }

private:
    explicit Pass(bool admitted) : admitted_(admitted) {}
    bool admitted_;
};

} // namespace pelkit::ar::cvx
