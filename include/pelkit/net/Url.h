// Strictly parsed URLs: text that needs escaping is refused. Immutable values, safe to
// share between threads.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace pelkit::net {

/// A URL or relative reference (RFC 3986). Parsing accepts relative references such as
/// "files/a.png" and rejects text with characters that must be escaped: space, '"', '<', '>',
/// '\\', '^', '`', '{', '|', '}', control and non-ASCII characters, and '%' not followed by two
/// hex digits. Brackets are allowed only around an IPv6 host, '#' only once, and a port is digits
/// only. Text before the first ':' is a scheme only when it is one (a letter, then letters, digits,
/// '+', '-', '.'); otherwise the text is a relative reference: "127.0.0.1:8000/x" has no scheme.
///
///     auto url = Url::parse("https://example.com/targets.zip");
///     url->scheme();          // "https"
///     url->absoluteString();  // the text as given
class Url {
public:
    static std::optional<Url> parse(std::string_view text);
    /// The "file://" URL of an absolute local path.
    static Url fileUrl(const std::filesystem::path& path);

    /// The text the URL was made from, unchanged.
    const std::string& absoluteString() const { return text_; }
    /// Lower-cased scheme, empty for a relative reference.
    std::string scheme() const;
    std::string host() const;
    bool isFileUrl() const;
    /// The path component with percent escapes decoded.
    std::string path() const;

    bool operator==(const Url& other) const { return text_ == other.text_; }

private:
    explicit Url(std::string text);
    std::string text_;
    std::size_t schemeEnd_ = 0; // length of the scheme, 0 when relative
    std::size_t authorityBegin_ = std::string::npos, authorityEnd_ = std::string::npos;
    std::size_t pathBegin_ = 0, pathEnd_ = 0;
};

} // namespace pelkit::net
