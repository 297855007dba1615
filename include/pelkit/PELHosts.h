// The REST servers the framework talks to. Deployment constants, each of which a variable of the
// environment overrides so that a development server can stand in for it. Thread-safe as long as
// nothing changes the environment meanwhile.
#pragma once

#include <string>

namespace pelkit {

/// The legacy API server: $PELKIT_HOST when set and not empty, else the deployed address. Read on
/// every call, so a change of the variable takes effect at the next request.
///
///     auto url = legacyHost() + "/targets/" + targetId + "/content/" + contentId +
///     "/preparecontent";
std::string legacyHost();
/// The production API server: $PELKIT_PROD_HOST, else the deployed address.
std::string prodHost();
/// The staging API server: $PELKIT_STAGING_HOST, else the deployed address.
std::string stagingHost();

} // namespace pelkit
