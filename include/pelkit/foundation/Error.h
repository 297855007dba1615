// Error values shared across the platform layer and the framework, and the fatal stop for broken
// preconditions. Thread-safe: errors are immutable once made.
#pragma once

#include <expected>
#include <iosfwd>
#include <memory>
#include <source_location>
#include <string>
#include <string_view>
#include <system_error>

namespace pelkit {

/// A runtime failure: a domain, an integer code and a readable description. Errors are immutable
/// and shared by pointer (`ErrorPtr`), so a payload travels unchanged through every wrapper.
///
///     auto error = Error::make("statusCodeError", 404);
///     std::cout << *error;   // The operation couldn't be completed. (statusCodeError error 404.)
class Error {
public:
    virtual ~Error() = default;

    virtual std::string domain() const = 0;
    virtual int code() const = 0;
    virtual std::string description() const = 0;

    /// A plain error. With no description, one is derived from the domain and the code.
    static std::shared_ptr<const Error> make(std::string domain, int code,
                                             std::string description = {});
    /// A failed system call: domain "posix", code `err`, e.g. "open(/a/b): No such file (2)".
    static std::shared_ptr<const Error> fromErrno(std::string_view call, int err);
    /// A failed std::filesystem operation, named like `fromErrno`.
    static std::shared_ptr<const Error> fromErrorCode(std::string_view call, std::error_code code);
};

using ErrorPtr = std::shared_ptr<const Error>;

std::ostream& operator<<(std::ostream& out, const Error& error);

/// The outcome of work that can fail at run time: a value, or the error that stopped it.
template <class T = void> using Result = std::expected<T, ErrorPtr>;

/// Stops the process for a programming error: writes "<file>:<line>: Fatal error: <message>" to
/// standard error, then aborts.
[[noreturn]] void fatalError(std::string_view message,
                             std::source_location where = std::source_location::current());

} // namespace pelkit
