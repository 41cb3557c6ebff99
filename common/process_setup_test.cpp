#include "common/process_setup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

namespace zumod {
namespace {

// In a child process: closes standard input and output and returns an exit status that says what is wrong.
[[noreturn]] void CloseAndFill() {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    if (FillStandardDescriptors() != STDIN_FILENO) {
        _exit(4);
    }
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
    EXPECT_EQ(FillStandardDescriptors(), -1);
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

// In a child process: consumes the first signal, then raises the second. Exits with 0 if it survives.
[[noreturn]] void SignalTwice(int first, int second, StopSignals::Second mode) {
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    const StopSignals signals(mode);
    raise(first);
    if (!signals.Consume()) {
        _exit(1);
    }
    raise(second);
    _exit(signals.Consume() ? 0 : 2);
}

TEST_F(StopSignalsTest, TheSecondOneEndsTheProcessIfItIsTo) {
    constexpr auto kEnds = StopSignals::Second::kEndsProcess;
    EXPECT_EXIT(SignalTwice(SIGTERM, SIGTERM, kEnds), ::testing::KilledBySignal(SIGTERM), "");
    EXPECT_EXIT(SignalTwice(SIGHUP, SIGINT, kEnds), ::testing::KilledBySignal(SIGINT), "");
    EXPECT_EXIT(SignalTwice(SIGTERM, SIGTERM, StopSignals::Second::kIsConsumed), ::testing::ExitedWithCode(0),
                "");
}

TEST_F(StopSignalsTest, AClosedTerminalMaySendTwoHangups) {
    EXPECT_EXIT(SignalTwice(SIGHUP, SIGHUP, StopSignals::Second::kEndsProcess), ::testing::ExitedWithCode(0),
                "");
}

// In a child process: a signal when no descriptor was left for it.
[[noreturn]] void SignalWithoutDescriptor() {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    signal(SIGTERM, SIG_DFL);
    const StopSignals signals;
    if (signals.Descriptor() >= 0) {
        _exit(1);
    }
    raise(SIGTERM);
    _exit(2);
}

TEST_F(StopSignalsTest, StayDeadlyWithoutADescriptor) {
    EXPECT_EXIT(SignalWithoutDescriptor(), ::testing::KilledBySignal(SIGTERM), "");
}

TEST_F(StopSignalsTest, ABrokenPipeDoesNotEndTheProgram) {
    const StopSignals signals;
    ASSERT_EQ(raise(SIGPIPE), 0);
    EXPECT_FALSE(signals.Consume());
}

TEST_F(StopSignalsTest, AProgramStartedWithSigchldIgnoredCanWaitForItsChildren) {
    std::signal(SIGCHLD, SIG_IGN);
    const StopSignals signals;
    EXPECT_EQ(std::signal(SIGCHLD, SIG_DFL), SIG_DFL);
}

}  // namespace
}  // namespace zumod
