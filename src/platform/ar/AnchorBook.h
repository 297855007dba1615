// A session's anchors: one per reference image, in the order they were added, turned from each
// frame's tracking result into the snapshots that were added, updated and removed. Used from the
// session's thread only.
#pragma once

#include <pelkit/ar/ImageTracker.h>
#include <pelkit/ar/Session.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace pelkit::ar {

/// What one step changed, in the order a delegate hears of it.
struct AnchorChanges {
    std::vector<AnchorPtr> removed;
    std::vector<AnchorPtr> added;
    std::vector<AnchorPtr> updated;

    bool empty() const { return removed.empty() && added.empty() && updated.empty(); }
};

class AnchorBook {
public:
    /// Takes a frame's observations: images seen get (or move) their anchor, tracked; tracked
    /// ones not seen are lost. Only images of `wanted` count, each once, and at most `maximum`
    /// are tracked, those already tracked first.
    AnchorChanges track(const std::vector<ImageObservation>& observations,
                        const std::vector<ReferenceImagePtr>& wanted, int maximum);
    /// Every tracked anchor becomes lost.
    AnchorChanges loseAll();
    /// Every anchor goes.
    AnchorChanges removeAll();

    /// The current snapshots, in order.
    std::vector<AnchorPtr> anchors() const;

private:
    struct Entry {
        ReferenceImagePtr image;
        std::shared_ptr<const ImageAnchor> anchor;
    };
    std::vector<const ImageObservation*> choose(const std::vector<ImageObservation>& observations,
                                                const std::vector<ReferenceImagePtr>& wanted,
                                                int maximum) const;
    Entry* find(const ReferenceImage* image);

    std::vector<Entry> entries_;
    std::uint64_t nextIdentifier_ = 1;
};

} // namespace pelkit::ar
