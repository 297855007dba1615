// Rendering a target with its content headless, as an author checks a project without a camera.
#pragma once

#include <pelkit/PELProject.h>
#include <pelkit/PELReferenceImage.h>
#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>
#include <pelkit/render/Renderer.h>
#include <pelkit/scene/Node.h>

#include <chrono>
#include <memory>
#include <string>

namespace pelkit::apps {

/// A target's content laid on its image, with the camera that sees the image straight from
/// above, filling a view of the image's aspect ratio.
struct PreviewScene {
    std::shared_ptr<PELReferenceImage> reference;
    /// Stands where the session's image anchor would: the image centre at the origin, its normal
    /// toward the camera. Holds the factory's root.
    std::shared_ptr<scene::Node> anchor;
    std::shared_ptr<scene::Node> content;
    scene::Camera camera;
    glm::ivec2 viewSize{0, 0};
};

/// The reference image of `target` from its stored picture, as the view controller makes it.
[[nodiscard]] Result<std::shared_ptr<PELReferenceImage>>
referenceImageFor(const PELTarget& target, const std::string& appKey);

/// Builds the content of `reference` with the node factory (content fetching starts here) under
/// an anchor, and a camera for a view at most `maxSide` pixels on its longer side.
PreviewScene makePreviewScene(std::shared_ptr<PELReferenceImage> reference,
                              const std::string& appKey, int maxSide = 1280);

/// Waits until no content node of the scene is preparing and every presentation has returned.
/// False when `timeout` passed first.
bool waitForContent(const PreviewScene& scene, std::chrono::milliseconds timeout);

/// Taps every in-scene video, green-screen and audio node once their media is ready, as a user
/// would, at scene time 0; waits up to `timeout` for them to play. Gives the number tapped.
int playAll(const PreviewScene& scene, std::chrono::milliseconds timeout);

/// The frame that shows the scene at scene time `time`, the target image as the background.
render::Frame previewFrame(const PreviewScene& scene, double time);

} // namespace pelkit::apps
