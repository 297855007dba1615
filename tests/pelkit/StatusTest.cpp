// PELError and PELStatus: the texts they print and when two of them are equal.
#include <pelkit/PELProject.h>
#include <pelkit/PELStatus.h>
#include <pelkit/foundation/Bytes.h>

#include <gtest/gtest.h>

#include <sstream>

namespace pelkit {
namespace {

template <class T> std::string printed(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

TEST(PELError, PrintsCaseThenPayloadAndCodesByDeclarationOrder) {
    ErrorPtr decodingFailure = PELProject::decode(bytesOf(R"({"targets": []})")).error();
    const struct {
        PELError error;
        int code;
        std::string text;
    } cases[] = {
        {PELError::networkError(Error::make("statusCodeError", 404)), 0,
         "networkError(statusCodeError 404: The operation couldn't be completed. "
         "(statusCodeError error 404.))"},
        {PELError::networkError(Error::make("", 500)), 0,
         "networkError(500: The operation couldn't be completed. ( error 500.))"},
        {PELError::parsingError(decodingFailure), 1,
         R"(parsingError(DecodingError 0: keyNotFound "id"))"},
        {PELError::fileError(Error::fromErrno("open(/x/targets.zip)", ENOENT)), 2,
         "fileError(posix 2: open(/x/targets.zip): No such file or directory (2))"},
        {PELError::alreadySynching(), 3, "alreadySynching"},
        {PELError::serverError(), 4, "serverError"},
        {PELError::alreadyUpToDate(), 5, "alreadyUpToDate"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(printed(c.error), c.text);
        EXPECT_EQ(c.error.description(), c.text);
        EXPECT_EQ(c.error.domain(), "PELkit.PELError");
        EXPECT_EQ(c.error.code(), c.code);
    }
}

TEST(PELStatus, PrintsCaseThenLabelledPayload) {
    // Wrapped twice, as a failed preparation step arrives.
    PELError twice =
        PELError::networkError(PELError::networkError(PELError::alreadyUpToDate().share()).share());
    const struct {
        PELStatus status;
        PELStatus::Case which;
        const char* text;
    } cases[] = {
        {PELStatus::updateStarted(false), PELStatus::Case::updateStarted,
         "updateStarted(firstTime: false)"},
        {PELStatus::downloadProgress(0.1f), PELStatus::Case::downloadProgress,
         "downloadProgress(percentage: 0.1)"},
        {PELStatus::downloadProgress(-0.5f), PELStatus::Case::downloadProgress,
         "downloadProgress(percentage: -0.5)"},
        {PELStatus::updateFailed(twice), PELStatus::Case::updateFailed,
         "updateFailed(error: networkError(networkError(alreadyUpToDate)))"},
        {PELStatus::downloadStarted(), PELStatus::Case::downloadStarted, "downloadStarted"},
        {PELStatus::downloadCompleted(), PELStatus::Case::downloadCompleted, "downloadCompleted"},
        {PELStatus::updateCompleted(), PELStatus::Case::updateCompleted, "updateCompleted"},
        {PELStatus::alreadyUpToDate(), PELStatus::Case::alreadyUpToDate, "alreadyUpToDate"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(printed(c.status), c.text);
        EXPECT_EQ(c.status.which(), c.which);
    }
    EXPECT_EQ(PELStatus::updateStarted(true).firstTime(), true);
    EXPECT_EQ(PELStatus::downloadProgress(-0.5f).percentage(), -0.5f) << "progress is not clamped";
    EXPECT_EQ(PELStatus::updateFailed(twice).error(), twice);
}

// Errors compare by case and by the very payload object they carry.
TEST(PELStatus, EqualWhenCaseAndPayloadAgree) {
    ErrorPtr cause = Error::make("statusCodeError", 500);
    auto failed = [](PELError error) { return PELStatus::updateFailed(std::move(error)); };
    const struct {
        const char* name;
        PELStatus a, b;
        bool equal;
    } cases[] = {
        {"same flag", PELStatus::updateStarted(true), PELStatus::updateStarted(true), true},
        {"other flag", PELStatus::updateStarted(true), PELStatus::updateStarted(false), false},
        {"other progress", PELStatus::downloadProgress(0.5f), PELStatus::downloadProgress(0.75f),
         false},
        {"false flag, progress 0", PELStatus::updateStarted(false), PELStatus::downloadProgress(0),
         false},
        {"same cause", failed(PELError::networkError(cause)), failed(PELError::networkError(cause)),
         true},
        {"look-alike causes", failed(PELError::networkError(cause)),
         failed(PELError::networkError(Error::make("statusCodeError", 500))), false},
        {"same cause, other case", failed(PELError::networkError(cause)),
         failed(PELError::fileError(cause)), false},
        {"errors without payload", failed(PELError::alreadySynching()),
         failed(PELError::alreadyUpToDate()), false},
        {"status and error of one name", PELStatus::alreadyUpToDate(),
         failed(PELError::alreadyUpToDate()), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.a == c.b, c.equal);
    }
}

TEST(PELStatusDeathTest, ReadingAnotherCasesPayloadStops) {
    EXPECT_DEATH((void)PELStatus::downloadStarted().firstTime(),
                 "Fatal error: PELStatus::firstTime\\(\\): the status is downloadStarted, not "
                 "updateStarted");
    EXPECT_DEATH((void)PELStatus::updateStarted(true).error(),
                 "Fatal error: PELStatus::error\\(\\): the status is updateStarted, not "
                 "updateFailed");
    EXPECT_DEATH((void)PELError::parsingError(nullptr),
                 "Fatal error: PELError::parsingError\\(\\): the underlying error is null");
}

} // namespace
} // namespace pelkit
