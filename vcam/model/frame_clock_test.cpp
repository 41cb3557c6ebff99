#include "vcam/model/frame_clock.h"

#include <gtest/gtest.h>

namespace zumod::vcam {
namespace {

using std::chrono::nanoseconds;

const FrameClock::Time kStart{nanoseconds(1000)};

TEST(FrameClock, DeliversTheFirstFrameOneFrameTimeAfterTheStart) {
    EXPECT_EQ(FrameClock(kStart, {25, 1}).Due(0) - kStart, nanoseconds(40000000));
}

TEST(FrameClock, DoesNotDriftWithARateThatDoesNotDivideASecond) {
    const FrameClock clock(kStart, {30, 1});
    EXPECT_EQ(clock.Due(29) - kStart, nanoseconds(1000000000));
    EXPECT_EQ(clock.Due(30ULL * 3600 * 24 * 365 - 1) - kStart, std::chrono::seconds(3600L * 24 * 365));
}

TEST(FrameClock, IsExactForBroadcastRates) {
    EXPECT_EQ(FrameClock(kStart, {30000, 1001}).Due(29999) - kStart, std::chrono::seconds(1001));
}

TEST(FrameClock, FindsTheFirstFrameThatIsNotDueYet) {
    const FrameClock clock(kStart, {1000, 1});
    EXPECT_EQ(clock.FirstAfter(kStart - nanoseconds(1)), 0U);
    EXPECT_EQ(clock.FirstAfter(kStart), 0U);
    EXPECT_EQ(clock.FirstAfter(kStart + nanoseconds(999999)), 0U);
    EXPECT_EQ(clock.FirstAfter(kStart + nanoseconds(1000000)), 1U);
    EXPECT_EQ(clock.FirstAfter(kStart + std::chrono::seconds(10)), 10000U);
}

}  // namespace
}  // namespace zumod::vcam
