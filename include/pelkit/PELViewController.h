// The one screen a host application presents: the camera view with each recognised target's
// content on it, kept up to date with the app's project on the server. Lifecycle, touches and the
// gallery run on the main thread; statuses arrive on the synchronisation's threads and anchors on
// the scene view's renderer thread (see each operation).
#pragma once

#include <pelkit/PELProject.h>
#include <pelkit/PELRenderer.h>
#include <pelkit/PELStatus.h>
#include <pelkit/PELSyncSupervisor.h>
#include <pelkit/ar/SceneView.h>
#include <pelkit/foundation/Dispatch.h>
#include <pelkit/ui/PhotoGallery.h>
#include <pelkit/ui/ViewController.h>

#include <memory>
#include <optional>
#include <string>

namespace pelkit {

class PELNode;

/// The AR screen. Set the app key (and, for other servers, `isStaging` or `isOldCode`) before
/// the view loads, then present it:
///
///     auto screen = std::make_shared<PELViewController>();
///     screen->setAppKey("0123456789abcdefghij");
///     window->setRootViewController(screen);
///     window->makeKeyAndVisible();
///
/// Loading picks the server (legacy when `isOldCode`, else staging when `isStaging`, else
/// production), creates the synchroniser, and either adopts the stored project (a stored
/// configuration and a remembered revision) or starts a first synchronisation. Appearing
/// restarts tracking and checks the server in the background; a completed synchronisation
/// re-reads the project and restarts tracking. The scene view is made with the default frame feed
/// (`ar::defaultFrameFeed()`), so a host picks the camera before the view loads. The controller
/// and its synchroniser keep each other alive: one controller per presentation.
class PELViewController : public ui::ViewController,
                          public PELStatusDelegate,
                          public ar::SceneViewDelegate,
                          public ui::PhotoGalleryDataSource,
                          public ui::PhotoGalleryDelegate {
public:
    /// Fills every field with its initial value and makes `updateQueue`, labelled with the main
    /// bundle identifier + ".serialSceneKitQueue"; without an identifier the process stops.
    PELViewController();
    ~PELViewController() override;

    const std::optional<std::string>& appKey() const;
    void setAppKey(std::optional<std::string> appKey);
    /// Null until the view has loaded.
    const std::shared_ptr<ar::SceneView>& sceneView() const;
    const PELRenderer& renderer() const;
    bool isStaging() const;
    void setIsStaging(bool isStaging);
    /// The legacy server; wins over `isStaging`.
    bool isOldCode() const;
    void setIsOldCode(bool isOldCode);
    /// The legacy, production and staging servers: `legacyHost()`, `prodHost()` and
    /// `stagingHost()` as the controller was made.
    const std::string& HOST() const;
    void setHOST(std::string host);
    const std::string& PROD_HOST() const;
    void setPROD_HOST(std::string host);
    const std::string& STAGING_HOST() const;
    void setSTAGING_HOST(std::string host);
    /// The project being tracked. Any thread.
    std::optional<PELProject> currentProject() const;
    const std::shared_ptr<PELSyncSupervisor>& syncSupervisor() const;
    /// True while the gallery or the full-screen player, opened by a tap, is on screen.
    bool showsOverlay() const;
    std::shared_ptr<const image::Image> currentImage() const;
    const std::shared_ptr<ui::PhotoGalleryViewController>& gallery() const;
    DispatchQueue& updateQueue();

    /// Starts a background synchronisation; fatal before the view has loaded.
    void refresh();
    /// Lets a synchronisation in progress end silently; fatal before the view has loaded.
    void cancelSync();

    /// Portrait only (mask value 2).
    int supportedInterfaceOrientations() const { return 2; }
    bool prefersStatusBarHidden() const { return true; }
    bool prefersHomeIndicatorAutoHidden() const { return true; }

    void viewDidLoad() override;
    void viewDidAppear(ui::Animated animated) override;
    void viewWillDisappear(ui::Animated animated) override;
    /// A tap on the scene view acts on the content under it.
    void touchesEnded(const ui::TouchSet& touches, const ui::Event* event) override;

    /// Acts on `updateCompleted` only, on the thread that reported it: re-reads the stored
    /// project, stops the current players and restarts tracking.
    void statusDidChange(const PELStatus& status) override;

    int numberOfImagesInGallery(ui::PhotoGalleryViewController& gallery) override;
    std::shared_ptr<const image::Image> imageInGallery(ui::PhotoGalleryViewController& gallery,
                                                       int index) override;
    void closeButtonPressed(ui::View* sender);
    void galleryDidTapToClose(ui::PhotoGalleryViewController& gallery) override;

    /// Renderer thread: builds the content of a recognised image on `updateQueue` and grows it
    /// in (scale 0, then after 0.2 s to full size over 0.5 s).
    void didAdd(ar::SceneView& renderer, const std::shared_ptr<scene::Node>& node,
                const ar::AnchorPtr& anchor) override;
    /// Renderer thread: a lost image's first content stops its video or pauses its audio.
    void didUpdate(ar::SceneView& renderer, const std::shared_ptr<scene::Node>& node,
                   const ar::AnchorPtr& anchor) override;
    void didRemove(ar::SceneView& renderer, const std::shared_ptr<scene::Node>& node,
                   const ar::AnchorPtr& anchor) override;

    void cameraDidChangeTrackingState(ar::Session& session,
                                      const ar::TrackingState& state) override;
    void didFailWithError(ar::Session& session, const ErrorPtr& error) override;
    void wasInterrupted(ar::Session& session) override;
    void interruptionEnded(ar::Session& session) override;
    bool shouldAttemptRelocalization(ar::Session& session) override;

    struct State;

private:
    friend class PELViewControllerTestAccess;

    void initARSession();
    void restartTracking();
    std::optional<std::vector<std::shared_ptr<PELReferenceImage>>> loadReferenceImages();
    static std::shared_ptr<PELNode> findPELNode(const std::shared_ptr<scene::Node>& parentNode);
    void stopCurrentPlayers();
    void handleNodeClick(const std::shared_ptr<scene::Node>& node);
    void openGallery(const net::Url& url);
    void setGallery(std::shared_ptr<ui::PhotoGalleryViewController> gallery);
    std::shared_ptr<PELViewController> self();

    std::unique_ptr<State> state_;
};

/// The text of a tracking state for diagnostics ("TRACKING NORMAL", "TRACKING LIMITED\nLow
/// detail", ...); a limited state with an unknown reason reads "TRACKING UNAVAILABLE".
std::string presentationString(const ar::TrackingState& state);

} // namespace pelkit
