// The base of every content node: remembers which content item of which target it shows, where it
// sits and how large it is, and finds the address of the content file before handing it to the
// subclass. Construct on one thread (the controller's update queue); `presentContent` may then
// run on the shared HTTP session's completion queue. The fields are not synchronised: change them
// only while no preparation is outstanding.
#pragma once

#include <pelkit/net/Url.h>
#include <pelkit/scene/Node.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace pelkit {

/// A content node. Subclasses build their geometry in their constructor and implement
/// `presentContent`, which puts the content found at a URL onto that geometry.
///
/// Make nodes with `PELNode::create<Subclass>(...)`: it constructs the node as a shared object and
/// then calls `prepareContent()` on it. Preparing cannot happen inside a constructor, because the
/// pending request must hold the node (no shared owner exists yet) and the subclass's
/// `presentContent` override must be the one that runs. A subclass's constructor may be public,
/// or private with `friend class PELNode;`.
///
///     class PELImageNode : public PELNode {
///     public:
///         PELImageNode(std::string appKey, ..., double x, double y)
///             : PELNode(std::move(appKey), ..., x, y) { /* geometry, placeholder */ }
///         void presentContent(const net::Url& url) override;
///     };
///     auto node = PELNode::create<PELImageNode>(appKey, targetId, contentId, w, h, url, x, y);
class PELNode : public scene::Node {
public:
    /// Constructs a `T` with `args`, then prepares its content.
    template <class T, class... Args> static std::shared_ptr<T> create(Args&&... args);

    const std::string& appKey() const { return appKey_; }
    void setAppKey(std::string appKey) { appKey_ = std::move(appKey); }
    const std::string& targetId() const { return targetId_; }
    void setTargetId(std::string targetId) { targetId_ = std::move(targetId); }
    const std::string& contentId() const { return contentId_; }
    void setContentId(std::string contentId) { contentId_ = std::move(contentId); }
    /// Size of the content on the physical image, metres.
    double width() const { return width_; }
    void setWidth(double width) { width_ = width; }
    double height() const { return height_; }
    void setHeight(double height) { height_ = height; }
    /// The content's address from the configuration; absent when the server must prepare one.
    const std::optional<net::Url>& filePath() const { return filePath_; }
    void setFilePath(std::optional<net::Url> filePath) { filePath_ = std::move(filePath); }
    /// Centre of the content in the content layer, metres.
    double x() const { return x_; }
    void setX(double x) { x_ = x; }
    double y() const { return y_; }
    void setY(double y) { y_ = y; }

    /// Presents `filePath` at once on the calling thread when there is one. Otherwise asks the
    /// legacy API server (`legacyHost()`) for a prepared address with a GET of
    /// "/targets/<targetId>/content/<contentId>/preparecontent" (ids inserted as they are) and
    /// presents the server's answer, a path appended to that host, on the shared HTTP session's
    /// completion queue. Failures print one line and present nothing; a call while a request is
    /// outstanding does nothing. An address that is no URL is a programming error.
    void prepareContent();

    /// Whether a prepare request is outstanding. Tools that wait for content read it; once it is
    /// false, a presentation that the answer started may still be running on the completion
    /// queue (`net::HttpSession::shared().callbackQueue()`).
    bool isPreparing() const { return isPreparing_; }

    /// Loads the content at `url` onto the node's geometry. Every subclass overrides it; it may
    /// run on the constructing thread or on the HTTP completion queue. The base stops the process.
    virtual void presentContent(const net::Url& url);

protected:
    PELNode(std::string appKey, std::string targetId, std::string contentId, double width,
            double height, std::optional<net::Url> filePath, double x, double y);

private:
    std::string appKey_;
    std::string targetId_;
    std::string contentId_;
    double width_;
    double height_;
    std::optional<net::Url> filePath_;
    double x_;
    double y_;
    // Set on the preparing thread, cleared on the completion queue.
    std::atomic<bool> isPreparing_{false};
};

template <class T, class... Args> std::shared_ptr<T> PELNode::create(Args&&... args) {
    static_assert(std::is_base_of_v<PELNode, T>, "PELNode::create makes content nodes only");
    std::shared_ptr<T> node(new T(std::forward<Args>(args)...));
    node->prepareContent();
    return node;
}

} // namespace pelkit
