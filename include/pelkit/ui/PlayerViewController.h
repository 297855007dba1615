// The full-screen player screen: a media player's pictures over the whole window, letterboxed,
// with its own close control. Main thread only.
#pragma once

#include <pelkit/media/Player.h>
#include <pelkit/ui/Button.h>
#include <pelkit/ui/ViewController.h>

#include <memory>

namespace pelkit::ui {

/// Shows `player()`'s latest picture, fitted to the window on black. "Done" at the top left
/// pauses the player and dismisses the screen; a tap elsewhere plays or pauses. A failed item
/// shows "This video cannot be played." The player is shared: the screen neither makes items
/// nor starts playback.
///
///     auto screen = std::make_shared<ui::PlayerViewController>();
///     screen->setPlayer(player);
///     host->present(screen, ui::Animated::yes, [player] { player->play(); });
class PlayerViewController : public ViewController {
public:
    PlayerViewController();

    std::shared_ptr<media::Player> player() const { return player_; }
    void setPlayer(std::shared_ptr<media::Player> player);
    /// The close control (loads the view).
    std::shared_ptr<Button> closeButton();

    void touchesEnded(const TouchSet& touches, const Event* event) override;

protected:
    void loadView() override;

private:
    void closePressed(View* sender);

    std::shared_ptr<media::Player> player_;
    std::shared_ptr<Button> close_;
};

} // namespace pelkit::ui
