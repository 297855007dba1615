#include "Baseline.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/flann.hpp>

#include <algorithm>
#include <numeric>

struct Baseline::Impl {
    cv::Ptr<cv::ORB> orb = cv::ORB::create(1000);
    cv::Ptr<cv::FlannBasedMatcher> matcher =
        cv::makePtr<cv::FlannBasedMatcher>(cv::makePtr<cv::flann::LshIndexParams>(12, 20, 2),
                                           cv::makePtr<cv::flann::SearchParams>(32));
    std::vector<std::vector<cv::Point2f>> points;
    std::vector<cv::Size> sizes;
};

Baseline::Baseline(const std::vector<cv::Mat>& greyReferences) : impl_(std::make_unique<Impl>()) {
    std::vector<cv::Mat> all;
    for (const auto& grey : greyReferences) {
        std::vector<cv::KeyPoint> keypoints;
        cv::Mat descriptors;
        impl_->orb->detectAndCompute(grey, cv::noArray(), keypoints, descriptors);
        std::vector<cv::Point2f> points;
        cv::KeyPoint::convert(keypoints, points);
        impl_->points.push_back(points);
        impl_->sizes.push_back(grey.size());
        all.push_back(descriptors.empty() ? cv::Mat(0, 32, CV_8U) : descriptors);
    }
    impl_->matcher->add(all);
    impl_->matcher->train();
}

Baseline::~Baseline() = default;

std::optional<BaselineDetection> Baseline::detect(const cv::Mat& grey) const {
    std::vector<cv::KeyPoint> keypoints;
    cv::Mat descriptors;
    impl_->orb->detectAndCompute(grey, cv::noArray(), keypoints, descriptors);
    if (descriptors.rows < 12)
        return std::nullopt;
    std::vector<std::vector<cv::DMatch>> matches;
    impl_->matcher->knnMatch(descriptors, matches, 2);
    std::vector<std::vector<cv::DMatch>> byTarget(impl_->points.size());
    for (const auto& m : matches)
        if (m.size() == 2 && m[0].distance < 0.8f * m[1].distance)
            byTarget[m[0].imgIdx].push_back(m[0]);
        else if (m.size() == 1)
            byTarget[m[0].imgIdx].push_back(m[0]);
    std::vector<int> order(byTarget.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(),
              [&](int a, int b) { return byTarget[a].size() > byTarget[b].size(); });
    for (int c = 0; c < std::min<int>(3, int(order.size())); ++c) {
        int t = order[c];
        if (byTarget[t].size() < 12)
            break;
        std::vector<cv::Point2f> from, to;
        for (const auto& m : byTarget[t]) {
            from.push_back(impl_->points[t][m.trainIdx]);
            to.push_back(keypoints[m.queryIdx].pt);
        }
        std::vector<std::uint8_t> inliers;
        cv::Mat h = cv::findHomography(from, to, cv::USAC_MAGSAC, 4.0, inliers);
        if (h.empty() || cv::countNonZero(inliers) < 12)
            continue;
        cv::Matx33d homography(h);
        double w = impl_->sizes[t].width - 0.5, hh = impl_->sizes[t].height - 0.5;
        const cv::Point2d edges[] = {{-0.5, -0.5}, {w, -0.5}, {w, hh}, {-0.5, hh}};
        BaselineDetection out{t, {}};
        for (int i = 0; i < 4; ++i) {
            cv::Vec3d p = homography * cv::Vec3d(edges[i].x, edges[i].y, 1);
            out.corners[i] = {p[0] / p[2], p[1] / p[2]};
        }
        double area = 0;
        for (int i = 0; i < 4; ++i)
            area += out.corners[i].x * out.corners[(i + 1) % 4].y -
                    out.corners[(i + 1) % 4].x * out.corners[i].y;
        if (area / 2 < 0.002 * grey.total())
            continue;
        return out;
    }
    return std::nullopt;
}
