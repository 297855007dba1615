#include <pelkit/foundation/Error.h>

#include <gtest/gtest.h>

#include <sstream>

namespace pelkit {
namespace {

TEST(Error, DescribesItselfFromDomainAndCodeOrByTheFailedCall) {
    std::ostringstream printed;
    printed << *Error::make("statusCodeError", 404);
    EXPECT_EQ(printed.str(), "The operation couldn't be completed. (statusCodeError error 404.)");
    EXPECT_EQ(Error::make("", 204)->description(),
              "The operation couldn't be completed. ( error 204.)");

    auto error = Error::fromErrno("open(/nowhere)", ENOENT);
    EXPECT_EQ(error->domain(), "posix");
    EXPECT_EQ(error->code(), ENOENT);
    EXPECT_EQ(error->description(), "open(/nowhere): No such file or directory (2)");
    auto fromCode =
        Error::fromErrorCode("rename(a, b)", std::make_error_code(std::errc::permission_denied));
    EXPECT_EQ(fromCode->domain(), "posix");
    EXPECT_EQ(fromCode->description(), "rename(a, b): Permission denied (13)");
}

TEST(ErrorDeathTest, FatalErrorPrintsMessageWithLocationThenAborts) {
    EXPECT_DEATH(fatalError("init(coder:) has not been implemented"),
                 "ErrorTest\\.cpp:[0-9]+: Fatal error: init\\(coder:\\) has not been implemented");
}

} // namespace
} // namespace pelkit
