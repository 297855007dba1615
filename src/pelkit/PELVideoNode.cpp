#include <pelkit/PELFullscreenVideoPlayer.h>
#include <pelkit/PELVideoNode.h>

#include "ContentSupport.h"

namespace pelkit {
namespace {

constexpr glm::vec2 kVideoSceneSize{1280, 720};

} // namespace

PELVideoNode::PELVideoNode(std::string appKey, std::string targetId, std::string contentId,
                           bool /*loop*/, bool isFullscreen, double width, double height,
                           std::optional<net::Url> filePath, double x, double y)
    : PELNode(std::move(appKey), std::move(targetId), std::move(contentId), width, height,
              std::move(filePath), x, y),
      player_(std::make_shared<media::Player>()), isFullscreen_(isFullscreen) {
    playButtonPlane_ = content::addPlayButton(*this, width, height);

    auto videoScene = scene::Scene2D::create(kVideoSceneSize);
    videoNode_ = scene::VideoSprite::create(player_, kVideoSceneSize);
    videoNode_->setPosition(videoScene->size() * 0.5f);
    videoNode_->setYScale(-1);
    videoNode_->setHidden(true);
    videoScene->setBackgroundColor(content::kClear);
    videoScene->addChild(videoNode_);

    auto videoPlane = scene::Plane::create(static_cast<float>(width), static_cast<float>(height));
    videoPlane->firstMaterial()->setDiffuseContents(videoScene);
    setGeometry(videoPlane);
    setPosition({x, y, 0});
}

std::optional<net::Url> PELVideoNode::videoUrl() const {
    std::lock_guard lock(mutex_);
    return videoUrl_;
}

void PELVideoNode::presentContent(const net::Url& url) {
    std::lock_guard lock(mutex_);
    videoUrl_ = url;
}

void PELVideoNode::toggleVideoStatus() {
    auto url = videoUrl();
    if (!url)
        return;
    if (isFullscreen_)
        return PELFullscreenVideoPlayer::shared().playVideo(*url);
    if (!player_->currentItem()) {
        player_->replaceCurrentItem(media::PlayerItem::create(url->absoluteString()));
        registerVideoObserver();
    }
    content::togglePlayback(*player_, content::required(videoNode_),
                            content::required(playButtonPlane_));
}

void PELVideoNode::stop() {
    content::rewind(content::Rewind::stop, *player_, content::required(videoNode_),
                    content::required(playButtonPlane_));
}

void PELVideoNode::registerVideoObserver() {
    // The observer holds the node: once played in the scene, a node lives as long as the process.
    auto self = std::static_pointer_cast<PELVideoNode>(shared_from_this());
    content::observeEnd(player_->currentItem(), [self] {
        content::rewind(content::Rewind::atEnd, *self->player_, content::required(self->videoNode_),
                        content::required(self->playButtonPlane_));
    });
}

} // namespace pelkit
