#include <pelkit/foundation/Json.h>

#include <nlohmann/json.hpp>

#include <ostream>

namespace pelkit {
namespace {

using nlohmann::json;

std::string_view describe(json::value_t type) {
    switch (type) {
    case json::value_t::null:
        return "null";
    case json::value_t::boolean:
        return "a boolean";
    case json::value_t::string:
        return "a string";
    case json::value_t::array:
        return "an array";
    case json::value_t::object:
        return "an object";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float:
        return "a number";
    case json::value_t::binary:
    case json::value_t::discarded:
        break;
    }
    return "an unknown value";
}

// The parser's own messages change between versions; ours name only what a reader needs to find
// the fault in the file.
std::string describe(const json::exception& error) {
    if (const auto* parseError = dynamic_cast<const json::parse_error*>(&error))
        return "syntax error at byte " + std::to_string(parseError->byte);
    if (dynamic_cast<const json::out_of_range*>(&error))
        return "number out of range";
    return "unreadable text";
}

} // namespace

std::string toString(const CodingPath& path) {
    std::string text;
    for (const CodingKey& step : path) {
        if (const auto* key = std::get_if<std::string>(&step)) {
            if (!text.empty())
                text += '.';
            text += *key;
        } else {
            text += '[' + std::to_string(std::get<std::size_t>(step)) + ']';
        }
    }
    return text;
}

DecodingError::DecodingError(Kind kind, CodingPath codingPath, std::string debugDescription)
    : kind_(kind), codingPath_(std::move(codingPath)),
      debugDescription_(std::move(debugDescription)) {}

std::string DecodingError::domain() const {
    return "DecodingError";
}

int DecodingError::code() const {
    return static_cast<int>(kind_);
}

std::string DecodingError::description() const {
    std::string text(toString(kind_));
    if (kind_ == Kind::keyNotFound && !codingPath_.empty()) {
        // The missing key is named on its own, after it the object that lacks it.
        const CodingKey& key = codingPath_.back();
        text += ' ';
        if (const auto* name = std::get_if<std::string>(&key))
            text += '"' + *name + '"';
        else
            text += '[' + std::to_string(std::get<std::size_t>(key)) + ']';
        CodingPath container(codingPath_.begin(), codingPath_.end() - 1);
        if (!container.empty())
            text += " at " + toString(container);
        return text;
    }
    if (!codingPath_.empty())
        text += " at " + toString(codingPath_);
    if (!debugDescription_.empty())
        text += ": " + debugDescription_;
    return text;
}

std::string_view toString(DecodingError::Kind kind) {
    switch (kind) {
    case DecodingError::Kind::keyNotFound:
        return "keyNotFound";
    case DecodingError::Kind::valueNotFound:
        return "valueNotFound";
    case DecodingError::Kind::typeMismatch:
        return "typeMismatch";
    case DecodingError::Kind::dataCorrupted:
        return "dataCorrupted";
    }
    fatalError("toString(DecodingError::Kind): value out of range");
}

std::ostream& operator<<(std::ostream& out, DecodingError::Kind kind) {
    return out << toString(kind);
}

JsonValue::JsonValue(std::shared_ptr<const json> document, const json* value, CodingPath path)
    : document_(std::move(document)), value_(value), path_(std::move(path)) {}

Decoded<JsonValue> JsonValue::parse(const Bytes& bytes) {
    auto corrupted = [](std::string reason) {
        return std::unexpected(std::make_shared<const DecodingError>(
            DecodingError::Kind::dataCorrupted, CodingPath{},
            "The given data was not valid JSON: " + std::move(reason) + "."));
    };
    if (bytes.empty())
        return corrupted("empty input");
    try {
        auto document = std::make_shared<const json>(json::parse(bytes.begin(), bytes.end()));
        const json* root = document.get();
        return JsonValue(std::move(document), root, {});
    } catch (const json::exception& error) {
        return corrupted(describe(error));
    }
}

bool JsonValue::isNull() const {
    return value_->is_null();
}

DecodingErrorPtr JsonValue::failure(DecodingError::Kind kind, std::string_view expected) const {
    return std::make_shared<const DecodingError>(kind, path_,
                                                 "Expected " + std::string(expected) +
                                                     " but found " +
                                                     std::string(describe(value_->type())) + ".");
}

template <JsonDecodable T> Decoded<T> JsonValue::decode() const {
    // Every JSON number decodes as a double, integers too: the parser keeps them apart, but every
    // number field is a 64-bit float.
    static constexpr auto wanted = std::is_same_v<T, std::string>  ? json::value_t::string
                                   : std::is_same_v<T, double>     ? json::value_t::number_float
                                   : std::is_same_v<T, bool>       ? json::value_t::boolean
                                   : std::is_same_v<T, JsonObject> ? json::value_t::object
                                                                   : json::value_t::array;
    bool matches =
        wanted == json::value_t::number_float ? value_->is_number() : value_->type() == wanted;
    if (!matches)
        return std::unexpected(failure(isNull() ? DecodingError::Kind::valueNotFound
                                                : DecodingError::Kind::typeMismatch,
                                       describe(wanted)));
    if constexpr (std::is_same_v<T, JsonObject> || std::is_same_v<T, JsonArray>)
        return T(*this);
    else
        return value_->get<T>();
}

template Decoded<std::string> JsonValue::decode<std::string>() const;
template Decoded<double> JsonValue::decode<double>() const;
template Decoded<bool> JsonValue::decode<bool>() const;
template Decoded<JsonObject> JsonValue::decode<JsonObject>() const;
template Decoded<JsonArray> JsonValue::decode<JsonArray>() const;

bool JsonObject::contains(std::string_view key) const {
    return object_.value_->contains(key);
}

Decoded<JsonValue> JsonObject::member(std::string_view key) const {
    CodingPath path = object_.path_;
    path.emplace_back(std::string(key));
    auto found = object_.value_->find(key);
    if (found == object_.value_->end())
        return std::unexpected(std::make_shared<const DecodingError>(
            DecodingError::Kind::keyNotFound, std::move(path),
            "No value associated with key \"" + std::string(key) + "\"."));
    return JsonValue(object_.document_, &*found, std::move(path));
}

DecodingErrorPtr JsonObject::dataCorruptedError(std::string_view key,
                                                std::string debugDescription) const {
    CodingPath path = object_.path_;
    path.emplace_back(std::string(key));
    return std::make_shared<const DecodingError>(DecodingError::Kind::dataCorrupted,
                                                 std::move(path), std::move(debugDescription));
}

std::size_t JsonArray::size() const {
    return array_.value_->size();
}

JsonValue JsonArray::element(std::size_t index) const {
    if (index >= size())
        fatalError("JsonArray::decode(): index " + std::to_string(index) + " beyond size " +
                   std::to_string(size()));
    CodingPath path = array_.path_;
    path.emplace_back(index);
    return JsonValue(array_.document_, &(*array_.value_)[index], std::move(path));
}

} // namespace pelkit
