// Image content: a picture lying on the recognised image, a translucent placeholder until loaded.
#pragma once

#include <pelkit/PELNode.h>
#include <pelkit/scene/Geometry.h>

#include <mutex>

namespace pelkit {

/// A plane of the content's size at (x, y, 0), black at alpha 0.7 until the picture at the
/// content's URL has been read and decoded. A read that fails keeps the placeholder; bytes that
/// are no picture leave the plane without contents. Tapping it shows `url()` in the gallery.
///
///     auto node = PELNode::create<PELImageNode>(appKey, targetId, contentId, 0.1, 0.05,
///                                               std::nullopt, 0.05, -0.02);
class PELImageNode : public PELNode {
public:
    PELImageNode(std::string appKey, std::string targetId, std::string contentId, double width,
                 double height, std::optional<net::Url> filePath, double x, double y);

    std::shared_ptr<scene::Plane> plane() const { return plane_; }
    /// Where the picture was read from; absent until a read has succeeded.
    std::optional<net::Url> url() const;

    /// Reads the whole picture at `url` on the calling thread (blocking) and shows it.
    void presentContent(const net::Url& url) override;

private:
    std::shared_ptr<scene::Plane> plane_;
    mutable std::mutex mutex_;
    std::optional<net::Url> url_;
};

} // namespace pelkit
