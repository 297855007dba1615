#include "OpenCv.h"

#include <opencv2/imgproc.hpp>

namespace pelkit::ar::cvx {
namespace {

cv::Mat wrap(const image::Image& image) {
    // OpenCV only reads through this header, so dropping const is safe.
    return cv::Mat(image.height, image.width, CV_8UC4, const_cast<std::uint8_t*>(image.rgba.data()),
                   image.stride());
}

} // namespace

cv::Mat grey(const image::Image& image) {
    cv::Mat out;
    grey(image, out);
    return out;
}

void grey(const image::Image& image, cv::Mat& out) {
    reclaim(out);
    cv::cvtColor(wrap(image), out, cv::COLOR_RGBA2GRAY);
}

void reclaim(cv::Mat& buffer) {
    // Others only ever let go of their share, so a count of one cannot rise again; acquiring it
    // orders their last reads before our writes.
    if (buffer.u && __atomic_load_n(&buffer.u->refcount, __ATOMIC_ACQUIRE) > 1)
        buffer.release();
}

cv::Mat bgr(const image::Image& image) {
    cv::Mat out;
    cv::cvtColor(wrap(image), out, cv::COLOR_RGBA2BGR);
    return out;
}

image::Image toImage(const cv::Mat& picture) {
    image::Image out;
    out.width = picture.cols;
    out.height = picture.rows;
    out.rgba.resize(out.stride() * out.height);
    cv::Mat target = wrap(out);
    cv::cvtColor(picture, target,
                 picture.channels() == 1 ? cv::COLOR_GRAY2RGBA : cv::COLOR_BGR2RGBA);
    return out;
}

cv::Mat uprightGrey(const ReferenceImage& reference) {
    cv::Mat stored = grey(*reference.image());
    cv::Mat out;
    // Each orientation names how the stored pixels must be turned to look upright; the mirrored
    // ones flip first, then turn.
    switch (reference.orientation()) {
    case ImageOrientation::up:
        return stored;
    case ImageOrientation::upMirrored:
        cv::flip(stored, out, 1);
        return out;
    case ImageOrientation::down:
        cv::rotate(stored, out, cv::ROTATE_180);
        return out;
    case ImageOrientation::downMirrored:
        cv::flip(stored, out, 0);
        return out;
    case ImageOrientation::leftMirrored:
        cv::transpose(stored, out);
        return out;
    case ImageOrientation::right:
        cv::rotate(stored, out, cv::ROTATE_90_CLOCKWISE);
        return out;
    case ImageOrientation::rightMirrored:
        cv::flip(stored, out, -1);
        cv::transpose(out, out);
        return out;
    case ImageOrientation::left:
        cv::rotate(stored, out, cv::ROTATE_90_COUNTERCLOCKWISE);
        return out;
    }
    return stored;
}

cv::Matx33d cameraMatrix(const CameraIntrinsics& intrinsics) {
    const auto& m = intrinsics.matrix; // column-major: m[column][row]
    return {m[0][0], m[1][0], m[2][0], m[0][1], m[1][1], m[2][1], m[0][2], m[1][2], m[2][2]};
}

} // namespace pelkit::ar::cvx
