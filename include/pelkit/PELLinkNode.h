// Link content: a picture on the recognised image that carries an address to open on a tap.
#pragma once

#include <pelkit/PELNode.h>
#include <pelkit/scene/Geometry.h>

namespace pelkit {

/// Looks and loads as `PELImageNode` does; `linkToOpen()` is the content's link, unchanged and
/// available from construction on. Opening it is the touch handling's work.
class PELLinkNode : public PELNode {
public:
    PELLinkNode(std::string appKey, std::string targetId, std::string contentId, double width,
                double height, std::optional<std::string> linkToOpenOnClick,
                std::optional<net::Url> filePath, double x, double y);

    const std::optional<std::string>& linkToOpen() const { return linkToOpen_; }
    std::shared_ptr<scene::Plane> plane() const { return plane_; }

    /// Reads the whole picture at `url` on the calling thread (blocking) and shows it.
    void presentContent(const net::Url& url) override;

private:
    std::optional<std::string> linkToOpen_;
    std::shared_ptr<scene::Plane> plane_;
};

} // namespace pelkit
