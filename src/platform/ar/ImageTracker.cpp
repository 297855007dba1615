// Recognition hands each found image to a tracker that follows its points from frame to frame
// with pyramidal Lucas-Kanade (checked forward and backward) and re-aligns it with its reference
// now and then, so it neither drifts nor pays for recognition every frame.
#include "ExitPass.h"
#include "OpenCv.h"
#include "Recognizer.h"

#include <pelkit/ar/ImageTracker.h>
#include <pelkit/foundation/Dispatch.h>

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include <algorithm>
#include <mutex>

namespace pelkit::ar {

ImageTracker::~ImageTracker() = default;

namespace {

using detail::Alignment;
using detail::Detection;
using detail::Recognizer;

constexpr int kInitializingFrames = 3;
// Frame-to-frame tracking drifts when its points sit in one part of an image, and steep views
// then throw the far corners off by pixels within ten frames. Re-aligning mostly reuses what the
// last one prepared (see below), so doing it often is cheap.
constexpr int kRealignEvery = 5;
constexpr int kJudgeQualityEvery = 4;
// Lucas-Kanade's window: 11 pixels follow as well as 15 between frames a thirtieth of a second
// apart, and a tracked frame takes a third less time.
const cv::Size kWindow(11, 11);
constexpr int kPyramidLevels = 3; // levels over the full-size image at 640 pixels wide
// Points followed per image: enough for a steady homography; each costs two Lucas-Kanade
// searches a frame.
constexpr std::size_t kFollowedPoints = 64;

using Pyramid = std::vector<cv::Mat>;

// Built into `pyramid`'s own buffers where it can.
void buildPyramid(const cv::Mat& grey, Pyramid& pyramid) {
    // Motion in pixels grows with the resolution: one more level for each doubling.
    int levels = kPyramidLevels;
    for (int width = grey.cols; width > 900; width /= 2)
        ++levels;
    for (auto& level : pyramid)
        cvx::reclaim(level);
    cv::buildOpticalFlowPyramid(grey, pyramid, kWindow, levels);
}

double area(const std::array<cv::Point2d, 4>& q) {
    double sum = 0;
    for (int i = 0; i < 4; ++i)
        sum += q[i].x * q[(i + 1) % 4].y - q[(i + 1) % 4].x * q[i].y;
    return sum / 2;
}

// Keeps the strongest points of an alignment, which lists them strongest first.
void thin(Alignment& alignment) {
    if (alignment.framePoints.size() <= kFollowedPoints)
        return;
    alignment.framePoints.resize(kFollowedPoints);
    alignment.referencePoints.resize(kFollowedPoints);
}

// Moves an alignment's frame points from one frame to the next and refits its homography; false
// when too few points survive the forward-backward check or the shape jumps.
bool follow(const Pyramid& from, const Pyramid& to, cv::Size working, Alignment& alignment,
            int minimum) {
    if (alignment.framePoints.size() < std::size_t(minimum))
        return false;
    std::vector<cv::Point2f> moved, back;
    std::vector<std::uint8_t> status, backStatus;
    std::vector<float> error;
    cv::TermCriteria criteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, 0.01);
    int levels = int(std::min(from.size(), to.size()) / 2) - 1; // images and derivatives
    cv::calcOpticalFlowPyrLK(from, to, alignment.framePoints, moved, status, error, kWindow, levels,
                             criteria);
    // The way back starts where each point was: when the way there was right, it is found at
    // full size alone, at about a third of the cost of searching every level.
    back = alignment.framePoints;
    cv::calcOpticalFlowPyrLK(to, from, moved, back, backStatus, error, kWindow, 0, criteria,
                             cv::OPTFLOW_USE_INITIAL_FLOW);
    std::vector<cv::Point2f> reference, frame;
    for (std::size_t i = 0; i < moved.size(); ++i)
        if (status[i] && backStatus[i] && cv::norm(back[i] - alignment.framePoints[i]) < 0.7) {
            reference.push_back(alignment.referencePoints[i]);
            frame.push_back(moved[i]);
        }
    if (int(reference.size()) < minimum)
        return false;
    std::vector<std::uint8_t> inliers;
    cv::Mat h = cv::findHomography(reference, frame, cv::RANSAC, 3.0, inliers, 500, 0.995);
    if (h.empty() || cv::countNonZero(inliers) < minimum)
        return false;
    cv::Matx33d homography(h);
    double before = area(detail::frameCorners(alignment.homography, working));
    double after = area(detail::frameCorners(homography, working));
    if (!detail::plausible(detail::frameCorners(homography, working), 100) || after > 2 * before ||
        after < 0.5 * before)
        return false;
    alignment.homography = homography;
    alignment.referencePoints.clear();
    alignment.framePoints.clear();
    for (std::size_t i = 0; i < reference.size(); ++i)
        if (inliers[i]) {
            alignment.referencePoints.push_back(reference[i]);
            alignment.framePoints.push_back(frame[i]);
        }
    return true;
}

// The pose of a picture whose corners are `corners`, in the anchor convention.
glm::dmat4 poseOf(const std::array<glm::dvec2, 4>& corners, glm::dvec2 size,
                  const CameraIntrinsics& intrinsics) {
    double w = size.x / 2, h = size.y / 2;
    // The picture's own axes: x to its right, y to its bottom, z into it.
    std::vector<cv::Point3d> object{{-w, -h, 0}, {w, -h, 0}, {w, h, 0}, {-w, h, 0}};
    std::vector<cv::Point2d> image;
    for (auto c : corners)
        image.emplace_back(c.x, c.y);
    cv::Mat rvec, tvec;
    if (!cv::solvePnP(object, image, cv::Mat(cvx::cameraMatrix(intrinsics)), cv::noArray(), rvec,
                      tvec, false, cv::SOLVEPNP_IPPE))
        return glm::dmat4(1.0);
    cv::Matx33d r;
    cv::Rodrigues(rvec, r);
    // OpenCV's camera looks down +z with y down; ours down -z with y up.
    auto toScene = [](cv::Vec3d v) { return glm::dvec4(v[0], -v[1], -v[2], 0); };
    glm::dmat4 out(1.0);
    out[0] = toScene(r * cv::Vec3d(1, 0, 0));
    out[1] = toScene(r * cv::Vec3d(0, 0, -1)); // the normal toward the camera side
    out[2] = toScene(r * cv::Vec3d(0, 1, 0));  // toward the bottom edge
    out[3] = toScene(cv::Vec3d(tvec)) + glm::dvec4(0, 0, 0, 1);
    return out;
}

// Judged on the pyramid's level nearest 320 pixels wide; `laplacian` is a buffer to reuse.
FrameQuality qualityOf(const Pyramid& pyramid, int frameIndex, cv::Mat& laplacian) {
    if (frameIndex < kInitializingFrames)
        return FrameQuality::initializing;
    std::size_t level = 0;
    while (level + 2 < pyramid.size() && pyramid[level].cols > 400)
        level += 2; // images and their derivatives alternate
    const cv::Mat& small = pyramid[level];
    std::vector<cv::KeyPoint> corners;
    cv::FAST(small, corners, 20);
    if (corners.size() < 30)
        return FrameQuality::insufficientFeatures;
    // A blurred frame loses its fine detail: little second-derivative energy for its contrast.
    cv::Laplacian(small, laplacian, CV_32F);
    cv::Scalar mean, deviation;
    cv::meanStdDev(laplacian, mean, deviation);
    if (deviation[0] * deviation[0] < 40)
        return FrameQuality::excessiveMotion;
    return FrameQuality::good;
}

struct Tracked {
    int target;
    Alignment alignment;
    int framesSinceAlignment = 0;
    std::size_t alignedPoints = 0;
    detail::RefinementCache refinement = {}; // the reference made ready to re-align with
};

// What the recognition worker hands back: detections in the frame it was given.
struct WorkerState {
    std::mutex mutex;
    bool busy = false;
    std::vector<Detection> found;
    Pyramid pyramid;
};

class Tracker final : public ImageTracker {
public:
    Tracker(std::vector<ReferenceImagePtr> images, int maximum, RecognitionMode mode)
        : references_(std::move(images)), maximum_(std::max(0, maximum)), mode_(mode),
          recognizer_(std::make_shared<Recognizer>(references_)),
          worker_(std::make_shared<WorkerState>()) {
        if (mode_ == RecognitionMode::background)
            queue_ = std::make_unique<DispatchQueue>("ar.recognition");
    }

    TrackingResult process(const CameraFrame& frame) override {
        // A frame is converted into the buffers of the one before last: allocating them anew
        // costs more than the conversion where each new page of memory is a fault.
        cvx::grey(*frame.image, grey_);
        const cv::Mat& grey = grey_;
        Pyramid pyramid = std::move(spare_);
        buildPyramid(grey, pyramid);
        followTracked(grey, pyramid);
        if (mode_ == RecognitionMode::background) {
            adoptFound(pyramid);
            if (wantsMore())
                startRecognition(withoutTracked(grey), pyramid);
        } else if (wantsMore()) {
            for (auto& detection :
                 recognizer_->detect(withoutTracked(grey), trackedTargets(), room()))
                start(std::move(detection));
        }
        TrackingResult result;
        // How a camera's frames look changes slowly; judging every few frames is enough.
        if (frameIndex_ % kJudgeQualityEvery == 0 || frameIndex_ < kInitializingFrames)
            quality_ = qualityOf(pyramid, frameIndex_, laplacian_);
        ++frameIndex_;
        result.quality = quality_;
        spare_ = std::move(previous_);
        previous_ = std::move(pyramid);
        for (const auto& tracked : tracked_)
            result.images.push_back(observation(tracked, frame.intrinsics));
        return result;
    }

private:
    int room() const { return maximum_ - int(tracked_.size()); }
    bool wantsMore() const { return room() > 0 && tracked_.size() < references_.size(); }
    std::vector<int> trackedTargets() const {
        std::vector<int> out;
        for (const auto& tracked : tracked_)
            out.push_back(tracked.target);
        return out;
    }

    // The frame with the images already tracked painted flat. Detection keeps a frame's
    // strongest features only, and a busy image in view would otherwise take them all and hide
    // the other images from every later search too.
    cv::Mat withoutTracked(const cv::Mat& grey) const {
        if (tracked_.empty())
            return grey;
        cv::Mat out = grey.clone();
        for (const auto& tracked : tracked_) {
            auto corners = detail::frameCorners(tracked.alignment.homography,
                                                recognizer_->workingSize(tracked.target));
            std::vector<cv::Point> quad;
            for (const auto& c : corners)
                quad.emplace_back(int(std::lround(c.x)), int(std::lround(c.y)));
            cv::fillConvexPoly(out, quad, cv::Scalar(128));
        }
        return out;
    }

    void start(Detection detection) {
        Tracked tracked{detection.target, std::move(detection.alignment)};
        thin(tracked.alignment);
        tracked.alignedPoints = tracked.alignment.framePoints.size();
        tracked_.push_back(std::move(tracked));
    }

    void followTracked(const cv::Mat& grey, const Pyramid& pyramid) {
        int minimum = 12;
        std::erase_if(tracked_, [&](Tracked& tracked) {
            auto working = recognizer_->workingSize(tracked.target);
            int floor = std::max(minimum, int(0.3 * tracked.alignedPoints));
            if (previous_.empty() || !follow(previous_, pyramid, working, tracked.alignment, floor))
                return true;
            // Re-align with the reference now and then, and when points thin out, so that
            // errors of frame-to-frame tracking do not add up.
            if (++tracked.framesSinceAlignment >= kRealignEvery ||
                tracked.alignment.framePoints.size() < 0.6 * tracked.alignedPoints) {
                Alignment aligned = tracked.alignment;
                if (recognizer_->refine(grey, tracked.target, aligned, &tracked.refinement)) {
                    tracked.alignment = std::move(aligned);
                    thin(tracked.alignment);
                    tracked.alignedPoints = tracked.alignment.framePoints.size();
                }
                tracked.framesSinceAlignment = 0;
            }
            return false;
        });
    }

    void adoptFound(const Pyramid& pyramid) {
        std::vector<Detection> found;
        Pyramid then;
        {
            std::lock_guard lock(worker_->mutex);
            found = std::move(worker_->found);
            worker_->found.clear();
            then = std::move(worker_->pyramid);
            worker_->pyramid.clear();
        }
        // The worker saw an older frame: carry what it found forward to this one.
        for (auto& detection : found) {
            auto known = trackedTargets();
            if (room() <= 0 || std::ranges::find(known, detection.target) != known.end())
                continue;
            if (follow(then, pyramid, recognizer_->workingSize(detection.target),
                       detection.alignment, 12))
                start(std::move(detection));
        }
    }

    void startRecognition(const cv::Mat& grey, const Pyramid& pyramid) {
        {
            std::lock_guard lock(worker_->mutex);
            if (worker_->busy)
                return;
            worker_->busy = true;
        }
        queue_->async([worker = worker_, recognizer = recognizer_, grey, pyramid,
                       skip = trackedTargets(), count = room()] {
            std::vector<Detection> found;
            if (auto pass = detail::ExitPass::enter())
                found = recognizer->detect(grey, skip, count);
            std::lock_guard lock(worker->mutex);
            worker->found = std::move(found);
            worker->pyramid = pyramid;
            worker->busy = false;
        });
    }

    ImageObservation observation(const Tracked& tracked, const CameraIntrinsics& intrinsics) const {
        ImageObservation out;
        out.referenceImage = references_[tracked.target];
        auto corners = detail::frameCorners(tracked.alignment.homography,
                                            recognizer_->workingSize(tracked.target));
        for (int i = 0; i < 4; ++i)
            out.corners[i] = {corners[i].x, corners[i].y};
        out.transform = poseOf(out.corners, out.referenceImage->physicalSize(), intrinsics);
        return out;
    }

    std::vector<ReferenceImagePtr> references_;
    int maximum_;
    RecognitionMode mode_;
    std::shared_ptr<const Recognizer> recognizer_;
    std::shared_ptr<WorkerState> worker_;
    std::vector<Tracked> tracked_;
    Pyramid previous_, spare_;
    cv::Mat grey_, laplacian_;
    int frameIndex_ = 0;
    FrameQuality quality_ = FrameQuality::initializing;
    // Last, so it is joined before the state its work items share is released.
    std::unique_ptr<DispatchQueue> queue_;
};

} // namespace

std::unique_ptr<ImageTracker> ImageTracker::create(std::vector<ReferenceImagePtr> images,
                                                   int maximumNumberOfTrackedImages,
                                                   RecognitionMode mode) {
    return std::make_unique<Tracker>(std::move(images), maximumNumberOfTrackedImages, mode);
}

} // namespace pelkit::ar
