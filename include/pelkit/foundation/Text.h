// Text helpers over UTF-8 and ASCII. Thread-safe: pure functions.
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

/// Whether `bytes` is well-formed UTF-8 (no overlong forms, surrogates or code points beyond
/// U+10FFFF).
bool isValidUtf8(std::string_view bytes);

/// `text` with A to Z made lower case and every other byte left as it is, whatever the locale:
/// for protocol names, header names and file extensions.
std::string asciiLowercase(std::string_view text);

} // namespace pelkit
