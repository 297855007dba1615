// Accuracy and speed of image recognition and tracking on scripted frames made from photographs
// shipped by Debian packages (opencv-doc and palapeli-data, which it needs; mate-backgrounds,
// ukui-wallpapers and lomiri-wallpapers-20.04 add photographs when installed), against a plain
// OpenCV pipeline measured in the same run.
//
//     ar_bench [--quick | --tracking | --targets N] [--no-baseline] [--cache DIR] [--shots FILE]
//
// One thread; the full run takes about five minutes once the picture pool is made, which takes
// about four. For trying a change: `--cache` keeps the pool in DIR between runs, `--targets N`
// runs one database size at 640x480, and `--shots` writes each frame's result, to compare two
// runs frame by frame.
//
// Frames: a target 0.2 m wide spanning 20-80% of the frame height, tilted up to 50 degrees, any
// in-plane rotation, over a photo, with blur, motion blur (a quarter of the frames), noise, a
// lighting ramp and JPEG quality 40-90; plus frames with no target (a photo that is not in the
// database drawn instead). Found = the right target with a mean corner error under 5 px.
#include "Baseline.h"
#include "OpenCv.h"
#include "Recognizer.h"
#include "SyntheticFrame.h"

#include <pelkit/ar/ImageTracker.h>

#include <opencv2/calib3d.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/flann.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <numeric>
#include <set>
#include <string>

using namespace pelkit;
using namespace pelkit::ar;
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;
double ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

double mean(const std::vector<double>& v) {
    return std::accumulate(v.begin(), v.end(), 0.0) / double(std::max<std::size_t>(1, v.size()));
}

double median(std::vector<double> v) {
    if (v.empty())
        return 0;
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

// ---- the photographs ----

struct Pool {
    std::vector<cv::Mat> backgrounds, decoys, targets, distractors; // BGR, at most 640 px
    int dropped = 0; // copies and pictures that show a part of another
    int refused = 0; // photographs that validation refuses as targets
};

std::vector<fs::path> photoFiles() {
    std::vector<fs::path> files;
    for (const char* dir : {"/usr/share/doc/opencv-doc/examples/data", "/usr/share/palapeli",
                            "/usr/share/doc/opencv-doc/opencv4/html", "/usr/share/backgrounds"}) {
        std::error_code error;
        for (fs::recursive_directory_iterator it(dir, error), end; !error && it != end;
             it.increment(error)) {
            auto ext = it->path().extension().string();
            if (ext == ".jpg" || ext == ".png")
                files.push_back(it->path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Sample data comes in series of one scene (left01..left14, aloeL/aloeR, leuvenA/leuvenB) that
// no recogniser could tell apart; keep one picture of each series.
std::string seriesOf(const fs::path& file) {
    std::string stem = file.stem().string();
    while (!stem.empty() && std::isdigit(static_cast<unsigned char>(stem.back())))
        stem.pop_back();
    if (stem.size() > 3 && std::string("LRAB").find(stem.back()) != std::string::npos)
        stem.pop_back();
    if (stem.starts_with("right"))
        stem = "left" + stem.substr(5);
    return stem;
}

ReferenceImagePtr referenceOf(const cv::Mat& picture) {
    return ReferenceImage::create(std::make_shared<image::Image>(cvx::toImage(picture)),
                                  ImageOrientation::up, 0.2);
}

// Plain ORB features of a picture, the same whatever the recogniser under test does, so that the
// pool of pictures does not change with it.
struct Features {
    std::vector<cv::KeyPoint> keypoints;
    cv::Mat descriptors;
};

Features plainFeatures(const cv::Mat& grey, int count) {
    Features out;
    std::vector<cv::KeyPoint> keypoints;
    cv::Mat descriptors;
    cv::ORB::create(count, 1.2f, 12)->detectAndCompute(grey, cv::noArray(), keypoints, descriptors);
    // Strongest first.
    std::vector<int> order(keypoints.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](int a, int b) { return keypoints[a].response > keypoints[b].response; });
    for (int i : order) {
        out.keypoints.push_back(keypoints[i]);
        out.descriptors.push_back(descriptors.row(i));
    }
    return out;
}

// Whether matched points of two pictures hold a homography's worth of agreement: enough of them
// map from one picture to the other by one plane's perspective.
bool shareAPlane(const std::vector<cv::Point2f>& from, const std::vector<cv::Point2f>& to) {
    if (from.size() < 15)
        return false;
    std::vector<std::uint8_t> inliers;
    cv::Mat h = cv::findHomography(from, to, cv::RANSAC, 6.0, inliers);
    return !h.empty() && cv::countNonZero(inliers) >= 15;
}

// Wallpaper packages ship one picture in several sizes and crops, and sample data repeats
// pictures too: a frame showing one of them would then count a right find as a wrong one. Drops
// every picture that shares a homography's worth of close features with an earlier one.
std::vector<bool> copies(const std::vector<Features>& features) {
    // The strongest features of each picture are enough to tell a copy, and keep this quick.
    auto strongest = [&](std::size_t i, int count) {
        const cv::Mat& d = features[i].descriptors;
        return d.rowRange(0, std::min(count, d.rows));
    };
    cv::BFMatcher matcher(cv::NORM_HAMMING);
    std::vector<bool> copy(features.size(), false);
    for (std::size_t i = 0; i < features.size(); ++i) {
        std::vector<std::vector<cv::DMatch>> matches;
        if (i > 0)
            matcher.knnMatch(strongest(i, 150), matches, 4);
        matcher.add(strongest(i, 300));
        std::map<int, std::pair<std::vector<cv::Point2f>, std::vector<cv::Point2f>>> shared;
        for (const auto& candidates : matches)
            for (const auto& m : candidates)
                if (m.distance < 50) {
                    shared[m.imgIdx].first.push_back(features[i].keypoints[m.queryIdx].pt);
                    shared[m.imgIdx].second.push_back(features[m.imgIdx].keypoints[m.trainIdx].pt);
                }
        copy[i] = std::ranges::any_of(shared, [](const auto& entry) {
            return shareAPlane(entry.second.first, entry.second.second);
        });
    }
    return copy;
}

// Which pictures show a part of one another: a picture inside another (a box in a scene), a
// photograph blended into a figure, two views of one board. Copies are told by the strongest
// features, which in a big picture rarely fall on the small part it shares; here all features
// of every picture go into one index, and each picture asked about is matched with all of them.
class Overlaps {
public:
    explicit Overlaps(const std::vector<Features>& features) : features_(features) {
        for (std::size_t i = 0; i < features.size(); ++i) {
            first_.push_back(descriptors_.rows);
            descriptors_.push_back(features[i].descriptors);
            owner_.insert(owner_.end(), features[i].descriptors.rows, int(i));
        }
        if (descriptors_.empty())
            return;
        // The index draws its hash functions from OpenCV's shared generator: seed it, for the
        // same pool on every run, and leave it as it was.
        cv::RNG saved = cv::theRNG();
        cv::theRNG() = cv::RNG(42);
        index_.build(descriptors_, cv::flann::LshIndexParams(20, 16, 0),
                     cvflann::FLANN_DIST_HAMMING);
        cv::theRNG() = saved;
    }

    // The pictures that share a homography's worth of close features with the `count` strongest
    // features of picture `i`, each feature matched once on either side.
    std::set<int> of(int i, int count) { return near(features_[i], count, i); }

    // The same of a picture outside the index.
    std::set<int> sharing(const Features& picture, int count) { return near(picture, count, -1); }

private:
    std::set<int> near(const Features& picture, int count, int i) {
        std::set<int> out;
        const cv::Mat& descriptors = picture.descriptors;
        if (descriptors.empty())
            return out;
        cv::Mat found, distances;
        index_.knnSearch(descriptors.rowRange(0, std::min(count, descriptors.rows)), found,
                         distances, 3, cv::flann::SearchParams());
        std::map<int, std::vector<std::array<int, 3>>> close; // distance, own feature, its row
        for (int r = 0; r < found.rows; ++r)
            for (int k = 0; k < found.cols; ++k) {
                int row = found.at<int>(r, k);
                if (row >= 0 && owner_[row] != i && distances.at<int>(r, k) < 50)
                    close[owner_[row]].push_back({distances.at<int>(r, k), r, row});
            }
        for (auto& [other, pairs] : close) {
            if (pairs.size() < 15)
                continue;
            std::sort(pairs.begin(), pairs.end());
            std::set<int> mine, theirs;
            std::vector<cv::Point2f> from, to;
            for (auto [distance, r, row] : pairs)
                if (!mine.count(r) && !theirs.count(row)) {
                    mine.insert(r);
                    theirs.insert(row);
                    from.push_back(picture.keypoints[r].pt);
                    to.push_back(features_[other].keypoints[row - first_[other]].pt);
                }
            if (shareAPlane(from, to))
                out.insert(other);
        }
        return out;
    }

    const std::vector<Features>& features_;
    cv::Mat descriptors_; // the index refers to these rows
    std::vector<int> first_, owner_;
    cv::flann::Index index_;
};

Pool loadPool(int distractorsWanted) {
    Pool pool;
    std::vector<cv::Mat> pictures;
    std::vector<bool> photographic;
    std::vector<Features> features;
    std::set<std::string> series;
    for (const auto& file : photoFiles()) {
        if (!series.insert(seriesOf(file)).second)
            continue;
        if (file.filename() == "graf1.png" || file.filename() == "graf3.png")
            continue; // the real pair is measured on its own
        cv::Mat picture = cv::imread(file.string(), cv::IMREAD_COLOR);
        if (picture.empty() || std::min(picture.cols, picture.rows) < 200)
            continue;
        double scale = 640.0 / std::max(picture.cols, picture.rows);
        if (scale < 1)
            cv::resize(picture, picture, cv::Size(), scale, scale, cv::INTER_AREA);
        cv::Mat grey;
        cv::cvtColor(picture, grey, cv::COLOR_BGR2GRAY);
        auto found = plainFeatures(grey, 500);
        if (found.keypoints.size() < 300)
            continue; // too plain to be a target
        // Screenshots and diagrams are mostly flat; they serve as distractors, photographs as
        // targets.
        cv::Mat mean8, sq8, g32;
        grey.convertTo(g32, CV_32F);
        cv::blur(g32, mean8, cv::Size(8, 8));
        cv::blur(g32.mul(g32), sq8, cv::Size(8, 8));
        cv::Mat variance = sq8 - mean8.mul(mean8);
        double flatShare = cv::countNonZero(variance < 9) / double(variance.total());
        pictures.push_back(picture);
        features.push_back(std::move(found));
        photographic.push_back(flatShare < 0.2);
    }
    auto copy = copies(features);
    std::vector<int> photos, drawings;
    for (std::size_t i = 0; i < pictures.size(); ++i)
        if (!copy[i])
            (photographic[i] ? photos : drawings).push_back(int(i));
    cv::RNG rng(42);
    for (std::size_t i = photos.size(); i > 1; --i)
        std::swap(photos[i - 1], photos[rng.uniform(0, int(i))]);
    for (std::size_t i = drawings.size(); i > 1; --i)
        std::swap(drawings[i - 1], drawings[rng.uniform(0, int(i))]);
    // A target, or a picture shown in frames, that shares a part with another picture in the
    // database turns right finds into wrong ones.
    std::vector<Features> detailed(pictures.size());
    for (std::size_t i = 0; i < pictures.size(); ++i)
        if (!copy[i]) {
            cv::Mat grey;
            cv::cvtColor(pictures[i], grey, cv::COLOR_BGR2GRAY);
            detailed[i] = plainFeatures(grey, 2000);
        }
    Overlaps overlaps(detailed);
    // Photographs are the targets; other pictures make the scenery and the distractors, which may
    // share parts with one another (they are never shown), but not with a target or the scenery.
    std::vector<int> targets, scenery, rest, distractors;
    std::set<int> sharing; // with a target or the scenery: in no role
    auto target = [&](int i) { return std::count(targets.begin(), targets.end(), i) > 0; };
    auto shown = [&](int i) {
        return target(i) || std::count(scenery.begin(), scenery.end(), i) > 0;
    };
    // A host is told which of its images cannot be recognised; those are no targets here either.
    auto valid = [&](int i) {
        std::promise<bool> answer;
        referenceOf(pictures[i])->validate([&](ErrorPtr error) { answer.set_value(!error); });
        return answer.get_future().get();
    };
    std::vector<int> refused;
    std::size_t nextPhoto = 0;
    while (targets.size() < 100 && (nextPhoto < photos.size() || !drawings.empty())) {
        int i;
        if (nextPhoto < photos.size()) {
            i = photos[nextPhoto++];
        } else {
            i = drawings.back();
            drawings.pop_back();
        }
        if (!valid(i)) {
            refused.push_back(i);
            continue;
        }
        // The strongest half of the features is enough between database pictures, at half the
        // cost; a picture shown in frames is matched with all of them.
        auto near = overlaps.of(i, 1000);
        if (sharing.count(i) || std::any_of(near.begin(), near.end(), target)) {
            sharing.insert(i);
            continue;
        }
        targets.push_back(i);
        sharing.insert(near.begin(), near.end());
    }
    rest.assign(photos.begin() + nextPhoto, photos.end());
    rest.insert(rest.end(), refused.begin(), refused.end());
    pool.refused = int(refused.size());
    for (int i : drawings) {
        if (scenery.size() < 30 && !sharing.count(i)) {
            auto near = overlaps.of(i, 2000);
            // Sharing a part with another picture of the scenery, or with one in no role, is
            // harmless; with a distractor, it makes this one a distractor too.
            if (std::all_of(near.begin(), near.end(),
                            [&](int j) { return sharing.count(j) || (shown(j) && !target(j)); })) {
                scenery.push_back(i);
                continue;
            }
            if (std::any_of(near.begin(), near.end(), shown)) {
                sharing.insert(i);
                continue;
            }
        }
        rest.push_back(i);
    }
    for (int i : rest)
        if (!sharing.count(i))
            distractors.push_back(i);
    pool.dropped = int(pictures.size() - targets.size() - scenery.size() - distractors.size());
    for (int i : targets)
        pool.targets.push_back(pictures[i]);
    for (std::size_t k = 0; k < scenery.size(); ++k)
        (k < 20 ? pool.backgrounds : pool.decoys).push_back(pictures[scenery[k]]);
    for (int i : distractors)
        pool.distractors.push_back(pictures[i]);
    // Too few photographs for a thousand references: halves and quarters of the distractors
    // stand in for more (never of targets, which would then match them). A part is checked
    // again: a distractor showing a part of a picture shown in frames several times (a logo
    // beside its variants) spreads its matches among the copies, and passes; one of its parts
    // may show a single copy, which the recogniser then finds in that frame.
    std::size_t base = pool.distractors.size();
    for (int part = 0; int(pool.distractors.size()) < distractorsWanted && part < 9; ++part)
        for (std::size_t i = 0; i < base && int(pool.distractors.size()) < distractorsWanted; ++i) {
            const cv::Mat& d = pool.distractors[i];
            cv::Rect crops[] = {{0, 0, d.cols / 2, d.rows},
                                {d.cols / 2, 0, d.cols / 2, d.rows},
                                {0, 0, d.cols, d.rows / 2},
                                {0, d.rows / 2, d.cols, d.rows / 2},
                                {d.cols / 4, d.rows / 4, d.cols / 2, d.rows / 2},
                                {0, 0, d.cols / 2, d.rows / 2},
                                {d.cols / 2, 0, d.cols / 2, d.rows / 2},
                                {0, d.rows / 2, d.cols / 2, d.rows / 2},
                                {d.cols / 2, d.rows / 2, d.cols / 2, d.rows / 2}};
            cv::Mat piece = d(crops[part]), grey;
            cv::cvtColor(piece, grey, cv::COLOR_BGR2GRAY);
            auto near = overlaps.sharing(plainFeatures(grey, 2000), 2000);
            if (std::any_of(near.begin(), near.end(), shown))
                continue;
            pool.distractors.push_back(piece.clone());
        }
    return pool;
}

// The pool as PNG files and a list of counts in `dir`, so that runs trying a change skip making
// it. Stale once validation or the installed pictures change: delete the folder then. A pool
// made by an earlier way of choosing its pictures is made anew.
constexpr int kPoolVersion = 2;

std::optional<Pool> cachedPool(const fs::path& dir, int distractorsWanted) {
    std::ifstream list(dir / "pool.txt");
    std::string tag;
    int version = 0;
    std::size_t counts[4];
    Pool pool;
    if (!(list >> tag >> version >> counts[0] >> counts[1] >> counts[2] >> counts[3] >>
          pool.dropped >> pool.refused) ||
        tag != "pool" || version != kPoolVersion || int(counts[3]) < distractorsWanted)
        return std::nullopt;
    std::vector<cv::Mat>* roles[] = {&pool.backgrounds, &pool.decoys, &pool.targets,
                                     &pool.distractors};
    for (int r = 0; r < 4; ++r)
        for (std::size_t i = 0; i < counts[r]; ++i) {
            cv::Mat picture = cv::imread((dir / cv::format("%d-%zu.png", r, i)).string());
            if (picture.empty())
                return std::nullopt;
            roles[r]->push_back(picture);
        }
    return pool;
}

void keepPool(const fs::path& dir, const Pool& pool) {
    fs::create_directories(dir);
    const std::vector<cv::Mat>* roles[] = {&pool.backgrounds, &pool.decoys, &pool.targets,
                                           &pool.distractors};
    for (int r = 0; r < 4; ++r)
        for (std::size_t i = 0; i < roles[r]->size(); ++i)
            cv::imwrite((dir / cv::format("%d-%zu.png", r, i)).string(), (*roles[r])[i]);
    // Written last: a run stopped halfway leaves no list, and the next one makes the pool anew.
    std::ofstream(dir / "pool.txt")
        << "pool " << kPoolVersion << ' ' << pool.backgrounds.size() << ' ' << pool.decoys.size()
        << ' ' << pool.targets.size() << ' ' << pool.distractors.size() << ' ' << pool.dropped
        << ' ' << pool.refused << '\n';
}

// ---- scripted frames ----

struct Shot {
    int target = -1; // -1: no target
    double size = 0, tilt = 0;
    bool motionBlur = false;
    synthetic::Quad corners{};
    cv::Mat frame; // grey
};

CameraIntrinsics intrinsicsFor(cv::Size resolution) {
    return CameraIntrinsics::fromFieldOfView(64 * CV_PI / 180,
                                             {resolution.width, resolution.height});
}

synthetic::Effects randomEffects(cv::RNG& rng, bool motion) {
    synthetic::Effects e;
    e.gain = rng.uniform(0.7, 1.2);
    e.lightingRamp = rng.uniform(-0.3, 0.3);
    e.blur = rng.uniform(0.0, 1.2);
    if (motion) {
        e.motionBlur = rng.uniform(4.0, 12.0);
        e.motionBlurAngle = rng.uniform(0.0, 180.0);
    }
    e.noise = rng.uniform(1.0, 5.0);
    e.jpegQuality = rng.uniform(40, 91);
    e.seed = rng.next();
    return e;
}

struct Placement {
    glm::dvec3 position, rotation;
};

// A pose that shows a picture of `physical` metres at `size` of the frame height, tilted by
// `tilt` degrees in a random direction and turned by any angle, wholly inside the frame.
Placement randomPlacement(cv::RNG& rng, glm::dvec2 physical, double size, double tilt,
                          const CameraIntrinsics& k, double maximumRoll = 360) {
    double f = k.matrix[0][0], cx = k.matrix[2][0], cy = k.matrix[2][1];
    double depth = f * std::max(physical.x, physical.y) / (size * k.imageResolution.y);
    double direction = rng.uniform(0.0, 2 * CV_PI), roll = rng.uniform(0.0, maximumRoll);
    glm::dvec3 rotation(tilt * std::cos(direction), tilt * std::sin(direction), roll);
    for (int attempt = 0; attempt < 40; ++attempt) {
        double spread = 1.0 - attempt / 40.0;
        double u = cx + rng.uniform(-1.0, 1.0) * spread * cx,
               v = cy + rng.uniform(-1.0, 1.0) * spread * cy;
        glm::dvec3 position((u - cx) * depth / f, -(v - cy) * depth / f, -depth);
        auto q = synthetic::project(synthetic::pose(position, rotation), physical, k);
        if (std::all_of(q.begin(), q.end(), [&](cv::Point2d p) {
                return p.x > 2 && p.y > 2 && p.x < k.imageResolution.x - 3 &&
                       p.y < k.imageResolution.y - 3;
            }))
            return {position, rotation};
    }
    return {{0, 0, -depth}, rotation};
}

glm::dmat4 randomPose(cv::RNG& rng, glm::dvec2 physical, double size, double tilt,
                      const CameraIntrinsics& k) {
    auto p = randomPlacement(rng, physical, size, tilt, k);
    return synthetic::pose(p.position, p.rotation);
}

glm::dvec2 physicalOf(const cv::Mat& picture) {
    return {0.2, 0.2 * picture.rows / picture.cols};
}

std::vector<Shot> makeShots(const Pool& pool, int targetCount, int positives, int negatives,
                            cv::Size resolution) {
    std::vector<Shot> shots;
    auto k = intrinsicsFor(resolution);
    for (int i = 0; i < positives + negatives; ++i) {
        cv::RNG rng(1000 + i);
        Shot shot;
        bool positive = i < positives;
        const cv::Mat& picture = positive ? pool.targets[i % std::min(targetCount, 100)]
                                          : pool.decoys[i % pool.decoys.size()];
        shot.target = positive ? i % std::min(targetCount, 100) : -1;
        shot.size = rng.uniform(0.2, 0.8);
        shot.tilt = rng.uniform(0.0, 50.0);
        shot.motionBlur = rng.uniform(0.0, 1.0) < 0.25;
        auto pose = randomPose(rng, physicalOf(picture), shot.size, shot.tilt, k);
        shot.corners = synthetic::project(pose, physicalOf(picture), k);
        cv::Mat background = synthetic::cover(
            pool.backgrounds[rng.uniform(0, int(pool.backgrounds.size()))], resolution);
        cv::Mat frame = synthetic::render(background, {{picture, shot.corners}},
                                          randomEffects(rng, shot.motionBlur));
        cv::cvtColor(frame, shot.frame, cv::COLOR_BGR2GRAY);
        shots.push_back(std::move(shot));
    }
    return shots;
}

double cornerError(const synthetic::Quad& a, const synthetic::Quad& b) {
    double sum = 0;
    for (int i = 0; i < 4; ++i)
        sum += cv::norm(a[i] - b[i]);
    return sum / 4;
}

// ---- recognition ----

struct Tally {
    int found = 0, positives = 0, falsePositives = 0, negatives = 0, onEmpty = 0;
    std::map<std::string, std::pair<int, int>> buckets; // found, total
    std::vector<double> errors, times;

    /// Counts one frame; whether its target was found.
    bool add(const Shot& shot, std::optional<std::pair<int, synthetic::Quad>> seen, double time) {
        times.push_back(time);
        if (shot.target < 0) {
            ++negatives;
            falsePositives += seen.has_value();
            onEmpty += seen.has_value();
            return false;
        }
        ++positives;
        bool hit =
            seen && seen->first == shot.target && cornerError(seen->second, shot.corners) < 5;
        if (seen && seen->first != shot.target)
            ++falsePositives;
        if (hit) {
            ++found;
            errors.push_back(cornerError(seen->second, shot.corners));
        }
        auto count = [&](const std::string& name) {
            buckets[name].first += hit;
            buckets[name].second += 1;
        };
        count(shot.size < 0.35 ? "size 20-35%" : "size 35-80%");
        count(shot.tilt < 35 ? "tilt 0-35" : "tilt 35-50");
        count(shot.motionBlur ? "motion blur" : "no motion blur");
        if (shot.size >= 0.35 && shot.tilt < 35 && !shot.motionBlur)
            count("moderate");
        return hit;
    }
    double recall() const { return positives ? double(found) / positives : 0; }
};

void printTally(const char* name, int targets, const Tally& t) {
    std::printf("  %-9s %4d targets: recall %.2f  false positives %d/%d (%d on frames without a "
                "target)  median corner error %.2f px  %.1f ms/frame\n",
                name, targets, t.recall(), t.falsePositives, t.negatives + t.positives, t.onEmpty,
                median(t.errors), median(t.times));
    std::string line = "            by bucket:";
    for (const auto& [bucket, counts] : t.buckets)
        line += " " + bucket + " " +
                cv::format("%.2f", counts.second ? double(counts.first) / counts.second : 0.0) +
                ";";
    std::printf("%s\n", line.c_str());
}

struct Options {
    bool quick = false;
    bool trackingOnly = false;
    bool baseline = true;
    int targets = 0;       // 0: 1, 8, 100 and 1000
    std::string cache;     // folder that keeps the picture pool between runs
    FILE* shots = nullptr; // one line per frame
};

void recognition(const Pool& pool, const Options& options, cv::Size resolution,
                 const std::vector<int>& sizes) {
    std::printf("\nRecognition at %dx%d (one thread)\n", resolution.width, resolution.height);
    int positives = options.quick ? 60 : 200, negatives = options.quick ? 30 : 100;
    for (int n : sizes) {
        std::vector<ReferenceImagePtr> references;
        std::vector<cv::Mat> greys;
        for (int i = 0; i < n; ++i) {
            const cv::Mat& picture = i < 100 ? pool.targets[i] : pool.distractors[i - 100];
            references.push_back(referenceOf(picture));
            cv::Mat grey;
            cv::cvtColor(picture, grey, cv::COLOR_BGR2GRAY);
            greys.push_back(grey);
        }
        auto started = Clock::now();
        detail::Recognizer ours(references);
        double buildMs = ms(Clock::now() - started);
        started = Clock::now();
        std::optional<Baseline> baseline;
        if (options.baseline)
            baseline.emplace(greys);
        double baselineBuildMs = ms(Clock::now() - started);
        auto shots = makeShots(pool, n, positives, negatives, resolution);
        Tally mine, plain;
        for (const auto& shot : shots) {
            // A camera hands over a frame just written; one made a while ago can be slow to read
            // again on a virtual machine, and that is not recognition's time.
            cv::Mat frame = shot.frame.clone();
            started = Clock::now();
            auto found = ours.detect(frame, {}, 1);
            double t = ms(Clock::now() - started);
            std::optional<std::pair<int, synthetic::Quad>> seen;
            if (!found.empty())
                seen = {found[0].target, detail::frameCorners(found[0].alignment.homography,
                                                              ours.workingSize(found[0].target))};
            bool hit = mine.add(shot, seen, t);
            if (options.shots)
                std::fprintf(options.shots,
                             "%dx%d targets %d frame %d target %d found %d size %.2f "
                             "tilt %.1f motion blur %d ms %.2f seen %d\n",
                             resolution.width, resolution.height, n, int(&shot - shots.data()),
                             shot.target, hit, shot.size, shot.tilt, shot.motionBlur, t,
                             seen ? seen->first : -1);
            // Both run on the same frame in the same second, so a machine's slow minutes slow both.
            if (!options.baseline)
                continue;
            frame = shot.frame.clone();
            started = Clock::now();
            auto other = baseline->detect(frame);
            t = ms(Clock::now() - started);
            seen.reset();
            if (other)
                seen = {other->target, other->corners};
            plain.add(shot, seen, t);
        }
        printTally("ours", n, mine);
        if (!baseline) {
            std::printf("  database build %.2f ms and %.1f KB per target\n", buildMs / n,
                        ours.databaseBytes() / 1024.0 / n);
            continue;
        }
        printTally("baseline", n, plain);
        std::printf("  ratios: recall %.2fx, time %.2fx, build time %.2fx; database build %.2f ms "
                    "and %.1f KB per target (baseline build %.2f ms per target)\n",
                    plain.recall() > 0 ? mine.recall() / plain.recall() : 0.0,
                    median(plain.times) > 0 ? median(mine.times) / median(plain.times) : 0.0,
                    buildMs / baselineBuildMs, buildMs / n, ours.databaseBytes() / 1024.0 / n,
                    baselineBuildMs / n);
        std::fflush(stdout);
    }
}

// ---- the real pair ----

void graffiti() {
    const fs::path dir = "/usr/share/doc/opencv-doc/examples/data";
    cv::Mat one = cv::imread((dir / "graf1.png").string(), cv::IMREAD_COLOR);
    cv::Mat three = cv::imread((dir / "graf3.png").string(), cv::IMREAD_GRAYSCALE);
    cv::FileStorage truth((dir / "H1to3p.xml").string(), cv::FileStorage::READ);
    cv::Mat h;
    if (truth.isOpened())
        truth.getFirstTopLevelNode() >> h;
    if (one.empty() || three.empty() || h.empty()) {
        std::printf("\nGraffiti pair: not found under %s (opencv-doc)\n", dir.c_str());
        return;
    }
    cv::Matx33d groundTruth(h);
    synthetic::Quad expected;
    double w = one.cols - 0.5, hh = one.rows - 0.5;
    const cv::Point2d edges[] = {{-0.5, -0.5}, {w, -0.5}, {w, hh}, {-0.5, hh}};
    for (int i = 0; i < 4; ++i) {
        cv::Vec3d p = groundTruth * cv::Vec3d(edges[i].x, edges[i].y, 1);
        expected[i] = {p[0] / p[2], p[1] / p[2]};
    }
    detail::Recognizer ours({referenceOf(one)});
    auto found = ours.detect(three, {}, 1);
    cv::Mat grey;
    cv::cvtColor(one, grey, cv::COLOR_BGR2GRAY);
    auto plain = Baseline(std::vector<cv::Mat>{grey}).detect(three);
    std::printf(
        "\nGraffiti pair graf1 -> graf3 against H1to3p: ours %s, baseline %s\n",
        found.empty()
            ? "not found"
            : cv::format("%.2f px", cornerError(detail::frameCorners(found[0].alignment.homography,
                                                                     ours.workingSize(0)),
                                                expected))
                  .c_str(),
        plain ? cv::format("%.2f px", cornerError(plain->corners, expected)).c_str() : "not found");
}

// ---- tracking ----

struct Sequence {
    std::vector<CameraFrame> frames;
    std::vector<synthetic::Quad> corners;
    std::vector<cv::Mat> greys;
};

// A target moving between three random poses (or standing still) over `length` frames.
Sequence makeSequence(const Pool& pool, int index, cv::Size resolution, int length, bool still) {
    cv::RNG rng(5000 + index);
    auto k = intrinsicsFor(resolution);
    const cv::Mat& picture = pool.targets[index % pool.targets.size()];
    auto physical = physicalOf(picture);
    std::vector<Placement> keys;
    for (int i = 0; i < (still ? 1 : 3); ++i)
        keys.push_back(
            randomPlacement(rng, physical, rng.uniform(0.35, 0.7), rng.uniform(0.0, 35.0), k, 60));
    cv::Mat background = synthetic::cover(
        pool.backgrounds[rng.uniform(0, int(pool.backgrounds.size()))], resolution);
    synthetic::Effects effects{1.0, 0.1, 0.6, 0, 0, 2.5, 85, 0};
    Sequence sequence;
    for (int n = 0; n < length; ++n) {
        double f = still ? 0 : double(n) / (length - 1) * 2;
        int a = std::min(int(f), int(keys.size()) - 1), b = std::min(a + 1, int(keys.size()) - 1);
        double t = f - a;
        auto position = keys[a].position + t * (keys[b].position - keys[a].position);
        auto rotation = keys[a].rotation + t * (keys[b].rotation - keys[a].rotation);
        auto corners = synthetic::project(synthetic::pose(position, rotation), physical, k);
        effects.seed = std::uint64_t(index) * 1000 + n;
        cv::Mat frame = synthetic::render(background, {{picture, corners}}, effects);
        CameraFrame camera;
        camera.image = std::make_shared<image::Image>(cvx::toImage(frame));
        camera.timestamp = n / 30.0;
        camera.intrinsics = k;
        sequence.frames.push_back(camera);
        sequence.corners.push_back(corners);
        cv::Mat grey;
        cv::cvtColor(frame, grey, cv::COLOR_BGR2GRAY);
        sequence.greys.push_back(grey);
    }
    return sequence;
}

synthetic::Quad quadOf(const ImageObservation& o) {
    synthetic::Quad q;
    for (int i = 0; i < 4; ++i)
        q[i] = {o.corners[i].x, o.corners[i].y};
    return q;
}

// Spread of each corner about its mean over the frames, averaged over the corners.
double jitter(const std::vector<synthetic::Quad>& seen) {
    if (seen.size() < 2)
        return -1;
    double sum = 0;
    for (int i = 0; i < 4; ++i) {
        cv::Point2d mean;
        for (const auto& q : seen)
            mean += q[i] / double(seen.size());
        double variance = 0;
        for (const auto& q : seen)
            variance += (q[i] - mean).dot(q[i] - mean) / 2 / seen.size();
        sum += std::sqrt(variance);
    }
    return sum / 4;
}

void tracking(const Pool& pool, const Options& options,
              const std::vector<ReferenceImagePtr>& references) {
    std::printf("\nTracking (database of %zu targets, at most one tracked)\n", references.size());
    detail::Recognizer recognizer(references);
    std::vector<double> tracked, detected;
    for (int s = 0; s < (options.quick ? 2 : 5); ++s) {
        auto sequence = makeSequence(pool, s, {640, 480}, 40, true);
        auto tracker = ImageTracker::create(references, 1, RecognitionMode::inline_);
        std::vector<synthetic::Quad> followed, found;
        for (std::size_t n = 0; n < sequence.frames.size(); ++n) {
            auto result = tracker->process(sequence.frames[n]);
            if (n > 0 && result.images.size() == 1)
                followed.push_back(quadOf(result.images[0]));
            auto detections = recognizer.detect(sequence.greys[n], {}, 1);
            if (!detections.empty())
                found.push_back(detail::frameCorners(detections[0].alignment.homography,
                                                     recognizer.workingSize(detections[0].target)));
        }
        tracked.push_back(jitter(followed));
        detected.push_back(jitter(found));
    }
    std::printf("  static jitter: tracked %.3f px, detected every frame %.3f px (median of %zu "
                "sequences)\n",
                median(tracked), median(detected), tracked.size());
    for (cv::Size resolution : {cv::Size(640, 480), cv::Size(1280, 720)}) {
        // Frames before an image is first found measure recognition; those after, tracking.
        int good = 0, total = 0, goodAfter = 0, after = 0, neverFound = 0, plainGood = 0;
        std::vector<double> times, errors, plainTimes;
        for (int s = 0; s < (options.quick ? 4 : 20); ++s) {
            auto sequence = makeSequence(pool, 10 + s, resolution, 60, false);
            auto tracker = ImageTracker::create(references, 1, RecognitionMode::inline_);
            bool was = false, found = false;
            for (std::size_t n = 0; n < sequence.frames.size(); ++n) {
                // As a camera hands it over: just written (see recognition()).
                CameraFrame frame = sequence.frames[n];
                frame.image = std::make_shared<image::Image>(*frame.image);
                auto started = Clock::now();
                auto result = tracker->process(frame);
                double t = ms(Clock::now() - started);
                bool ok =
                    result.images.size() == 1 &&
                    result.images[0].referenceImage == references[(10 + s) % references.size()] &&
                    cornerError(quadOf(result.images[0]), sequence.corners[n]) < 5;
                if (ok)
                    errors.push_back(cornerError(quadOf(result.images[0]), sequence.corners[n]));
                if (was && result.images.size() == 1)
                    times.push_back(t);
                was = result.images.size() == 1;
                found = found || ok;
                good += ok;
                ++total;
                goodAfter += found && ok;
                after += found;
            }
            neverFound += !found;
            if (!options.baseline)
                continue;
            // The plain tracker starts where the picture truly is, and is timed on the same frames
            // from the same start: the camera's picture, just written.
            BaselineTracker plain(sequence.greys[0], sequence.corners[0], 64);
            ++plainGood;
            for (std::size_t n = 1; n < sequence.frames.size(); ++n) {
                image::Image camera = *sequence.frames[n].image;
                auto started = Clock::now();
                bool followed = plain.track(cvx::grey(camera));
                double t = ms(Clock::now() - started);
                if (!followed)
                    break;
                plainTimes.push_back(t);
                plainGood += cornerError(plain.corners(), sequence.corners[n]) < 5;
            }
        }
        std::printf("  moving %dx%d: %.1f%% of %d frames tracked within 5 px, median corner error "
                    "%.2f px, %.2f ms per tracked image per frame (mean %.2f ms, with the "
                    "re-alignments)\n",
                    resolution.width, resolution.height, 100.0 * good / total, total,
                    median(errors), median(times), mean(times));
        std::printf("    once found: %.1f%% of %d frames; never found: %d of the sequences\n",
                    100.0 * goodAfter / std::max(1, after), after, neverFound);
        if (options.baseline) {
            std::printf(
                "    baseline, started on the true corners: %.1f%% of %d frames within 5 px, "
                "%.2f ms per image per frame (mean %.2f ms); ratios: time %.2fx, mean "
                "%.2fx\n",
                100.0 * plainGood / total, total, median(plainTimes), mean(plainTimes),
                median(times) / std::max(1e-9, median(plainTimes)),
                mean(times) / std::max(1e-9, mean(plainTimes)));
        }
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool valued = i + 1 < argc;
        if (arg == "--quick") {
            options.quick = true;
        } else if (arg == "--tracking") {
            options.trackingOnly = true;
        } else if (arg == "--no-baseline") {
            options.baseline = false;
        } else if (arg == "--targets" && valued && std::atoi(argv[i + 1]) > 0) {
            options.targets = std::atoi(argv[++i]);
        } else if (arg == "--cache" && valued) {
            options.cache = argv[++i];
        } else if (arg == "--shots" && valued) {
            options.shots = std::fopen(argv[++i], "w");
            if (!options.shots) {
                std::fprintf(stderr, "ar_bench: cannot write %s\n", argv[i]);
                return 2;
            }
        } else {
            std::fprintf(stderr, "usage: ar_bench [--quick | --tracking | --targets N] "
                                 "[--no-baseline] [--cache DIR] [--shots FILE]\n");
            return 2;
        }
    }
    cv::setNumThreads(1);
    auto started = Clock::now();
    // Tracking needs the targets only, which come first whatever the number of distractors.
    int distractors =
        options.quick || options.trackingOnly ? 0 : std::max(900, options.targets - 100);
    std::optional<Pool> cached;
    if (!options.cache.empty())
        cached = cachedPool(options.cache, distractors);
    Pool pool = cached ? std::move(*cached) : loadPool(distractors);
    if (!options.cache.empty() && !cached)
        keepPool(options.cache, pool);
    std::printf(
        "Pictures: %zu backgrounds, %zu decoys, %zu targets, %zu distractors; %d dropped as "
        "copies or parts of others; %d photographs refused as targets by validation (%.1f s)\n",
        pool.backgrounds.size(), pool.decoys.size(), pool.targets.size(), pool.distractors.size(),
        pool.dropped, pool.refused, ms(Clock::now() - started) / 1000);
    if (pool.targets.size() < 100) {
        std::fprintf(stderr,
                     "ar_bench: too few photographs; install opencv-doc and palapeli-data\n");
        return 1;
    }
    std::vector<ReferenceImagePtr> references;
    for (const auto& target : pool.targets)
        references.push_back(referenceOf(target));
    if (options.trackingOnly) {
        tracking(pool, options, references);
        return 0;
    }
    graffiti();
    if (options.targets > 0) {
        recognition(pool, options, {640, 480}, {options.targets});
        return 0;
    }
    std::vector<int> sizes =
        options.quick ? std::vector<int>{1, 100} : std::vector<int>{1, 8, 100, 1000};
    recognition(pool, options, {640, 480}, sizes);
    if (!options.quick)
        recognition(pool, options, {1280, 720}, sizes);
    tracking(pool, options, references);
    std::printf("\nTotal %.0f s\n", ms(Clock::now() - started) / 1000);
}
