// `pelkit track`: recognises the images of a folder in a camera's, a video's or a script's
// frames, prints each anchor's events, and can record the frames with every recognised image's
// outline and axes drawn on it.
#include "Track.h"

#include "common/CommandLine.h"

#include <pelkit/ar/SceneView.h>
#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/scene/Geometry.h>
#include <pelkit/scene/Material.h>

#include <glm/gtc/constants.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace pelkit::apps {
namespace {

constexpr const char* trackFooter = R"(
Loads every .jpg, .jpeg and .png of the folder as a reference image of the given physical
width, skips (with the reason on stderr) those too plain to track, and runs image tracking with
up to 8 images at once. Each event is one line on stdout: the frame's time, then
  added NAME at (x, y, z) m        the image was recognised; its centre in camera coordinates
  lost NAME / found NAME           it left the view, or came back
  updated NAME at (x, y, z) m      where it is, at most once a second while tracked
  removed NAME
  tracking STATE                   normal, limited (with the reason) or not available
and a summary of how many frames tracked each image at the end. A video or script is read as
fast as it can be tracked; a camera runs until --frames or Ctrl-C. --out writes the frames, with
each image's outline (green, grey when lost) and axes (x red, y green, z blue), to an MP4 file.
)";

struct TrackOptions {
    std::string images;
    double physicalWidth = 0;
    std::string camera, video, script, out;
    long long frames = 0;
};

std::atomic<bool> interrupted = false;

std::string formatted(const char* format, auto... values) {
    char text[256];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

std::string describe(const ar::TrackingState& state) {
    using Reason = ar::TrackingState::Reason;
    switch (state.status) {
    case ar::TrackingState::Status::normal:
        return "normal";
    case ar::TrackingState::Status::notAvailable:
        return "not available";
    case ar::TrackingState::Status::limited:
        break;
    }
    switch (state.reason) {
    case Reason::initializing:
        return "limited (initializing)";
    case Reason::excessiveMotion:
        return "limited (excessive motion)";
    case Reason::insufficientFeatures:
        return "limited (insufficient features)";
    case Reason::relocalizing:
        return "limited (relocalizing)";
    case Reason::none:
        break;
    }
    return "limited";
}

std::shared_ptr<scene::Node> bar(glm::vec2 size, glm::vec3 position,
                                 const std::shared_ptr<scene::Material>& material) {
    auto geometry = scene::Plane::create(size.x, size.y);
    geometry->setMaterials({material});
    auto node = scene::Node::create();
    node->setGeometry(geometry);
    node->setPosition(position);
    return node;
}

std::shared_ptr<scene::Material> colour(float r, float g, float b) {
    auto material = scene::Material::create();
    material->setDiffuseContents(scene::Color{r, g, b, 1});
    material->setFaces(scene::Faces::both);
    return material;
}

// The outline of an image of `size` metres and its axes, under an anchor's node.
void drawOutline(scene::Node& anchorNode, glm::vec2 size,
                 const std::shared_ptr<scene::Material>& outline) {
    const float t = size.x / 60, w = size.x / 2, h = size.y / 2, axis = size.x / 3;
    // The image's plane is the anchor's x-z plane; this lays the bars' x-y plane on it, +y up.
    auto flat = scene::Node::create();
    flat->setEulerAngles({-glm::half_pi<float>(), 0, 0});
    flat->addChildNode(bar({2 * w + t, t}, {0, h, 0}, outline));
    flat->addChildNode(bar({2 * w + t, t}, {0, -h, 0}, outline));
    flat->addChildNode(bar({t, 2 * h}, {-w, 0, 0}, outline));
    flat->addChildNode(bar({t, 2 * h}, {w, 0, 0}, outline));
    flat->addChildNode(bar({axis, t}, {axis / 2, 0, 0.001f}, colour(1, 0, 0)));
    flat->addChildNode(bar({t, axis}, {0, -axis / 2, 0.001f}, colour(0, 0, 1)));
    anchorNode.addChildNode(flat);
    // The normal stands out of the image.
    anchorNode.addChildNode(bar({t, axis}, {0, axis / 2, 0}, colour(0, 1, 0)));
}

// Prints the events and draws the outlines, on the view's renderer thread; the main thread
// waits for `finished`.
class TrackPrinter final : public ar::SceneViewDelegate {
public:
    explicit TrackPrinter(long long frameLimit) : frameLimit_(frameLimit) {}

    void didAdd(ar::SceneView&, const std::shared_ptr<scene::Node>& node,
                const ar::AnchorPtr& anchor) override {
        auto image = std::dynamic_pointer_cast<const ar::ImageAnchor>(anchor);
        if (!image)
            return;
        auto& seen = seen_[anchor->identifier()];
        seen.name = image->referenceImage()->name().value_or("?");
        seen.outline = colour(0.1f, 0.9f, 0.2f);
        seen.lastPrinted = time_;
        drawOutline(*node, glm::vec2(image->referenceImage()->physicalSize()), seen.outline);
        print("added " + seen.name + at(*anchor));
    }

    void didUpdate(ar::SceneView&, const std::shared_ptr<scene::Node>&,
                   const ar::AnchorPtr& anchor) override {
        auto image = std::dynamic_pointer_cast<const ar::ImageAnchor>(anchor);
        auto found = seen_.find(anchor->identifier());
        if (!image || found == seen_.end())
            return;
        auto& seen = found->second;
        if (image->isTracked() != seen.tracked) {
            seen.tracked = image->isTracked();
            seen.outline->setDiffuseContents(seen.tracked ? scene::Color{0.1f, 0.9f, 0.2f, 1}
                                                          : scene::Color{0.6f, 0.6f, 0.6f, 1});
            print((seen.tracked ? "found " : "lost ") + seen.name);
        } else if (seen.tracked && time_ - seen.lastPrinted >= 1.0) {
            print("updated " + seen.name + at(*anchor));
        } else {
            return;
        }
        seen.lastPrinted = time_;
    }

    void didRemove(ar::SceneView&, const std::shared_ptr<scene::Node>&,
                   const ar::AnchorPtr& anchor) override {
        if (auto found = seen_.find(anchor->identifier()); found != seen_.end())
            print("removed " + found->second.name);
    }

    void updateAtTime(ar::SceneView&, double time) override {
        time_ = time;
        if (!start_)
            start_ = time;
        ++frames_;
        for (auto& [identifier, seen] : seen_)
            seen.trackedFrames += seen.tracked;
        if (frameLimit_ > 0 && frames_ >= frameLimit_)
            finish(0);
    }

    void cameraDidChangeTrackingState(ar::Session&, const ar::TrackingState& state) override {
        print("tracking " + describe(state));
    }
    void didFailWithError(ar::Session&, const ErrorPtr& error) override {
        std::string text = error->description();
        if (auto session = std::dynamic_pointer_cast<const ar::SessionError>(error)) {
            text += " " + session->failureReason().value_or("");
            text += "\n" + session->recoverySuggestion().value_or("");
        }
        std::cerr << "pelkit: " << text << "\n";
        finish(1);
    }
    void wasInterrupted(ar::Session&) override { print("interrupted: no frames come"); }
    void interruptionEnded(ar::Session&) override { print("interruption ended"); }
    bool shouldAttemptRelocalization(ar::Session&) override { return true; }
    void sourceDidEnd(ar::Session&) override { finish(0); }

    /// Waits for the end (or Ctrl-C), then gives the exit status.
    int wait() {
        std::unique_lock lock(mutex_);
        while (!status_ && !interrupted)
            ended_.wait_for(lock, std::chrono::milliseconds(100));
        return status_.value_or(0);
    }

    /// One line per image: frames tracked of those seen. Call after the view is gone.
    void summarise() const {
        for (const auto& [identifier, seen] : seen_)
            printLine(formatted("%s: tracked in %d of %lld frames", seen.name.c_str(),
                                seen.trackedFrames, frames_));
        if (seen_.empty())
            printLine(formatted("no image recognised in %lld frames", frames_));
    }

private:
    struct Seen {
        std::string name;
        std::shared_ptr<scene::Material> outline;
        bool tracked = true;
        int trackedFrames = 0;
        double lastPrinted = 0;
    };

    std::string at(const ar::Anchor& anchor) const {
        auto p = anchor.transform()[3];
        return formatted(" at (%.3f, %.3f, %.3f) m", p.x, p.y, p.z);
    }
    void print(const std::string& event) const {
        printLine(formatted("%8.3f s  ", time_ - start_.value_or(time_)) + event);
    }
    void finish(int status) {
        std::lock_guard lock(mutex_);
        if (!status_)
            status_ = status;
        ended_.notify_all();
    }

    long long frameLimit_;
    std::map<std::uint64_t, Seen> seen_;
    double time_ = 0;
    std::optional<double> start_;
    long long frames_ = 0;
    std::mutex mutex_;
    std::condition_variable ended_;
    std::optional<int> status_;
};

// The folder's pictures that validate, in name order; the others are named on stderr.
std::vector<ar::ReferenceImagePtr> loadImages(const std::filesystem::path& folder, double width) {
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        auto extension = entry.path().extension().string();
        std::ranges::transform(extension, extension.begin(), ::tolower);
        if (entry.is_regular_file() &&
            (extension == ".jpg" || extension == ".jpeg" || extension == ".png"))
            files.push_back(entry.path());
    }
    std::ranges::sort(files);
    std::vector<ar::ReferenceImagePtr> images;
    std::mutex mutex;
    DispatchGroup group;
    for (const auto& file : files) {
        auto bytes = readFile(file);
        auto picture = bytes ? image::decode(*bytes) : std::unexpected(bytes.error());
        if (!picture) {
            std::cerr << "pelkit: skipping " << file.filename().string() << ": "
                      << picture.error()->description() << "\n";
            continue;
        }
        auto reference = ar::ReferenceImage::create(
            std::make_shared<image::Image>(std::move(*picture)), ar::ImageOrientation::up, width);
        reference->setName(file.filename().string());
        group.enter();
        reference->validate([&, reference](ErrorPtr invalid) {
            {
                std::lock_guard lock(mutex);
                if (invalid)
                    std::cerr << "pelkit: skipping " << *reference->name() << ": "
                              << invalid->description() << "\n";
                else
                    images.push_back(reference);
            }
            // Last: once the group is left the wait returns and `mutex` goes with its frame,
            // so it must be unlocked before.
            group.leave();
        });
    }
    group.wait();
    std::ranges::sort(images, {}, [](const auto& image) { return *image->name(); });
    return images;
}

ar::FrameFeed feedFor(const TrackOptions& options) {
    if (!options.camera.empty())
        return {[device = options.camera] { return ar::makeCameraSource(device); },
                ar::SourceKind::camera, ar::Clock::steady()};
    // A recording is read as fast as it is tracked; its frames keep their own times.
    if (!options.video.empty())
        return {[file = options.video] { return ar::makeVideoFileSource(file); },
                ar::SourceKind::recording, ar::Clock::fastForward()};
    return {[file = options.script] { return ar::makeScriptedSource(file); },
            ar::SourceKind::recording, ar::Clock::fastForward()};
}

int runTrack(const TrackOptions& options) {
    auto images = loadImages(options.images, options.physicalWidth);
    if (images.empty()) {
        std::cerr << "pelkit: no trackable .jpg, .jpeg or .png image in " << options.images << "\n";
        return 1;
    }
    auto printer = std::make_shared<TrackPrinter>(options.frames);
    int status = 0;
    {
        auto view = ar::SceneView::create(feedFor(options));
        view->setDelegate(printer);
        if (!options.out.empty()) {
            if (auto recording = view->startRecording(options.out); !recording) {
                std::cerr << "pelkit: cannot record: " << *recording.error() << "\n";
                return 1;
            }
        }
        ar::ImageTrackingConfiguration configuration;
        configuration.maximumNumberOfTrackedImages = 8;
        configuration.trackingImages = images;
        interrupted = false;
        auto previous = std::signal(SIGINT, [](int) { interrupted = true; });
        view->session().run(configuration,
                            ar::RunOptions::resetTracking | ar::RunOptions::removeExistingAnchors);
        status = printer->wait();
        std::signal(SIGINT, previous);
        view->session().pause();
        if (auto error = view->renderError())
            std::cerr << "pelkit: drawing failed: " << *error << "\n";
        if (!options.out.empty()) {
            auto recording = view->stopRecording();
            if (recording)
                std::cerr << "pelkit: wrote " << recording->frames << " frames to "
                          << recording->file.string() << "\n";
            else
                std::cerr << "pelkit: recording failed: " << *recording.error() << "\n";
            status = recording ? status : 1;
        }
    }
    printer->summarise();
    return status;
}

} // namespace

TrackCommand addTrack(CLI::App& pelkit) {
    auto* command = pelkit.add_subcommand(
        "track", "Recognises and follows the images of a folder in a camera, video or script.");
    command->footer(trackFooter);
    auto options = std::make_shared<TrackOptions>();
    command->add_option("--images", options->images, "the folder of images to look for")
        ->required()
        ->type_name("DIR")
        ->check(CLI::ExistingDirectory);
    command
        ->add_option("--physical-width", options->physicalWidth,
                     "the printed images' width in metres")
        ->required()
        ->type_name("M")
        ->check(CLI::PositiveNumber);
    auto* camera = command->add_option("--camera", options->camera, "a V4L2 camera, /dev/videoN")
                       ->type_name("DEV");
    auto* video = command->add_option("--video", options->video, "a video file")
                      ->type_name("FILE")
                      ->check(CLI::ExistingFile);
    auto* script = command->add_option("--script", options->script, "a camera script (JSON)")
                       ->type_name("FILE")
                       ->check(CLI::ExistingFile);
    camera->excludes(video, script);
    video->excludes(script);
    command->add_option("--out", options->out, "write the drawn frames to this MP4 file")
        ->type_name("FILE.mp4");
    command->add_option("--frames", options->frames, "stop after this many frames")
        ->type_name("N")
        ->check(wholeNumber(1, 1'000'000'000));
    return {command, [options] {
                if (options->camera.empty() && options->video.empty() && options->script.empty()) {
                    std::cerr << "pelkit track: needs one of --camera, --video or --script\n";
                    return badArgumentsStatus;
                }
                return runTrack(*options);
            }};
}

} // namespace pelkit::apps
