#include <pelkit/ar/ReferenceImage.h>

#include <mutex>

namespace pelkit::ar {

// The name is the one field that may change after construction, so it alone is guarded.
struct ReferenceImage::Name {
    mutable std::mutex mutex;
    std::optional<std::string> value;
};

std::shared_ptr<ReferenceImage> ReferenceImage::create(std::shared_ptr<const image::Image> image,
                                                       ImageOrientation orientation,
                                                       double physicalWidth) {
    return std::shared_ptr<ReferenceImage>(
        new ReferenceImage(std::move(image), orientation, physicalWidth));
}

ReferenceImage::ReferenceImage(std::shared_ptr<const image::Image> image,
                               ImageOrientation orientation, double physicalWidth)
    : image_(std::move(image)), orientation_(orientation), physicalWidth_(physicalWidth),
      name_(std::make_unique<Name>()) {
    if (!image_ || image_->empty())
        fatalError("ReferenceImage: the image is empty");
}

ReferenceImage::~ReferenceImage() = default;

glm::dvec2 ReferenceImage::physicalSize() const {
    // Orientations 5 to 8 turn the picture a quarter, so its upright width is its stored height.
    bool quarterTurn = static_cast<int>(orientation_) >= 5;
    double width = quarterTurn ? image_->height : image_->width;
    double height = quarterTurn ? image_->width : image_->height;
    return {physicalWidth_, physicalWidth_ * height / width};
}

std::optional<std::string> ReferenceImage::name() const {
    std::lock_guard lock(name_->mutex);
    return name_->value;
}

void ReferenceImage::setName(std::optional<std::string> name) {
    std::lock_guard lock(name_->mutex);
    name_->value = std::move(name);
}

} // namespace pelkit::ar
