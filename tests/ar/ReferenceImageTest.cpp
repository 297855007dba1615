#include <pelkit/ar/ReferenceImage.h>

#include <gtest/gtest.h>

namespace pelkit::ar {
namespace {

std::shared_ptr<const image::Image> picture(int width, int height) {
    return std::make_shared<image::Image>(image::Image::filled(width, height));
}

TEST(ReferenceImage, PhysicalSizeFollowsTheUprightAspectRatio) {
    struct Case {
        ImageOrientation orientation;
        glm::dvec2 size;
    };
    for (auto [orientation, size] :
         {Case{ImageOrientation::up, {0.2, 0.1}}, Case{ImageOrientation::down, {0.2, 0.1}},
          Case{ImageOrientation::right, {0.2, 0.4}},
          Case{ImageOrientation::leftMirrored, {0.2, 0.4}}}) {
        auto reference = ReferenceImage::create(picture(1000, 500), orientation, 0.2);
        EXPECT_DOUBLE_EQ(reference->physicalSize().x, size.x);
        EXPECT_DOUBLE_EQ(reference->physicalSize().y, size.y) << static_cast<int>(orientation);
    }
}

TEST(ReferenceImageDeathTest, AnEmptyImageIsAProgrammingError) {
    EXPECT_DEATH(ReferenceImage::create(picture(0, 0), ImageOrientation::up, 0.1),
                 "Fatal error: ReferenceImage: the image is empty");
}

} // namespace
} // namespace pelkit::ar
