// The images an AR session looks for: a picture with the physical width it has in the world.
// Immutable after construction except for `name`; any thread.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>

#include <glm/vec2.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace pelkit::ar {

/// How a picture's pixels relate to its upright look, with the values camera files use (the
/// EXIF orientation): `up` is stored upright.
enum class ImageOrientation {
    up = 1,
    upMirrored = 2,
    down = 3,
    downMirrored = 4,
    leftMirrored = 5,
    right = 6,
    rightMirrored = 7,
    left = 8,
};

/// A picture to recognise, with its width in the world in metres. Reference images are compared
/// by identity: two made from the same pixels are two images, and a set holds each object once.
///
///     auto poster = ar::ReferenceImage::create(image, ar::ImageOrientation::up, 0.2);
///     poster->setName("poster");
///     poster->physicalSize();   // {0.2, 0.2 * height / width}
class ReferenceImage : public std::enable_shared_from_this<ReferenceImage> {
public:
    /// A reference image of `image`, `physicalWidth` metres wide. A null or empty image is a
    /// programming error.
    static std::shared_ptr<ReferenceImage> create(std::shared_ptr<const image::Image> image,
                                                  ImageOrientation orientation,
                                                  double physicalWidth);
    virtual ~ReferenceImage();
    ReferenceImage(const ReferenceImage&) = delete;
    ReferenceImage& operator=(const ReferenceImage&) = delete;

    const std::shared_ptr<const image::Image>& image() const { return image_; }
    ImageOrientation orientation() const { return orientation_; }
    double physicalWidth() const { return physicalWidth_; }
    /// Width and height in metres: the physical width, and that width times the picture's
    /// height over its width (of the upright picture).
    glm::dvec2 physicalSize() const;

    std::optional<std::string> name() const;
    void setName(std::optional<std::string> name);

    /// Checks on a worker thread whether the image can be recognised and tracked, then calls
    /// `completion` there with nothing, or with an error whose description says why not (too
    /// small, too little detail). Never runs `completion` on the calling thread or on the main
    /// queue.
    void validate(std::function<void(ErrorPtr)> completion) const;

protected:
    ReferenceImage(std::shared_ptr<const image::Image> image, ImageOrientation orientation,
                   double physicalWidth);

private:
    std::shared_ptr<const image::Image> image_;
    ImageOrientation orientation_;
    double physicalWidth_;
    struct Name;
    std::unique_ptr<Name> name_;
};

using ReferenceImagePtr = std::shared_ptr<const ReferenceImage>;

} // namespace pelkit::ar
