#include <pelkit/PELReferenceImage.h>

namespace pelkit {

std::shared_ptr<PELReferenceImage>
PELReferenceImage::create(std::shared_ptr<const image::Image> image,
                          ar::ImageOrientation orientation, double physicalWidth,
                          std::string targetId, std::vector<PELContent> contents, double imageWidth,
                          double imageHeight) {
    return std::shared_ptr<PELReferenceImage>(
        new PELReferenceImage(std::move(image), orientation, physicalWidth, std::move(targetId),
                              std::move(contents), imageWidth, imageHeight));
}

std::shared_ptr<PELReferenceImage> PELReferenceImage::create(std::shared_ptr<const image::Image>,
                                                             ar::ImageOrientation, double) {
    fatalError("Use of unimplemented initializer 'init(_:orientation:physicalWidth:)' for class "
               "'PELkit.PELReferenceImage'");
}

PELReferenceImage::PELReferenceImage(std::shared_ptr<const image::Image> image,
                                     ar::ImageOrientation orientation, double physicalWidth,
                                     std::string targetId, std::vector<PELContent> contents,
                                     double imageWidth, double imageHeight)
    : ar::ReferenceImage(std::move(image), orientation, physicalWidth),
      targetId_(std::move(targetId)), contents_(std::move(contents)), imageWidth_(imageWidth),
      imageHeight_(imageHeight) {}

} // namespace pelkit
