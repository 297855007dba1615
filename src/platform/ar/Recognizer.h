// Finding reference images in a frame: ORB features of every reference in one hashed index, votes
// for the references a frame's features resemble, a homography (or, from few matches, an affine
// map) of the best voted, and a refinement that aligns the reference itself with the frame. Built
// once; `detect` and `refine` are const and may run on any thread, several at once.
#pragma once

#include <pelkit/ar/ReferenceImage.h>

#include <opencv2/core.hpp>

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace pelkit::ar::detail {

struct RecognizerSettings {
    int referenceFeatures = 500;
    int referenceLevels = 12;
    int referenceFastThreshold = 20; ///< FAST's threshold in references
    int frameFeatures = 1500;
    int frameSpreadFeatures = 225; ///< more, where the strongest are sparsest
    int frameLevels = 6;
    /// FAST's threshold in frames. Corners fainter than this add time rather than finds: from 12
    /// to 18, recognition took a tenth less time and found as many.
    int frameFastThreshold = 18;
    int candidates = 4;
    int exhaustiveCandidates = 2; ///< of them also matched feature by feature
    double minimumVotes = 4;
    int tables = 10;    ///< hash tables of the index
    int keyBits = 9;    ///< bits of a descriptor that key a table, at least
    double ratio = 0.8; ///< a match or vote must be this much nearer than the runner-up
    int minimumInliers = 12;
    double minimumCorrelation = 0.6; ///< of the aligned reference and frame
    /// Fewer matches than a homography needs can still place a small or blurred reference: an
    /// affine map of this many of them starts a refinement when the pictures look alike at a
    /// glance (correlation of thumbnails), and the refined reference must then look more alike
    /// than one placed by a homography: a board of squares fits another board of squares.
    int minimumAffineInliers = 6;
    double minimumGlanceCorrelation = 0.2;
    double minimumAffineCorrelation = 0.7;
    /// A reference whose detail lies in a few parts (a board on a plain table) earns its
    /// correlation there alone, and another board fits it there well enough: unless the
    /// pictures look this alike overall, each part with detail must look like the frame too.
    double minimumOverallLikeness = 0.8;
    double minimumPartCorrelation = 0.4;
};

/// Correspondences between a reference (in its working pixels) and a frame.
struct Alignment {
    cv::Matx33d homography = cv::Matx33d::eye(); // reference working pixels -> frame pixels
    std::vector<cv::Point2f> referencePoints;
    std::vector<cv::Point2f> framePoints;
};

struct Detection {
    int target = -1;
    Alignment alignment;
};

struct ScaledReference; // a reference made ready for refinement, at one scale

/// What refinement made ready of a reference, kept between calls by one that refines the same
/// reference again and again (a tracker): used again while the reference is seen at about the
/// same scale.
struct RefinementCache {
    int target = -1;
    std::shared_ptr<const ScaledReference> scaled;
};

/// A reference as the recogniser sees it: grey, upright, at most `kWorkingSize` pixels a side.
cv::Mat workingPicture(const ReferenceImage& reference);
constexpr int kWorkingSize = 640;

/// The ORB features the database keeps of a reference's working picture.
void referenceFeatures(const cv::Mat& working, const RecognizerSettings& settings,
                       std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors);

/// The outer corners of a working picture mapped into the frame.
std::array<cv::Point2d, 4> frameCorners(const cv::Matx33d& homography, cv::Size working);

/// Whether `corners` make a convex quadrilateral of at least `minimumArea` square pixels.
bool plausible(const std::array<cv::Point2d, 4>& corners, double minimumArea);

class Recognizer {
public:
    explicit Recognizer(const std::vector<ReferenceImagePtr>& references,
                        RecognizerSettings settings = {});
    ~Recognizer();

    /// Up to `count` references found in `grey`, best first, skipping those in `skip`.
    std::vector<Detection> detect(const cv::Mat& grey, const std::vector<int>& skip,
                                  int count) const;
    /// Aligns reference `target` to `grey` starting from `alignment`, sub-pixel; false when the
    /// reference does not hold up there. `cache`, when given, is the caller's own.
    bool refine(const cv::Mat& grey, int target, Alignment& alignment,
                RefinementCache* cache = nullptr) const {
        return refine(grey, target, alignment, settings_.minimumCorrelation, cache);
    }

    cv::Size workingSize(int target) const;
    std::size_t targetCount() const;
    /// Bytes the index and features take, for the benchmarks.
    std::size_t databaseBytes() const;

private:
    struct Index;
    struct Target;
    struct Lookup;
    void lookUp(Lookup& lookup) const;
    void matchFromHits(const Lookup& lookup, int target, Alignment& alignment) const;
    void matchExhaustively(const Lookup& lookup, int target, Alignment& alignment) const;
    bool verify(const cv::Mat& grey, cv::Mat& halfGrey, int target, Alignment& alignment) const;
    bool looksAlike(const cv::Mat& halfGrey, int target, const cv::Matx33d& homography) const;
    bool refine(const cv::Mat& grey, int target, Alignment& alignment, double minimumCorrelation,
                RefinementCache* cache = nullptr) const;
    cv::Mat picture(int target) const;

    RecognizerSettings settings_;
    std::vector<ReferenceImagePtr> references_;
    std::vector<Target> targets_;
    std::unique_ptr<Index> index_;
    mutable std::mutex cacheMutex_;
    mutable std::vector<std::pair<int, cv::Mat>> cache_; // recently refined working pictures
};

} // namespace pelkit::ar::detail
