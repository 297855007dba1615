#include "ExitPass.h"

#include <opencv2/core.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace pelkit::ar::detail {
namespace {

struct Gate {
    std::mutex mutex;
    std::condition_variable left;
    int inside = 0;
    bool closed = false;
};

void closeGate();

// Never destroyed: the exit handler and late threads use it during static destruction.
Gate& gate() {
    static Gate* const made = [] {
        // OpenCV's per-thread storage must exist before the handler is registered, so that the
        // handler runs before the storage is torn down.
        (void)cv::theRNG();
        std::atexit(closeGate);
        return new Gate;
    }();
    return *made;
}

// Runs once or twice (see closeBeforeLibrariesStartedSoFar); the second time finds the gate
// closed and nobody inside.
void closeGate() {
    auto& g = gate();
    std::unique_lock lock(g.mutex);
    g.closed = true;
    // Bounded: a stuck camera read must not turn the exit into a hang.
    g.left.wait_for(lock, std::chrono::seconds(5), [&] { return g.inside == 0; });
}

} // namespace

ExitPass ExitPass::enter() {
    auto& g = gate();
    std::lock_guard lock(g.mutex);
    if (g.closed)
        return ExitPass(false);
    ++g.inside;
    return ExitPass(true);
}

void ExitPass::closeBeforeLibrariesStartedSoFar() {
    static std::once_flag once;
    std::call_once(once, [] {
        (void)gate();
        std::atexit(closeGate);
    });
}

ExitPass::ExitPass(ExitPass&& other) noexcept : admitted_(std::exchange(other.admitted_, false)) {}

ExitPass::~ExitPass() {
    if (!admitted_)
        return;
    auto& g = gate();
    std::lock_guard lock(g.mutex);
    if (--g.inside == 0)
        g.left.notify_all();
}

} // namespace pelkit::ar::detail
