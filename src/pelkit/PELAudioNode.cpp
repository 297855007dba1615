#include <pelkit/PELAudioNode.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/media/AudioSession.h>

#include "ContentSupport.h"

namespace pelkit {
namespace {

constexpr glm::vec2 kButtonSceneSize{600, 600};

} // namespace

PELAudioNode::PELAudioNode(std::string appKey, std::string targetId, std::string contentId,
                           double width, double height, std::optional<net::Url> filePath, double x,
                           double y)
    : PELNode(std::move(appKey), std::move(targetId), std::move(contentId), width, height,
              std::move(filePath), x, y) {
    scene_ = scene::Scene2D::create(kButtonSceneSize);
    playButton_ = scene::Sprite::create(initTextureNamed("play"));
    playButton_->setPosition({scene_->size().x * 0.5f, scene_->size().y * 0.5f});
    playButton_->setYScale(-1.0f);
    scene_->addChild(playButton_);
    scene_->setBackgroundColor(content::kClear);

    auto plane = scene::Plane::create(static_cast<float>(width), static_cast<float>(height));
    if (auto material = plane->firstMaterial())
        material->setDiffuseContents(scene_);
    setGeometry(plane);
    setPosition({x, y, 0});
    initAudioPlayer();
}

void PELAudioNode::initAudioPlayer() {
    auto& session = media::AudioSession::shared();
    auto ready = session.setCategory(media::AudioSession::Category::playback,
                                     media::AudioSession::Mode::defaultMode,
                                     media::AudioSession::Options::none);
    if (ready)
        ready = session.setActive(true);
    if (!ready)
        return printLine(ready.error()->description());
    player_ = std::make_shared<media::Player>();
}

std::shared_ptr<const image::Image> PELAudioNode::initTextureNamed(std::string_view name) {
    return content::frameworkImage(name);
}

void PELAudioNode::presentContent(const net::Url& url) {
    auto item = media::PlayerItem::create(url.absoluteString());
    // Every presentation adds its own observer, bound to its own item; the node stays alive with
    // them.
    auto self = std::static_pointer_cast<PELAudioNode>(shared_from_this());
    content::observeEnd(item, [self, watched = item.get()] {
        self->playerDidFinishPlaying(Notification{media::kPlayerItemDidPlayToEndTime, watched});
    });
    if (player_)
        player_->replaceCurrentItem(std::move(item));
}

void PELAudioNode::stop() {
    if (player_)
        player_->pause();
}

void PELAudioNode::toggleAudioPlaying() {
    auto& player = content::required(player_);
    if (!player.currentItem())
        return;
    auto& button = content::required(playButton_);
    if (player.rate() != 0 && !player.error()) {
        player.pause();
        button.runAction(scene::Action::setTexture(initTextureNamed("play")));
        return;
    }
    if (player.status() == media::Status::readyToPlay) {
        player.play();
        button.runAction(scene::Action::setTexture(initTextureNamed("pause")));
    }
}

void PELAudioNode::playerDidFinishPlaying(const Notification&) {
    content::required(playButton_).setTexture(initTextureNamed("play"));
    content::required(player_).seekToZero();
}

void PELAudioNode::audioPlayerDidFinishPlaying(bool) {
    content::required(playButton_).setTexture(initTextureNamed("play"));
}

} // namespace pelkit
