#include "common/error.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace zumod {
namespace {

Expected<int> Half(int number) {
    if (number % 2 != 0) {
        return Fail(std::to_string(number) + " is odd");
    }
    return number / 2;
}

TEST(Error, IsWhatAFunctionReturnsInPlaceOfAValue) {
    EXPECT_EQ(Half(4), 2);
    ASSERT_FALSE(Half(3));
    EXPECT_EQ(Half(3).error(), (Error{"3 is odd", kExitFailure}));
}

TEST(Error, OfTheCommandLineRefersToTheHelpText) {
    const Expected<int> result = FailUsage("no such option");
    EXPECT_EQ(result.error(), (Error{"no such option (see --help)", kExitUsage}));
}

TEST(Error, IsReportedAsOneLineOnStandardError) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(ReportError("program", {"the text", 3}), 3);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "program: the text\n");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST(Error, OfStatusZeroIsHelpOnStandardOutput) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(ReportError("program", {"Usage: program\n", 0}), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Usage: program\n");
}

TEST(Error, ErrnoTextNamesTheError) {
    EXPECT_EQ(ErrnoText(ENOENT), "No such file or directory");
    EXPECT_EQ(ErrnoText(99999), "Unknown error 99999");
}

}  // namespace
}  // namespace zumod
