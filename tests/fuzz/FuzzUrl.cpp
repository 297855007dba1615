// Parses any text as a URL. An accepted URL holds none of the characters that must be escaped,
// parses again from its own text, and answers every accessor.
#include <pelkit/net/Url.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

bool needsEscaping(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c <= 0x20 || c >= 0x7f || std::string_view("\"<>\\^`{|}").contains(char(c))) {
            return true;
        }
        if (c == '%' &&
            (i + 2 >= text.size() || !std::isxdigit(text[i + 1]) || !std::isxdigit(text[i + 2]))) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto url = pelkit::net::Url::parse(text);
    if (!url) {
        return 0;
    }
    if (needsEscaping(text) || url->absoluteString() != text ||
        pelkit::net::Url::parse(url->absoluteString()) != url) {
        std::abort();
    }
    (void)url->scheme();
    (void)url->host();
    (void)url->path();
    (void)url->isFileUrl();
    return 0;
}
