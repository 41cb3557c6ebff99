#include "common/standard_descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace zumod {
namespace {

// In a child process: closes standard input and output and returns an exit status that says what is wrong.
[[noreturn]] void CloseAndFill() {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    FillStandardDescriptors();
    char byte = 0;
    if (fcntl(STDIN_FILENO, F_GETFD) < 0 || fcntl(STDOUT_FILENO, F_GETFD) < 0) {
        _exit(1);
    }
    if (read(STDIN_FILENO, &byte, 1) >= 0 || write(STDOUT_FILENO, &byte, 1) >= 0) {
        _exit(2);
    }
    if (open("/dev/null", O_RDONLY) <= STDERR_FILENO) {
        _exit(3);
    }
    _exit(0);
}

TEST(StandardDescriptors, ClosedOnesAreFilledAndStillFail) {
    EXPECT_EXIT(CloseAndFill(), ::testing::ExitedWithCode(0), "");
}

TEST(StandardDescriptors, OpenOnesStay) {
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    FillStandardDescriptors();
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), flags);
}

}  // namespace
}  // namespace zumod
