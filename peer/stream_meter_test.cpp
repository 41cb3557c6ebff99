#include "peer/stream_meter.h"

#include <gtest/gtest.h>

namespace zumod::peer {
namespace {

using std::chrono::milliseconds;

Clock::time_point AtTime(int ms) {
    return Clock::time_point(milliseconds(ms));
}

TEST(StreamMeter, CountsFramesAndBytesPerSecond) {
    StreamMeter meter(AtTime(1000));
    for (int i = 0; i < 60; ++i) {
        meter.AddFrame(1000);
    }
    const StreamFigures figures = meter.EndInterval(AtTime(3000));
    EXPECT_DOUBLE_EQ(figures.FramesPerSecond(), 30);
    EXPECT_DOUBLE_EQ(figures.BitsPerSecond(), 240000);
    EXPECT_EQ(figures.median_latency_ms, std::nullopt);
    EXPECT_EQ(figures.dropped, std::nullopt);
    const StreamFigures next = meter.EndInterval(AtTime(4000));
    EXPECT_EQ(next.frames, 0U);
    EXPECT_DOUBLE_EQ(next.seconds, 1);
}

TEST(StreamMeter, ReportsTheMedianAndTheGreatestLatency) {
    StreamMeter meter(AtTime(0));
    uint32_t counter = 0;
    for (const int age : {5, 100, 3, 4}) {
        meter.AddStamp(counter++, AtTime(1000), AtTime(1000 + age));
    }
    const StreamFigures even = meter.EndInterval(AtTime(1000));
    EXPECT_DOUBLE_EQ(even.median_latency_ms.value(), 4.5);
    EXPECT_DOUBLE_EQ(even.greatest_latency_ms.value(), 100);
    for (const int age : {7, 9, 8}) {
        meter.AddStamp(counter++, AtTime(1000), AtTime(1000 + age));
    }
    EXPECT_DOUBLE_EQ(meter.EndInterval(AtTime(2000)).median_latency_ms.value(), 8);
}

TEST(StreamMeter, IgnoresTimesOfAnotherMachinesClock) {
    StreamMeter meter(AtTime(0));
    meter.AddStamp(0, AtTime(2000), AtTime(1000));
    meter.AddStamp(1, AtTime(0), AtTime(60000));
    const StreamFigures figures = meter.EndInterval(AtTime(1000));
    EXPECT_EQ(figures.median_latency_ms, std::nullopt);
    EXPECT_EQ(figures.dropped, 0U);
}

TEST(StreamMeter, CountsGapsOfTheCounterAlsoAcrossIntervals) {
    StreamMeter meter(AtTime(0));
    for (const uint32_t counter : {10U, 11U, 14U, 15U}) {
        meter.AddStamp(counter, AtTime(0), AtTime(1));
    }
    EXPECT_EQ(meter.EndInterval(AtTime(1000)).dropped, 2U);
    meter.AddStamp(17, AtTime(0), AtTime(1));
    EXPECT_EQ(meter.EndInterval(AtTime(2000)).dropped, 1U);
}

TEST(StreamMeter, DoesNotCountARestartedCounterAsAGap) {
    StreamMeter meter(AtTime(0));
    meter.AddStamp(100, AtTime(0), AtTime(1));
    meter.AddStamp(0, AtTime(0), AtTime(1));
    meter.AddStamp(1, AtTime(0), AtTime(1));
    meter.NewStream();
    meter.AddStamp(50, AtTime(0), AtTime(1));
    EXPECT_EQ(meter.EndInterval(AtTime(1000)).dropped, 0U);
}

}  // namespace
}  // namespace zumod::peer
