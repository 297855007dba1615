// Reading a whole resource, local or remote, into memory on the calling thread.
#pragma once

#include <pelkit/foundation/Bytes.h>
#include <pelkit/foundation/Error.h>
#include <pelkit/net/Url.h>

#include <chrono>
#include <cstddef>

namespace pelkit::net {

struct ReadLimits {
    /// The longest body or file read; a longer one fails rather than filling memory.
    std::size_t maxBytes = std::size_t{64} << 20;
    /// Longest wait for the connection or for more data.
    std::chrono::milliseconds timeout = std::chrono::seconds(60);
};

/// The bytes at `url`, read whole before returning: a file URL's regular file, or the body of a GET
/// to an http or https URL. Redirects are followed as `HttpSession` follows them (http and https
/// only, never from https to http); a status outside 200-299 is an error of domain "http" whose
/// code is the status: "readWholeResource(http://h/a.png): HTTP status 404". A longer resource
/// fails with "readWholeResource(<url>): larger than <maxBytes> bytes". Other schemes fail with
/// domain "curl", code CURLE_UNSUPPORTED_PROTOCOL.
///
/// Blocks only on the transfer itself, never on a session's queue, so it may be called from any
/// thread, the shared session's completion queue included.
[[nodiscard]] Result<Bytes> readWholeResource(const Url& url, const ReadLimits& limits = {});

} // namespace pelkit::net
