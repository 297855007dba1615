#include <pelkit/PELError.h>

#include <ostream>

namespace pelkit {
namespace {

std::string_view caseName(PELError::Case which) {
    switch (which) {
    case PELError::Case::networkError:
        return "networkError";
    case PELError::Case::parsingError:
        return "parsingError";
    case PELError::Case::fileError:
        return "fileError";
    case PELError::Case::alreadySynching:
        return "alreadySynching";
    case PELError::Case::serverError:
        return "serverError";
    case PELError::Case::alreadyUpToDate:
        return "alreadyUpToDate";
    }
    fatalError("PELError: case out of range");
}

ErrorPtr requirePayload(ErrorPtr error, std::string_view factory) {
    if (!error)
        fatalError("PELError::" + std::string(factory) + "(): the underlying error is null");
    return error;
}

} // namespace

PELError::PELError(Case which, ErrorPtr payload) : case_(which), payload_(std::move(payload)) {}

PELError PELError::networkError(ErrorPtr error) {
    return {Case::networkError, requirePayload(std::move(error), "networkError")};
}

PELError PELError::parsingError(ErrorPtr error) {
    return {Case::parsingError, requirePayload(std::move(error), "parsingError")};
}

PELError PELError::fileError(ErrorPtr error) {
    return {Case::fileError, requirePayload(std::move(error), "fileError")};
}

PELError PELError::alreadySynching() {
    return {Case::alreadySynching, nullptr};
}

PELError PELError::serverError() {
    return {Case::serverError, nullptr};
}

PELError PELError::alreadyUpToDate() {
    return {Case::alreadyUpToDate, nullptr};
}

ErrorPtr PELError::share() const {
    return std::make_shared<const PELError>(*this);
}

std::string PELError::domain() const {
    return "PELkit.PELError";
}

int PELError::code() const {
    return static_cast<int>(case_);
}

std::string PELError::description() const {
    std::string text(caseName(case_));
    if (!payload_)
        return text;
    text += '(';
    // A nested PELError already says what it is; any other error is named by its domain and code
    // so that, say, an HTTP status stays visible next to the platform's wording.
    if (!dynamic_cast<const PELError*>(payload_.get())) {
        std::string domain = payload_->domain();
        if (!domain.empty())
            text += domain + ' ';
        text += std::to_string(payload_->code()) + ": ";
    }
    return text + payload_->description() + ')';
}

std::ostream& operator<<(std::ostream& out, const PELError& error) {
    return out << error.description();
}

} // namespace pelkit
