// The fields of PELViewController, shared by its source files.
#pragma once

#include "SceneViewHost.h"

#include <pelkit/PELViewController.h>

#include <mutex>
#include <memory>
#include <optional>
#include <string>

namespace pelkit {

struct PELViewController::State {
    std::optional<std::string> appKey;
    std::shared_ptr<ar::SceneView> sceneView;
    // Shows `sceneView` in the controller's view; touches on it are the scene's.
    std::shared_ptr<SceneViewHost> sceneHost;
    PELRenderer renderer;
    bool isStaging = false;
    bool isOldCode = false;
    std::string HOST;
    std::string PROD_HOST;
    std::string STAGING_HOST;
    // Written by the status thread after a synchronisation and read on the main thread: swapped
    // whole, never changed in place. (A mutex rather than std::atomic<std::shared_ptr>, whose
    // lock bit the thread sanitizer cannot see.)
    class ProjectSlot {
    public:
        std::shared_ptr<const PELProject> load() const {
            std::lock_guard lock(mutex_);
            return project_;
        }
        void store(std::shared_ptr<const PELProject> project) {
            std::lock_guard lock(mutex_);
            project_ = std::move(project);
        }

    private:
        mutable std::mutex mutex_;
        std::shared_ptr<const PELProject> project_;
    };
    ProjectSlot currentProject;
    std::shared_ptr<PELSyncSupervisor> syncSupervisor;
    bool showsOverlay = false;
    std::shared_ptr<const image::Image> currentImage;
    std::shared_ptr<ui::PhotoGalleryViewController> gallery;
    std::unique_ptr<DispatchQueue> updateQueue;
};

} // namespace pelkit
