// The image and link nodes: a placeholder plane replaced by the picture read from the content's
// address.
#include <pelkit/PELImageNode.h>
#include <pelkit/PELLinkNode.h>

#include "ContentSupport.h"

namespace pelkit {

PELImageNode::PELImageNode(std::string appKey, std::string targetId, std::string contentId,
                           double width, double height, std::optional<net::Url> filePath, double x,
                           double y)
    : PELNode(std::move(appKey), std::move(targetId), std::move(contentId), width, height,
              std::move(filePath), x, y),
      plane_(content::placeholderPlane(width, height)) {
    setGeometry(plane_);
    setPosition({x, y, 0});
}

std::optional<net::Url> PELImageNode::url() const {
    std::lock_guard lock(mutex_);
    return url_;
}

void PELImageNode::presentContent(const net::Url& url) {
    auto picture = content::readPicture(url);
    if (!picture)
        return;
    {
        std::lock_guard lock(mutex_);
        url_ = url;
    }
    content::showPicture(content::required(plane_), *picture);
}

PELLinkNode::PELLinkNode(std::string appKey, std::string targetId, std::string contentId,
                         double width, double height, std::optional<std::string> linkToOpenOnClick,
                         std::optional<net::Url> filePath, double x, double y)
    : PELNode(std::move(appKey), std::move(targetId), std::move(contentId), width, height,
              std::move(filePath), x, y),
      linkToOpen_(std::move(linkToOpenOnClick)), plane_(content::placeholderPlane(width, height)) {
    setGeometry(plane_);
    setPosition({x, y, 0});
}

void PELLinkNode::presentContent(const net::Url& url) {
    if (auto picture = content::readPicture(url))
        content::showPicture(content::required(plane_), *picture);
}

} // namespace pelkit
