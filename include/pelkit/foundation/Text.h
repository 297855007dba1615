#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pelkit {

/// The first `count` user-perceived characters (Unicode extended grapheme clusters) of the UTF-8
/// `text`, or all of it if shorter. Invalid bytes count as one character each.
std::string characterPrefix(std::string_view text, std::size_t count);

/// `bytes` as UTF-8 text with each invalid sequence replaced by U+FFFD.
std::string decodeUtf8Lossy(std::string_view bytes);

} // namespace pelkit
