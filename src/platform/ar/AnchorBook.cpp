#include "AnchorBook.h"

#include <algorithm>

namespace pelkit::ar {
namespace {

bool holds(const std::vector<ReferenceImagePtr>& images, const ReferenceImage* image) {
    return std::ranges::any_of(images,
                               [&](const auto& candidate) { return candidate.get() == image; });
}

} // namespace

AnchorBook::Entry* AnchorBook::find(const ReferenceImage* image) {
    auto entry =
        std::ranges::find_if(entries_, [&](const Entry& e) { return e.image.get() == image; });
    return entry == entries_.end() ? nullptr : &*entry;
}

std::vector<const ImageObservation*>
AnchorBook::choose(const std::vector<ImageObservation>& observations,
                   const std::vector<ReferenceImagePtr>& wanted, int maximum) const {
    std::vector<const ImageObservation*> seen;
    for (const auto& observation : observations) {
        const auto* image = observation.referenceImage.get();
        bool repeated = std::ranges::any_of(
            seen, [&](const auto* other) { return other->referenceImage.get() == image; });
        if (image && holds(wanted, image) && !repeated)
            seen.push_back(&observation);
    }
    // An image already followed keeps its place; newcomers take what is left.
    auto isTracked = [this](const ImageObservation* observation) {
        return std::ranges::any_of(entries_, [&](const Entry& e) {
            return e.image == observation->referenceImage && e.anchor->isTracked();
        });
    };
    std::ranges::stable_partition(seen, isTracked);
    if (static_cast<int>(seen.size()) > std::max(maximum, 0))
        seen.resize(std::max(maximum, 0));
    return seen;
}

AnchorChanges AnchorBook::track(const std::vector<ImageObservation>& observations,
                                const std::vector<ReferenceImagePtr>& wanted, int maximum) {
    AnchorChanges changes;
    auto chosen = choose(observations, wanted, maximum);
    for (auto& entry : entries_) {
        auto match = std::ranges::find_if(chosen, [&](const ImageObservation* observation) {
            return observation->referenceImage == entry.image;
        });
        if (match != chosen.end()) {
            entry.anchor = std::make_shared<ImageAnchor>(
                entry.anchor->identifier(), glm::mat4((*match)->transform), entry.image, true);
            changes.updated.push_back(entry.anchor);
        } else if (entry.anchor->isTracked()) {
            entry.anchor = std::make_shared<ImageAnchor>(
                entry.anchor->identifier(), entry.anchor->transform(), entry.image, false);
            changes.updated.push_back(entry.anchor);
        }
    }
    for (const auto* observation : chosen) {
        if (find(observation->referenceImage.get()))
            continue;
        auto anchor =
            std::make_shared<ImageAnchor>(nextIdentifier_++, glm::mat4(observation->transform),
                                          observation->referenceImage, true);
        entries_.push_back({observation->referenceImage, anchor});
        changes.added.push_back(anchor);
    }
    return changes;
}

AnchorChanges AnchorBook::loseAll() {
    AnchorChanges changes;
    for (auto& entry : entries_) {
        if (!entry.anchor->isTracked())
            continue;
        entry.anchor = std::make_shared<ImageAnchor>(entry.anchor->identifier(),
                                                     entry.anchor->transform(), entry.image, false);
        changes.updated.push_back(entry.anchor);
    }
    return changes;
}

AnchorChanges AnchorBook::removeAll() {
    AnchorChanges changes;
    changes.removed = anchors();
    entries_.clear();
    return changes;
}

std::vector<AnchorPtr> AnchorBook::anchors() const {
    std::vector<AnchorPtr> all;
    all.reserve(entries_.size());
    for (const auto& entry : entries_)
        all.push_back(entry.anchor);
    return all;
}

} // namespace pelkit::ar
