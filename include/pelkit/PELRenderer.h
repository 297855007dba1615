// Turns a recognised reference image into the node tree that carries its target's content.
#pragma once

#include <pelkit/PELReferenceImage.h>
#include <pelkit/scene/Node.h>

#include <memory>
#include <string>

namespace pelkit {

/// The node factory. `render` makes a root turned -pi/2 about x, which lays the content's x-y
/// plane on the image anchor's image (+y toward the image's top), with one content node per item
/// of the target, in order. Each item's placement is converted from target pixels to metres on
/// the physical image: x' = x / imageWidth * physicalWidth, and likewise for y, width and height
/// (y and height with the physical height); x' and y' are the centre's offset from the image
/// centre. Every node starts preparing its content before `render` returns, and content whose
/// address the configuration gives is loaded inside the call. Keeps no state.
class PELRenderer {
public:
    std::shared_ptr<scene::Node> render(const PELReferenceImage& ref,
                                        const std::string& appKey) const;
};

} // namespace pelkit
