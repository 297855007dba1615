// The project configuration as the server publishes it: targets and the content items placed on
// them. Plain values; any thread; a value is safe to read from several threads at once.
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/Error.h>
#include <pelkit/net/Url.h>

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelkit {

/// What kind of content an item is. Decoded from exactly these strings (case-sensitive):
/// "IMAGE", "VIDEO", "AUDIO", "LINK", "GREEN_SCREEN".
enum class PELType { image, video, audio, link, greenScreen };

/// The configuration's string for `type`, e.g. "GREEN_SCREEN".
std::string_view rawValue(PELType type);

/// One content item placed on a target.
struct PELContent {
    std::string id;
    PELType type = PELType::image;
    std::optional<std::string> linkToOpenOnClick;
    std::optional<std::string> greenScreenColor;
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    /// Tapping the item (a video) plays it full screen.
    bool isFullscreen = false;
    /// Where the item's media file is downloaded from.
    std::optional<net::Url> url;

    bool operator==(const PELContent&) const = default;
};

/// One recognisable image and its content.
struct PELTarget {
    std::string id;
    std::string name;
    /// Real-world width of the printed image.
    double physicalWidth = 0;
    /// Size of the image as authored on the server.
    std::optional<double> targetWidth;
    std::optional<double> targetHeight;
    /// Opaque revision stamp, kept exactly as received.
    std::string lastUpdated;
    std::vector<PELContent> items;

    bool operator==(const PELTarget&) const = default;
};

/// The configuration document of one app key.
///
///     auto project = PELProject::decode(bytes);
///     if (!project)
///         std::cout << *project.error();   // keyNotFound "isFullscreen" at targets[0].items[1]
struct PELProject {
    std::string id;
    /// Opaque revision stamp, kept exactly as received and sent back to the server later.
    std::string lastUpdated;
    std::vector<PELTarget> targets;

    bool operator==(const PELProject&) const = default;

    /// Decodes a configuration document. Keys are read in field order and the first failure
    /// ends the decode; unknown keys are ignored. The error is a `DecodingError`
    /// (pelkit/foundation/Json.h).
    [[nodiscard]] static Result<PELProject> decode(const Bytes& bytes);
};

/// One-line descriptions for logs and the command line, fields in declaration order, e.g.
/// `PELContent(id: "c1", type: video, linkToOpenOnClick: none, ..., url: "movie.mp4")`.
std::ostream& operator<<(std::ostream& out, PELType type);
std::ostream& operator<<(std::ostream& out, const PELContent& content);
std::ostream& operator<<(std::ostream& out, const PELTarget& target);
std::ostream& operator<<(std::ostream& out, const PELProject& project);

} // namespace pelkit
