// A button: a title drawn in DejaVu Sans, and actions sent when a touch that began on it lifts
// inside it. Main thread only.
#pragma once

#include <pelkit/ui/View.h>

#include <functional>
#include <string>

namespace pelkit::ui {

/// The events a button sends actions for (values as the phone platform numbers them).
enum class ControlEvent { touchDown = 1, touchUpInside = 64 };

enum class ButtonType { custom = 0, system = 1 };

/// A button. A custom button shows its title in white on its background colour (clear by
/// default); a system button in blue.
///
///     auto close = std::make_shared<ui::Button>(ui::ButtonType::custom);
///     close->setTitle("Close");
///     close->addTarget(controller, &Controller::closeButtonPressed,
///     ui::ControlEvent::touchUpInside);
class Button : public View {
public:
    using Action = std::function<void(View* sender)>;

    explicit Button(ButtonType type = ButtonType::custom);

    ButtonType buttonType() const { return type_; }
    const std::string& title() const { return title_; }
    void setTitle(std::string title);
    void setTitleColor(const Color& color);
    const Color& titleColor() const { return titleColor_; }
    /// The title's size in points; 15 by default.
    void setFontSize(float pointSize);
    /// True while a touch that began on the button is inside it.
    bool isHighlighted() const { return highlighted_; }

    /// Calls `action` of `target` with the button as sender for `event`. The target is held
    /// weakly: once it is gone, the action is skipped.
    template <class Target>
    void addTarget(const std::shared_ptr<Target>& target, void (Target::*action)(View* sender),
                   ControlEvent event) {
        addAction(
            [weak = std::weak_ptr<Target>(target), action](View* sender) {
                if (auto strong = weak.lock())
                    ((*strong).*action)(sender);
            },
            event);
    }
    void addAction(Action action, ControlEvent event);
    /// Runs the actions registered for `event`, in the order they were added.
    void sendActions(ControlEvent event);

    void touchesBegan(const TouchSet& touches, const Event* event) override;
    void touchesMoved(const TouchSet& touches, const Event* event) override;
    void touchesEnded(const TouchSet& touches, const Event* event) override;
    void touchesCancelled(const TouchSet& touches, const Event* event) override;

protected:
    void draw(DrawContext& context) override;

private:
    void setHighlighted(bool highlighted);

    ButtonType type_;
    std::string title_;
    Color titleColor_;
    float fontSize_ = 15;
    bool highlighted_ = false;
    std::vector<std::pair<ControlEvent, Action>> actions_;
};

} // namespace pelkit::ui
