#include <pelkit/PELHosts.h>

#include <cstdlib>

namespace pelkit {
namespace {

// Scheme and host, no trailing slash: paths are appended to them as they are.
constexpr const char* kLegacyHost = "https://api.pelkit.example";
constexpr const char* kProdHost = "https://prod.api.pelkit.example";
constexpr const char* kStagingHost = "https://staging.api.pelkit.example";

std::string hostFrom(const char* variable, const char* deployed) {
    // An empty variable counts as unset: an empty base address would only yield relative URLs.
    const char* value = std::getenv(variable);
    return value && *value ? value : deployed;
}

} // namespace

std::string legacyHost() {
    return hostFrom("PELKIT_HOST", kLegacyHost);
}
std::string prodHost() {
    return hostFrom("PELKIT_PROD_HOST", kProdHost);
}
std::string stagingHost() {
    return hostFrom("PELKIT_STAGING_HOST", kStagingHost);
}

} // namespace pelkit
