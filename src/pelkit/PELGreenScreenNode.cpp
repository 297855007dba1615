#include <pelkit/ChromaKeyMaterial.h>
#include <pelkit/PELGreenScreenNode.h>

#include "ContentSupport.h"

namespace pelkit {
namespace {

constexpr scene::Color kKeyColor{0, 1, 0, 1};
constexpr float kThresholdSensitivity = 0.5f;
constexpr float kSmoothing = 0.001f;

} // namespace

PELGreenScreenNode::PELGreenScreenNode(std::string appKey, std::string targetId,
                                       std::string contentId, bool /*loop*/, double width,
                                       double height, std::optional<net::Url> filePath, double x,
                                       double y)
    : PELNode(std::move(appKey), std::move(targetId), std::move(contentId), width, height,
              std::move(filePath), x, y),
      player_(std::make_shared<media::Player>()) {
    playButtonPlane_ = content::addPlayButton(*this, width, height);
    videoNode_ = scene::Node::create();
    videoNode_->setHidden(true);
    addChildNode(videoNode_);
    setPosition({x, y, 0});
}

std::optional<net::Url> PELGreenScreenNode::videoUrl() const {
    std::lock_guard lock(mutex_);
    return videoUrl_;
}

void PELGreenScreenNode::presentContent(const net::Url& url) {
    {
        std::lock_guard lock(mutex_);
        videoUrl_ = url;
    }
    // A node presents its video once.
    if (player_->currentItem())
        return;
    player_->replaceCurrentItem(media::PlayerItem::create(url.absoluteString()));

    auto& video = content::required(videoNode_);
    auto plane = scene::Plane::create(static_cast<float>(width()), static_cast<float>(height()));
    video.setGeometry(plane);
    if (auto first = plane->firstMaterial()) {
        first->setDiffuseContents(std::shared_ptr<scene::VideoFrameSource>(player_));
        first->setFaces(scene::Faces::both);
    }
    // The keyed material replaces the whole list, the double-sided one included, so the keyed
    // plane shows its front only.
    auto keyed = ChromaKeyMaterial::create(kKeyColor, kThresholdSensitivity, kSmoothing);
    keyed->setDiffuseContents(std::shared_ptr<scene::VideoFrameSource>(player_));
    plane->setMaterials({keyed});

    // The observer holds the node: once presented, a node lives as long as the process.
    auto self = std::static_pointer_cast<PELGreenScreenNode>(shared_from_this());
    content::observeEnd(player_->currentItem(), [self] {
        content::rewind(content::Rewind::atEnd, *self->player_, content::required(self->videoNode_),
                        content::required(self->playButtonPlane_));
    });
}

void PELGreenScreenNode::toggleVideoStatus() {
    content::togglePlayback(*player_, content::required(videoNode_),
                            content::required(playButtonPlane_));
}

void PELGreenScreenNode::stop() {
    content::rewind(content::Rewind::stop, *player_, content::required(videoNode_),
                    content::required(playButtonPlane_));
}

} // namespace pelkit
