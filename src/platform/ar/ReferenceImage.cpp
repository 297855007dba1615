#include <pelkit/ar/ReferenceImage.h>

#include "ExitPass.h"
#include "Recognizer.h"

#include <pelkit/foundation/Dispatch.h>

#include <opencv2/core.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <mutex>

namespace pelkit::ar {

// The name is the one field that may change after construction, so it alone is guarded.
struct ReferenceImage::Name {
    mutable std::mutex mutex;
    std::optional<std::string> value;
};

std::shared_ptr<ReferenceImage> ReferenceImage::create(std::shared_ptr<const image::Image> image,
                                                       ImageOrientation orientation,
                                                       double physicalWidth) {
    return std::shared_ptr<ReferenceImage>(
        new ReferenceImage(std::move(image), orientation, physicalWidth));
}

ReferenceImage::ReferenceImage(std::shared_ptr<const image::Image> image,
                               ImageOrientation orientation, double physicalWidth)
    : image_(std::move(image)), orientation_(orientation), physicalWidth_(physicalWidth),
      name_(std::make_unique<Name>()) {
    if (!image_ || image_->empty())
        fatalError("ReferenceImage: the image is empty");
}

ReferenceImage::~ReferenceImage() = default;

glm::dvec2 ReferenceImage::physicalSize() const {
    // Orientations 5 to 8 turn the picture a quarter, so its upright width is its stored height.
    bool quarterTurn = static_cast<int>(orientation_) >= 5;
    double width = quarterTurn ? image_->height : image_->width;
    double height = quarterTurn ? image_->width : image_->height;
    return {physicalWidth_, physicalWidth_ * height / width};
}

std::optional<std::string> ReferenceImage::name() const {
    std::lock_guard lock(name_->mutex);
    return name_->value;
}

void ReferenceImage::setName(std::optional<std::string> name) {
    std::lock_guard lock(name_->mutex);
    name_->value = std::move(name);
}

namespace {

constexpr int kMinimumSide = 64;
constexpr int kMinimumFeatures = 60;
// A camera often sees a target at a fifth of its frame, where detail finer than a few of its
// pixels is blurred away: print, text and fine patterns are then flat. On the benchmark's
// photographs, those with fewer corners than this at that size were found in one view of five,
// those with 150 or more in seven of ten.
constexpr int kDistantSide = 200;
constexpr int kMinimumDistantCorners = 50;

// Corners of `working` seen `kDistantSide` pixels across through a camera's slight blur.
std::size_t distantCorners(const cv::Mat& working) {
    cv::Mat distant = working;
    double scale = double(kDistantSide) / std::max(working.cols, working.rows);
    if (scale < 1)
        cv::resize(working, distant, cv::Size(), scale, scale, cv::INTER_AREA);
    cv::GaussianBlur(distant, distant, cv::Size(), 0.8);
    std::vector<cv::KeyPoint> corners;
    cv::FAST(distant, corners, 20);
    return corners.size();
}

ErrorPtr unusable(std::string why) {
    return Error::make("ar.referenceImage", 1, std::move(why));
}

} // namespace

void ReferenceImage::validate(std::function<void(ErrorPtr)> completion) const {
    // Finding features takes tens of milliseconds on a photo: off the caller's thread, and off
    // the main and HTTP queues, which may be waiting for this answer.
    DispatchQueue::global().async([self = shared_from_this(), completion = std::move(completion)] {
        const auto& image = *self->image();
        if (image.width < kMinimumSide || image.height < kMinimumSide)
            return completion(unusable("the image is " + std::to_string(image.width) + "x" +
                                       std::to_string(image.height) + " pixels; at least " +
                                       std::to_string(kMinimumSide) +
                                       " pixels are needed on each side"));
        auto pass = detail::ExitPass::enter();
        if (!pass)
            return completion(unusable("the process is ending"));
        std::vector<cv::KeyPoint> keypoints;
        cv::Mat descriptors;
        cv::Mat working = detail::workingPicture(*self);
        detail::referenceFeatures(working, {}, keypoints, descriptors);
        if (keypoints.size() < std::size_t(kMinimumFeatures))
            return completion(unusable(
                "the image has too little detail to track: " + std::to_string(keypoints.size()) +
                " features, at least " + std::to_string(kMinimumFeatures) + " needed"));
        if (auto corners = distantCorners(working); corners < std::size_t(kMinimumDistantCorners))
            return completion(unusable(
                "the image's detail is too fine to recognise it from afar: " +
                std::to_string(corners) + " corners when it is " + std::to_string(kDistantSide) +
                " pixels across, at least " + std::to_string(kMinimumDistantCorners) + " needed"));
        completion(nullptr);
    });
}

} // namespace pelkit::ar
