#include <pelkit/foundation/Log.h>

#include <cerrno>
#include <mutex>
#include <string>
#include <unistd.h>
#include <utility>

namespace pelkit {
namespace {

std::mutex& sinkMutex() {
    static std::mutex mutex;
    return mutex;
}

LineSink& currentSink() {
    static LineSink sink;
    return sink;
}

void writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return; // Diagnostics have nowhere else to go.
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

} // namespace

void printLine(std::string_view line) {
    // The lock keeps lines whole even when one write() is split by the kernel (pipes, large lines).
    std::lock_guard lock(sinkMutex());
    if (auto& sink = currentSink()) {
        sink(line);
        return;
    }
    std::string whole;
    whole.reserve(line.size() + 1);
    whole.append(line).push_back('\n');
    writeAll(STDOUT_FILENO, whole.data(), whole.size());
}

LineSink setLineSink(LineSink sink) {
    std::lock_guard lock(sinkMutex());
    return std::exchange(currentSink(), std::move(sink));
}

} // namespace pelkit
