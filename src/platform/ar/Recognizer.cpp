#include "Recognizer.h"

#include "Hamming.h"
#include "OpenCv.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numeric>

namespace pelkit::ar::detail {
namespace {

constexpr int kMaximumTables = 32;
constexpr int kMaximumKeyBits = 20;
constexpr int kMaximumDistance = 64; // bits of 256: beyond this a match is chance
// A bucket holding more descriptors than this keys a pattern that many pictures share (flat
// shading, strokes of text): it says little of which picture is there, and costs the most to
// look through. Its descriptors are still found through the other tables when near.
constexpr std::uint32_t kCrowdedBucket = 16;
constexpr std::size_t kCachedPictures = 16;
constexpr int kThumbnailSize = 64;   // pixels on a thumbnail's longer side
constexpr double kConverged = 0.5;   // pixels a refinement pass moves the corners at most when done
constexpr int kRefineLevels = 3;     // of Lucas-Kanade in a refinement pass, above the picture
constexpr double kFurthestMove = 20; // pixels a refinement pass follows a corner at most
// The edge a reference's features keep from its pyramid levels' edges. ORB's usual 31 pixels
// leave the coarse levels, which match a reference seen small or a long strip seen at any size,
// with few features or none; a descriptor reaching a little over the edge still matches.
constexpr int kReferenceEdge = 16;
const cv::Size kWindow(11, 11);    // of Lucas-Kanade in a refinement pass
constexpr int kRefinePoints = 100; // corners a refinement pass follows at most

Descriptor descriptorAt(const cv::Mat& descriptors, int row) {
    Descriptor d;
    std::memcpy(d.data(), descriptors.ptr(row), sizeof d);
    return d;
}

double quadArea(const std::array<cv::Point2d, 4>& q) {
    double sum = 0;
    for (int i = 0; i < 4; ++i)
        sum += q[i].x * q[(i + 1) % 4].y - q[(i + 1) % 4].x * q[i].y;
    return sum / 2;
}

// `picture` scaled by `scale`, at least `least` pixels a side.
cv::Mat shrunk(const cv::Mat& picture, double scale, int least) {
    cv::Mat out;
    cv::resize(picture, out,
               cv::Size(std::max(least, int(std::lround(picture.cols * scale))),
                        std::max(least, int(std::lround(picture.rows * scale)))),
               0, 0, cv::INTER_AREA);
    return out;
}

// Maps the pixels of a picture shrunk to `small` onto those of its original of size `full`,
// pixel centre to pixel centre.
cv::Matx33d fromShrunk(cv::Size small, cv::Size full) {
    double rx = double(small.width) / full.width, ry = double(small.height) / full.height;
    return cv::Matx33d(rx, 0, 0.5 * rx - 0.5, 0, ry, 0.5 * ry - 0.5, 0, 0, 1).inv();
}

// Normalised correlation of two float pictures whose means are already taken off.
double correlationOf(const cv::Mat& a, const cv::Mat& b) {
    return a.dot(b) / std::max(1e-6, std::sqrt(a.dot(a) * b.dot(b)));
}

// The least correlation of `a` and `b` (floats) over the cells of a 4x4 grid where `a` has
// detail, when that is at most three quarters of them; 1 when detail is all over `a`.
double weakestPartCorrelation(const cv::Mat& a, const cv::Mat& b) {
    constexpr int kCells = 4;
    std::array<cv::Mat, kCells * kCells> as, bs;
    std::array<double, kCells * kCells> variance{};
    double total = 0;
    for (int i = 0; i < kCells * kCells; ++i) {
        int x = i % kCells, y = i / kCells;
        cv::Rect cell(x * a.cols / kCells, y * a.rows / kCells, a.cols / kCells, a.rows / kCells);
        as[i] = a(cell) - cv::mean(a(cell))[0];
        bs[i] = b(cell) - cv::mean(b(cell))[0];
        variance[i] = as[i].dot(as[i]);
        total += variance[i];
    }
    // A cell with a quarter of the mean cell's variance has detail; plainer ones cannot tell.
    double weakest = 1;
    int detailed = 0;
    for (int i = 0; i < kCells * kCells; ++i)
        if (variance[i] > 0.25 * total / (kCells * kCells)) {
            ++detailed;
            weakest = std::min(weakest, correlationOf(as[i], bs[i]));
        }
    return detailed <= kCells * kCells * 3 / 4 ? weakest : 1;
}

// Of ORB's keypoints on each pyramid level, the share of `features` that it would keep there
// (the strongest), then the share of `extra` more where those are sparsest. Text and line
// drawings around a photograph have far stronger corners than the photograph, and would
// otherwise take nearly all of them.
std::vector<cv::KeyPoint> spreadOut(const std::vector<cv::KeyPoint>& keypoints, cv::Size size,
                                    int features, int extra) {
    constexpr int kColumns = 8, kRows = 6;
    auto cellOf = [&](cv::Point2f p) {
        return std::clamp(int(p.y * kRows / size.height), 0, kRows - 1) * kColumns +
               std::clamp(int(p.x * kColumns / size.width), 0, kColumns - 1);
    };
    std::vector<int> order(keypoints.size());
    std::iota(order.begin(), order.end(), 0);
    std::ranges::sort(order, [&](int a, int b) {
        if (keypoints[a].octave != keypoints[b].octave)
            return keypoints[a].octave < keypoints[b].octave;
        return keypoints[a].response > keypoints[b].response;
    });
    double all = double(std::max<std::size_t>(1, keypoints.size()));
    std::vector<cv::KeyPoint> kept;
    for (std::size_t from = 0, to = 0; from < order.size(); from = to) {
        while (to < order.size() && keypoints[order[to]].octave == keypoints[order[from]].octave)
            ++to;
        auto strongest = std::size_t(std::lround(features * double(to - from) / all));
        int more = int(std::lround(extra * double(to - from) / all));
        int perCell = int(std::min(to - from, strongest + more)) / (kColumns * kRows);
        std::array<int, kColumns * kRows> taken{};
        std::size_t i = from;
        for (; i < to && i - from < strongest; ++i) {
            ++taken[cellOf(keypoints[order[i]].pt)];
            kept.push_back(keypoints[order[i]]);
        }
        for (; i < to && more > 0; ++i)
            if (int& inCell = taken[cellOf(keypoints[order[i]].pt)]; inCell < perCell) {
                ++inCell;
                --more;
                kept.push_back(keypoints[order[i]]);
            }
    }
    return kept;
}

// ORB keypoints of `grey` whose positions are corrected for where OpenCV puts coarse-level ones,
// none within `edge` pixels of a level's edges; with `extra`, that many more besides where the
// strongest `features` are sparsest.
void orbFeatures(const cv::Mat& grey, int features, int levels, int fastThreshold, int edge,
                 std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors, int extra = 0) {
    auto orb = cv::ORB::create(extra > 0 ? 2 * features : features, 1.2f, levels, edge, 0, 2,
                               cv::ORB::HARRIS_SCORE, 31, fastThreshold);
    if (extra > 0) {
        // Twice as many found; only those kept are described.
        orb->detect(grey, keypoints);
        keypoints = spreadOut(keypoints, grey.size(), features, extra);
        orb->compute(grey, keypoints, descriptors);
    } else {
        orb->detectAndCompute(grey, cv::noArray(), keypoints, descriptors);
    }
    // OpenCV scales a coarse level's coordinates without the half-pixel shift between pixel
    // centres of the two levels, which puts them off by half a pixel per step of scale.
    for (auto& keypoint : keypoints)
        keypoint.pt += cv::Point2f(0.5f, 0.5f) * (std::pow(1.2f, float(keypoint.octave)) - 1);
}

} // namespace

cv::Mat workingPicture(const ReferenceImage& reference) {
    cv::Mat grey = cvx::uprightGrey(reference);
    double scale = double(kWorkingSize) / std::max(grey.cols, grey.rows);
    return scale < 1 ? shrunk(grey, scale, 1) : grey;
}

void referenceFeatures(const cv::Mat& working, const RecognizerSettings& settings,
                       std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors) {
    orbFeatures(working, settings.referenceFeatures, settings.referenceLevels,
                settings.referenceFastThreshold, kReferenceEdge, keypoints, descriptors);
}

std::array<cv::Point2d, 4> frameCorners(const cv::Matx33d& homography, cv::Size working) {
    double w = working.width - 0.5, h = working.height - 0.5;
    const cv::Point2d edges[] = {{-0.5, -0.5}, {w, -0.5}, {w, h}, {-0.5, h}};
    std::array<cv::Point2d, 4> out;
    for (int i = 0; i < 4; ++i) {
        cv::Vec3d p = homography * cv::Vec3d(edges[i].x, edges[i].y, 1);
        out[i] = {p[0] / p[2], p[1] / p[2]};
    }
    return out;
}

bool plausible(const std::array<cv::Point2d, 4>& corners, double minimumArea) {
    // Convex and not mirrored: every turn goes the same way as in the reference.
    for (int i = 0; i < 4; ++i) {
        auto a = corners[(i + 1) % 4] - corners[i], b = corners[(i + 2) % 4] - corners[(i + 1) % 4];
        if (a.cross(b) <= 0)
            return false;
    }
    return quadArea(corners) >= minimumArea;
}

// Bit-sampling locality-sensitive hashing: each table keys a descriptor on a fixed sample of its
// bits, so descriptors a few bits apart usually share a bucket in some table. Buckets are stored
// flat (offsets into one array per table) to keep lookups to two reads.
struct Recognizer::Index {
    int tables = 0, keyBits = 0;
    std::array<std::array<std::uint8_t, kMaximumKeyBits>, kMaximumTables> bits{};
    std::array<std::vector<std::uint32_t>, kMaximumTables> offsets, entries;
    std::vector<Descriptor> descriptors;
    std::vector<std::uint32_t> owner; // target of each descriptor
    std::vector<cv::Point2f> points;  // its position in the target's working picture

    std::uint32_t key(int table, const Descriptor& d) const {
        std::uint32_t k = 0;
        for (int b = 0; b < keyBits; ++b) {
            int bit = bits[table][b];
            k = (k << 1) | std::uint32_t((d[bit >> 6] >> (bit & 63)) & 1);
        }
        return k;
    }

    void build(int tableCount, int bitCount) {
        tables = std::clamp(tableCount, 1, kMaximumTables);
        // About one descriptor a bucket: fuller buckets make every lookup compare more of them.
        int wanted = std::max(bitCount, int(std::bit_width(descriptors.size())));
        keyBits = std::clamp(wanted, 4, kMaximumKeyBits);
        cv::RNG rng(0x5eed);
        for (auto& table : bits)
            for (auto& bit : table)
                bit = std::uint8_t(rng.uniform(0, 256));
        for (int t = 0; t < tables; ++t) {
            std::vector<std::uint32_t> keys(descriptors.size());
            offsets[t].assign((1u << keyBits) + 1, 0);
            for (std::size_t i = 0; i < descriptors.size(); ++i)
                ++offsets[t][(keys[i] = key(t, descriptors[i])) + 1];
            std::partial_sum(offsets[t].begin(), offsets[t].end(), offsets[t].begin());
            entries[t].resize(descriptors.size());
            auto fill = offsets[t];
            for (std::size_t i = 0; i < descriptors.size(); ++i)
                entries[t][fill[keys[i]]++] = std::uint32_t(i);
        }
    }
};

struct Recognizer::Target {
    cv::Size working;
    std::pair<std::uint32_t, std::uint32_t> features; // its range in the index
    DescriptorSet descriptors;                        // the same, for matching one by one
    cv::Mat thumbnail;                                // the working picture, small
};

Recognizer::Recognizer(const std::vector<ReferenceImagePtr>& references,
                       RecognizerSettings settings)
    : settings_(settings), references_(references), index_(std::make_unique<Index>()) {
    for (std::size_t t = 0; t < references.size(); ++t) {
        cv::Mat grey = workingPicture(*references[t]);
        std::vector<cv::KeyPoint> keypoints;
        cv::Mat descriptors;
        referenceFeatures(grey, settings_, keypoints, descriptors);
        auto first = std::uint32_t(index_->descriptors.size());
        cv::Mat thumbnail =
            shrunk(grey, double(kThumbnailSize) / std::max(grey.cols, grey.rows), 8);
        for (int i = 0; i < descriptors.rows; ++i) {
            index_->descriptors.push_back(descriptorAt(descriptors, i));
            index_->owner.push_back(std::uint32_t(t));
            index_->points.push_back(keypoints[i].pt);
        }
        targets_.push_back({grey.size(),
                            {first, first + std::uint32_t(descriptors.rows)},
                            DescriptorSet(std::span(index_->descriptors).subspan(first)),
                            thumbnail});
    }
    index_->build(settings_.tables, settings_.keyBits);
}

Recognizer::~Recognizer() = default;

std::size_t Recognizer::targetCount() const {
    return targets_.size();
}

cv::Size Recognizer::workingSize(int target) const {
    return targets_[target].working;
}

std::size_t Recognizer::databaseBytes() const {
    std::size_t n = index_->descriptors.size();
    std::size_t bytes = n * (sizeof(Descriptor) + sizeof(std::uint32_t) + sizeof(cv::Point2f));
    for (int t = 0; t < index_->tables; ++t)
        bytes += index_->entries[t].size() * 4 + index_->offsets[t].size() * 4;
    for (const auto& target : targets_)
        bytes += target.thumbnail.total() + target.descriptors.bytes();
    return bytes + targets_.size() * sizeof(Target);
}

namespace {

struct Hit {
    std::uint32_t id;
    int distance;
};

} // namespace

// The index's hits within kMaximumDistance of each frame descriptor, flat: hits of descriptor i
// are hits[first[i]] .. hits[first[i + 1]].
struct Recognizer::Lookup {
    std::vector<cv::KeyPoint> keypoints;
    cv::Mat descriptors;
    std::vector<Hit> hits;
    std::vector<std::uint32_t> first;
    std::vector<double> votes; // per target
};

void Recognizer::lookUp(Lookup& lookup) const {
    // The index is far bigger than the caches, and a lookup is three dependent reads at random
    // places (bucket offsets, entries, descriptors). Descriptors go in batches, each step asking
    // for what the next needs for the whole batch first, so the reads overlap instead of queueing.
    constexpr int kBatch = 16;
    thread_local std::vector<std::uint32_t> visited;
    thread_local std::uint32_t generation = 0;
    if (visited.size() < index_->descriptors.size()) {
        visited.assign(index_->descriptors.size(), 0);
        generation = 0;
    }
    const int tables = index_->tables;
    std::array<Descriptor, kBatch> batch;
    std::array<std::array<std::uint32_t, kMaximumTables>, kBatch> keys;
    std::array<std::uint32_t, kBatch + 1> idsFrom;
    std::vector<std::uint32_t> ids;
    // The hits of one descriptor among the ids that share a bucket with it, and its vote.
    auto vote = [&](const Descriptor& d, std::uint32_t idsBegin, std::uint32_t idsEnd) {
        auto from = std::uint32_t(lookup.hits.size());
        lookup.first.push_back(from);
        Hit best{0, kMaximumDistance + 1};
        for (auto i = idsBegin; i < idsEnd; ++i) {
            auto id = ids[i];
            int dist = distance(d, index_->descriptors[id]);
            if (dist > kMaximumDistance)
                continue;
            lookup.hits.push_back({id, dist});
            if (dist < best.distance)
                best = {id, dist};
        }
        if (best.distance > kMaximumDistance)
            return;
        // Only a feature clearly nearer one target than any other says which target is there:
        // grass, text and sky resemble many, and would make every picture full of them win.
        auto owner = index_->owner[best.id];
        int other = kMaximumDistance + 1;
        for (auto h = from; h < lookup.hits.size(); ++h)
            if (index_->owner[lookup.hits[h].id] != owner)
                other = std::min(other, lookup.hits[h].distance);
        if (best.distance < settings_.ratio * other)
            lookup.votes[owner] += 1;
    };
    lookup.first.reserve(lookup.descriptors.rows + 1);
    for (int from = 0; from < lookup.descriptors.rows; from += kBatch) {
        int count = std::min(kBatch, lookup.descriptors.rows - from);
        for (int b = 0; b < count; ++b) {
            batch[b] = descriptorAt(lookup.descriptors, from + b);
            for (int t = 0; t < tables; ++t) {
                keys[b][t] = index_->key(t, batch[b]);
                __builtin_prefetch(&index_->offsets[t][keys[b][t]]);
            }
        }
        for (int b = 0; b < count; ++b)
            for (int t = 0; t < tables; ++t)
                __builtin_prefetch(index_->entries[t].data() + index_->offsets[t][keys[b][t]]);
        ids.clear();
        for (int b = 0; b < count; ++b) {
            idsFrom[b] = std::uint32_t(ids.size());
            if (++generation == 0) {
                std::fill(visited.begin(), visited.end(), 0);
                generation = 1;
            }
            for (int t = 0; t < tables; ++t) {
                auto k = keys[b][t];
                if (index_->offsets[t][k + 1] - index_->offsets[t][k] > kCrowdedBucket)
                    continue;
                for (auto e = index_->offsets[t][k]; e < index_->offsets[t][k + 1]; ++e) {
                    auto id = index_->entries[t][e];
                    if (visited[id] == generation)
                        continue;
                    visited[id] = generation;
                    ids.push_back(id);
                    __builtin_prefetch(&index_->descriptors[id]);
                }
            }
        }
        idsFrom[count] = std::uint32_t(ids.size());
        for (int b = 0; b < count; ++b)
            vote(batch[b], idsFrom[b], idsFrom[b + 1]);
    }
    lookup.first.push_back(std::uint32_t(lookup.hits.size()));
}

void Recognizer::matchFromHits(const Lookup& lookup, int target, Alignment& alignment) const {
    const auto [begin, end] = targets_[target].features;
    for (int i = 0; i < lookup.descriptors.rows; ++i) {
        NearestTwo best;
        for (auto h = lookup.first[i]; h < lookup.first[i + 1]; ++h)
            if (lookup.hits[h].id >= begin && lookup.hits[h].id < end)
                best.add(lookup.hits[h].id, lookup.hits[h].distance);
        if (best.distinct(settings_.ratio, kMaximumDistance)) {
            alignment.referencePoints.push_back(index_->points[best.first]);
            alignment.framePoints.push_back(lookup.keypoints[i].pt);
        }
    }
}

void Recognizer::matchExhaustively(const Lookup& lookup, int target, Alignment& alignment) const {
    const Target& t = targets_[target];
    for (int i = 0; i < lookup.descriptors.rows; ++i) {
        auto nearest = t.descriptors.nearestTwo(descriptorAt(lookup.descriptors, i));
        if (nearest.distinct(settings_.ratio, kMaximumDistance)) {
            alignment.referencePoints.push_back(index_->points[t.features.first + nearest.first]);
            alignment.framePoints.push_back(lookup.keypoints[i].pt);
        }
    }
}

bool Recognizer::verify(const cv::Mat& grey, cv::Mat& halfGrey, int target,
                        Alignment& alignment) const {
    const auto& from = alignment.referencePoints;
    const auto& to = alignment.framePoints;
    if (int(from.size()) < std::min(settings_.minimumInliers, settings_.minimumAffineInliers))
        return false;
    double minimumArea = 0.002 * grey.total();
    std::vector<std::uint8_t> inliers;
    if (int(from.size()) >= settings_.minimumInliers) {
        // A wrong reference's matches are chance, and would use up every try: 500 find a
        // homography with 99.5% certainty where a third of the matches agree.
        cv::Mat h = cv::findHomography(from, to, cv::USAC_FAST, 4.0, inliers, 500, 0.995);
        if (!h.empty() && cv::countNonZero(inliers) >= settings_.minimumInliers &&
            plausible(frameCorners(cv::Matx33d(h), targets_[target].working), minimumArea)) {
            Alignment fitted = alignment;
            fitted.homography = cv::Matx33d(h);
            if (refine(grey, target, fitted)) {
                alignment = std::move(fitted);
                return true;
            }
            // In a picture of repeated detail (boards of squares) a dozen matches can agree on
            // a homography that sets part of it on the wrong copy and throws the far corners
            // off the frame; the affine map of the same matches may still place it.
        }
    }
    // A small, blurred or steeply tilted reference leaves too few matches for a homography, or
    // matches bunched in one part of it that a homography extrapolates wildly from; an affine map
    // needs fewer and extrapolates tamely, and refinement adds the perspective.
    cv::Mat a = cv::estimateAffine2D(from, to, inliers, cv::RANSAC, 5.0, 500, 0.995);
    if (a.empty() || cv::countNonZero(inliers) < settings_.minimumAffineInliers)
        return false;
    cv::Matx33d guess(a.at<double>(0, 0), a.at<double>(0, 1), a.at<double>(0, 2),
                      a.at<double>(1, 0), a.at<double>(1, 1), a.at<double>(1, 2), 0, 0, 1);
    if (!plausible(frameCorners(guess, targets_[target].working), minimumArea))
        return false;
    // Refinement costs a few milliseconds, and few matches often come from a wrong reference.
    if (halfGrey.empty())
        cv::pyrDown(grey, halfGrey);
    if (!looksAlike(halfGrey, target, guess))
        return false;
    alignment.homography = guess;
    return refine(grey, target, alignment, settings_.minimumAffineCorrelation);
}

bool Recognizer::looksAlike(const cv::Mat& halfGrey, int target,
                            const cv::Matx33d& homography) const {
    const Target& t = targets_[target];
    // Pixel centres: thumbnail -> working picture -> frame -> half-size frame.
    cv::Matx33d toHalf(0.5, 0, -0.25, 0, 0.5, -0.25, 0, 0, 1);
    cv::Mat seen;
    cv::warpPerspective(
        halfGrey, seen, cv::Mat(toHalf * homography * fromShrunk(t.thumbnail.size(), t.working)),
        t.thumbnail.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
    cv::Mat a, b;
    t.thumbnail.convertTo(a, CV_32F);
    seen.convertTo(b, CV_32F);
    a -= cv::mean(a)[0];
    b -= cv::mean(b)[0];
    return correlationOf(a, b) >= settings_.minimumGlanceCorrelation;
}

std::vector<Detection> Recognizer::detect(const cv::Mat& grey, const std::vector<int>& skip,
                                          int count) const {
    Lookup lookup;
    // As many features per pixel at any resolution, up to a point.
    double pixels = std::clamp(double(grey.total()) / (640 * 480), 1.0, 2.5);
    orbFeatures(grey, int(settings_.frameFeatures * pixels), settings_.frameLevels,
                settings_.frameFastThreshold, 31, lookup.keypoints, lookup.descriptors,
                int(settings_.frameSpreadFeatures * pixels));
    if (count <= 0 || lookup.descriptors.rows < settings_.minimumInliers || targets_.empty())
        return {};
    lookup.votes.assign(targets_.size(), 0);
    lookUp(lookup);
    for (int t : skip)
        lookup.votes[t] = -1;

    std::vector<int> order(targets_.size());
    std::iota(order.begin(), order.end(), 0);
    int shortlist = std::min<int>(settings_.candidates, int(order.size()));
    std::partial_sort(order.begin(), order.begin() + shortlist, order.end(),
                      [&](int a, int b) { return lookup.votes[a] > lookup.votes[b]; });
    while (shortlist > 0 && lookup.votes[order[shortlist - 1]] < settings_.minimumVotes)
        --shortlist;

    // The index's own matches settle most frames at little cost; matching the best few
    // candidates feature by feature finds the matches hashing missed, for the rest.
    std::vector<Detection> found;
    cv::Mat halfGrey; // made when first needed
    for (int exhaustive = 0; exhaustive < 2 && int(found.size()) < count; ++exhaustive)
        for (int c = 0;
             c < (exhaustive ? std::min(shortlist, settings_.exhaustiveCandidates) : shortlist) &&
             int(found.size()) < count;
             ++c) {
            int target = order[c];
            if (std::ranges::any_of(found, [&](const auto& d) { return d.target == target; }))
                continue;
            Alignment alignment;
            if (exhaustive)
                matchExhaustively(lookup, target, alignment);
            else
                matchFromHits(lookup, target, alignment);
            if (verify(grey, halfGrey, target, alignment))
                found.push_back({target, std::move(alignment)});
        }
    return found;
}

cv::Mat Recognizer::picture(int target) const {
    {
        std::lock_guard lock(cacheMutex_);
        for (auto& [t, picture] : cache_)
            if (t == target)
                return picture;
    }
    // Made outside the lock: another thread may make the same picture meanwhile, which costs
    // time but no harm. Matrices share their pixels, so a caller's copy outlives eviction.
    cv::Mat made = workingPicture(*references_[target]);
    std::lock_guard lock(cacheMutex_);
    if (cache_.size() == kCachedPictures)
        cache_.erase(cache_.begin());
    cache_.emplace_back(target, made);
    return made;
}

// The reference at about the scale it is seen at in the frame, and the corners to follow in it.
struct ScaledReference {
    double scale = 1; // of the working picture
    cv::Mat picture;
    std::vector<cv::Mat> pyramid; // for Lucas-Kanade, with derivatives, shared by the passes
    cv::Matx33d toWorking;        // the scaled picture's pixels -> working pixels
    std::vector<cv::Point2f> points;
    cv::Scalar mean, deviation; // of the picture's pixels
    cv::Mat half;               // the picture at half size, as floats less the mean
};

namespace {

// A reference is refined at the scale the frame shows it, never finer than its own: finer only
// costs time, and no more of the frame's detail is there to align with.
double refinementScale(cv::Size working, const cv::Matx33d& homography) {
    auto corners = frameCorners(homography, working);
    double seen = std::sqrt(std::abs(quadArea(corners)) / double(working.area()));
    return std::min(1.0, seen);
}

ScaledReference scaledReference(const cv::Mat& full, double r) {
    ScaledReference out;
    out.scale = r;
    out.picture = r < 0.9 ? shrunk(full, r, 32) : full;
    out.toWorking = fromShrunk(out.picture.size(), full.size());
    cv::buildOpticalFlowPyramid(out.picture, out.pyramid, kWindow, kRefineLevels);
    // Corners are looked for at half size, for a quarter of the cost: a corner there has texture
    // around it at full size too, which is all Lucas-Kanade needs. The pyramid holds each level's
    // picture followed by its derivatives. A half-size pixel i is put between full-size pixels 2i
    // and 2i + 1; on 2i, where the pyramid's filter centres it, every refinement measured a little
    // worse (graffiti pair 0.78 px against 0.46, static jitter 0.023 px against 0.019).
    int spacing = std::max(4, std::min(out.picture.cols, out.picture.rows) / 24);
    bool halve = out.pyramid.size() > 2 && std::min(out.picture.cols, out.picture.rows) >= 64;
    cv::goodFeaturesToTrack(halve ? out.pyramid[2] : out.picture, out.points, kRefinePoints, 0.01,
                            halve ? spacing / 2 : spacing);
    if (halve)
        for (auto& p : out.points)
            p = p * 2.f + cv::Point2f(0.5f, 0.5f);
    cv::meanStdDev(out.picture, out.mean, out.deviation);
    cv::resize(out.picture, out.half, cv::Size(), 0.5, 0.5, cv::INTER_AREA);
    out.half.convertTo(out.half, CV_32F, 1, -out.mean[0]);
    return out;
}

// One pass of refinement: the frame warped into the scaled reference's pixels, its corners
// followed into it with Lucas-Kanade, homography refitted. `weakestPart` is 1 when the two look
// alike enough overall that their parts need not be asked.
bool alignOnce(const cv::Mat& frame, const ScaledReference& scaled, int levels,
               const RecognizerSettings& settings, Alignment& alignment, double& correlation,
               double& weakestPart) {
    const int minimum = settings.minimumInliers;
    const cv::Mat& reference = scaled.picture;
    cv::Matx33d toFrame = alignment.homography * scaled.toWorking;
    cv::Mat warped;
    cv::warpPerspective(frame, warped, cv::Mat(toFrame), reference.size(),
                        cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
    // Lighting differs between the reference and the frame; match their brightness and contrast.
    const double mr = scaled.mean[0], sr = scaled.deviation[0];
    cv::Scalar mw, sw;
    cv::meanStdDev(warped, mw, sw);
    double gain = sw[0] > 1 ? sr / sw[0] : 1;
    warped.convertTo(warped, CV_8U, gain, mr - gain * mw[0]);
    // How alike the two look, once aligned: a wrong reference that happens to fit a homography
    // to a few points does not look like the frame. Compared at half size, where a blurred frame
    // still looks like its sharp reference.
    cv::Mat b;
    cv::resize(warped, b, cv::Size(), 0.5, 0.5, cv::INTER_AREA);
    b.convertTo(b, CV_32F, 1, -mr);
    correlation = correlationOf(scaled.half, b);
    weakestPart =
        correlation >= settings.minimumOverallLikeness ? 1 : weakestPartCorrelation(scaled.half, b);

    const auto& points = scaled.points;
    if (int(points.size()) < minimum)
        return false;
    std::vector<cv::Point2f> moved;
    std::vector<std::uint8_t> status;
    std::vector<float> error;
    // A start from a few feature matches can be off by a dozen pixels at the far corners; the
    // second pass starts within a pixel or two, and needs fewer levels.
    cv::calcOpticalFlowPyrLK(scaled.pyramid, warped, points, moved, status, error, kWindow, levels,
                             {cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, 0.01});
    std::vector<cv::Point2f> from, to;
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (!status[i] || cv::norm(moved[i] - points[i]) > kFurthestMove)
            continue;
        cv::Vec3d f = toFrame * cv::Vec3d(moved[i].x, moved[i].y, 1);
        cv::Vec3d p = scaled.toWorking * cv::Vec3d(points[i].x, points[i].y, 1);
        from.emplace_back(float(p[0]), float(p[1]));
        to.emplace_back(float(f[0] / f[2]), float(f[1] / f[2]));
    }
    if (int(from.size()) < minimum)
        return false;
    std::vector<std::uint8_t> inliers;
    cv::Mat h = cv::findHomography(from, to, cv::RANSAC, 1.5, inliers, 500, 0.995);
    // Blur and steep views lose many of the corners; pictures that already look alike need
    // half as many of them to agree.
    double share = correlation >= settings.minimumCorrelation ? 0.15 : 0.3;
    int needed = std::max<int>(minimum, int(share * double(points.size())));
    if (h.empty() || cv::countNonZero(inliers) < needed)
        return false;
    alignment.homography = cv::Matx33d(h);
    alignment.referencePoints.clear();
    alignment.framePoints.clear();
    for (std::size_t i = 0; i < from.size(); ++i)
        if (inliers[i]) {
            alignment.referencePoints.push_back(from[i]);
            alignment.framePoints.push_back(to[i]);
        }
    return true;
}

} // namespace

bool Recognizer::refine(const cv::Mat& grey, int target, Alignment& alignment,
                        double minimumCorrelation, RefinementCache* cache) const {
    const cv::Size working = targets_[target].working;
    double minimumArea = 0.002 * grey.total();
    double correlation = 0, weakestPart = 0;
    // The scale and corners chosen for the starting guess serve both passes: the second starts
    // within a pixel or two of the first's result. A caller's cache serves while the scale is
    // within a quarter of its own.
    double r = refinementScale(working, alignment.homography);
    std::shared_ptr<const ScaledReference> scaled;
    if (cache && cache->target == target && cache->scaled &&
        std::abs(std::log(cache->scaled->scale / r)) < std::log(1.25)) {
        scaled = cache->scaled;
    } else {
        scaled = std::make_shared<ScaledReference>(scaledReference(picture(target), r));
        if (cache)
            *cache = {target, scaled};
    }
    for (int pass = 0; pass < 2; ++pass) {
        auto before = frameCorners(alignment.homography, working);
        if (!alignOnce(grey, *scaled, pass == 0 ? kRefineLevels : 2, settings_, alignment,
                       correlation, weakestPart))
            return false;
        auto after = frameCorners(alignment.homography, working);
        if (!plausible(after, minimumArea))
            return false;
        // A pass that hardly moved the corners started where it ended: another would too.
        double moved = 0;
        for (int i = 0; i < 4; ++i)
            moved = std::max(moved, cv::norm(after[i] - before[i]));
        if (moved < kConverged)
            break;
    }
    return correlation >= minimumCorrelation && weakestPart >= settings_.minimumPartCorrelation;
}

} // namespace pelkit::ar::detail
