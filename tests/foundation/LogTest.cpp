#include <pelkit/foundation/FileDescriptor.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Log.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <future>

namespace pelkit {
namespace {

TEST(PrintLine, ComesAfterWhatTheHostHasBufferedForStandardOutput) {
    test::TempDir dir;
    std::fflush(stdout);
    FileDescriptor saved(::dup(STDOUT_FILENO));
    FileDescriptor file(::open((dir / "stdout").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ::dup2(file.get(), STDOUT_FILENO);
    std::fputs("host ", stdout); // no line feed: it stays in stdio's buffer
    printLine("framework");
    std::fflush(stdout);
    ::dup2(saved.get(), STDOUT_FILENO);
    EXPECT_EQ(textOf(readFile(dir / "stdout").value()), "host framework\n");
}

TEST(PrintLine, SinkRunsWithoutTheChannelLocked) {
    test::LineCapture lines;
    std::future<void> inner;
    setLineSink([&, previous = setLineSink(nullptr)](std::string_view line) {
        previous(line);
        if (line == "outer") {
            // Another thread prints while this sink runs: it must not wait for the sink.
            inner = std::async(std::launch::async, [] { printLine("inner"); });
            EXPECT_EQ(inner.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        }
    });
    printLine("outer");
    inner.wait();
    EXPECT_EQ(lines.lines(), (std::vector<std::string>{"outer", "inner"}));
}

} // namespace
} // namespace pelkit
