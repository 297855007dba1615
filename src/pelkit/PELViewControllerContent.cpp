// PELViewController: reference images, anchors and their content, touches and the gallery.
#include "PELViewControllerState.h"

#include <pelkit/PELAudioNode.h>
#include <pelkit/PELGreenScreenNode.h>
#include <pelkit/PELImageNode.h>
#include <pelkit/PELLinkNode.h>
#include <pelkit/PELReferenceImage.h>
#include <pelkit/PELStorage.h>
#include <pelkit/PELVideoNode.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/net/ReadResource.h>
#include <pelkit/scene/Action.h>
#include <pelkit/ui/Application.h>
#include <pelkit/ui/Button.h>
#include <pelkit/ui/Layout.h>

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace pelkit {
namespace {

// A target's picture as a reference image, or null when its file cannot be read or decoded.
std::shared_ptr<PELReferenceImage> makeReferenceImage(const PELStorage& storage,
                                                      const PELTarget& target) {
    auto path = storage.getTargetImagePath(target.name);
    if (!path)
        return nullptr;
    auto bytes = readTargetImage(*path);
    if (!bytes)
        return nullptr;
    auto decoded = image::decode(*bytes);
    if (!decoded || decoded->empty())
        return nullptr;
    auto picture = std::make_shared<const image::Image>(std::move(*decoded));
    auto reference = PELReferenceImage::create(
        picture, ar::ImageOrientation::up, target.physicalWidth, target.id, target.items,
        target.targetWidth.value_or(picture->width), target.targetHeight.value_or(picture->height));
    reference->setName(target.name);
    return reference;
}

// The images that passed validation, with their target's place so the result keeps the
// project's order whatever order the validations finish in.
struct Validated {
    std::mutex mutex;
    std::vector<std::pair<std::size_t, std::shared_ptr<PELReferenceImage>>> images;

    std::size_t count() {
        std::lock_guard lock(mutex);
        return images.size();
    }
};

} // namespace

std::optional<std::vector<std::shared_ptr<PELReferenceImage>>>
PELViewController::loadReferenceImages() {
    auto project = state_->currentProject.load();
    if (!project)
        return std::nullopt;
    if (!state_->syncSupervisor)
        fatalError("PELViewController: there is no sync supervisor to find the target images");
    const auto& storage = state_->syncSupervisor->storage();
    auto validated = std::make_shared<Validated>();
    auto group = std::make_shared<DispatchGroup>();
    for (std::size_t index = 0; index < project->targets.size(); ++index) {
        group->enter();
        auto reference = makeReferenceImage(storage, project->targets[index]);
        // A target whose picture does not load never leaves the group, so the wait below never
        // ends: only targets whose image loads are validated at all.
        if (!reference)
            continue;
        reference->validate([validated, group, reference, index](ErrorPtr error) {
            if (error) {
                printLine("invalid image found: " + error->description());
            } else {
                std::lock_guard lock(validated->mutex);
                validated->images.emplace_back(index, reference);
            }
            group->leave();
        });
    }
    group->notify(DispatchQueue::main(), [validated] {
        printLine("Finished all validations: " + std::to_string(validated->count()));
    });
    group->wait();
    std::lock_guard lock(validated->mutex);
    std::ranges::sort(validated->images, {},
                      &std::pair<std::size_t, std::shared_ptr<PELReferenceImage>>::first);
    std::vector<std::shared_ptr<PELReferenceImage>> images;
    for (auto& entry : validated->images)
        images.push_back(entry.second);
    return images;
}

void PELViewController::didAdd(ar::SceneView&, const std::shared_ptr<scene::Node>& node,
                               const ar::AnchorPtr& anchor) {
    auto imageAnchor = std::dynamic_pointer_cast<const ar::ImageAnchor>(anchor);
    if (!imageAnchor)
        return;
    auto reference =
        std::dynamic_pointer_cast<const PELReferenceImage>(imageAnchor->referenceImage());
    if (!reference)
        return;
    // Content is built off the renderer thread (it may read files and ask the server), one
    // anchor at a time in the order they came.
    state_->updateQueue->async([controller = self(), reference, node] {
        const auto& appKey = controller->state_->appKey;
        if (!appKey)
            fatalError("PELViewController: no app key to build content with");
        auto content = controller->state_->renderer.render(*reference, *appKey);
        content->setScale({0, 0, 0});
        content->runAction(
            scene::Action::sequence({scene::Action::wait(0.2), scene::Action::scaleTo(1.0f, 0.5)}));
        node->addChildNode(content);
    });
}

void PELViewController::didUpdate(ar::SceneView&, const std::shared_ptr<scene::Node>& node,
                                  const ar::AnchorPtr& anchor) {
    auto imageAnchor = std::dynamic_pointer_cast<const ar::ImageAnchor>(anchor);
    if (!imageAnchor || imageAnchor->isTracked())
        return;
    // Lost content stays where it was last seen; only its sound and video stop.
    auto content = findPELNode(node);
    if (auto video = std::dynamic_pointer_cast<PELVideoNode>(content)) {
        video->stop();
    } else if (auto audio = std::dynamic_pointer_cast<PELAudioNode>(content)) {
        if (!audio->player())
            fatalError("PELViewController: the audio node has no player to pause");
        audio->player()->pause();
    }
}

void PELViewController::didRemove(ar::SceneView&, const std::shared_ptr<scene::Node>&,
                                  const ar::AnchorPtr&) {
    printLine("Did remove node");
}

void PELViewController::touchesEnded(const ui::TouchSet& touches, const ui::Event* event) {
    ViewController::touchesEnded(touches, event);
    if (touches.empty())
        fatalError("PELViewController: touches ended without a touch");
    const auto& touch = touches.front();
    if (!state_->sceneHost || touch->view() != state_->sceneHost)
        return;
    auto location = touch->location(state_->sceneHost.get());
    auto hits = state_->sceneView->hitTest(state_->sceneHost->scenePoint(location));
    if (!hits.empty())
        handleNodeClick(hits.front().node);
}

void PELViewController::handleNodeClick(const std::shared_ptr<scene::Node>& node) {
    if (auto video = std::dynamic_pointer_cast<PELVideoNode>(node)) {
        video->toggleVideoStatus();
        // The full-screen player covers this screen; its coming and going must leave the
        // session and the anchors alone.
        if (video->isFullscreen())
            state_->showsOverlay = true;
    } else if (auto greenScreen = std::dynamic_pointer_cast<PELGreenScreenNode>(node)) {
        greenScreen->toggleVideoStatus();
    } else if (auto audio = std::dynamic_pointer_cast<PELAudioNode>(node)) {
        audio->toggleAudioPlaying();
    } else if (auto link = std::dynamic_pointer_cast<PELLinkNode>(node)) {
        if (!link->linkToOpen())
            return;
        if (auto url = net::Url::parse(*link->linkToOpen()))
            ui::Application::shared().open(*url);
    } else if (auto picture = std::dynamic_pointer_cast<PELImageNode>(node)) {
        if (auto url = picture->url())
            openGallery(*url);
    } else if (auto parent = node->parent()) {
        handleNodeClick(parent);
    }
}

void PELViewController::openGallery(const net::Url& url) {
    auto bytes = net::readWholeResource(url);
    if (!bytes)
        return;
    auto decoded = image::decode(*bytes);
    state_->currentImage =
        decoded ? std::make_shared<const image::Image>(std::move(*decoded)) : nullptr;
    auto controller = self();
    setGallery(std::make_shared<ui::PhotoGalleryViewController>(controller, controller));
    state_->showsOverlay = true;
    present(state_->gallery, ui::Animated::yes);
}

void PELViewController::setGallery(std::shared_ptr<ui::PhotoGalleryViewController> gallery) {
    state_->gallery = std::move(gallery);
    if (!state_->gallery)
        return;
    auto galleryView = state_->gallery->view();
    if (!galleryView)
        fatalError("PELViewController: the gallery has no view for its close button");
    auto close = std::make_shared<ui::Button>(ui::ButtonType::custom);
    galleryView->addSubview(close);
    close->setTitle("Close");
    auto safeArea = galleryView->safeAreaLayoutGuide();
    ui::LayoutConstraint::activate({
        close->widthAnchor().constraint(50),
        close->heightAnchor().constraint(25),
        close->topAnchor().constraint(safeArea.topAnchor(), 10),
        close->trailingAnchor().constraint(safeArea.trailingAnchor(), -16),
    });
    close->setBorderWidth(0);
    close->layoutIfNeeded();
    close->setClipsToBounds(true);
    close->addTarget(self(), &PELViewController::closeButtonPressed,
                     ui::ControlEvent::touchUpInside);
    state_->gallery->setBackgroundColor(ui::colors::black);
    state_->gallery->setHidePageControl(true);
    state_->gallery->setModalPresentationStyle(ui::ModalPresentationStyle::fullScreen);
}

int PELViewController::numberOfImagesInGallery(ui::PhotoGalleryViewController&) {
    return 1;
}

std::shared_ptr<const image::Image>
PELViewController::imageInGallery(ui::PhotoGalleryViewController&, int) {
    return state_->currentImage;
}

void PELViewController::closeButtonPressed(ui::View*) {
    if (state_->gallery)
        state_->gallery->dismiss(ui::Animated::yes);
}

void PELViewController::galleryDidTapToClose(ui::PhotoGalleryViewController& gallery) {
    gallery.dismiss(ui::Animated::yes);
}

} // namespace pelkit
