// The one lock that guards every scene object (nodes, geometry, materials, 2D scenes, sprites).
// Any thread.
#pragma once

namespace pelkit::scene {

/// Holds the process-wide scene lock for its scope. Every scene operation takes it on its own, so
/// single calls are always safe from any thread; hold a SceneLock to read or change several values
/// as one consistent step. The renderer holds one while it reads each frame's scene, so it never
/// sees a content tree half-built on another thread; it uploads and draws after releasing it. The
/// lock is recursive: scene calls made while holding it are fine.
///
///     {
///         scene::SceneLock lock;
///         node->setPosition(p);
///         node->setEulerAngles(angles);   // no frame sees the new position with the old angles
///     }
class SceneLock {
public:
    SceneLock();
    ~SceneLock();
    SceneLock(const SceneLock&) = delete;
    SceneLock& operator=(const SceneLock&) = delete;
};

} // namespace pelkit::scene
