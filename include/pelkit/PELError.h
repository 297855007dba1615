// The failures that synchronisation reports. Immutable values; any thread; thread-safe.
#pragma once

#include <pelkit/foundation/Error.h>

#include <iosfwd>

namespace pelkit {

/// A synchronisation failure. Three cases wrap the underlying error that caused them; that error
/// is shared as received, never copied. A PELError is itself an `Error`, so it can be the
/// underlying error of another one:
///
///     auto inner = PELError::serverError().share();
///     auto outer = PELError::networkError(inner);
///     std::cout << outer;   // networkError(serverError)
///
/// Two PELErrors are equal when they have the same case and the very same payload object.
class PELError final : public Error {
public:
    /// The cases, in this order from 0 (the `code()` of each).
    enum class Case {
        networkError,    ///< a request or transfer failed (payload: why)
        parsingError,    ///< the configuration did not decode or could not be saved
        fileError,       ///< a downloaded archive could not be read, written or unpacked
        alreadySynching, ///< a run was requested while one was running
        serverError,     ///< the server answered with success but no usable body
        alreadyUpToDate, ///< the server has nothing newer than the client's revision
    };

    /// The wrapping cases; `error` must not be null.
    static PELError networkError(ErrorPtr error);
    static PELError parsingError(ErrorPtr error);
    static PELError fileError(ErrorPtr error);
    static PELError alreadySynching();
    static PELError serverError();
    static PELError alreadyUpToDate();

    Case which() const { return case_; }
    /// The underlying error of networkError, parsingError and fileError; null for the others.
    const ErrorPtr& payload() const { return payload_; }
    /// A shared copy, to carry this error as the payload of another one.
    ErrorPtr share() const;

    /// "PELkit.PELError"
    std::string domain() const override;
    int code() const override;
    /// The case name, then the payload in parentheses: "networkError(statusCodeError 404: ...)".
    std::string description() const override;

    bool operator==(const PELError& other) const {
        return case_ == other.case_ && payload_ == other.payload_;
    }

private:
    PELError(Case which, ErrorPtr payload);

    Case case_;
    ErrorPtr payload_;
};

std::ostream& operator<<(std::ostream& out, const PELError& error);

} // namespace pelkit
