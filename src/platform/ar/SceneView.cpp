// The scene view's renderer thread: a mailbox of work from the session's thread (anchor changes,
// frames, observer events) and from callers (snapshots), run in order; frames are the only work
// that can pile up, so the session waits while two are queued.
#include "ExitPass.h"
#include "Mp4Writer.h"

#include <pelkit/ar/SceneView.h>
#include <pelkit/render/Renderer.h>
#include <pelkit/scene/SceneLock.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace pelkit::ar {

void SceneViewDelegate::didAdd(SceneView&, const std::shared_ptr<scene::Node>&, const AnchorPtr&) {}
void SceneViewDelegate::didUpdate(SceneView&, const std::shared_ptr<scene::Node>&,
                                  const AnchorPtr&) {}
void SceneViewDelegate::didRemove(SceneView&, const std::shared_ptr<scene::Node>&,
                                  const AnchorPtr&) {}
void SceneViewDelegate::updateAtTime(SceneView&, double) {}

scene::Camera cameraForIntrinsics(const CameraIntrinsics& intrinsics, glm::vec2 viewportSize) {
    constexpr double nearDistance = 0.001, farDistance = 1000;
    const glm::dvec2 image(std::max(intrinsics.imageResolution.x, 1),
                           std::max(intrinsics.imageResolution.y, 1));
    const glm::dvec2 view(std::max(viewportSize.x, 1.0f), std::max(viewportSize.y, 1.0f));
    // The background covers the view: scaled by the larger ratio, the overflow cut evenly.
    const double s = std::max(view.x / image.x, view.y / image.y);
    const glm::dvec2 cut = (s * image - view) / 2.0;
    const double fx = intrinsics.matrix[0][0], fy = intrinsics.matrix[1][1];
    const double cx = intrinsics.matrix[2][0], cy = intrinsics.matrix[2][1];
    // Pixel centres sit at whole image coordinates, so an edge coordinate is half a pixel more.
    const double offsetX = 2 / view.x * (s * (cx + 0.5) - cut.x) - 1;
    const double offsetY = 1 - 2 / view.y * (s * (cy + 0.5) - cut.y);
    glm::dmat4 p(0.0);
    p[0][0] = 2 * s * fx / view.x;
    p[1][1] = 2 * s * fy / view.y;
    p[2][0] = -offsetX;
    p[2][1] = -offsetY;
    p[2][2] = -(farDistance + nearDistance) / (farDistance - nearDistance);
    p[2][3] = -1;
    p[3][2] = -2 * farDistance * nearDistance / (farDistance - nearDistance);
    scene::Camera camera;
    camera.projection = glm::mat4(p);
    camera.viewportSize = viewportSize;
    return camera;
}

namespace {

constexpr std::size_t kQueuedFramesAtMost = 2;

class Mailbox {
public:
    /// False once closed: the work is dropped.
    bool post(std::function<void()> work, bool isFrame) {
        std::unique_lock lock(mutex_);
        if (isFrame)
            changed_.wait(lock, [&] { return closed_ || frames_ < kQueuedFramesAtMost; });
        if (closed_)
            return false;
        items_.push_back({std::move(work), isFrame});
        frames_ += isFrame;
        changed_.notify_all();
        return true;
    }

    /// Runs work until closed.
    void serve() {
        for (;;) {
            Item item;
            {
                std::unique_lock lock(mutex_);
                changed_.wait(lock, [&] { return closed_ || !items_.empty(); });
                if (closed_)
                    return;
                item = std::move(items_.front());
                items_.pop_front();
            }
            item.work();
            std::lock_guard lock(mutex_);
            frames_ -= item.isFrame;
            changed_.notify_all();
        }
    }

    void close() {
        std::deque<Item> dropped;
        {
            std::lock_guard lock(mutex_);
            closed_ = true;
            dropped.swap(items_);
            changed_.notify_all();
        }
    }

private:
    struct Item {
        std::function<void()> work;
        bool isFrame = false;
    };
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Item> items_;
    std::size_t frames_ = 0;
    bool closed_ = false;
};

ErrorPtr viewError(std::string text) {
    return Error::make("ar.sceneView", 1, std::move(text));
}

} // namespace

struct SceneView::State {
    SceneView* view = nullptr;
    std::shared_ptr<Session> session;
    std::shared_ptr<scene::Node> root = scene::Node::create();
    Mailbox mailbox;
    std::thread thread;

    mutable std::mutex mutex; // guards the fields below
    std::weak_ptr<SceneViewDelegate> delegate;
    std::shared_ptr<render::Output> requestedOutput;
    struct Placed {
        std::shared_ptr<scene::Node> node;
        AnchorPtr anchor;
    };
    std::map<std::uint64_t, Placed> placed;
    std::optional<scene::Camera> lastCamera;
    ErrorPtr renderError;
    std::atomic<std::uint64_t> framesDrawn{0};

    std::mutex recordingMutex; // guards the recording, written on the renderer thread
    struct Recorder {
        std::filesystem::path file;
        std::unique_ptr<Mp4Writer> writer;
        ErrorPtr error;
    };
    std::optional<Recorder> recorder;

    // The renderer thread's own.
    std::unique_ptr<render::Renderer> renderer;
    std::shared_ptr<render::Output> output; // null: the headless one the renderer made
    image::Image picture;

    std::shared_ptr<SceneViewDelegate> listener() const {
        std::lock_guard lock(mutex);
        return delegate.lock();
    }
    void noteError(const ErrorPtr& error) {
        std::lock_guard lock(mutex);
        if (!renderError)
            renderError = error;
    }

    void add(const AnchorPtr& anchor);
    void update(const AnchorPtr& anchor);
    void remove(const AnchorPtr& anchor);
    void draw(const Frame& frame);
    bool prepareRenderer(glm::ivec2 cameraSize);
    void record(double time);
};

void SceneView::State::add(const AnchorPtr& anchor) {
    auto node = scene::Node::create();
    node->setTransform(anchor->transform());
    root->addChildNode(node);
    {
        std::lock_guard lock(mutex);
        placed[anchor->identifier()] = {node, anchor};
    }
    if (auto d = listener())
        d->didAdd(*view, node, anchor);
}

void SceneView::State::update(const AnchorPtr& anchor) {
    std::shared_ptr<scene::Node> node;
    {
        std::lock_guard lock(mutex);
        auto found = placed.find(anchor->identifier());
        if (found == placed.end())
            return;
        found->second.anchor = anchor;
        node = found->second.node;
    }
    node->setTransform(anchor->transform());
    if (auto d = listener())
        d->didUpdate(*view, node, anchor);
}

void SceneView::State::remove(const AnchorPtr& anchor) {
    std::shared_ptr<scene::Node> node;
    {
        std::lock_guard lock(mutex);
        auto found = placed.find(anchor->identifier());
        if (found == placed.end())
            return;
        node = found->second.node;
        placed.erase(found);
    }
    node->removeFromParent();
    if (auto d = listener())
        d->didRemove(*view, node, anchor);
}

bool SceneView::State::prepareRenderer(glm::ivec2 cameraSize) {
    std::shared_ptr<render::Output> wanted;
    {
        std::lock_guard lock(mutex);
        wanted = requestedOutput;
    }
    const bool current =
        renderer && (wanted ? wanted == output : !output && renderer->size() == cameraSize);
    if (current)
        return true;
    renderer.reset();
    auto made =
        wanted ? render::Renderer::create(wanted) : render::Renderer::createOffscreen(cameraSize);
    if (!made) {
        noteError(made.error());
        return false;
    }
    renderer = std::move(*made);
    output = wanted;
    return true;
}

void SceneView::State::draw(const Frame& frame) {
    if (auto d = listener())
        d->updateAtTime(*view, frame.clockTime);
    // EGL goes away with the process's exit: no drawing once it has begun.
    auto pass = detail::ExitPass::enter();
    const auto& image = frame.camera.image;
    if (!pass || !image || image->empty() || !prepareRenderer({image->width, image->height}))
        return;
    render::Frame drawn;
    drawn.background = image;
    drawn.scene = root;
    drawn.camera = cameraForIntrinsics(frame.camera.intrinsics, glm::vec2(renderer->size()));
    drawn.time = frame.clockTime;
    if (auto rendered = renderer->render(drawn); !rendered)
        noteError(rendered.error());
    detail::ExitPass::closeBeforeLibrariesStartedSoFar();
    {
        std::lock_guard lock(mutex);
        lastCamera = drawn.camera;
    }
    ++framesDrawn;
    record(frame.clockTime);
}

void SceneView::State::record(double time) {
    std::lock_guard lock(recordingMutex);
    if (!recorder || recorder->error)
        return;
    auto fail = [&](const ErrorPtr& error) {
        recorder->error = error;
        recorder->writer.reset();
    };
    if (auto read = renderer->snapshot(picture); !read)
        return fail(read.error());
    if (!recorder->writer) {
        auto opened = Mp4Writer::open(recorder->file, picture.width, picture.height);
        if (!opened)
            return fail(opened.error());
        recorder->writer = std::move(*opened);
    }
    if (auto written = recorder->writer->write(picture, time); !written)
        fail(written.error());
}

namespace {

// Moves the session's events onto the renderer thread, in the order they happen.
class Forwarder final : public SessionDelegate {
public:
    explicit Forwarder(std::weak_ptr<SceneView::State> state) : state_(std::move(state)) {}

    void didAddAnchors(Session&, const std::vector<AnchorPtr>& anchors) override {
        forEach(anchors, &SceneView::State::add);
    }
    void didUpdateAnchors(Session&, const std::vector<AnchorPtr>& anchors) override {
        forEach(anchors, &SceneView::State::update);
    }
    void didRemoveAnchors(Session&, const std::vector<AnchorPtr>& anchors) override {
        forEach(anchors, &SceneView::State::remove);
    }
    void didUpdateFrame(Session&, const std::shared_ptr<const Frame>& frame) override {
        post([frame](SceneView::State& s) { s.draw(*frame); }, true);
    }

    void cameraDidChangeTrackingState(Session& session, const TrackingState& state) override {
        observe([&session, state](SessionObserver& o) {
            o.cameraDidChangeTrackingState(session, state);
        });
    }
    void didFailWithError(Session& session, const ErrorPtr& error) override {
        observe([&session, error](SessionObserver& o) { o.didFailWithError(session, error); });
    }
    void wasInterrupted(Session& session) override {
        observe([&session](SessionObserver& o) { o.wasInterrupted(session); });
    }
    void interruptionEnded(Session& session) override {
        observe([&session](SessionObserver& o) { o.interruptionEnded(session); });
    }
    void sourceDidEnd(Session& session) override {
        observe([&session](SessionObserver& o) { o.sourceDidEnd(session); });
    }
    // The session waits for the answer; a view going away answers no.
    bool shouldAttemptRelocalization(Session& session) override {
        auto answer = std::make_shared<std::promise<bool>>();
        auto future = answer->get_future();
        bool posted = post(
            [&session, answer](SceneView::State& s) {
                auto d = s.listener();
                answer->set_value(d && d->shouldAttemptRelocalization(session));
            },
            false);
        if (!posted)
            return false;
        future.wait();
        try {
            return future.get();
        } catch (const std::future_error&) {
            return false;
        }
    }

private:
    bool post(std::function<void(SceneView::State&)> work, bool isFrame) {
        auto state = state_.lock();
        if (!state)
            return false;
        std::weak_ptr<SceneView::State> weak = state;
        return state->mailbox.post(
            [weak, work = std::move(work)] {
                if (auto s = weak.lock())
                    work(*s);
            },
            isFrame);
    }
    void forEach(const std::vector<AnchorPtr>& anchors,
                 void (SceneView::State::*change)(const AnchorPtr&)) {
        post(
            [anchors, change](SceneView::State& s) {
                for (const auto& anchor : anchors)
                    (s.*change)(anchor);
            },
            false);
    }
    void observe(std::function<void(SessionObserver&)> call) {
        post(
            [call = std::move(call)](SceneView::State& s) {
                if (auto d = s.listener())
                    call(*d);
            },
            false);
    }

    std::weak_ptr<SceneView::State> state_;
};

} // namespace

std::shared_ptr<SceneView> SceneView::create() {
    return create(defaultFrameFeed());
}

std::shared_ptr<SceneView> SceneView::create(FrameFeed feed) {
    return std::shared_ptr<SceneView>(new SceneView(std::move(feed)));
}

SceneView::SceneView(FrameFeed feed) : state_(std::make_shared<State>()) {
    state_->view = this;
    if (!feed.clock)
        feed.clock = Clock::steady();
    state_->session = Session::create(std::move(feed));
    forwarder_ = std::make_shared<Forwarder>(state_);
    state_->session->setDelegate(std::static_pointer_cast<Forwarder>(forwarder_));
    state_->thread = std::thread([state = state_] {
        state->mailbox.serve();
        // GL objects belong to the thread whose context made them.
        state->renderer.reset();
    });
}

SceneView::~SceneView() {
    if (state_->thread.get_id() == std::this_thread::get_id())
        fatalError("SceneView::~SceneView: destroyed from its own renderer thread");
    (void)stopRecording();
    state_->mailbox.close();
    state_->thread.join();
    state_->session.reset();
}

Session& SceneView::session() {
    return *state_->session;
}

const std::shared_ptr<scene::Node>& SceneView::scene() const {
    return state_->root;
}

void SceneView::setDelegate(std::weak_ptr<SceneViewDelegate> delegate) {
    std::lock_guard lock(state_->mutex);
    state_->delegate = std::move(delegate);
}

void SceneView::setOutput(std::shared_ptr<render::Output> output) {
    std::lock_guard lock(state_->mutex);
    state_->requestedOutput = std::move(output);
}

std::shared_ptr<scene::Node> SceneView::node(const Anchor& anchor) const {
    std::lock_guard lock(state_->mutex);
    auto found = state_->placed.find(anchor.identifier());
    return found == state_->placed.end() ? nullptr : found->second.node;
}

AnchorPtr SceneView::anchor(const scene::Node& node) const {
    std::lock_guard lock(state_->mutex);
    for (const auto& [identifier, placed] : state_->placed) {
        if (placed.node.get() == &node)
            return placed.anchor;
    }
    return nullptr;
}

std::vector<scene::HitResult> SceneView::hitTest(glm::vec2 point) const {
    std::optional<scene::Camera> camera;
    {
        std::lock_guard lock(state_->mutex);
        camera = state_->lastCamera;
    }
    if (!camera)
        return {};
    return scene::hitTest(state_->root, *camera, point);
}

Result<image::Image> SceneView::snapshot() {
    auto read = [](State& s) -> Result<image::Image> {
        if (!s.renderer)
            return std::unexpected(viewError("SceneView::snapshot: no frame has been drawn"));
        return s.renderer->snapshot();
    };
    if (state_->thread.get_id() == std::this_thread::get_id())
        return read(*state_);
    auto result = std::make_shared<std::promise<Result<image::Image>>>();
    auto future = result->get_future();
    auto state = state_;
    if (!state_->mailbox.post([state, result, read] { result->set_value(read(*state)); }, false))
        return std::unexpected(viewError("SceneView::snapshot: the view is closing"));
    future.wait();
    try {
        return future.get();
    } catch (const std::future_error&) {
        return std::unexpected(viewError("SceneView::snapshot: the view is closing"));
    }
}

std::uint64_t SceneView::framesDrawn() const {
    return state_->framesDrawn;
}

ErrorPtr SceneView::renderError() const {
    std::lock_guard lock(state_->mutex);
    return state_->renderError;
}

Result<void> SceneView::startRecording(std::filesystem::path file) {
    auto folder = file.parent_path().empty() ? std::filesystem::path(".") : file.parent_path();
    if (::access(folder.c_str(), W_OK) != 0)
        return std::unexpected(Error::fromErrno("access(" + folder.string() + ")", errno));
    std::lock_guard lock(state_->recordingMutex);
    if (state_->recorder)
        return std::unexpected(viewError("SceneView::startRecording: already recording to " +
                                         state_->recorder->file.string()));
    state_->recorder = State::Recorder{std::move(file), nullptr, nullptr};
    return {};
}

Result<Recording> SceneView::stopRecording() {
    std::lock_guard lock(state_->recordingMutex);
    auto recorder = std::exchange(state_->recorder, std::nullopt);
    if (!recorder)
        return std::unexpected(viewError("SceneView::stopRecording: not recording"));
    if (recorder->error)
        return std::unexpected(recorder->error);
    if (!recorder->writer)
        return std::unexpected(viewError("SceneView::stopRecording: no frame was drawn into " +
                                         recorder->file.string()));
    auto frames = recorder->writer->finish();
    if (!frames)
        return std::unexpected(frames.error());
    return Recording{recorder->file, *frames};
}

} // namespace pelkit::ar
