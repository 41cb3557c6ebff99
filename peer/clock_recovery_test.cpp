#include "peer/clock_recovery.h"

#include <gtest/gtest.h>

#include <vector>

namespace zumod::peer {
namespace {

// Times in milliseconds.
using Times = std::vector<double>;

Clock::time_point At(double ms) {
    return Clock::time_point(std::chrono::microseconds(std::llround((1000 + ms) * 1000)));
}

Times Recovered(int fps, const Times& arrivals) {
    ClockRecovery clock(fps);
    Times times;
    for (const double arrival : arrivals) {
        times.push_back(std::chrono::duration<double, std::milli>(clock.Next(At(arrival)) - At(0)).count());
    }
    return times;
}

// Frames every `period`, whose delays are those of the table, over and over.
Times Delayed(size_t count, double period, const Times& delays) {
    Times arrivals;
    for (size_t i = 0; i < count; ++i) {
        arrivals.push_back(static_cast<double>(i) * period + delays[i % delays.size()]);
    }
    return arrivals;
}

void ExpectNear(const Times& times, const Times& expected, double tolerance) {
    ASSERT_EQ(times.size(), expected.size());
    for (size_t i = 0; i < times.size(); ++i) {
        EXPECT_NEAR(times[i], expected[i], tolerance) << "frame " << i;
    }
}

// The steps from frame `from` on are within the limits, and no time is further than 100 ms behind.
void ExpectSteps(const Times& times, const Times& arrivals, size_t from, double least, double most) {
    for (size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i], times[i - 1] + 0.999) << "frame " << i;
        EXPECT_GE(times[i], arrivals[i] - 100) << "frame " << i;
        if (i >= from) {
            EXPECT_GE(times[i] - times[i - 1], least) << "frame " << i;
            EXPECT_LE(times[i] - times[i - 1], most) << "frame " << i;
        }
    }
}

TEST(ClockRecovery, LeavesRegularTimesAsTheyAre) {
    const Times regular = {0, 40, 80, 120, 160, 200, 240, 280};
    ExpectNear(Recovered(25, regular), regular, 0.01);
}

TEST(ClockRecovery, SmoothsJitter) {
    const Times delays = {1, 55, 12, 30, 3, 48, 20, 7, 41, 15};
    const Times arrivals = Delayed(200, 100.0 / 3, delays);
    ExpectSteps(Recovered(30, arrivals), arrivals, 30, 29, 38);
}

TEST(ClockRecovery, LearnsTheRateOfACameraThatSendsAtAnotherOne) {
    const Times delays = {1, 55, 12, 30, 3, 48, 20, 7, 41, 15};
    const Times at_15 = Delayed(200, 200.0 / 3, delays);
    ExpectSteps(Recovered(30, at_15), at_15, 30, 62, 71);
    const Times at_60 = Delayed(200, 50.0 / 3, {0});
    ExpectSteps(Recovered(30, at_60), at_60, 30, 16, 17.4);
    ExpectNear(Recovered(30, {0, 1000, 2000, 3000, 4000}), {0, 1000, 2000, 3000, 4000}, 0.01);
}

TEST(ClockRecovery, FollowsASlowDriftWithoutFallingBehind) {
    // The camera's clock slows down from 30 to 29.9 frames per second within a minute.
    Times arrivals;
    double at = 0;
    for (int i = 0; i < 1800; ++i) {
        arrivals.push_back(at);
        at += 33.333 + 0.112 * i / 1800;
    }
    ExpectNear(Recovered(30, arrivals), arrivals, 0.5);
}

TEST(ClockRecovery, SpreadsFramesThatArriveInPairs) {
    Times arrivals;
    for (int i = 0; i < 200; ++i) {
        arrivals.push_back(i / 2 * 200.0 / 3);
    }
    ExpectSteps(Recovered(30, arrivals), arrivals, 30, 31, 36);
}

TEST(ClockRecovery, ShowsAPauseWhereItWas) {
    const Times arrivals = {0, 40, 80, 120, 1120, 1160, 1200, 1240};
    ExpectNear(Recovered(25, arrivals), arrivals, 0.01);
}

TEST(ClockRecovery, OrdersABurstBehindAPauseAndThenGoesOn) {
    const Times arrivals = {0, 40, 80, 120, 1000, 1000, 1000, 1001, 1002, 1040, 1080, 1120};
    ExpectNear(Recovered(25, arrivals), {0, 40, 80, 120, 1000, 1001, 1002, 1003, 1004, 1040, 1080, 1120},
               2.1);
    const Times times = Recovered(25, arrivals);
    ExpectSteps(times, arrivals, 100, 0, 0);
}

TEST(ClockRecovery, StrictlyOrdersFramesThatAllArriveAtOnce) {
    const Times arrivals(500, 0);
    ExpectSteps(Recovered(30, arrivals), arrivals, 100, 0.999, 1.001);
}

}  // namespace
}  // namespace zumod::peer
