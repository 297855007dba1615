// PELViewController: fields, lifecycle, server selection, statuses and session messages.
#include "PELViewControllerState.h"

#include <pelkit/PELAudioNode.h>
#include <pelkit/PELHosts.h>
#include <pelkit/PELStorage.h>
#include <pelkit/PELVideoNode.h>
#include <pelkit/foundation/Bundle.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/foundation/UserDefaults.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/Layout.h>

namespace pelkit {
namespace {

const PELSyncSupervisor& requireSupervisor(const std::shared_ptr<PELSyncSupervisor>& supervisor) {
    if (!supervisor)
        fatalError("PELViewController: the view has not loaded, there is no sync supervisor");
    return *supervisor;
}

std::optional<PELProject> readStoredProject(const PELSyncSupervisor& supervisor) {
    // A key that cannot name a project directory has nothing stored; the run it starts fails.
    if (!checkAppKeyPrefix(supervisor.appKey()))
        return std::nullopt;
    auto bytes = readFile(supervisor.storage().getConfigurationFilePath());
    if (!bytes)
        return std::nullopt;
    auto project = PELProject::decode(*bytes);
    if (!project)
        return std::nullopt;
    return std::move(*project);
}

} // namespace

PELViewController::PELViewController() : state_(std::make_unique<State>()) {
    state_->HOST = legacyHost();
    state_->PROD_HOST = prodHost();
    state_->STAGING_HOST = stagingHost();
    auto identifier = mainBundleIdentifier();
    if (!identifier)
        fatalError("PELViewController: the main bundle has no identifier");
    state_->updateQueue = std::make_unique<DispatchQueue>(*identifier + ".serialSceneKitQueue");
}

PELViewController::~PELViewController() = default;

const std::optional<std::string>& PELViewController::appKey() const {
    return state_->appKey;
}
void PELViewController::setAppKey(std::optional<std::string> appKey) {
    state_->appKey = std::move(appKey);
}
const std::shared_ptr<ar::SceneView>& PELViewController::sceneView() const {
    return state_->sceneView;
}
const PELRenderer& PELViewController::renderer() const {
    return state_->renderer;
}
bool PELViewController::isStaging() const {
    return state_->isStaging;
}
void PELViewController::setIsStaging(bool isStaging) {
    state_->isStaging = isStaging;
}
bool PELViewController::isOldCode() const {
    return state_->isOldCode;
}
void PELViewController::setIsOldCode(bool isOldCode) {
    state_->isOldCode = isOldCode;
}
const std::string& PELViewController::HOST() const {
    return state_->HOST;
}
void PELViewController::setHOST(std::string host) {
    state_->HOST = std::move(host);
}
const std::string& PELViewController::PROD_HOST() const {
    return state_->PROD_HOST;
}
void PELViewController::setPROD_HOST(std::string host) {
    state_->PROD_HOST = std::move(host);
}
const std::string& PELViewController::STAGING_HOST() const {
    return state_->STAGING_HOST;
}
void PELViewController::setSTAGING_HOST(std::string host) {
    state_->STAGING_HOST = std::move(host);
}
std::optional<PELProject> PELViewController::currentProject() const {
    auto project = state_->currentProject.load();
    return project ? std::optional<PELProject>(*project) : std::nullopt;
}
const std::shared_ptr<PELSyncSupervisor>& PELViewController::syncSupervisor() const {
    return state_->syncSupervisor;
}
bool PELViewController::showsOverlay() const {
    return state_->showsOverlay;
}
std::shared_ptr<const image::Image> PELViewController::currentImage() const {
    return state_->currentImage;
}
const std::shared_ptr<ui::PhotoGalleryViewController>& PELViewController::gallery() const {
    return state_->gallery;
}
DispatchQueue& PELViewController::updateQueue() {
    return *state_->updateQueue;
}

std::shared_ptr<PELViewController> PELViewController::self() {
    return std::static_pointer_cast<PELViewController>(shared_from_this());
}

void PELViewController::viewDidLoad() {
    ViewController::viewDidLoad();
    if (!state_->appKey)
        fatalError("Missing app key. Please provide a valid pelora app key in prepareForSegue "
                   "before navigating to the PELViewController");
    initARSession();
    if (state_->isStaging)
        printLine("Connecting to the staging server");
    std::string server;
    if (state_->isOldCode) {
        printLine("Connecting to legacy api server at " + state_->HOST);
        server = state_->HOST;
    } else {
        server = state_->isStaging ? state_->STAGING_HOST : state_->PROD_HOST;
    }
    state_->syncSupervisor = PELSyncSupervisor::create(server, *state_->appKey, self());

    // A stored project is shown at once only when its revision is remembered too; otherwise the
    // files may be from a run that never finished.
    if (auto project = readStoredProject(*state_->syncSupervisor)) {
        auto key = PELSyncSupervisor::lastUpdatedKey(state_->syncSupervisor->appKey());
        if (UserDefaults::standard().string(key)) {
            state_->currentProject.store(std::make_shared<const PELProject>(std::move(*project)));
            return;
        }
    }
    state_->syncSupervisor->startSync(true);
}

void PELViewController::initARSession() {
    state_->sceneView = ar::SceneView::create();
    state_->sceneView->setDelegate(std::weak_ptr<ar::SceneViewDelegate>(self()));
    state_->sceneHost = std::make_shared<SceneViewHost>(state_->sceneView);
    auto root = view();
    root->addSubview(state_->sceneHost);
    auto& host = *state_->sceneHost;
    ui::LayoutConstraint::activate({
        host.topAnchor().constraint(root->topAnchor()),
        host.leadingAnchor().constraint(root->leadingAnchor()),
        host.trailingAnchor().constraint(root->trailingAnchor()),
        host.bottomAnchor().constraint(root->bottomAnchor()),
    });
}

void PELViewController::viewDidAppear(ui::Animated animated) {
    ViewController::viewDidAppear(animated);
    // Never enabled again: the host application decides when the display may sleep.
    ui::Application::shared().setIdleTimerDisabled(true);
    if (state_->showsOverlay) {
        state_->showsOverlay = false;
        return;
    }
    if (!state_->currentProject.load())
        return;
    const auto& supervisor = requireSupervisor(state_->syncSupervisor);
    if (supervisor.isSynching())
        return;
    stopCurrentPlayers();
    restartTracking();
    state_->syncSupervisor->startSync(false);
}

void PELViewController::viewWillDisappear(ui::Animated animated) {
    ViewController::viewWillDisappear(animated);
    stopCurrentPlayers();
    // Behind an overlay the session keeps running, so the content is in place when it closes.
    if (!state_->showsOverlay)
        state_->sceneView->session().pause();
}

void PELViewController::refresh() {
    requireSupervisor(state_->syncSupervisor);
    state_->syncSupervisor->startSync(false);
}

void PELViewController::cancelSync() {
    if (requireSupervisor(state_->syncSupervisor).isSynching())
        state_->syncSupervisor->cancelSync();
}

void PELViewController::statusDidChange(const PELStatus& status) {
    if (status.which() != PELStatus::Case::updateCompleted)
        return;
    const auto& supervisor = requireSupervisor(state_->syncSupervisor);
    auto bytes = readFile(supervisor.storage().getConfigurationFilePath());
    if (!bytes)
        return;
    auto project = PELProject::decode(*bytes);
    if (!project)
        return;
    state_->currentProject.store(std::make_shared<const PELProject>(std::move(*project)));
    stopCurrentPlayers();
    restartTracking();
}

void PELViewController::restartTracking() {
    ar::ImageTrackingConfiguration configuration;
    configuration.maximumNumberOfTrackedImages = 8;
    auto images = loadReferenceImages();
    if (!images)
        return;
    configuration.trackingImages.assign(images->begin(), images->end());
    if (!state_->sceneView)
        fatalError("PELViewController: there is no scene view to run the session in");
    state_->sceneView->session().run(configuration, ar::RunOptions::resetTracking |
                                                        ar::RunOptions::removeExistingAnchors);
}

std::shared_ptr<PELNode>
PELViewController::findPELNode(const std::shared_ptr<scene::Node>& parentNode) {
    if (auto content = std::dynamic_pointer_cast<PELNode>(parentNode))
        return content;
    auto children = parentNode->childNodes();
    if (children.empty())
        return nullptr;
    // The first child only: from an anchor this reaches the target's first content item.
    return findPELNode(children.front());
}

void PELViewController::stopCurrentPlayers() {
    if (!state_->sceneView)
        fatalError("PELViewController: there is no scene view whose players to stop");
    auto frame = state_->sceneView->session().currentFrame();
    if (!frame)
        return;
    for (const auto& anchor : frame->anchors) {
        auto node = state_->sceneView->node(*anchor);
        auto content = node ? findPELNode(node) : nullptr;
        if (auto video = std::dynamic_pointer_cast<PELVideoNode>(content)) {
            video->stop();
            return;
        }
        if (auto audio = std::dynamic_pointer_cast<PELAudioNode>(content)) {
            if (!audio->player())
                fatalError("PELViewController: the audio node has no player to pause");
            audio->player()->pause();
            return;
        }
    }
}

std::string presentationString(const ar::TrackingState& state) {
    using Status = ar::TrackingState::Status;
    using Reason = ar::TrackingState::Reason;
    if (state.status == Status::normal)
        return "TRACKING NORMAL";
    if (state.status == Status::notAvailable)
        return "TRACKING UNAVAILABLE";
    switch (state.reason) {
    case Reason::initializing:
        return "Initializing";
    case Reason::excessiveMotion:
        return "TRACKING LIMITED\nExcessive motion";
    case Reason::insufficientFeatures:
        return "TRACKING LIMITED\nLow detail";
    case Reason::relocalizing:
        return "Recovering from session interruption";
    case Reason::none:
        break;
    }
    return "TRACKING UNAVAILABLE";
}

void PELViewController::cameraDidChangeTrackingState(ar::Session&, const ar::TrackingState& state) {
    printLine("CameraDiDChangeTrackingState: " + presentationString(state));
}

void PELViewController::didFailWithError(ar::Session&, const ErrorPtr& error) {
    auto* failure = dynamic_cast<const ar::SessionError*>(error.get());
    if (!failure)
        return;
    std::string text = failure->description();
    if (failure->failureReason())
        text += "\n" + *failure->failureReason();
    if (failure->recoverySuggestion())
        text += "\n" + *failure->recoverySuggestion();
    DispatchQueue::main().async([text] { printLine("THE AR Session failed " + text); });
}

void PELViewController::wasInterrupted(ar::Session&) {
    printLine("SESSION INTERRUPTED\nThe session will be reset after the interruption has ended.");
}

// The session resumes by itself; anchors are rebuilt only by the next tracking restart.
void PELViewController::interruptionEnded(ar::Session&) {
    printLine("RESETTING SESSION");
}

bool PELViewController::shouldAttemptRelocalization(ar::Session&) {
    return true;
}

} // namespace pelkit
