#include <pelkit/foundation/Error.h>
#include <pelkit/foundation/Text.h>
#include <pelkit/net/Url.h>

#include <algorithm>
#include <string_view>
#include <system_error>

namespace pelkit::net {
namespace {

bool isAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isHex(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

int hexValue(char c) {
    if (isDigit(c))
        return c - '0';
    return (c | 0x20) - 'a' + 10;
}

// Characters that may never appear unescaped anywhere in a URL. Brackets are allowed only around
// an IPv6 host and '#' only once; the structural pass checks those.
bool isForbidden(unsigned char c) {
    if (c <= 0x20 || c >= 0x7f)
        return true;
    switch (c) {
    case '"':
    case '<':
    case '>':
    case '\\':
    case '^':
    case '`':
    case '{':
    case '|':
    case '}':
        return true;
    default:
        return false;
    }
}

bool hasValidCharacters(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (isForbidden(c))
            return false;
        if (c == '%' && (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2])))
            return false;
    }
    return true;
}

// scheme = ALPHA *( ALPHA / DIGIT / "+" / "-" / "." )
bool isScheme(std::string_view text) {
    if (text.empty() || !isAlpha(text.front()))
        return false;
    return std::ranges::all_of(
        text, [](char c) { return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.'; });
}

bool hasBracket(std::string_view text) {
    return text.find_first_of("[]") != std::string_view::npos;
}

// authority = [ userinfo "@" ] host [ ":" port ]; host is a name or a bracketed IP literal.
bool isValidAuthority(std::string_view authority) {
    if (auto at = authority.rfind('@'); at != std::string_view::npos) {
        if (hasBracket(authority.substr(0, at)))
            return false;
        authority.remove_prefix(at + 1);
    }
    std::string_view port;
    if (!authority.empty() && authority.front() == '[') {
        auto close = authority.find(']');
        if (close == std::string_view::npos || hasBracket(authority.substr(1, close - 1)))
            return false;
        auto rest = authority.substr(close + 1);
        if (!rest.empty() && rest.front() != ':')
            return false;
        port = rest.empty() ? rest : rest.substr(1);
    } else {
        if (hasBracket(authority))
            return false;
        if (auto colon = authority.find(':'); colon != std::string_view::npos)
            port = authority.substr(colon + 1);
    }
    for (char c : port) {
        if (!isDigit(c))
            return false;
    }
    return true;
}

std::string percentDecoded(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        // Parsing guarantees that every '%' is followed by two hex digits.
        if (text[i] == '%') {
            out.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

bool isKeptInFileUrl(unsigned char c) {
    if (isAlpha(static_cast<char>(c)) || isDigit(static_cast<char>(c)))
        return true;
    return std::string_view("-._~/!$&'()*+,;=:@").find(static_cast<char>(c)) !=
           std::string_view::npos;
}

} // namespace

Url::Url(std::string text) : text_(std::move(text)) {}

std::optional<Url> Url::parse(std::string_view text) {
    if (text.empty() || !hasValidCharacters(text))
        return std::nullopt;

    Url url{std::string(text)};
    std::string_view rest = text;
    std::size_t offset = 0;

    auto hash = rest.find('#');
    if (hash != std::string_view::npos) {
        if (rest.find('#', hash + 1) != std::string_view::npos || hasBracket(rest.substr(hash + 1)))
            return std::nullopt;
        rest = rest.substr(0, hash);
    }
    if (auto question = rest.find('?'); question != std::string_view::npos) {
        if (hasBracket(rest.substr(question + 1)))
            return std::nullopt;
        rest = rest.substr(0, question);
    }

    // Text before the first ':' of the first segment is a scheme only when it reads as one;
    // otherwise the whole text is a relative reference ("127.0.0.1:8000/x" has no scheme).
    auto colon = rest.find(':');
    auto slash = rest.find('/');
    if (colon != std::string_view::npos && (slash == std::string_view::npos || colon < slash) &&
        isScheme(rest.substr(0, colon))) {
        url.schemeEnd_ = colon;
        offset = colon + 1;
    }

    if (rest.substr(offset).starts_with("//")) {
        auto begin = offset + 2;
        auto end = rest.find('/', begin);
        if (end == std::string_view::npos)
            end = rest.size();
        if (!isValidAuthority(rest.substr(begin, end - begin)))
            return std::nullopt;
        url.authorityBegin_ = begin;
        url.authorityEnd_ = end;
        offset = end;
    }

    if (hasBracket(rest.substr(offset)))
        return std::nullopt;
    url.pathBegin_ = offset;
    url.pathEnd_ = rest.size();
    return url;
}

Url Url::fileUrl(const std::filesystem::path& path) {
    std::error_code error;
    auto absolute = std::filesystem::absolute(path, error);
    const std::string native = error ? path.string() : absolute.string();

    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text = "file://";
    for (char c : native) {
        auto byte = static_cast<unsigned char>(c);
        if (isKeptInFileUrl(byte)) {
            text.push_back(c);
        } else {
            text.push_back('%');
            text.push_back(kHex[byte >> 4]);
            text.push_back(kHex[byte & 0xf]);
        }
    }
    auto url = parse(text);
    if (!url)
        fatalError("Url::fileUrl(): escaped path '" + text + "' does not parse");
    return *url;
}

std::string Url::scheme() const {
    return asciiLowercase(std::string_view(text_).substr(0, schemeEnd_));
}

std::string Url::host() const {
    if (authorityBegin_ == std::string::npos)
        return {};
    std::string_view authority(text_);
    authority = authority.substr(authorityBegin_, authorityEnd_ - authorityBegin_);
    if (auto at = authority.rfind('@'); at != std::string_view::npos)
        authority.remove_prefix(at + 1);
    if (authority.starts_with('['))
        return std::string(authority.substr(1, authority.find(']') - 1));
    return std::string(authority.substr(0, authority.find(':')));
}

bool Url::isFileUrl() const {
    return scheme() == "file";
}

std::string Url::path() const {
    return percentDecoded(std::string_view(text_).substr(pathBegin_, pathEnd_ - pathBegin_));
}

} // namespace pelkit::net
