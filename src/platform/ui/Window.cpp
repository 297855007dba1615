#include "GlDrawer.h"
#include "Internal.h"
#include "Sdl.h"
#include "Text.h"

#include <pelkit/foundation/Dispatch.h>
#include <pelkit/foundation/Log.h>

#include <cmath>
#include <map>
#include <string>
#include <utility>

namespace pelkit::ui {

struct Window::Platform {
    std::shared_ptr<render::Output> output;
    std::shared_ptr<sdl::GlWindow> screen; // null for a headless window
    std::unique_ptr<GlDrawer> drawer;
    std::unique_ptr<render::Renderer> renderer;
    std::map<std::string, std::shared_ptr<const image::Image>> texts;
    bool textFailureReported = false;
};

DrawContext::~DrawContext() = default;

namespace {

constexpr std::size_t kTextCacheLimit = 128;

std::optional<Rect> intersect(const std::optional<Rect>& clip, const Rect& rect) {
    if (!clip)
        return rect;
    const float left = std::max(clip->minX(), rect.minX());
    const float top = std::max(clip->minY(), rect.minY());
    const float right = std::min(clip->maxX(), rect.maxX());
    const float bottom = std::min(clip->maxY(), rect.maxY());
    return Rect{{left, top}, {std::max(0.0f, right - left), std::max(0.0f, bottom - top)}};
}

// Draws one view at a time: `origin` and `clip` are set by the window for each view, in points.
class WindowDrawContext final : public DrawContext {
public:
    WindowDrawContext(Window::Platform& platform, float scale)
        : platform_(platform), scale_(scale) {}

    Point origin;
    std::optional<Rect> clip;

    void fillRect(const Rect& rect, Color color) override {
        platform_.drawer->fill(pixels(rect), color, pixelClip());
    }
    void drawImage(const std::shared_ptr<const image::Image>& image, const Rect& rect,
                   const void* slot, Blend blend) override {
        platform_.drawer->image(image, pixels(rect), slot, blend, pixelClip());
    }
    void drawText(std::string_view text, const Rect& rect, float pointSize, Color color) override {
        auto image = textImage(text, int(std::lround(pointSize * scale_)), color);
        if (!image || image->empty())
            return;
        const Size size{image->width / scale_, image->height / scale_};
        const Rect placed{
            {std::round(rect.midX() - size.width / 2), std::round(rect.midY() - size.height / 2)},
            size};
        platform_.drawer->image(image, pixels(placed), nullptr, Blend::alpha, pixelClip());
    }
    Result<render::Renderer*> renderer() override {
        if (!platform_.renderer) {
            auto made = render::Renderer::create(platform_.output);
            if (!made)
                return std::unexpected(made.error());
            platform_.renderer = std::move(*made);
        }
        return platform_.renderer.get();
    }
    std::shared_ptr<render::Output> output() override { return platform_.output; }
    float scale() const override { return scale_; }

private:
    Rect pixels(const Rect& r) const {
        return {{(origin.x + r.origin.x) * scale_, (origin.y + r.origin.y) * scale_},
                {r.size.width * scale_, r.size.height * scale_}};
    }
    std::optional<Rect> pixelClip() const {
        if (!clip)
            return std::nullopt;
        return Rect{{clip->origin.x * scale_, clip->origin.y * scale_},
                    {clip->size.width * scale_, clip->size.height * scale_}};
    }
    std::shared_ptr<const image::Image> textImage(std::string_view text, int pixels, Color c) {
        std::string key(text);
        for (float channel : {float(pixels), c.red, c.green, c.blue, c.alpha})
            key += '\x1f' + std::to_string(channel);
        if (auto found = platform_.texts.find(key); found != platform_.texts.end())
            return found->second;
        auto made = text::render(text, pixels, c);
        if (!made) {
            if (!std::exchange(platform_.textFailureReported, true))
                printLine("Window: text cannot be drawn: " + made.error()->description());
            return nullptr;
        }
        if (platform_.texts.size() >= kTextCacheLimit)
            platform_.texts.clear();
        return platform_.texts.emplace(std::move(key), *made).first->second;
    }

    Window::Platform& platform_;
    float scale_;
};

void drawTree(View& view, Point parentOrigin, std::optional<Rect> clip, WindowDrawContext& context,
              void (*drawOne)(View&, DrawContext&)) {
    if (view.isHidden())
        return;
    const Rect frame = view.frame().offset(parentOrigin.x, parentOrigin.y);
    context.origin = frame.origin;
    context.clip = clip;
    drawOne(view, context);
    if (view.clipsToBounds())
        clip = intersect(clip, frame);
    for (const auto& subview : view.subviews())
        drawTree(*subview, frame.origin, clip, context, drawOne);
}

} // namespace

void Presentation::attach(View& view, Window* window) {
    view.setWindow(window);
}

std::uint32_t Presentation::windowId(const Window& window) {
    return window.platform_->screen ? window.platform_->screen->id() : 0;
}

Result<std::shared_ptr<Window>> Window::create(Size size, std::string title) {
    if (!(size.width >= 1 && size.height >= 1))
        return std::unexpected(Error::make("ui", 1,
                                           "Window: the size " + std::to_string(size.width) +
                                               " x " + std::to_string(size.height) +
                                               " is not positive"));
    auto& application = Application::shared();
    auto& state = *application.state_;
    state.windowMade = true;
    auto platform = std::make_unique<Platform>();
    const glm::ivec2 pixels{int(size.width), int(size.height)};
    if (application.display() == Display::headless) {
        auto output = render::OffscreenOutput::create(pixels);
        if (!output)
            return std::unexpected(output.error());
        platform->output = *output;
    } else {
        auto screen = sdl::GlWindow::create(size, title);
        if (!screen)
            return std::unexpected(screen.error());
        platform->screen = *screen;
        platform->output = *screen;
        if (!std::exchange(state.wakeInstalled, true)) {
            DispatchQueue::main().setWakeHandler(sdl::pushWake);
            sdl::setScreenSaverEnabled(!application.isIdleTimerDisabled());
        }
    }
    if (auto current = platform->output->makeCurrent(); !current)
        return std::unexpected(current.error());
    auto drawer = GlDrawer::create();
    if (!drawer)
        return std::unexpected(drawer.error());
    platform->drawer = std::move(*drawer);
    std::shared_ptr<Window> window(new Window(size, std::move(platform)));
    state.windows.push_back(window.get());
    return window;
}

Window::Window(Size size, std::unique_ptr<Platform> platform)
    : size_(size), platform_(std::move(platform)) {}

Window::~Window() {
    std::erase(Presentation::state().windows, this);
    for (ViewController* screen : screens())
        if (screen->view_)
            Presentation::attach(*screen->view_, nullptr);
    // GL objects go while their context is current.
    platform_->renderer.reset();
    if (platform_->output->makeCurrent())
        platform_->drawer.reset();
}

std::shared_ptr<render::Output> Window::output() const {
    return platform_->output;
}

std::vector<ViewController*> Window::screens() const {
    std::vector<ViewController*> chain;
    for (ViewController* c = root_.get(); c; c = c->presented_.get())
        chain.push_back(c);
    return chain;
}

void Window::setRootViewController(std::shared_ptr<ViewController> controller) {
    if (controller == root_)
        return;
    if (root_) {
        root_->beginAppearance(false, Animated::no);
        root_->endAppearance(Animated::no);
        if (root_->view_)
            Presentation::attach(*root_->view_, nullptr);
    }
    root_ = std::move(controller);
    if (!root_)
        return;
    Presentation::attach(*root_->view(), this);
    setNeedsDisplay();
    if (!visible_)
        return;
    DispatchQueue::main().async([weak = weak_from_this(), root = std::weak_ptr(root_)] {
        auto window = weak.lock();
        auto controller = root.lock();
        if (window && controller && window->root_ == controller) {
            controller->beginAppearance(true, Animated::no);
            controller->endAppearance(Animated::no);
        }
    });
}

void Window::makeKeyAndVisible() {
    Presentation::state().keyWindow = weak_from_this();
    setNeedsDisplay();
    if (std::exchange(visible_, true))
        return;
    if (platform_->screen)
        platform_->screen->show();
    if (auto root = std::exchange(root_, nullptr))
        setRootViewController(std::move(root));
}

bool Window::isKeyWindow() const {
    return Application::shared().keyWindow().get() == this;
}

void Window::layoutScreens() {
    for (ViewController* screen : screens()) {
        auto view = screen->view();
        view->setFrame(bounds());
        view->layoutIfNeeded();
    }
}

void Window::drawScreens(DrawContext& context) {
    const auto chain = screens();
    // Screens under a full-screen one that has finished arriving are hidden: skip them.
    std::size_t first = 0;
    for (std::size_t i = chain.size(); i-- > 1;) {
        if (chain[i]->modalPresentationStyle() == ModalPresentationStyle::fullScreen &&
            !Presentation::transitionOf(*chain[i])) {
            first = i;
            break;
        }
    }
    const double now = Application::shared().now();
    auto& windowContext = static_cast<WindowDrawContext&>(context);
    for (std::size_t i = first; i < chain.size(); ++i) {
        float offset = 0;
        if (const Transition* moving = Presentation::transitionOf(*chain[i])) {
            const double p = moving->progress(now);
            offset = float(size_.height * (moving->kind == Transition::Kind::present ? 1 - p : p));
        }
        drawTree(*chain[i]->view(), {0, offset}, std::nullopt, windowContext,
                 [](View& view, DrawContext& c) { view.draw(c); });
    }
}

Result<void> Window::displayIfNeeded() {
    if (!visible_ || (!needsDisplay_ && !Presentation::hasTransition(*this)))
        return {};
    return draw(Present::yes);
}

Result<void> Window::draw(Present present) {
    needsDisplay_ = false;
    layoutScreens();
    if (auto current = platform_->output->makeCurrent(); !current)
        return current;
    const float scale = float(platform_->output->size().x) / size_.width;
    platform_->drawer->begin(*platform_->output, colors::black);
    WindowDrawContext context(*platform_, scale);
    drawScreens(context);
    platform_->drawer->end();
    ++frames_;
    if (present == Present::yes && platform_->screen)
        platform_->screen->swap();
    return {};
}

Result<image::Image> Window::snapshot() {
    if (auto drawn = draw(Present::no); !drawn)
        return std::unexpected(drawn.error());
    auto picture = platform_->drawer->read(*platform_->output);
    if (platform_->screen)
        platform_->screen->swap();
    return picture;
}

std::uint64_t Window::textureUploads() const {
    return platform_->drawer->uploads();
}

std::shared_ptr<View> Window::hitTest(Point point) {
    layoutScreens();
    const auto chain = screens();
    if (chain.empty())
        return nullptr;
    return chain.back()->view()->hitTest(point);
}

void Window::touchDown(Point point) {
    touch_.reset();
    // Screens in motion take no touches, as on the phone.
    if (Presentation::hasTransition(*this))
        return;
    auto view = hitTest(point);
    if (!view)
        return;
    touch_ = std::make_shared<Touch>(view, point);
    const Event event{Application::shared().now()};
    view->touchesBegan({touch_}, &event);
}

void Window::touchMove(Point point) {
    if (!touch_)
        return;
    touch_->update(point, Touch::Phase::moved);
    const Event event{Application::shared().now()};
    if (auto view = touch_->view())
        view->touchesMoved({touch_}, &event);
}

void Window::touchUp(Point point) {
    auto touch = std::move(touch_);
    if (!touch)
        return;
    touch->update(point, Touch::Phase::ended);
    const Event event{Application::shared().now()};
    if (auto view = touch->view())
        view->touchesEnded({touch}, &event);
}

void Window::tap(Point point) {
    touchDown(point);
    touchUp(point);
}

void Window::setKeyHandler(std::function<void(std::string_view)> handler) {
    keyHandler_ = std::move(handler);
}

void Window::keyDown(std::string_view key) {
    if (keyHandler_)
        keyHandler_(key);
}

void Window::setCloseHandler(std::function<void()> handler) {
    closeHandler_ = std::move(handler);
}

void Window::close() {
    if (closeHandler_)
        closeHandler_();
    else
        Application::shared().stop();
}

void Window::resize(Size size) {
    if (!platform_->screen || !(size.width >= 1 && size.height >= 1))
        return;
    size_ = size;
    setNeedsDisplay();
}

} // namespace pelkit::ui
