// What a synchronisation run reports, and the observer that receives it. PELStatus is an
// immutable value (any thread, thread-safe); PELStatusDelegate is called on whichever thread
// produced the status (see PELSyncSupervisor), so implementations must be ready for any thread.
#pragma once

#include <pelkit/PELError.h>

#include <iosfwd>
#include <optional>
#include <string>

namespace pelkit {

/// One step of a synchronisation run. Three cases carry a payload.
///
///     auto status = PELStatus::downloadProgress(0.25f);
///     std::cout << status;   // downloadProgress(percentage: 0.25)
class PELStatus {
public:
    /// The cases, in declaration order.
    enum class Case {
        updateStarted,     ///< a run has begun (payload: firstTime)
        downloadProgress,  ///< bytes written / bytes expected, negative when the size is unknown
        updateFailed,      ///< the run ended in failure (payload: error)
        downloadStarted,   ///< the target download phase has begun
        downloadCompleted, ///< the target archive is stored and unpacked
        updateCompleted,   ///< the run ended and the new revision is remembered
        alreadyUpToDate,   ///< the run ended because the server had nothing newer
    };

    static PELStatus updateStarted(bool firstTime);
    /// A fraction, nominally 0 to 1; not clamped.
    static PELStatus downloadProgress(float percentage);
    static PELStatus updateFailed(PELError error);
    static PELStatus downloadStarted();
    static PELStatus downloadCompleted();
    static PELStatus updateCompleted();
    static PELStatus alreadyUpToDate();

    Case which() const { return case_; }
    /// The payload of updateStarted; stops the process for any other case.
    bool firstTime() const;
    /// The payload of downloadProgress; stops the process for any other case.
    float percentage() const;
    /// The payload of updateFailed; stops the process for any other case.
    const PELError& error() const;

    /// Equal cases with equal payloads (errors compare by payload identity, see PELError).
    bool operator==(const PELStatus& other) const;

    /// The case name, then the payload with its label: "updateStarted(firstTime: true)",
    /// "updateFailed(error: networkError(serverError))", "downloadStarted".
    std::string description() const;

private:
    PELStatus(Case which, bool firstTime, float percentage, std::optional<PELError> error);

    Case case_;
    bool firstTime_ = false;
    float percentage_ = 0;
    std::optional<PELError> error_;
};

std::ostream& operator<<(std::ostream& out, const PELStatus& status);

/// Receives every status of a run, by a direct call on the thread that produced it.
class PELStatusDelegate {
public:
    virtual ~PELStatusDelegate() = default;
    virtual void statusDidChange(const PELStatus& status) = 0;
};

} // namespace pelkit
