#include <pelkit/foundation/Error.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>

namespace pelkit {
namespace {

class PlainError final : public Error {
public:
    PlainError(std::string domain, int code, std::string description)
        : domain_(std::move(domain)), code_(code), description_(std::move(description)) {}

    std::string domain() const override { return domain_; }
    int code() const override { return code_; }
    std::string description() const override {
        if (!description_.empty())
            return description_;
        return "The operation couldn't be completed. (" + domain_ + " error " +
               std::to_string(code_) + ".)";
    }

private:
    std::string domain_;
    int code_;
    std::string description_;
};

} // namespace

ErrorPtr Error::make(std::string domain, int code, std::string description) {
    return std::make_shared<PlainError>(std::move(domain), code, std::move(description));
}

ErrorPtr Error::fromErrno(std::string_view call, int err) {
    return make("posix", err,
                std::string(call) + ": " + std::strerror(err) + " (" + std::to_string(err) + ")");
}

ErrorPtr Error::fromErrorCode(std::string_view call, std::error_code code) {
    return make(
        code.category() == std::generic_category() || code.category() == std::system_category()
            ? "posix"
            : code.category().name(),
        code.value(),
        std::string(call) + ": " + code.message() + " (" + std::to_string(code.value()) + ")");
}

std::ostream& operator<<(std::ostream& out, const Error& error) {
    return out << error.description();
}

void fatalError(std::string_view message, std::source_location where) {
    // One formatted write, so the line arrives whole even while other threads print.
    std::fprintf(stderr, "%s:%u: Fatal error: %.*s\n", where.file_name(),
                 static_cast<unsigned>(where.line()), static_cast<int>(message.size()),
                 message.data());
    std::fflush(stderr);
    std::abort();
}

} // namespace pelkit
