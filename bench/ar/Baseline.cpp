#include "Baseline.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace {

constexpr int kTables = 10, kKeyBits = 16, kNearest = 64, kMinVotes = 4, kCandidates = 5;
constexpr int kMinInliers = 12;

// Hamming distance between two 256-bit descriptors, with the processor's popcount where it has one.
__attribute__((target_clones("popcnt", "default"))) int hamming(const std::uint8_t* a,
                                                                const std::uint8_t* b) {
    int d = 0;
    for (int i = 0; i < 32; i += 8) {
        std::uint64_t x, y;
        std::memcpy(&x, a + i, 8);
        std::memcpy(&y, b + i, 8);
        d += std::popcount(x ^ y);
    }
    return d;
}

struct Reference {
    cv::Mat grey, descriptors;
    std::vector<cv::Point2f> points, corners; // keypoints; Shi-Tomasi corners for refinement
    cv::Scalar mean, deviation;
};

cv::Point2d mapped(const cv::Matx33d& h, cv::Point2d point) {
    cv::Vec3d p = h * cv::Vec3d(point.x, point.y, 1);
    return {p[0] / p[2], p[1] / p[2]};
}

std::array<cv::Point2d, 4> cornersOf(const cv::Matx33d& h, cv::Size size) {
    double w = size.width - 0.5, hh = size.height - 0.5;
    return {mapped(h, {-0.5, -0.5}), mapped(h, {w, -0.5}), mapped(h, {w, hh}),
            mapped(h, {-0.5, hh})};
}

// A convex quad, corners in order, covering at least 0.2% of the frame.
bool plausible(const std::array<cv::Point2d, 4>& q, cv::Size frame) {
    double area = 0;
    int sign = 0;
    for (int i = 0; i < 4; ++i) {
        cv::Point2d a = q[(i + 1) % 4] - q[i], b = q[(i + 2) % 4] - q[(i + 1) % 4];
        int s = a.cross(b) > 0 ? 1 : -1;
        if (sign != 0 && s != sign)
            return false;
        sign = s;
        area += q[i].cross(q[(i + 1) % 4]);
    }
    return std::abs(area) / 2 >= 0.002 * frame.area();
}

} // namespace

struct Baseline::Impl {
    cv::Ptr<cv::ORB> frameOrb = cv::ORB::create(1000);
    std::vector<Reference> references;
    cv::Mat all;            // every reference's descriptors, one after another
    std::vector<int> owner; // the reference of each row of `all`
    std::array<std::array<int, kKeyBits>, kTables> bits;
    std::array<std::vector<int>, kTables> starts, rows; // per table: bucket offsets into rows

    int key(int table, const std::uint8_t* d) const {
        int k = 0;
        for (int b : bits[table])
            k = k << 1 | (d[b >> 3] >> (b & 7) & 1);
        return k;
    }

    std::optional<cv::Matx33d> verify(const Reference& r,
                                      const std::vector<cv::KeyPoint>& keypoints,
                                      const cv::Mat& descriptors, cv::Size frame) const;
    cv::Matx33d refine(const Reference& r, const cv::Mat& grey, const cv::Matx33d& h) const;
};

Baseline::Baseline(const std::vector<cv::Mat>& greyReferences) : impl_(std::make_unique<Impl>()) {
    auto orb = cv::ORB::create(500, 1.2f, 12);
    std::vector<cv::Mat> descriptors;
    for (const auto& grey : greyReferences) {
        Reference r;
        r.grey = grey;
        std::vector<cv::KeyPoint> keypoints;
        orb->detectAndCompute(grey, cv::noArray(), keypoints, r.descriptors);
        // ORB reports a coarse level's keypoint at its pixel's corner, not its centre.
        for (const auto& k : keypoints) {
            float s = std::pow(1.2f, float(k.octave));
            r.points.push_back(k.pt + cv::Point2f(0.5f * (s - 1), 0.5f * (s - 1)));
        }
        cv::goodFeaturesToTrack(grey, r.corners, 120, 0.01, 8);
        cv::meanStdDev(grey, r.mean, r.deviation);
        for (int i = 0; i < r.descriptors.rows; ++i)
            impl_->owner.push_back(int(impl_->references.size()));
        if (!r.descriptors.empty())
            descriptors.push_back(r.descriptors);
        impl_->references.push_back(std::move(r));
    }
    if (!descriptors.empty())
        cv::vconcat(descriptors, impl_->all);
    cv::RNG rng(7);
    for (int t = 0; t < kTables; ++t) {
        for (auto& b : impl_->bits[t])
            b = rng.uniform(0, 256);
        std::vector<int> keys(impl_->all.rows);
        auto& starts = impl_->starts[t];
        starts.assign((1 << kKeyBits) + 1, 0);
        for (int i = 0; i < impl_->all.rows; ++i)
            ++starts[(keys[i] = impl_->key(t, impl_->all.ptr(i))) + 1];
        for (std::size_t k = 1; k < starts.size(); ++k)
            starts[k] += starts[k - 1];
        auto next = starts;
        impl_->rows[t].resize(impl_->all.rows);
        for (int i = 0; i < impl_->all.rows; ++i)
            impl_->rows[t][next[keys[i]]++] = i;
    }
}

Baseline::~Baseline() = default;

std::optional<BaselineDetection> Baseline::detect(const cv::Mat& grey) const {
    std::vector<cv::KeyPoint> keypoints;
    cv::Mat descriptors;
    impl_->frameOrb->detectAndCompute(grey, cv::noArray(), keypoints, descriptors);
    if (descriptors.rows < kMinInliers || impl_->all.empty())
        return std::nullopt;
    std::vector<int> votes(impl_->references.size());
    for (int q = 0; q < descriptors.rows; ++q) {
        const std::uint8_t* d = descriptors.ptr(q);
        int best = kNearest + 1, nearest = -1;
        for (int t = 0; t < kTables; ++t) {
            int k = impl_->key(t, d);
            for (int i = impl_->starts[t][k]; i < impl_->starts[t][k + 1]; ++i) {
                int row = impl_->rows[t][i], distance = hamming(d, impl_->all.ptr(row));
                if (distance < best)
                    best = distance, nearest = row;
            }
        }
        if (nearest >= 0)
            ++votes[impl_->owner[nearest]];
    }
    std::vector<int> order;
    for (int t = 0; t < int(votes.size()); ++t)
        if (votes[t] >= kMinVotes)
            order.push_back(t);
    std::sort(order.begin(), order.end(), [&](int a, int b) { return votes[a] > votes[b]; });
    order.resize(std::min<std::size_t>(order.size(), kCandidates));
    for (int t : order) {
        const Reference& r = impl_->references[t];
        auto h = impl_->verify(r, keypoints, descriptors, grey.size());
        if (!h)
            continue;
        cv::Matx33d refined = impl_->refine(r, grey, *h);
        auto corners = cornersOf(refined, r.grey.size());
        if (!plausible(corners, grey.size()))
            corners = cornersOf(*h, r.grey.size());
        return BaselineDetection{t, {corners[0], corners[1], corners[2], corners[3]}};
    }
    return std::nullopt;
}

std::optional<cv::Matx33d> Baseline::Impl::verify(const Reference& r,
                                                  const std::vector<cv::KeyPoint>& keypoints,
                                                  const cv::Mat& descriptors,
                                                  cv::Size frame) const {
    std::vector<cv::Point2f> from, to;
    for (int q = 0; q < descriptors.rows; ++q) {
        int best = 257, second = 257, nearest = -1;
        for (int i = 0; i < r.descriptors.rows; ++i) {
            int d = hamming(descriptors.ptr(q), r.descriptors.ptr(i));
            if (d < second) {
                second = d < best ? best : d;
                if (d < best)
                    best = d, nearest = i;
            }
        }
        if (nearest >= 0 && best < 0.8 * second) {
            from.push_back(r.points[nearest]);
            to.push_back(keypoints[q].pt);
        }
    }
    if (int(from.size()) < kMinInliers)
        return std::nullopt;
    std::vector<std::uint8_t> inliers;
    cv::Mat h = cv::findHomography(from, to, cv::USAC_FAST, 4.0, inliers);
    if (h.empty() || cv::countNonZero(inliers) < kMinInliers)
        return std::nullopt;
    cv::Matx33d homography(h);
    if (!plausible(cornersOf(homography, r.grey.size()), frame))
        return std::nullopt;
    return homography;
}

// Warps the frame onto the reference, matches its brightness, follows the reference's corners
// into it with Lucas-Kanade and fits the homography again on where they landed.
cv::Matx33d Baseline::Impl::refine(const Reference& r, const cv::Mat& grey,
                                   const cv::Matx33d& h) const {
    if (r.corners.size() < std::size_t(kMinInliers))
        return h;
    cv::Mat warped, mask;
    cv::warpPerspective(grey, warped, h, r.grey.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP);
    cv::warpPerspective(cv::Mat(grey.size(), CV_8U, cv::Scalar(255)), mask, h, r.grey.size(),
                        cv::INTER_NEAREST | cv::WARP_INVERSE_MAP);
    cv::Scalar mean, deviation;
    cv::meanStdDev(warped, mean, deviation, mask);
    if (deviation[0] > 1)
        warped.convertTo(warped, CV_8U, r.deviation[0] / deviation[0],
                         r.mean[0] - mean[0] * r.deviation[0] / deviation[0]);
    std::vector<cv::Point2f> moved;
    std::vector<std::uint8_t> status;
    std::vector<float> error;
    cv::calcOpticalFlowPyrLK(r.grey, warped, r.corners, moved, status, error, cv::Size(21, 21), 3);
    std::vector<cv::Point2f> from, to;
    for (std::size_t i = 0; i < moved.size(); ++i)
        if (status[i] && cv::Rect(cv::Point(), mask.size()).contains(moved[i]) &&
            mask.at<std::uint8_t>(cv::Point(moved[i])) != 0) {
            from.push_back(r.corners[i]);
            to.push_back(cv::Point2f(mapped(h, moved[i])));
        }
    if (int(from.size()) < kMinInliers)
        return h;
    std::vector<std::uint8_t> inliers;
    cv::Mat refined = cv::findHomography(from, to, cv::RANSAC, 1.5, inliers);
    if (refined.empty() || cv::countNonZero(inliers) < kMinInliers)
        return h;
    return cv::Matx33d(refined);
}

namespace {

const cv::Size kTrackWindow(21, 21);
constexpr int kTrackLevels = 3;

} // namespace

BaselineTracker::BaselineTracker(const cv::Mat& grey, const pelkit::ar::synthetic::Quad& corners,
                                 int points)
    : corners_(corners) {
    cv::Mat mask = cv::Mat::zeros(grey.size(), CV_8U);
    std::vector<cv::Point> polygon;
    for (const auto& c : corners)
        polygon.emplace_back(cv::Point(c));
    cv::fillConvexPoly(mask, polygon, cv::Scalar(255));
    cv::goodFeaturesToTrack(grey, points_, points, 0.01, 7, mask);
    first_ = points_.size();
    cv::buildOpticalFlowPyramid(grey, pyramid_, kTrackWindow, kTrackLevels);
}

bool BaselineTracker::track(const cv::Mat& grey) {
    std::vector<cv::Mat> pyramid;
    cv::buildOpticalFlowPyramid(grey, pyramid, kTrackWindow, kTrackLevels);
    std::vector<cv::Point2f> moved;
    std::vector<std::uint8_t> status;
    std::vector<float> error;
    cv::calcOpticalFlowPyrLK(pyramid_, pyramid, points_, moved, status, error, kTrackWindow,
                             kTrackLevels);
    std::vector<cv::Point2f> from, to;
    for (std::size_t i = 0; i < moved.size(); ++i)
        if (status[i]) {
            from.push_back(points_[i]);
            to.push_back(moved[i]);
        }
    std::size_t needed = std::max<std::size_t>(kMinInliers, first_ * 3 / 10);
    std::vector<std::uint8_t> inliers;
    cv::Mat h =
        from.size() >= needed ? cv::findHomography(from, to, cv::RANSAC, 3.0, inliers) : cv::Mat();
    if (h.empty() || std::size_t(cv::countNonZero(inliers)) < needed)
        return false;
    cv::Matx33d step(h);
    for (auto& c : corners_)
        c = mapped(step, c);
    points_.clear();
    for (std::size_t i = 0; i < to.size(); ++i)
        if (inliers[i])
            points_.push_back(to[i]);
    pyramid_ = std::move(pyramid);
    return true;
}
