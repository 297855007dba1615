#include <pelkit/scene/SceneLock.h>

#include <mutex>

namespace pelkit::scene {
namespace {

// One lock for the whole graph rather than one per object: operations that span objects (world
// transforms walking up, re-parenting, a renderer's frame) then need no lock ordering at all.
std::recursive_mutex& sceneMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

} // namespace

SceneLock::SceneLock() {
    sceneMutex().lock();
}

SceneLock::~SceneLock() {
    sceneMutex().unlock();
}

} // namespace pelkit::scene
