// Which redirects a session follows, and whether the request's own headers go along. Internal to
// the net module; HttpSession.cpp implements it on libcurl's URL parser.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pelkit::net {

enum class RequestHeaders { Sent, Dropped };

struct RedirectStep {
    std::string url;
    RequestHeaders headers;
};

/// Where a redirect leads: `location` as it came in the answer from `answered`, for a request
/// first made to `requested`. Nothing when it must not be followed: a location that does not
/// resolve, a scheme other than http or https, or a step from https down to http. The request's
/// headers (the app key among them) go only to the scheme, host and port it was made for.
std::optional<RedirectStep> redirectStep(std::string_view requested, std::string_view answered,
                                         std::string_view location);

} // namespace pelkit::net
