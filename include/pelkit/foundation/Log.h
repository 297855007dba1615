// The diagnostic channel: single lines on standard output. Thread-safe; each line is written
// whole, so lines from different threads never interleave.
#pragma once

#include <functional>
#include <string_view>

namespace pelkit {

/// Writes `line` and a line feed to standard output in one write.
void printLine(std::string_view line);

/// Where lines go instead of standard output (tests capture them). An empty sink restores
/// standard output. Returns the sink that was installed before.
using LineSink = std::function<void(std::string_view line)>;
LineSink setLineSink(LineSink sink);

} // namespace pelkit
