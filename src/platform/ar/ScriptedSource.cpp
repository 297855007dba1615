// The scripted camera: a JSON timeline of pictures at poses over a background.
//
// Format (every key but "targets" optional; paths are relative to the script's folder):
//
//     {
//       "resolution": [640, 480],        // pixels; default 640x480
//       "fieldOfView": 60,               // horizontal, degrees; default 60
//       "frameRate": 30,                 // frames per second; default 30
//       "duration": 3,                   // seconds; default: up to the last keyframe
//       "background": "background.jpg",  // a picture scaled to cover the frame, or
//       "backgroundColor": [40, 40, 40], // a flat colour (RGB); default mid grey
//       "seed": 7,                       // the noise's seed
//       "effects": {"blur": 0.6, "noise": 2, "jpegQuality": 85},
//       "targets": [
//         {"image": "poster.jpg", "physicalWidth": 0.2,
//          "keyframes": [
//            {"time": 0, "position": [0, 0, -0.5], "rotation": [0, 0, 0]},
//            {"time": 2, "position": [0.05, 0, -0.4], "rotation": [-30, 10, 15]}]},
//         {"image": "flyer.png",
//          "keyframes": [{"time": 1, "corners": [[100, 80], [300, 90], [290, 260], [110, 250]]}]}
//       ]
//     }
//
// A keyframe places the picture either by a pose or by the frame pixels of its four corners
// (top-left, top-right, bottom-right, bottom-left). A pose is the position of the picture's centre
// in metres in the camera's coordinates (x right, y up, z toward the viewer, so a visible picture
// has a negative z) and a rotation in degrees about the camera's x, then y, then z axes, from
// upright and facing the camera; "physicalWidth" (metres, default 0.2) gives its size. Between
// keyframes every number is interpolated linearly; a picture is drawn from its first keyframe's
// time to its last's. "effects" is one object for the whole script or an array of them with a
// "time" each, interpolated the same way: "gain" (brightness factor, 1), "lightingRamp" (change of
// brightness across the frame, 0), "blur" (Gaussian sigma in pixels), "motionBlur" (smear length
// in pixels), "motionBlurAngle" (degrees), "noise" (sigma in grey levels), "jpegQuality" (1..100,
// 0 for none). Frame n is shown at time n / frameRate.
#include "OpenCv.h"
#include "SyntheticFrame.h"

#include <pelkit/ar/FrameSource.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Json.h>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <map>

namespace pelkit::ar {
namespace {

constexpr int kEffectCount = 7;

struct Keyframe {
    double time = 0;
    bool byCorners = false;
    std::vector<double> values; // position and rotation (6), or corners (8)
};

struct Target {
    cv::Mat picture;
    glm::dvec2 physicalSize{0.2, 0.2};
    std::vector<Keyframe> keyframes;
};

struct EffectKey {
    double time = 0;
    std::vector<double> values; // in the order of kEffectNames
};

constexpr const char* kEffectNames[kEffectCount] = {
    "gain", "lightingRamp", "blur", "motionBlur", "motionBlurAngle", "noise", "jpegQuality"};
constexpr double kEffectDefaults[kEffectCount] = {1, 0, 0, 0, 0, 0, 0};

struct Script {
    cv::Size resolution{640, 480};
    double fieldOfView = 60;
    double frameRate = 30;
    int frameCount = 0;
    std::uint64_t seed = 0;
    cv::Mat background;
    std::vector<Target> targets;
    std::vector<EffectKey> effects;
};

ErrorPtr scriptError(const std::filesystem::path& script, const std::string& what) {
    return Error::make("ar.script", 1, "script " + script.string() + ": " + what);
}

// Reads an array of exactly `count` numbers, or nothing when the key is absent.
Decoded<std::optional<std::vector<double>>> numbers(const JsonObject& object, const char* key,
                                                    std::size_t count) {
    auto array = object.decodeIfPresent<JsonArray>(key);
    if (!array)
        return std::unexpected(array.error());
    if (!*array)
        return std::optional<std::vector<double>>();
    std::vector<double> out;
    for (std::size_t i = 0; i < (*array)->size(); ++i) {
        auto value = (*array)->decode<double>(i);
        if (!value)
            return std::unexpected(value.error());
        out.push_back(*value);
    }
    if (out.size() != count)
        return std::unexpected(object.dataCorruptedError(
            key, "Expected " + std::to_string(count) + " numbers but found " +
                     std::to_string(out.size()) + "."));
    return std::optional(std::move(out));
}

Decoded<double> number(const JsonObject& object, const char* key, double fallback) {
    auto value = object.decodeIfPresent<double>(key);
    if (!value)
        return std::unexpected(value.error());
    return value->value_or(fallback);
}

Result<cv::Mat> readPicture(const std::filesystem::path& path) {
    auto bytes = readFile(path);
    if (!bytes)
        return std::unexpected(bytes.error());
    auto decoded = image::decode(*bytes);
    if (!decoded)
        return std::unexpected(decoded.error());
    return cvx::bgr(*decoded);
}

Decoded<Keyframe> readKeyframe(const JsonObject& object) {
    Keyframe key;
    auto time = object.decode<double>("time");
    if (!time)
        return std::unexpected(time.error());
    key.time = *time;
    auto corners = object.decodeIfPresent<JsonArray>("corners");
    if (!corners)
        return std::unexpected(corners.error());
    if (*corners) {
        key.byCorners = true;
        if ((*corners)->size() != 4)
            return std::unexpected(object.dataCorruptedError("corners", "Expected 4 corners."));
        for (std::size_t i = 0; i < 4; ++i) {
            auto corner = (*corners)->decode<JsonArray>(i);
            if (!corner)
                return std::unexpected(corner.error());
            for (std::size_t j = 0; j < 2 && j < corner->size(); ++j) {
                auto value = corner->decode<double>(j);
                if (!value)
                    return std::unexpected(value.error());
                key.values.push_back(*value);
            }
        }
        if (key.values.size() != 8)
            return std::unexpected(
                object.dataCorruptedError("corners", "Expected [x, y] for each corner."));
        return key;
    }
    auto position = numbers(object, "position", 3);
    if (!position)
        return std::unexpected(position.error());
    if (!*position)
        return std::unexpected(
            object.dataCorruptedError("position", "A keyframe needs a position or corners."));
    auto rotation = numbers(object, "rotation", 3);
    if (!rotation)
        return std::unexpected(rotation.error());
    key.values = **position;
    auto turn = rotation->value_or(std::vector<double>{0, 0, 0});
    key.values.insert(key.values.end(), turn.begin(), turn.end());
    return key;
}

Decoded<EffectKey> readEffects(const JsonObject& object) {
    EffectKey key;
    auto time = number(object, "time", 0);
    if (!time)
        return std::unexpected(time.error());
    key.time = *time;
    for (int i = 0; i < kEffectCount; ++i) {
        auto value = number(object, kEffectNames[i], kEffectDefaults[i]);
        if (!value)
            return std::unexpected(value.error());
        key.values.push_back(*value);
    }
    return key;
}

Result<Target> readTarget(const JsonObject& object, const std::filesystem::path& folder) {
    Target target;
    auto file = object.decode<std::string>("image");
    if (!file)
        return std::unexpected(file.error());
    auto picture = readPicture(folder / *file);
    if (!picture)
        return std::unexpected(picture.error());
    target.picture = *picture;
    auto width = number(object, "physicalWidth", 0.2);
    if (!width)
        return std::unexpected(width.error());
    target.physicalSize = {*width, *width * picture->rows / picture->cols};
    auto keyframes = object.decode<JsonArray>("keyframes");
    if (!keyframes)
        return std::unexpected(keyframes.error());
    auto keys = keyframes->decodeObjects(readKeyframe);
    if (!keys)
        return std::unexpected(keys.error());
    if (keys->empty())
        return std::unexpected(object.dataCorruptedError("keyframes", "No keyframes."));
    for (std::size_t i = 1; i < keys->size(); ++i)
        if ((*keys)[i].time < (*keys)[i - 1].time || (*keys)[i].byCorners != (*keys)[0].byCorners)
            return std::unexpected(object.dataCorruptedError(
                "keyframes", "Keyframes must be in time order, all by pose or all by corners."));
    target.keyframes = std::move(*keys);
    return target;
}

Result<void> readSettings(const JsonObject& root, const std::filesystem::path& folder,
                          Script& script) {
    auto resolution = numbers(root, "resolution", 2);
    if (!resolution)
        return std::unexpected(resolution.error());
    if (*resolution) {
        script.resolution = {int((**resolution)[0]), int((**resolution)[1])};
        if (script.resolution.width < 16 || script.resolution.height < 16 ||
            script.resolution.area() > 4096 * 4096)
            return std::unexpected(root.dataCorruptedError("resolution", "Out of range."));
    }
    auto fov = number(root, "fieldOfView", 60);
    auto rate = number(root, "frameRate", 30);
    auto seed = number(root, "seed", 0);
    if (!fov || !rate || !seed)
        return std::unexpected(!fov ? fov.error() : !rate ? rate.error() : seed.error());
    if (*fov <= 1 || *fov >= 179 || *rate <= 0 || *rate > 1000)
        return std::unexpected(
            root.dataCorruptedError("fieldOfView", "fieldOfView or frameRate out of range."));
    script.fieldOfView = *fov;
    script.frameRate = *rate;
    script.seed = std::uint64_t(std::max(0.0, *seed));
    auto background = root.decodeIfPresent<std::string>("background");
    auto colour = numbers(root, "backgroundColor", 3);
    if (!background || !colour)
        return std::unexpected(!background ? background.error() : colour.error());
    if (*background) {
        auto picture = readPicture(folder / **background);
        if (!picture)
            return std::unexpected(picture.error());
        script.background = synthetic::cover(*picture, script.resolution);
    } else {
        auto rgb = colour->value_or(std::vector<double>{128, 128, 128});
        script.background = cv::Mat(script.resolution, CV_8UC3, cv::Scalar(rgb[2], rgb[1], rgb[0]));
    }
    return {};
}

Result<void> readEffectTimeline(const JsonObject& root, Script& script) {
    if (auto array = root.decodeIfPresent<JsonArray>("effects"); array && *array) {
        auto keys = (*array)->decodeObjects(readEffects);
        if (!keys)
            return std::unexpected(keys.error());
        script.effects = std::move(*keys);
    } else if (auto object = root.decodeIfPresent<JsonObject>("effects"); !object) {
        return std::unexpected(object.error());
    } else if (*object) {
        auto key = readEffects(**object);
        if (!key)
            return std::unexpected(key.error());
        script.effects.push_back(std::move(*key));
    }
    return {};
}

Result<Script> readScript(const std::filesystem::path& path) {
    auto bytes = readFile(path);
    if (!bytes)
        return std::unexpected(bytes.error());
    auto parsed = JsonValue::parse(*bytes);
    if (!parsed)
        return std::unexpected(parsed.error());
    auto root = parsed->decode<JsonObject>();
    if (!root)
        return std::unexpected(root.error());
    Script script;
    auto folder = path.parent_path();
    if (auto settings = readSettings(*root, folder, script); !settings)
        return std::unexpected(settings.error());
    if (auto effects = readEffectTimeline(*root, script); !effects)
        return std::unexpected(effects.error());
    auto targets = root->decode<JsonArray>("targets");
    if (!targets)
        return std::unexpected(targets.error());
    for (std::size_t i = 0; i < targets->size(); ++i) {
        auto object = targets->decode<JsonObject>(i);
        if (!object)
            return std::unexpected(object.error());
        auto target = readTarget(*object, folder);
        if (!target)
            return std::unexpected(target.error());
        script.targets.push_back(std::move(*target));
    }
    double end = 0;
    for (const auto& target : script.targets)
        end = std::max(end, target.keyframes.back().time);
    auto duration = number(*root, "duration", end);
    if (!duration)
        return std::unexpected(duration.error());
    script.frameCount = int(std::floor(std::min(*duration, 36000.0) * script.frameRate + 1e-9)) + 1;
    return script;
}

// The values at `time` between the keys around it; nothing outside the keys' span.
template <class Key>
std::optional<std::vector<double>> interpolate(const std::vector<Key>& keys, double time) {
    if (keys.empty() || time < keys.front().time - 1e-9 || time > keys.back().time + 1e-9)
        return std::nullopt;
    auto next =
        std::find_if(keys.begin(), keys.end(), [&](const Key& k) { return k.time >= time; });
    if (next == keys.end() || next == keys.begin() || next->time - (next - 1)->time <= 0)
        return (next == keys.end() ? keys.back() : *next).values;
    auto& a = *(next - 1);
    double f = (time - a.time) / (next->time - a.time);
    std::vector<double> out(a.values.size());
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = a.values[i] + f * (next->values[i] - a.values[i]);
    return out;
}

class ScriptedSource final : public FrameSource {
public:
    explicit ScriptedSource(std::filesystem::path path) : path_(std::move(path)) {}

    Result<void> start() override {
        auto script = readScript(path_);
        if (!script)
            return std::unexpected(scriptError(path_, script.error()->description()));
        script_ = std::move(*script);
        intrinsics_ = CameraIntrinsics::fromFieldOfView(
            script_->fieldOfView * CV_PI / 180,
            {script_->resolution.width, script_->resolution.height});
        next_ = 0;
        return {};
    }

    Result<FrameOutcome> nextFrame(CameraFrame& frame, std::chrono::milliseconds) override {
        if (!script_)
            return std::unexpected(scriptError(path_, "not started"));
        if (next_ >= script_->frameCount)
            return FrameOutcome::ended;
        double time = next_ / script_->frameRate;
        frame.image = std::make_shared<image::Image>(cvx::toImage(draw(time)));
        frame.timestamp = time;
        frame.intrinsics = intrinsics_;
        ++next_;
        return FrameOutcome::frame;
    }

    void stop() override { script_.reset(); }

    std::string description() const override { return "script " + path_.string(); }

private:
    cv::Mat draw(double time) const {
        std::vector<synthetic::Placement> placements;
        for (const auto& target : script_->targets) {
            auto values = interpolate(target.keyframes, time);
            if (!values)
                continue;
            synthetic::Quad corners;
            if (target.keyframes[0].byCorners) {
                for (int i = 0; i < 4; ++i)
                    corners[i] = {(*values)[2 * i], (*values)[2 * i + 1]};
            } else {
                auto& v = *values;
                auto transform = synthetic::pose({v[0], v[1], v[2]}, {v[3], v[4], v[5]});
                // A picture reaching behind the camera is not drawn.
                if (v[2] >= -1e-3)
                    continue;
                corners = synthetic::project(transform, target.physicalSize, intrinsics_);
            }
            placements.push_back({target.picture, corners});
        }
        synthetic::Effects effects;
        if (const auto& keys = script_->effects; !keys.empty()) {
            // Before the first or after the last key, the nearest one holds.
            auto v = *interpolate(keys, std::clamp(time, keys.front().time, keys.back().time));
            effects = {
                v[0], v[1], v[2], v[3], v[4], v[5], std::clamp(int(std::lround(v[6])), 0, 100)};
        }
        effects.seed = script_->seed * 1000003u + std::uint64_t(next_);
        return synthetic::render(script_->background, placements, effects);
    }

    std::filesystem::path path_;
    std::optional<Script> script_;
    CameraIntrinsics intrinsics_;
    int next_ = 0;
};

} // namespace

std::unique_ptr<FrameSource> makeScriptedSource(std::filesystem::path script) {
    return std::make_unique<ScriptedSource>(std::move(script));
}

} // namespace pelkit::ar
