#include "Preview.h"

#include <pelkit/PELAudioNode.h>
#include <pelkit/PELGreenScreenNode.h>
#include <pelkit/PELRenderer.h>
#include <pelkit/PELStorage.h>
#include <pelkit/PELVideoNode.h>
#include <pelkit/net/HttpSession.h>

#include <glm/gtc/constants.hpp>
#include <glm/gtc/matrix_transform.hpp>

#include <algorithm>
#include <cmath>
#include <thread>

namespace pelkit::apps {
namespace {

constexpr float kFieldOfView = glm::radians(30.0f);
constexpr auto kPollInterval = std::chrono::milliseconds(10);

template <class Done> bool pollUntil(Done done, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

bool isPlaying(const media::Player& player) {
    return player.timeControlStatus() == media::TimeControlStatus::playing;
}

} // namespace

Result<std::shared_ptr<PELReferenceImage>> referenceImageFor(const PELTarget& target,
                                                             const std::string& appKey) {
    PELStorage storage(appKey);
    auto path = storage.getTargetImagePath(target.name);
    if (!path)
        return std::unexpected(path.error());
    auto bytes = readTargetImage(*path);
    if (!bytes)
        return std::unexpected(bytes.error());
    auto picture = image::decode(*bytes);
    if (!picture)
        return std::unexpected(picture.error());
    auto shared = std::make_shared<const image::Image>(std::move(*picture));
    auto reference = PELReferenceImage::create(
        shared, ar::ImageOrientation::up, target.physicalWidth, target.id, target.items,
        target.targetWidth.value_or(shared->width), target.targetHeight.value_or(shared->height));
    reference->setName(target.name);
    return reference;
}

PreviewScene makePreviewScene(std::shared_ptr<PELReferenceImage> reference,
                              const std::string& appKey, int maxSide) {
    PreviewScene preview;
    preview.anchor = scene::Node::create();
    // The anchor's y axis is the image's normal; turned toward the camera on +z, the factory's
    // root (turned back by -pi/2) lays the content in the view's x-y plane, +y up the image.
    preview.anchor->setEulerAngles({glm::half_pi<float>(), 0, 0});
    preview.content = PELRenderer().render(*reference, appKey);
    preview.anchor->addChildNode(preview.content);

    const auto& picture = *reference->image();
    double scale = std::min(1.0, double(maxSide) / std::max(picture.width, picture.height));
    preview.viewSize = {std::max(1, int(std::lround(picture.width * scale))),
                        std::max(1, int(std::lround(picture.height * scale)))};
    preview.camera = scene::Camera::perspective(kFieldOfView, preview.viewSize);
    // Far enough that the physical image exactly fills the view's height.
    float distance = float(reference->physicalSize().y / 2 / std::tan(kFieldOfView / 2));
    preview.camera.transform = glm::translate(glm::mat4(1), {0, 0, distance});
    preview.reference = std::move(reference);
    return preview;
}

bool waitForContent(const PreviewScene& scene, std::chrono::milliseconds timeout) {
    auto nodes = scene.content->childNodes<PELNode>();
    bool settled = pollUntil(
        [&] { return std::ranges::none_of(nodes, [](auto& node) { return node->isPreparing(); }); },
        timeout);
    // A presentation started by an answer runs on the completion queue: let it return.
    net::HttpSession::shared().callbackQueue().sync([] {});
    return settled;
}

int playAll(const PreviewScene& scene, std::chrono::milliseconds timeout) {
    int tapped = 0;
    std::vector<std::shared_ptr<media::Player>> started;
    for (const auto& node : scene.content->childNodes<PELNode>()) {
        if (auto video = std::dynamic_pointer_cast<PELVideoNode>(node)) {
            if (video->isFullscreen() || !video->videoUrl())
                continue;
            video->toggleVideoStatus();
            started.push_back(video->player());
        } else if (auto keyed = std::dynamic_pointer_cast<PELGreenScreenNode>(node)) {
            if (!keyed->player()->currentItem())
                continue;
            keyed->toggleVideoStatus();
            started.push_back(keyed->player());
        } else if (auto audio = std::dynamic_pointer_cast<PELAudioNode>(node)) {
            auto player = audio->player();
            if (!player || !player->currentItem() ||
                !pollUntil([&] { return player->status() != media::Status::unknown; }, timeout))
                continue;
            audio->toggleAudioPlaying();
            started.push_back(player);
        } else {
            continue;
        }
        ++tapped;
    }
    pollUntil([&] { return std::ranges::all_of(started, [](auto& p) { return isPlaying(*p); }); },
              timeout);
    // The taps' fades start at scene time 0.
    scene.anchor->updateActions(0);
    return tapped;
}

render::Frame previewFrame(const PreviewScene& scene, double time) {
    render::Frame frame;
    frame.background = scene.reference->image();
    frame.scene = scene.anchor;
    frame.camera = scene.camera;
    frame.time = time;
    return frame;
}

} // namespace pelkit::apps
