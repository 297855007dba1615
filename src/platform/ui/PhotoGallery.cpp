#include <pelkit/ui/PhotoGallery.h>

#include <algorithm>
#include <cmath>

namespace pelkit::ui {

namespace {
// A swipe this long turns the page; anything shorter is a tap.
constexpr float kSwipeDistance = 40;
constexpr float kDotSize = 7;
constexpr float kDotSpacing = 16;
constexpr float kDotsFromBottom = 30;
constexpr Color kOtherDot{1, 1, 1, 0.35f};
} // namespace

// The gallery's picture, its letterbox and its page control.
class GalleryView final : public View {
public:
    explicit GalleryView(PhotoGalleryViewController& gallery) : gallery_(gallery) {}

protected:
    void draw(DrawContext& context) override {
        View::draw(context);
        if (const auto& image = gallery_.image_)
            context.drawImage(image,
                              aspectFit({float(image->width), float(image->height)}, bounds()));
        if (gallery_.hidePageControl_ || gallery_.count_ <= 0)
            return;
        const float width = (gallery_.count_ - 1) * kDotSpacing + kDotSize;
        const float left = std::round(bounds().midX() - width / 2);
        const float top = bounds().maxY() - kDotsFromBottom;
        for (int page = 0; page < gallery_.count_; ++page)
            context.fillRect({{left + page * kDotSpacing, top}, {kDotSize, kDotSize}},
                             page == gallery_.index_ ? colors::white : kOtherDot);
    }

private:
    PhotoGalleryViewController& gallery_;
};

PhotoGalleryViewController::PhotoGalleryViewController(
    std::weak_ptr<PhotoGalleryDelegate> delegate, std::weak_ptr<PhotoGalleryDataSource> dataSource)
    : delegate_(std::move(delegate)), dataSource_(std::move(dataSource)) {}

void PhotoGalleryViewController::setBackgroundColor(const Color& color) {
    background_ = color;
    if (isViewLoaded())
        view()->setBackgroundColor(color);
}

void PhotoGalleryViewController::setHidePageControl(bool hide) {
    hidePageControl_ = hide;
    if (isViewLoaded())
        view()->setNeedsDisplay();
}

void PhotoGalleryViewController::setCurrentIndex(int index) {
    index_ = std::clamp(index, 0, std::max(0, count_ - 1));
    reloadData();
}

void PhotoGalleryViewController::reloadData() {
    auto source = dataSource_.lock();
    count_ = source ? std::max(0, source->numberOfImagesInGallery(*this)) : 0;
    index_ = std::clamp(index_, 0, std::max(0, count_ - 1));
    image_ = count_ > 0 ? source->imageInGallery(*this, index_) : nullptr;
    if (isViewLoaded())
        view()->setNeedsDisplay();
}

void PhotoGalleryViewController::loadView() {
    auto view = std::make_shared<GalleryView>(*this);
    view->setBackgroundColor(background_);
    setView(view);
}

void PhotoGalleryViewController::viewWillAppear(Animated animated) {
    ViewController::viewWillAppear(animated);
    reloadData();
}

void PhotoGalleryViewController::touchesEnded(const TouchSet& touches, const Event*) {
    if (touches.empty())
        return;
    const float dx =
        touches.front()->location(nullptr).x - touches.front()->startLocation(nullptr).x;
    if (std::abs(dx) >= kSwipeDistance && count_ > 1) {
        setCurrentIndex(index_ + (dx < 0 ? 1 : -1));
        return;
    }
    // The gallery does not close itself: its delegate decides.
    auto keep = shared_from_this();
    if (auto delegate = delegate_.lock())
        delegate->galleryDidTapToClose(*this);
}

} // namespace pelkit::ui
