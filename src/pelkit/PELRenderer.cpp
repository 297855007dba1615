#include <pelkit/PELAudioNode.h>
#include <pelkit/PELGreenScreenNode.h>
#include <pelkit/PELImageNode.h>
#include <pelkit/PELLinkNode.h>
#include <pelkit/PELRenderer.h>
#include <pelkit/PELVideoNode.h>

namespace pelkit {
namespace {

// Neither video node loops, whatever they are told.
constexpr bool kLoop = false;

std::shared_ptr<PELNode> makeNode(const PELContent& item, const std::string& appKey,
                                  const std::string& targetId, double x, double y, double width,
                                  double height) {
    switch (item.type) {
    case PELType::image:
        return PELNode::create<PELImageNode>(appKey, targetId, item.id, width, height, item.url, x,
                                             y);
    case PELType::video:
        return PELNode::create<PELVideoNode>(appKey, targetId, item.id, kLoop, item.isFullscreen,
                                             width, height, item.url, x, y);
    case PELType::audio:
        return PELNode::create<PELAudioNode>(appKey, targetId, item.id, width, height, item.url, x,
                                             y);
    case PELType::link:
        return PELNode::create<PELLinkNode>(appKey, targetId, item.id, width, height,
                                            item.linkToOpenOnClick, item.url, x, y);
    case PELType::greenScreen:
        return PELNode::create<PELGreenScreenNode>(appKey, targetId, item.id, kLoop, width, height,
                                                   item.url, x, y);
    }
    fatalError("PELRenderer: unknown content type");
}

} // namespace

std::shared_ptr<scene::Node> PELRenderer::render(const PELReferenceImage& ref,
                                                 const std::string& appKey) const {
    auto root = scene::Node::create();
    auto angles = root->eulerAngles();
    angles.x = -1.5707963f;
    root->setEulerAngles(angles);

    auto physical = ref.physicalSize();
    double iw = ref.imageWidth(), ih = ref.imageHeight();
    for (const auto& item : ref.contents()) {
        double x = item.x / iw * physical.x;
        double y = item.y / ih * physical.y;
        double width = item.width / iw * physical.x;
        double height = item.height / ih * physical.y;
        root->addChildNode(makeNode(item, appKey, ref.targetId(), x, y, width, height));
    }
    return root;
}

} // namespace pelkit
