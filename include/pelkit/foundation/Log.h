// The diagnostic channel: single lines on standard output. Thread-safe; each line is written
// whole, so lines from different threads never interleave.
#pragma once

#include <functional>
#include <string_view>

namespace pelkit {

/// Writes `line` and a line feed to standard output through stdio, then flushes it, so the line
/// comes after whatever the host wrote to standard output before.
void printLine(std::string_view line);

/// Where lines go instead of standard output (tests capture them). The sink runs on the printing
/// thread with no lock of the channel held, so it may take its own locks and wait for threads that
/// print; it must be thread-safe.
/// An empty sink restores standard output. Returns the sink that was installed before, once no
/// thread runs it any more.
using LineSink = std::function<void(std::string_view line)>;
LineSink setLineSink(LineSink sink);

} // namespace pelkit
