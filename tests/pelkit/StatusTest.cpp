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
        {PELError::networkError(PELError::serverError().share()), 0, "networkError(serverError)"},
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

TEST(PELError, EqualOnlyWithSameCaseAndTheVerySamePayload) {
    ErrorPtr timeout = Error::make("posix", 110);
    ErrorPtr sameContentOtherObject = Error::make("posix", 110);
    const struct {
        const char* name;
        PELError a, b;
        bool equal;
    } cases[] = {
        {"same payload object", PELError::networkError(timeout), PELError::networkError(timeout),
         true},
        {"equal-looking payloads", PELError::networkError(timeout),
         PELError::networkError(sameContentOtherObject), false},
        {"same payload, other case", PELError::networkError(timeout), PELError::fileError(timeout),
         false},
        {"payload-less cases alike", PELError::serverError(), PELError::serverError(), true},
        {"payload-less cases differ", PELError::alreadySynching(), PELError::alreadyUpToDate(),
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.a == c.b, c.equal);
        EXPECT_EQ(c.a != c.b, !c.equal);
    }
}

TEST(PELError, WrapsAnotherPELErrorAndKeepsItInspectable) {
    ErrorPtr inner = PELError::alreadyUpToDate().share();
    PELError outer = PELError::networkError(inner);
    ASSERT_EQ(outer.which(), PELError::Case::networkError);
    EXPECT_EQ(outer.payload(), inner) << "the payload must be shared, not copied";
    auto unwrapped = std::dynamic_pointer_cast<const PELError>(outer.payload());
    ASSERT_NE(unwrapped, nullptr);
    EXPECT_EQ(unwrapped->which(), PELError::Case::alreadyUpToDate);
    EXPECT_EQ(PELError::serverError().payload(), nullptr);

    // Three levels, as a failed preparation step reported through a status would print.
    PELError twice = PELError::networkError(outer.share());
    EXPECT_EQ(printed(PELStatus::updateFailed(twice)),
              "updateFailed(error: networkError(networkError(alreadyUpToDate)))");
}

TEST(PELStatus, PrintsCaseThenLabelledPayload) {
    PELError refused = PELError::networkError(PELError::serverError().share());
    const struct {
        PELStatus status;
        PELStatus::Case which;
        const char* text;
    } cases[] = {
        {PELStatus::updateStarted(true), PELStatus::Case::updateStarted,
         "updateStarted(firstTime: true)"},
        {PELStatus::updateStarted(false), PELStatus::Case::updateStarted,
         "updateStarted(firstTime: false)"},
        {PELStatus::downloadProgress(0.25f), PELStatus::Case::downloadProgress,
         "downloadProgress(percentage: 0.25)"},
        {PELStatus::downloadProgress(0.1f), PELStatus::Case::downloadProgress,
         "downloadProgress(percentage: 0.1)"},
        {PELStatus::downloadProgress(-0.5f), PELStatus::Case::downloadProgress,
         "downloadProgress(percentage: -0.5)"},
        {PELStatus::updateFailed(refused), PELStatus::Case::updateFailed,
         "updateFailed(error: networkError(serverError))"},
        {PELStatus::updateFailed(PELError::alreadySynching()), PELStatus::Case::updateFailed,
         "updateFailed(error: alreadySynching)"},
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
    EXPECT_EQ(PELStatus::updateFailed(refused).error(), refused);
}

TEST(PELStatus, EqualWhenCaseAndPayloadAgree) {
    ErrorPtr cause = Error::make("statusCodeError", 500);
    const struct {
        const char* name;
        PELStatus a, b;
        bool equal;
    } cases[] = {
        {"same first-time flag", PELStatus::updateStarted(true), PELStatus::updateStarted(true),
         true},
        {"other first-time flag", PELStatus::updateStarted(true), PELStatus::updateStarted(false),
         false},
        {"same progress", PELStatus::downloadProgress(0.5f), PELStatus::downloadProgress(0.5f),
         true},
        {"other progress", PELStatus::downloadProgress(0.5f), PELStatus::downloadProgress(0.75f),
         false},
        {"failures sharing a cause", PELStatus::updateFailed(PELError::networkError(cause)),
         PELStatus::updateFailed(PELError::networkError(cause)), true},
        {"failures with look-alike causes", PELStatus::updateFailed(PELError::networkError(cause)),
         PELStatus::updateFailed(PELError::networkError(Error::make("statusCodeError", 500))),
         false},
        {"status and error of the same name", PELStatus::alreadyUpToDate(),
         PELStatus::updateFailed(PELError::alreadyUpToDate()), false},
        {"payload-less cases differ", PELStatus::downloadStarted(), PELStatus::downloadCompleted(),
         false},
        {"false flag is not progress 0", PELStatus::updateStarted(false),
         PELStatus::downloadProgress(0), false},
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
