// The plain OpenCV pipeline the recogniser is measured against: ORB 1000 features, FLANN's LSH
// index over every reference's descriptors, a 0.8 ratio test, votes, MAGSAC homography.
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
