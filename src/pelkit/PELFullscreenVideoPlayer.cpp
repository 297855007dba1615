#include <pelkit/PELFullscreenVideoPlayer.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/Window.h>

namespace pelkit {

PELFullscreenVideoPlayer::PELFullscreenVideoPlayer()
    : playerViewController_(std::make_shared<ui::PlayerViewController>()),
      player_(std::make_shared<media::Player>()) {
    playerViewController_->setPlayer(player_);
}

PELFullscreenVideoPlayer& PELFullscreenVideoPlayer::shared() {
    // Never destroyed: the player's threads must not be joined during static destruction.
    static PELFullscreenVideoPlayer* const instance = new PELFullscreenVideoPlayer();
    return *instance;
}

void PELFullscreenVideoPlayer::playVideo(const net::Url& url) {
    auto window = ui::Application::shared().keyWindow();
    if (!window)
        return;
    auto root = window->rootViewController();
    if (!root)
        return;
    auto visible = root->visibleViewController();
    if (!visible)
        return;
    if (dynamic_cast<ui::PlayerViewController*>(visible.get())) {
        player_->replaceCurrentItem(media::PlayerItem::create(url.absoluteString()));
        player_->play();
        return;
    }
    startNewVideo(*visible, url);
}

void PELFullscreenVideoPlayer::startNewVideo(ui::ViewController& topViewController,
                                             const net::Url& url) {
    player_->replaceCurrentItem(media::PlayerItem::create(url.absoluteString()));
    topViewController.present(playerViewController_, ui::Animated::yes,
                              [player = player_] { player->play(); });
}

} // namespace pelkit
