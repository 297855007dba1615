#include <pelkit/PELProject.h>

#include <pelkit/foundation/Json.h>

#include "DescriptionFormat.h"

#include <array>
#include <ostream>

namespace pelkit {
namespace {

constexpr std::array allTypes{PELType::image, PELType::video, PELType::audio, PELType::link,
                              PELType::greenScreen};

// Moves a decoded value into its field, or keeps the failure. Chained with &&, so each object's
// keys are read in field order and the first failure ends the object.
template <class T> bool read(Decoded<T> decoded, T& field, DecodingErrorPtr& failure) {
    if (!decoded) {
        failure = std::move(decoded.error());
        return false;
    }
    field = std::move(*decoded);
    return true;
}

Decoded<PELType> decodeType(const JsonObject& object, std::string_view key) {
    auto raw = object.decode<std::string>(key);
    if (!raw)
        return std::unexpected(raw.error());
    for (PELType type : allTypes) {
        if (rawValue(type) == *raw)
            return type;
    }
    return std::unexpected(object.dataCorruptedError(
        key, "Cannot initialize PELType from invalid string value " + detail::quoted(*raw) + "."));
}

Decoded<std::optional<net::Url>> decodeUrlIfPresent(const JsonObject& object,
                                                    std::string_view key) {
    auto text = object.decodeIfPresent<std::string>(key);
    if (!text)
        return std::unexpected(text.error());
    if (!*text)
        return std::optional<net::Url>();
    auto url = net::Url::parse(**text);
    if (!url)
        return std::unexpected(
            object.dataCorruptedError(key, "Invalid URL string " + detail::quoted(**text) + "."));
    return url;
}

Decoded<PELContent> decodeContent(const JsonObject& object) {
    PELContent content;
    DecodingErrorPtr failure;
    bool decoded = read(object.decode<std::string>("id"), content.id, failure) &&
                   read(decodeType(object, "type"), content.type, failure) &&
                   read(object.decodeIfPresent<std::string>("linkToOpenOnClick"),
                        content.linkToOpenOnClick, failure) &&
                   read(object.decodeIfPresent<std::string>("greenScreenColor"),
                        content.greenScreenColor, failure) &&
                   read(object.decode<double>("x"), content.x, failure) &&
                   read(object.decode<double>("y"), content.y, failure) &&
                   read(object.decode<double>("width"), content.width, failure) &&
                   read(object.decode<double>("height"), content.height, failure) &&
                   read(object.decode<bool>("isFullscreen"), content.isFullscreen, failure) &&
                   read(decodeUrlIfPresent(object, "url"), content.url, failure);
    if (!decoded)
        return std::unexpected(std::move(failure));
    return content;
}

Decoded<std::vector<PELContent>> decodeItems(const JsonObject& object, std::string_view key) {
    auto array = object.decode<JsonArray>(key);
    if (!array)
        return std::unexpected(array.error());
    return array->decodeObjects(decodeContent);
}

Decoded<PELTarget> decodeTarget(const JsonObject& object) {
    PELTarget target;
    DecodingErrorPtr failure;
    bool decoded =
        read(object.decode<std::string>("id"), target.id, failure) &&
        read(object.decode<std::string>("name"), target.name, failure) &&
        read(object.decode<double>("physicalWidth"), target.physicalWidth, failure) &&
        read(object.decodeIfPresent<double>("targetWidth"), target.targetWidth, failure) &&
        read(object.decodeIfPresent<double>("targetHeight"), target.targetHeight, failure) &&
        read(object.decode<std::string>("lastUpdated"), target.lastUpdated, failure) &&
        read(decodeItems(object, "items"), target.items, failure);
    if (!decoded)
        return std::unexpected(std::move(failure));
    return target;
}

Decoded<std::vector<PELTarget>> decodeTargets(const JsonObject& object, std::string_view key) {
    auto array = object.decode<JsonArray>(key);
    if (!array)
        return std::unexpected(array.error());
    return array->decodeObjects(decodeTarget);
}

Decoded<PELProject> decodeProject(const JsonObject& object) {
    PELProject project;
    DecodingErrorPtr failure;
    bool decoded = read(object.decode<std::string>("id"), project.id, failure) &&
                   read(object.decode<std::string>("lastUpdated"), project.lastUpdated, failure) &&
                   read(decodeTargets(object, "targets"), project.targets, failure);
    if (!decoded)
        return std::unexpected(std::move(failure));
    return project;
}

std::string optionalText(const std::optional<std::string>& text) {
    return text ? detail::quoted(*text) : "none";
}

std::string optionalNumber(const std::optional<double>& value) {
    return value ? detail::number(*value) : "none";
}

template <class T> void printList(std::ostream& out, const std::vector<T>& values) {
    out << '[';
    for (std::size_t index = 0; index < values.size(); ++index)
        out << (index == 0 ? "" : ", ") << values[index];
    out << ']';
}

} // namespace

std::string_view rawValue(PELType type) {
    switch (type) {
    case PELType::image:
        return "IMAGE";
    case PELType::video:
        return "VIDEO";
    case PELType::audio:
        return "AUDIO";
    case PELType::link:
        return "LINK";
    case PELType::greenScreen:
        return "GREEN_SCREEN";
    }
    fatalError("rawValue(PELType): value out of range");
}

Result<PELProject> PELProject::decode(const Bytes& bytes) {
    auto root = JsonValue::parse(bytes);
    if (!root)
        return std::unexpected(ErrorPtr(root.error()));
    auto object = root->decode<JsonObject>();
    if (!object)
        return std::unexpected(ErrorPtr(object.error()));
    auto project = decodeProject(*object);
    if (!project)
        return std::unexpected(ErrorPtr(project.error()));
    return std::move(*project);
}

std::ostream& operator<<(std::ostream& out, PELType type) {
    switch (type) {
    case PELType::image:
        return out << "image";
    case PELType::video:
        return out << "video";
    case PELType::audio:
        return out << "audio";
    case PELType::link:
        return out << "link";
    case PELType::greenScreen:
        return out << "greenScreen";
    }
    fatalError("operator<<(PELType): value out of range");
}

std::ostream& operator<<(std::ostream& out, const PELContent& content) {
    return out << "PELContent(id: " << detail::quoted(content.id) << ", type: " << content.type
               << ", linkToOpenOnClick: " << optionalText(content.linkToOpenOnClick)
               << ", greenScreenColor: " << optionalText(content.greenScreenColor)
               << ", x: " << detail::number(content.x) << ", y: " << detail::number(content.y)
               << ", width: " << detail::number(content.width)
               << ", height: " << detail::number(content.height)
               << ", isFullscreen: " << (content.isFullscreen ? "true" : "false") << ", url: "
               << (content.url ? detail::quoted(content.url->absoluteString()) : "none") << ')';
}

std::ostream& operator<<(std::ostream& out, const PELTarget& target) {
    out << "PELTarget(id: " << detail::quoted(target.id)
        << ", name: " << detail::quoted(target.name)
        << ", physicalWidth: " << detail::number(target.physicalWidth)
        << ", targetWidth: " << optionalNumber(target.targetWidth)
        << ", targetHeight: " << optionalNumber(target.targetHeight)
        << ", lastUpdated: " << detail::quoted(target.lastUpdated) << ", items: ";
    printList(out, target.items);
    return out << ')';
}

std::ostream& operator<<(std::ostream& out, const PELProject& project) {
    out << "PELProject(id: " << detail::quoted(project.id)
        << ", lastUpdated: " << detail::quoted(project.lastUpdated) << ", targets: ";
    printList(out, project.targets);
    return out << ')';
}

} // namespace pelkit
