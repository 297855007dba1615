#include "ViewerController.h"

#include <pelkit/foundation/Dispatch.h>
#include <pelkit/ui/Layout.h>

#include <cmath>

namespace pelkit::viewer {

class Banner final : public ui::View {
public:
    std::string text;

protected:
    void draw(ui::DrawContext& context) override {
        View::draw(context);
        context.drawText(text, bounds(), 16, ui::colors::white);
    }
};

std::optional<std::string> bannerTextFor(const PELStatus& status) {
    switch (status.which()) {
    case PELStatus::Case::updateStarted:
        return "Synchronising the project...";
    case PELStatus::Case::downloadStarted:
        return "Downloading the targets...";
    case PELStatus::Case::downloadProgress:
        if (status.percentage() < 0)
            return "Downloading the targets...";
        return "Downloading the targets: " +
               std::to_string(std::lround(std::fmin(status.percentage(), 1.0f) * 100)) + "%";
    case PELStatus::Case::downloadCompleted:
        return "Preparing the targets...";
    case PELStatus::Case::updateFailed:
        return "Synchronisation failed: " + status.error().description();
    case PELStatus::Case::updateCompleted:
    case PELStatus::Case::alreadyUpToDate:
        break;
    }
    return std::nullopt;
}

void ViewerController::viewDidLoad() {
    // The banner goes up before the framework starts its first synchronisation.
    banner_ = std::make_shared<Banner>();
    banner_->setBackgroundColor({0, 0, 0, 0.6f});
    banner_->setUserInteractionEnabled(false);
    banner_->text = "Loading the project...";
    PELViewController::viewDidLoad();
    auto root = view();
    root->addSubview(banner_);
    ui::LayoutConstraint::activate({
        banner_->leadingAnchor().constraint(root->leadingAnchor()),
        banner_->trailingAnchor().constraint(root->trailingAnchor()),
        banner_->bottomAnchor().constraint(root->bottomAnchor()),
        banner_->heightAnchor().constraint(36),
    });
    if (currentProject())
        show({});
}

void ViewerController::viewDidAppear(ui::Animated animated) {
    PELViewController::viewDidAppear(animated);
    if (currentProject())
        show({});
}

void ViewerController::statusDidChange(const PELStatus& status) {
    // The framework restarts tracking before this returns, so the banner goes once content can
    // show. A failure with a project in hand keeps that project: no banner then.
    PELViewController::statusDidChange(status);
    auto text = bannerTextFor(status);
    const bool tracking = currentProject().has_value();
    auto weak = std::weak_ptr<ViewController>(shared_from_this());
    DispatchQueue::main().async([weak, text, tracking] {
        if (auto alive = std::static_pointer_cast<ViewerController>(weak.lock()))
            alive->show(text && !tracking ? *text : std::string());
    });
}

std::string ViewerController::bannerText() const {
    return banner_ && !banner_->isHidden() ? banner_->text : std::string();
}

void ViewerController::show(std::string text) {
    if (!banner_)
        return;
    banner_->setHidden(text.empty());
    banner_->text = std::move(text);
    banner_->setNeedsDisplay();
}

} // namespace pelkit::viewer
