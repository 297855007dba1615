// The photo gallery: full-screen images, one at a time, fitted to the window over a background
// colour, with a page control that can be hidden; a tap reports that the user wants it closed.
// Main thread only.
#pragma once

#include <pelkit/image/Image.h>
#include <pelkit/ui/ViewController.h>

#include <memory>

namespace pelkit::ui {

class PhotoGalleryViewController;

/// Gives the gallery its images.
class PhotoGalleryDataSource {
public:
    virtual ~PhotoGalleryDataSource() = default;
    virtual int numberOfImagesInGallery(PhotoGalleryViewController& gallery) = 0;
    /// The image of page `index`, or null when there is none (the page shows the background).
    virtual std::shared_ptr<const image::Image> imageInGallery(PhotoGalleryViewController& gallery,
                                                               int index) = 0;
};

/// Hears from the gallery.
class PhotoGalleryDelegate {
public:
    virtual ~PhotoGalleryDelegate() = default;
    /// The user tapped the picture: the gallery does not close itself; the delegate dismisses it.
    virtual void galleryDidTapToClose(PhotoGalleryViewController& gallery) = 0;
};

/// The gallery screen. Holds its delegate and data source weakly. A tap reports
/// `galleryDidTapToClose`; a horizontal swipe of more than 40 points turns the page. The page
/// control (a row of dots at the bottom, the current one white) shows unless hidden.
///
///     auto gallery = std::make_shared<ui::PhotoGalleryViewController>(self, self);
///     gallery->setBackgroundColor(ui::colors::black);
///     gallery->setHidePageControl(true);
///     controller->present(gallery, ui::Animated::yes);
class PhotoGalleryViewController : public ViewController {
public:
    PhotoGalleryViewController(std::weak_ptr<PhotoGalleryDelegate> delegate,
                               std::weak_ptr<PhotoGalleryDataSource> dataSource);

    Color backgroundColor() const { return background_; }
    void setBackgroundColor(const Color& color);
    bool hidePageControl() const { return hidePageControl_; }
    void setHidePageControl(bool hide);

    int currentIndex() const { return index_; }
    /// Shows page `index` (clamped to the pages there are).
    void setCurrentIndex(int index);
    /// Asks the data source again.
    void reloadData();
    /// What the data source gave: the page count and the current page's image.
    int numberOfImages() const { return count_; }
    std::shared_ptr<const image::Image> currentImage() const { return image_; }

    void touchesEnded(const TouchSet& touches, const Event* event) override;

protected:
    void loadView() override;
    void viewWillAppear(Animated animated) override;

private:
    friend class GalleryView;
    std::weak_ptr<PhotoGalleryDelegate> delegate_;
    std::weak_ptr<PhotoGalleryDataSource> dataSource_;
    Color background_{0, 0, 0, 1};
    bool hidePageControl_ = false;
    int index_ = 0;
    int count_ = 0;
    std::shared_ptr<const image::Image> image_;
};

} // namespace pelkit::ui
