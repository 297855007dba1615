// The viewer's screen: the framework's AR screen with a loading banner over it. Main thread,
// except `statusDidChange` (the synchronisation's threads).
#pragma once

#include <pelkit/PELViewController.h>

#include <memory>
#include <string>

namespace pelkit::viewer {

class Banner;

/// Shows what the synchronisation is doing ("Downloading the targets: 40%") until a project is
/// being tracked; the framework itself shows nothing of it.
class ViewerController final : public PELViewController {
public:
    void viewDidLoad() override;
    void viewDidAppear(ui::Animated animated) override;
    void statusDidChange(const PELStatus& status) override;

    /// The banner's text; empty once hidden.
    std::string bannerText() const;

private:
    void show(std::string text);
    std::shared_ptr<Banner> banner_;
};

/// The banner text for `status`, or nothing when the status ends the loading.
std::optional<std::string> bannerTextFor(const PELStatus& status);

} // namespace pelkit::viewer
