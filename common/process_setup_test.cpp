#include "common/process_setup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>

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

class StopSignalsTest : public ::testing::Test {
protected:
    StopSignalsTest() { pthread_sigmask(SIG_SETMASK, nullptr, &m_mask_before); }
    ~StopSignalsTest() override {
        pthread_sigmask(SIG_SETMASK, &m_mask_before, nullptr);
        std::signal(SIGPIPE, SIG_DFL);
    }
    static bool IsReadable(const StopSignals& signals) {
        pollfd watched{signals.Descriptor(), POLLIN, 0};
        return poll(&watched, 1, 0) == 1;
    }

private:
    sigset_t m_mask_before{};
};

TEST_F(StopSignalsTest, EachSignalMakesTheDescriptorReadableUntilItIsConsumed) {
    const StopSignals signals;
    EXPECT_FALSE(IsReadable(signals));
    EXPECT_FALSE(signals.Consume());
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        ASSERT_EQ(raise(signal), 0);
        EXPECT_TRUE(IsReadable(signals)) << signal;
        EXPECT_TRUE(signals.Consume()) << signal;
        EXPECT_FALSE(IsReadable(signals)) << signal;
    }
}

TEST_F(StopSignalsTest, ABrokenPipeDoesNotEndTheProgram) {
    const StopSignals signals;
    ASSERT_EQ(raise(SIGPIPE), 0);
    EXPECT_FALSE(signals.Consume());
}

}  // namespace
}  // namespace zumod
