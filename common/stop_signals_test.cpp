#include "common/stop_signals.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <csignal>

namespace zumod {
namespace {

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
