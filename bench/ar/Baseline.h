// The plain OpenCV pipelines the recogniser and tracker are measured against.
//
// Recognition, kept as simple as it stays good:
// ORB (1000 features a frame; 500 a reference over 12 levels), bit-sampling LSH over every
// reference's descriptors (10 tables keyed on 16 bits; each frame descriptor's nearest within 64
// bits votes for its reference), the 5 best-voted references matched one by one with a 0.8 ratio
// test, a USAC homography with at least 12 inliers, then the corners refined by Lucas-Kanade on
// the frame warped back onto the reference.
#pragma once

#include "SyntheticFrame.h"

#include <opencv2/core.hpp>

#include <memory>
#include <optional>
#include <vector>

struct BaselineDetection {
    int target = -1;
    pelkit::ar::synthetic::Quad corners;
};

class Baseline {
public:
    explicit Baseline(const std::vector<cv::Mat>& greyReferences);
    ~Baseline();
    std::optional<BaselineDetection> detect(const cv::Mat& grey) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Tracking: pyramidal Lucas-Kanade (21x21 window, 3 levels) on Shi-Tomasi corners of the picture
// from one frame to the next, each frame's pyramid built once, a homography at 3 px; lost when
// fewer than max(12, 30% of the first count) agree, and not found again.
class BaselineTracker {
public:
    BaselineTracker(const cv::Mat& grey, const pelkit::ar::synthetic::Quad& corners, int points);
    bool track(const cv::Mat& grey); ///< false: lost, and done with
    const pelkit::ar::synthetic::Quad& corners() const { return corners_; }

private:
    std::vector<cv::Mat> pyramid_;
    std::vector<cv::Point2f> points_;
    std::size_t first_ = 0;
    pelkit::ar::synthetic::Quad corners_;
};
