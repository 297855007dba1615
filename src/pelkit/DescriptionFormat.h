// Pieces of the one-line descriptions that the model, status and error types print.
#pragma once

#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>

namespace pelkit::detail {

/// `text` in double quotes, with quotes, backslashes and control characters escaped so that a
/// description always stays on one line.
inline std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escape[8];
                std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
                out += escape;
            } else {
                out += c;
            }
        }
    }
    return out + '"';
}

/// The shortest text that reads back as the same value: 10 -> "10", 0.25f -> "0.25".
template <class Float> std::string number(Float value) {
    char buffer[64];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, error == std::errc() ? end : buffer);
}

} // namespace pelkit::detail
