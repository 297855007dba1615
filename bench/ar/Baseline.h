// The plain OpenCV pipeline the recogniser is measured against, kept as simple as it stays good:
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
