// Strict decoding of JSON documents into typed values, with errors that say what was wrong and
// where. Any thread; thread-safe: a parsed document is immutable and its views may be copied and
// read from several threads at once.
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/Error.h>

#include <nlohmann/json_fwd.hpp>

#include <concepts>
#include <cstddef>
#include <expected>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace pelkit {

/// One step from a container to a value inside it: an object key or an array index.
using CodingKey = std::variant<std::string, std::size_t>;
/// The steps from the document root to a value; empty for the root itself.
using CodingPath = std::vector<CodingKey>;

/// The path as text: keys joined by '.', indices in brackets, e.g. "targets[0].items[1].url".
/// The root is the empty text.
std::string toString(const CodingPath& path);

/// Why a document did not decode, and where.
///
///     keyNotFound "isFullscreen" at targets[0].items[1]
///     typeMismatch at targets[0].physicalWidth: Expected a number but found a string.
class DecodingError final : public Error {
public:
    /// The codes of the errors, in this order from 0.
    enum class Kind {
        keyNotFound,   ///< a required key is absent from its object
        valueNotFound, ///< a required value is null
        typeMismatch,  ///< a value has another JSON type than the one asked for
        dataCorrupted, ///< the text is not JSON, or a value is of the right type but unusable
    };

    /// `codingPath` leads to the failing value; for keyNotFound it ends with the missing key.
    DecodingError(Kind kind, CodingPath codingPath, std::string debugDescription);

    Kind kind() const { return kind_; }
    const CodingPath& codingPath() const { return codingPath_; }
    const std::string& debugDescription() const { return debugDescription_; }

    /// "DecodingError"
    std::string domain() const override;
    /// The kind's position in `Kind`.
    int code() const override;
    std::string description() const override;

private:
    Kind kind_;
    CodingPath codingPath_;
    std::string debugDescription_;
};

/// The kind's name, e.g. "keyNotFound".
std::string_view toString(DecodingError::Kind kind);
std::ostream& operator<<(std::ostream& out, DecodingError::Kind kind);

using DecodingErrorPtr = std::shared_ptr<const DecodingError>;

/// A decoded value or the first decoding failure met on the way.
template <class T> using Decoded = std::expected<T, DecodingErrorPtr>;

class JsonObject;
class JsonArray;

/// The types a JSON value decodes to.
template <class T>
concept JsonDecodable = std::same_as<T, std::string> || std::same_as<T, double> ||
    std::same_as<T, bool> || std::same_as<T, JsonObject> || std::same_as<T, JsonArray>;

/// One value of a parsed document, with the path that leads to it.
///
///     auto root = JsonValue::parse(bytesOf(R"({"id": "p1"})"));
///     auto object = root->decode<JsonObject>();
///     auto id = object->decode<std::string>("id");   // "p1"
class JsonValue {
public:
    /// Parses a whole document. Empty input, text that is not JSON (including ill-formed UTF-8 in
    /// strings, trailing text and numbers beyond the range of a 64-bit float) is dataCorrupted at
    /// the root.
    static Decoded<JsonValue> parse(const Bytes& bytes);

    /// The value as `T`: std::string, double, bool, JsonObject or JsonArray. Strict about JSON
    /// types: only strings are strings, only true/false are booleans; every JSON number (integer
    /// or not) is a double. Null is valueNotFound, any other JSON type typeMismatch.
    template <JsonDecodable T> Decoded<T> decode() const;

    bool isNull() const;
    const CodingPath& codingPath() const { return path_; }

private:
    friend class JsonObject;
    friend class JsonArray;
    JsonValue(std::shared_ptr<const nlohmann::json> document, const nlohmann::json* value,
              CodingPath path);
    DecodingErrorPtr failure(DecodingError::Kind kind, std::string_view expected) const;

    // The document keeps every view into it alive.
    std::shared_ptr<const nlohmann::json> document_;
    const nlohmann::json* value_;
    CodingPath path_;
};

/// A JSON object read key by key. Keys are matched exactly; keys that are never asked for are
/// ignored.
class JsonObject {
public:
    /// A required value: a missing key is keyNotFound, otherwise as `JsonValue::decode`.
    template <class T> Decoded<T> decode(std::string_view key) const {
        auto value = member(key);
        if (!value)
            return std::unexpected(value.error());
        return value->template decode<T>();
    }

    /// An optional value: a missing key or null gives no value; a value of another type still
    /// fails.
    template <class T> Decoded<std::optional<T>> decodeIfPresent(std::string_view key) const {
        auto value = member(key);
        if (!value || value->isNull())
            return std::optional<T>();
        auto decoded = value->template decode<T>();
        if (!decoded)
            return std::unexpected(decoded.error());
        return std::optional<T>(std::move(*decoded));
    }

    bool contains(std::string_view key) const;

    /// A dataCorrupted error at `key` of this object, for values of the right JSON type that the
    /// caller cannot use (an unknown enumeration string, a malformed URL).
    DecodingErrorPtr dataCorruptedError(std::string_view key, std::string debugDescription) const;

    const CodingPath& codingPath() const { return object_.codingPath(); }

private:
    friend class JsonValue;
    explicit JsonObject(JsonValue object) : object_(std::move(object)) {}
    Decoded<JsonValue> member(std::string_view key) const;

    JsonValue object_;
};

/// A JSON array read by index.
class JsonArray {
public:
    std::size_t size() const;

    /// The element at `index` (which must be below `size()`) as `T`, as `JsonValue::decode`.
    template <class T> Decoded<T> decode(std::size_t index) const {
        return element(index).template decode<T>();
    }

    /// Every element decoded as an object by `decodeElement`, a callable taking a `const
    /// JsonObject&` and returning a `Decoded<U>`. Stops at the first failure.
    template <class F> auto decodeObjects(F&& decodeElement) const {
        using Element = typename std::invoke_result_t<F&, const JsonObject&>::value_type;
        std::vector<Element> elements;
        elements.reserve(size());
        for (std::size_t index = 0; index < size(); ++index) {
            auto object = decode<JsonObject>(index);
            if (!object)
                return Decoded<std::vector<Element>>(std::unexpected(object.error()));
            auto decoded = decodeElement(*object);
            if (!decoded)
                return Decoded<std::vector<Element>>(std::unexpected(decoded.error()));
            elements.push_back(std::move(*decoded));
        }
        return Decoded<std::vector<Element>>(std::move(elements));
    }

    const CodingPath& codingPath() const { return array_.codingPath(); }

private:
    friend class JsonValue;
    explicit JsonArray(JsonValue array) : array_(std::move(array)) {}
    JsonValue element(std::size_t index) const;

    JsonValue array_;
};

} // namespace pelkit
