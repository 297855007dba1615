// The AR scene view: a scene drawn over the camera image, with a node per anchor of its session.
// Thread-safe: any thread may call it; its delegate is called on the view's renderer thread.
#pragma once

#include <pelkit/ar/Session.h>
#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>
#include <pelkit/render/Output.h>
#include <pelkit/scene/Camera.h>
#include <pelkit/scene/HitTest.h>
#include <pelkit/scene/Node.h>

#include <glm/vec2.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

namespace pelkit::ar {

class SceneView;

/// The scene view's callbacks, all on its renderer thread with no scene lock held, and the
/// session's events moved there in order with the frames.
class SceneViewDelegate : public SessionObserver {
public:
    /// A new anchor got its (empty) node, already in the scene at the anchor's pose.
    virtual void didAdd(SceneView& renderer, const std::shared_ptr<scene::Node>& node,
                        const AnchorPtr& anchor);
    /// The anchor changed (moved, or was lost or found); its node has moved with it.
    virtual void didUpdate(SceneView& renderer, const std::shared_ptr<scene::Node>& node,
                           const AnchorPtr& anchor);
    /// The anchor's node has left the scene.
    virtual void didRemove(SceneView& renderer, const std::shared_ptr<scene::Node>& node,
                           const AnchorPtr& anchor);
    /// Once per camera frame, after the anchors' callbacks and before drawing; `time` is the
    /// session clock's, the one the scene's actions run on.
    virtual void updateAtTime(SceneView& renderer, double time);
};

/// What a finished recording holds.
struct Recording {
    std::filesystem::path file;
    std::uint64_t frames = 0;
};

/// Owns a scene and a session and draws, for every camera frame, the camera image with the
/// scene over it, seen through the camera's own projection. Its renderer thread (one per view)
/// applies the frame's anchor changes to the anchors' nodes, calls the delegate, then draws.
///
///     auto view = ar::SceneView::create();                     // the default camera
///     view->setDelegate(controller);
///     view->setOutput(windowOutput);                            // else headless
///     view->session().run(configuration, ar::RunOptions::resetTracking);
///     auto hits = view->hitTest(touch.location);                // nearest first
class SceneView {
public:
    /// A view on the default feed (`defaultFrameFeed()`).
    static std::shared_ptr<SceneView> create();
    static std::shared_ptr<SceneView> create(FrameFeed feed);
    /// Finishes a recording, stops the session, then the renderer thread. Destroying the view
    /// from its own delegate callback is a programming error.
    ~SceneView();
    SceneView(const SceneView&) = delete;
    SceneView& operator=(const SceneView&) = delete;

    Session& session();
    /// The scene's root node; anchors' nodes are its children.
    const std::shared_ptr<scene::Node>& scene() const;
    /// Held weakly.
    void setDelegate(std::weak_ptr<SceneViewDelegate> delegate);

    /// Where frames are drawn from the next frame on. Until one is set the view draws into a
    /// headless output the size of the camera image.
    void setOutput(std::shared_ptr<render::Output> output);

    /// The node of `anchor` (by its identifier), or null when the view has none.
    std::shared_ptr<scene::Node> node(const Anchor& anchor) const;
    /// The anchor a node belongs to, or null.
    AnchorPtr anchor(const scene::Node& node) const;

    /// The scene's nodes under view point `point` (pixels from the top-left corner of the
    /// output), through the camera of the last frame drawn, nearest first. Empty before the
    /// first frame.
    std::vector<scene::HitResult> hitTest(glm::vec2 point) const;

    /// The last frame drawn, as RGBA rows from the top. Waits for the renderer thread.
    Result<image::Image> snapshot();
    /// How many frames have been drawn.
    std::uint64_t framesDrawn() const;
    /// The first error met while drawing (an output that could not be made, a failed frame), or
    /// null; frames that fail are skipped, the view goes on.
    ErrorPtr renderError() const;

    /// Writes every frame drawn from now on to an MP4 file (H.264 where FFmpeg has an encoder
    /// for it, else MPEG-4 part 2), timed by the frames' clock times. The file appears whole
    /// when the recording stops; until then it is written beside it under a temporary name.
    /// Fails when a recording is already running or the folder cannot be written.
    [[nodiscard]] Result<void> startRecording(std::filesystem::path file);
    /// Ends the recording after the frames drawn so far; gives what it holds, or the first
    /// error met while encoding or writing.
    [[nodiscard]] Result<Recording> stopRecording();

    struct State;

private:
    explicit SceneView(FrameFeed feed);
    std::shared_ptr<State> state_;
    std::shared_ptr<SessionDelegate> forwarder_;
};

/// The scene camera that matches a pinhole camera whose image fills `viewportSize` as a frame's
/// background does (scaled to cover, cropped evenly): a point of the camera's coordinates
/// projects onto the pixel where the camera saw it.
scene::Camera cameraForIntrinsics(const CameraIntrinsics& intrinsics, glm::vec2 viewportSize);

} // namespace pelkit::ar
