#include "ContentSupport.h"

#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/NotificationCenter.h>
#include <pelkit/foundation/Resources.h>
#include <pelkit/net/ReadResource.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>

namespace pelkit::content {
namespace {

// The framework's pictures are a few kilobytes; far larger means the wrong file.
constexpr std::size_t kMaxResourceBytes = std::size_t{4} << 20;

std::shared_ptr<const image::Image> loadFrameworkImage(std::string_view name) {
    std::string file = std::string(name) + ".png";
    auto path = resourcePath(name, "png");
    if (!path)
        fatalError("the framework resource \"" + file +
                   "\" is missing: set PELKIT_RESOURCES_DIR or reinstall PELkit");
    auto bytes = readRegularFile(*path, kMaxResourceBytes);
    if (!bytes)
        fatalError("the framework resource \"" + file +
                   "\" cannot be read: " + bytes.error()->description());
    auto picture = image::decode(*bytes);
    if (!picture)
        fatalError("the framework resource \"" + file +
                   "\" is no picture: " + picture.error()->description());
    return std::make_shared<const image::Image>(std::move(*picture));
}

} // namespace

std::shared_ptr<const image::Image> frameworkImage(std::string_view name) {
    // Never destroyed: content is still built on other threads while the process exits.
    static auto* const mutex = new std::mutex;
    static auto* const loaded =
        new std::map<std::string, std::shared_ptr<const image::Image>, std::less<>>;
    std::lock_guard lock(*mutex);
    if (auto found = loaded->find(name); found != loaded->end())
        return found->second;
    auto picture = loadFrameworkImage(name);
    loaded->emplace(std::string(name), picture);
    return picture;
}

PictureRead readPicture(const net::Url& url) {
    auto bytes = net::readWholeResource(url);
    if (!bytes)
        return std::nullopt;
    auto picture = image::decode(*bytes);
    if (!picture)
        return std::shared_ptr<const image::Image>();
    return std::make_shared<const image::Image>(std::move(*picture));
}

std::shared_ptr<scene::Plane> placeholderPlane(double width, double height) {
    auto plane = scene::Plane::create(static_cast<float>(width), static_cast<float>(height));
    plane->firstMaterial()->setDiffuseContents(kPlaceholder);
    return plane;
}

void showPicture(scene::Plane& plane, const std::shared_ptr<const image::Image>& picture) {
    auto& material = required(plane.firstMaterial());
    if (picture)
        material.setDiffuseContents(picture);
    else
        material.setDiffuseContents(std::monostate{});
}

std::shared_ptr<scene::Plane> addPlayButton(scene::Node& parent, double width, double height) {
    auto side = static_cast<float>(0.5 * std::min(width, height));
    auto plane = scene::Plane::create(side, side);
    plane->firstMaterial()->setDiffuseContents(frameworkImage("play"));
    auto button = scene::Node::create();
    button->setGeometry(plane);
    auto position = button->position();
    button->setPosition({position.x, position.y, kPlayButtonOffset});
    parent.addChildNode(button);
    return plane;
}

void showPlayButton(scene::Plane& button, bool visible) {
    auto material = button.firstMaterial();
    if (!material)
        return;
    if (visible)
        material->setDiffuseContents(frameworkImage("play"));
    else
        material->setDiffuseContents(kClear);
}

scene::ActionPtr fadeInFromHidden() {
    return scene::Action::sequence(
        {scene::Action::fadeOut(0), scene::Action::unhide(), scene::Action::fadeIn(1.0)});
}

void observeEnd(const std::shared_ptr<media::PlayerItem>& item, std::function<void()> onEnd) {
    // The centre matches objects by address; holding the item weakly keeps a later item at the
    // same address from reaching this observer.
    std::weak_ptr<media::PlayerItem> watched = item;
    NotificationCenter::defaultCenter().addObserver(
        media::kPlayerItemDidPlayToEndTime, item.get(),
        [watched, onEnd = std::move(onEnd)](const Notification&) {
            if (watched.lock())
                onEnd();
        });
}

} // namespace pelkit::content
