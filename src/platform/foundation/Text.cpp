#include <pelkit/foundation/Text.h>

#include <utf8proc.h>

namespace pelkit {
namespace {

// Length of the valid UTF-8 sequence at the start of `text`, with its code point, or -1.
utf8proc_ssize_t decodeOne(std::string_view text, utf8proc_int32_t& codepoint) {
    return utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                            static_cast<utf8proc_ssize_t>(text.size()), &codepoint);
}

} // namespace

std::string characterPrefix(std::string_view text, std::size_t count) {
    std::size_t characters = 0;
    std::size_t offset = 0;
    utf8proc_int32_t state = 0;
    utf8proc_int32_t previous = -1;
    while (offset < text.size()) {
        utf8proc_int32_t codepoint = 0;
        utf8proc_ssize_t length = decodeOne(text.substr(offset), codepoint);
        bool startsCharacter;
        if (length <= 0) {
            // An invalid byte stands alone as one character.
            length = 1;
            codepoint = -1;
            startsCharacter = true;
            state = 0;
        } else {
            startsCharacter =
                previous < 0 || utf8proc_grapheme_break_stateful(previous, codepoint, &state);
        }
        if (startsCharacter) {
            if (characters == count)
                break;
            ++characters;
        }
        previous = codepoint;
        offset += static_cast<std::size_t>(length);
    }
    return std::string(text.substr(0, offset));
}

std::string decodeUtf8Lossy(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    std::size_t offset = 0;
    while (offset < bytes.size()) {
        utf8proc_int32_t codepoint = 0;
        utf8proc_ssize_t length = decodeOne(bytes.substr(offset), codepoint);
        if (length <= 0) {
            out += "\xEF\xBF\xBD";
            ++offset;
            continue;
        }
        out.append(bytes.substr(offset, static_cast<std::size_t>(length)));
        offset += static_cast<std::size_t>(length);
    }
    return out;
}

bool isValidUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        utf8proc_int32_t codepoint = 0;
        utf8proc_ssize_t length = decodeOne(bytes, codepoint);
        if (length <= 0)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(length));
    }
    return true;
}

std::string asciiLowercase(std::string_view text) {
    std::string lower(text);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return lower;
}

} // namespace pelkit
