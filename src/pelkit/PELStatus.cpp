#include <pelkit/PELStatus.h>

#include "DescriptionFormat.h"

#include <ostream>

namespace pelkit {
namespace {

std::string_view caseName(PELStatus::Case which) {
    switch (which) {
    case PELStatus::Case::updateStarted:
        return "updateStarted";
    case PELStatus::Case::downloadProgress:
        return "downloadProgress";
    case PELStatus::Case::updateFailed:
        return "updateFailed";
    case PELStatus::Case::downloadStarted:
        return "downloadStarted";
    case PELStatus::Case::downloadCompleted:
        return "downloadCompleted";
    case PELStatus::Case::updateCompleted:
        return "updateCompleted";
    case PELStatus::Case::alreadyUpToDate:
        return "alreadyUpToDate";
    }
    fatalError("PELStatus: case out of range");
}

void requireCase(PELStatus::Case actual, PELStatus::Case expected, std::string_view accessor) {
    if (actual != expected)
        fatalError("PELStatus::" + std::string(accessor) + "(): the status is " +
                   std::string(caseName(actual)) + ", not " + std::string(caseName(expected)));
}

} // namespace

PELStatus::PELStatus(Case which, bool firstTime, float percentage, std::optional<PELError> error)
    : case_(which), firstTime_(firstTime), percentage_(percentage), error_(std::move(error)) {}

PELStatus PELStatus::updateStarted(bool firstTime) {
    return {Case::updateStarted, firstTime, 0, std::nullopt};
}

PELStatus PELStatus::downloadProgress(float percentage) {
    return {Case::downloadProgress, false, percentage, std::nullopt};
}

PELStatus PELStatus::updateFailed(PELError error) {
    return {Case::updateFailed, false, 0, std::move(error)};
}

PELStatus PELStatus::downloadStarted() {
    return {Case::downloadStarted, false, 0, std::nullopt};
}

PELStatus PELStatus::downloadCompleted() {
    return {Case::downloadCompleted, false, 0, std::nullopt};
}

PELStatus PELStatus::updateCompleted() {
    return {Case::updateCompleted, false, 0, std::nullopt};
}

PELStatus PELStatus::alreadyUpToDate() {
    return {Case::alreadyUpToDate, false, 0, std::nullopt};
}

bool PELStatus::firstTime() const {
    requireCase(case_, Case::updateStarted, "firstTime");
    return firstTime_;
}

float PELStatus::percentage() const {
    requireCase(case_, Case::downloadProgress, "percentage");
    return percentage_;
}

const PELError& PELStatus::error() const {
    requireCase(case_, Case::updateFailed, "error");
    return *error_;
}

bool PELStatus::operator==(const PELStatus& other) const {
    // Unused payload fields stay at their defaults, so comparing all of them compares the case's.
    return case_ == other.case_ && firstTime_ == other.firstTime_ &&
           percentage_ == other.percentage_ && error_ == other.error_;
}

std::string PELStatus::description() const {
    std::string text(caseName(case_));
    switch (case_) {
    case Case::updateStarted:
        return text + "(firstTime: " + (firstTime_ ? "true" : "false") + ")";
    case Case::downloadProgress:
        return text + "(percentage: " + detail::number(percentage_) + ")";
    case Case::updateFailed:
        return text + "(error: " + error_->description() + ")";
    default:
        return text;
    }
}

std::ostream& operator<<(std::ostream& out, const PELStatus& status) {
    return out << status.description();
}

} // namespace pelkit
