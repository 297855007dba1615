// The reference image a session recognises, with what content placement needs from its target.
#pragma once

#include <pelkit/PELProject.h>
#include <pelkit/ar/ReferenceImage.h>

#include <string>
#include <vector>

namespace pelkit {

/// A target's picture as a reference image: the target's id and content, and the size (in the
/// target's own pixels) in which the content's placement is given. Compared by identity, as every
/// reference image is.
///
///     auto reference = PELReferenceImage::create(picture, ar::ImageOrientation::up,
///                                                target.physicalWidth, target.id, target.items,
///                                                target.targetWidth.value_or(picture->width),
///                                                target.targetHeight.value_or(picture->height));
///     reference->setName(target.name);
class PELReferenceImage : public ar::ReferenceImage {
public:
    static std::shared_ptr<PELReferenceImage> create(std::shared_ptr<const image::Image> image,
                                                     ar::ImageOrientation orientation,
                                                     double physicalWidth, std::string targetId,
                                                     std::vector<PELContent> contents,
                                                     double imageWidth, double imageHeight);
    /// Not available: a record needs its target. Stops the program.
    [[noreturn]] static std::shared_ptr<PELReferenceImage>
    create(std::shared_ptr<const image::Image> image, ar::ImageOrientation orientation,
           double physicalWidth);

    const std::string& targetId() const { return targetId_; }
    const std::vector<PELContent>& contents() const { return contents_; }
    double imageWidth() const { return imageWidth_; }
    double imageHeight() const { return imageHeight_; }

private:
    PELReferenceImage(std::shared_ptr<const image::Image> image, ar::ImageOrientation orientation,
                      double physicalWidth, std::string targetId, std::vector<PELContent> contents,
                      double imageWidth, double imageHeight);

    std::string targetId_;
    std::vector<PELContent> contents_;
    double imageWidth_;
    double imageHeight_;
};

} // namespace pelkit
