#include <pelkit/foundation/Log.h>

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace pelkit {
namespace {

// An installed sink and the number of calls of it in progress, so that replacing it can wait
// until nobody runs the old one any more: its owner may go away right after.
struct InstalledSink {
    explicit InstalledSink(LineSink sink) : sink(std::move(sink)) {}
    LineSink sink;
    int calls = 0;
};

struct Channel {
    std::mutex mutex;
    std::condition_variable callEnded;
    std::shared_ptr<InstalledSink> sink;
};

Channel& channel() {
    // Never destroyed: threads may still print while the process exits.
    static auto* instance = new Channel;
    return *instance;
}

// A sink that replaces itself must not wait for its own call to end.
thread_local int sinkCallDepth = 0;

void callSink(Channel& out, std::shared_ptr<InstalledSink> installed, std::string_view line) {
    ++sinkCallDepth;
    try {
        installed->sink(line);
    } catch (...) {
        // A failing sink loses its line; printing must never fail the code that prints.
    }
    --sinkCallDepth;
    std::lock_guard lock(out.mutex);
    --installed->calls;
    out.callEnded.notify_all();
}

} // namespace

void printLine(std::string_view line) {
    auto& out = channel();
    std::unique_lock lock(out.mutex);
    if (auto installed = out.sink) {
        // The sink is the host's code: run it without the lock, so it may take its own locks and
        // wait for other threads that print.
        ++installed->calls;
        lock.unlock();
        callSink(out, std::move(installed), line);
        return;
    }
    // Through stdio, so a line never overtakes what the host has already buffered for standard
    // output. The lock keeps our lines whole; one fwrite keeps the host's own stdio calls from
    // landing inside one.
    std::string whole;
    whole.reserve(line.size() + 1);
    whole.append(line).push_back('\n');
    std::fwrite(whole.data(), 1, whole.size(), stdout);
    std::fflush(stdout);
}

LineSink setLineSink(LineSink sink) {
    auto& out = channel();
    std::unique_lock lock(out.mutex);
    auto previous =
        std::exchange(out.sink, sink ? std::make_shared<InstalledSink>(std::move(sink)) : nullptr);
    if (!previous)
        return {};
    out.callEnded.wait(lock, [&] { return previous->calls <= sinkCallDepth; });
    return std::move(previous->sink);
}

} // namespace pelkit
