#include <pelkit/ui/Application.h>
#include <pelkit/ui/PlayerViewController.h>
#include <pelkit/ui/Window.h>
#include <utility>

namespace pelkit::ui {
namespace {

constexpr const char* kFailureText = "This video cannot be played.";

// Draws the player's latest picture letterboxed. While in a window it looks for a new picture
// once per display frame and asks for drawing only when there is one.
class PlayerView final : public View {
public:
    std::shared_ptr<media::Player> player;

    ~PlayerView() override { stopWatching(); }

protected:
    void draw(DrawContext& context) override {
        View::draw(context);
        shown_ = player ? player->currentFrame() : nullptr;
        failed_ = player && player->status() == media::Status::failed;
        if (shown_)
            context.drawImage(shown_,
                              aspectFit({float(shown_->width), float(shown_->height)}, bounds()),
                              this, Blend::opaque);
        if (failed_)
            context.drawText(kFailureText, bounds(), 17, colors::white);
    }

    void didMoveToWindow() override {
        if (!window()) {
            stopWatching();
            return;
        }
        if (link_)
            return;
        link_ = Application::shared().addDisplayLink([this](double) {
            if (!player)
                return;
            const bool failed = player->status() == media::Status::failed;
            if (player->currentFrame() != shown_ || failed != failed_)
                setNeedsDisplay();
        });
    }

private:
    void stopWatching() {
        if (link_)
            Application::shared().removeDisplayLink(std::exchange(link_, 0));
    }

    Application::DisplayLinkId link_ = 0;
    std::shared_ptr<const image::Image> shown_;
    bool failed_ = false;
};

} // namespace

PlayerViewController::PlayerViewController() = default;

void PlayerViewController::setPlayer(std::shared_ptr<media::Player> player) {
    player_ = std::move(player);
    if (isViewLoaded()) {
        static_cast<PlayerView&>(*view()).player = player_;
        view()->setNeedsDisplay();
    }
}

std::shared_ptr<Button> PlayerViewController::closeButton() {
    view();
    return close_;
}

void PlayerViewController::loadView() {
    auto screen = std::make_shared<PlayerView>();
    screen->player = player_;
    screen->setBackgroundColor(colors::black);
    setView(screen);

    close_ = std::make_shared<Button>(ButtonType::custom);
    close_->setTitle("Done");
    close_->setBackgroundColor({0.2f, 0.2f, 0.2f, 0.7f});
    close_->setClipsToBounds(true);
    close_->addAction(
        [weak = weak_from_this()](View* sender) {
            if (auto self = std::static_pointer_cast<PlayerViewController>(weak.lock()))
                self->closePressed(sender);
        },
        ControlEvent::touchUpInside);
    screen->addSubview(close_);
    auto area = screen->safeAreaLayoutGuide();
    LayoutConstraint::activate({
        close_->widthAnchor().constraint(60),
        close_->heightAnchor().constraint(30),
        close_->topAnchor().constraint(area.topAnchor(), 10),
        close_->leadingAnchor().constraint(area.leadingAnchor(), 16),
    });
}

void PlayerViewController::closePressed(View*) {
    if (player_)
        player_->pause();
    dismiss(Animated::yes);
}

void PlayerViewController::touchesEnded(const TouchSet&, const Event*) {
    // A tap on the picture plays or pauses, as the platform's player screen does.
    if (!player_)
        return;
    if (player_->rate() > 0)
        player_->pause();
    else
        player_->play();
}

} // namespace pelkit::ui
