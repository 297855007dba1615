// A shared pointer that one thread replaces while others read it, e.g. the latest picture handed
// from an item's thread to the renderer.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

namespace pelkit::media {

/// Both sides hold a spin lock for a pointer copy only, never across other work, so a reader
/// never waits on decoding and never takes a mutex. (libstdc++ 12's atomic<shared_ptr> works the
/// same way but releases its lock after a read with relaxed order, which leaves the read and the
/// next store unordered.) Thread-safe.
template <class T> class SharedSlot {
public:
    std::shared_ptr<T> load() const {
        lock();
        std::shared_ptr<T> copy = value_;
        unlock();
        return copy;
    }
    void store(std::shared_ptr<T> value) {
        lock();
        value_.swap(value);
        unlock();
        // The previous value is released here, outside the lock: dropping a picture may give
        // its buffer back to a pool.
    }

private:
    void lock() const {
        while (busy_.exchange(true, std::memory_order_acquire))
            while (busy_.load(std::memory_order_relaxed))
                ;
    }
    void unlock() const { busy_.store(false, std::memory_order_release); }

    mutable std::atomic<bool> busy_{false};
    std::shared_ptr<T> value_;
};

} // namespace pelkit::media
