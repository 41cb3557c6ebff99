#include "peer/stream_meter.h"

#include <gtest/gtest.h>

#include "peer/stats_command.h"

namespace zumod::peer {
namespace {

using std::chrono::milliseconds;

Clock::time_point At(int ms) {
    return Clock::time_point(milliseconds(ms));
}

TEST(StreamMeter, CountsFramesAndBytesPerSecond) {
    StreamMeter meter(At(1000));
    for (int i = 0; i < 60; ++i) {
        meter.AddFrame(1000);
    }
    const StreamFigures figures = meter.EndInterval(At(3000));
    EXPECT_DOUBLE_EQ(figures.FramesPerSecond(), 30);
    EXPECT_DOUBLE_EQ(figures.BitsPerSecond(), 240000);
    EXPECT_EQ(figures.median_latency_ms, std::nullopt);
    EXPECT_EQ(figures.dropped, std::nullopt);
    const StreamFigures next = meter.EndInterval(At(4000));
    EXPECT_EQ(next.frames, 0U);
    EXPECT_DOUBLE_EQ(next.seconds, 1);
}

TEST(StreamMeter, ReportsTheMedianAndTheGreatestLatency) {
    StreamMeter meter(At(0));
    uint32_t counter = 0;
    for (const int age : {5, 100, 3, 4}) {
        meter.AddStamp(counter++, At(1000), At(1000 + age));
    }
    const StreamFigures even = meter.EndInterval(At(1000));
    EXPECT_DOUBLE_EQ(even.median_latency_ms.value(), 4.5);
    EXPECT_DOUBLE_EQ(even.greatest_latency_ms.value(), 100);
    for (const int age : {7, 9, 8}) {
        meter.AddStamp(counter++, At(1000), At(1000 + age));
    }
    EXPECT_DOUBLE_EQ(meter.EndInterval(At(2000)).median_latency_ms.value(), 8);
}

TEST(StreamMeter, IgnoresTimesOfAnotherMachinesClock) {
    StreamMeter meter(At(0));
    meter.AddStamp(0, At(2000), At(1000));
    meter.AddStamp(1, At(0), At(60000));
    const StreamFigures figures = meter.EndInterval(At(1000));
    EXPECT_EQ(figures.median_latency_ms, std::nullopt);
    EXPECT_EQ(figures.dropped, 0U);
}

TEST(StreamMeter, CountsGapsOfTheCounterAlsoAcrossIntervals) {
    StreamMeter meter(At(0));
    for (const uint32_t counter : {10U, 11U, 14U, 15U}) {
        meter.AddStamp(counter, At(0), At(1));
    }
    EXPECT_EQ(meter.EndInterval(At(1000)).dropped, 2U);
    meter.AddStamp(17, At(0), At(1));
    EXPECT_EQ(meter.EndInterval(At(2000)).dropped, 1U);
}

TEST(StreamMeter, DoesNotCountARestartedCounterAsAGap) {
    StreamMeter meter(At(0));
    meter.AddStamp(100, At(0), At(1));
    meter.AddStamp(0, At(0), At(1));
    meter.AddStamp(1, At(0), At(1));
    meter.NewStream();
    meter.AddStamp(50, At(0), At(1));
    EXPECT_EQ(meter.EndInterval(At(1000)).dropped, 0U);
}

const CameraEntry kDesk{1, false, "De\x1bsk", "", {}};

TEST(StatsText, NamesTheCameraAndTheKnownFigures) {
    EXPECT_EQ(
        FiguresText(kDesk, {640, 480}, {1.0, 30, 50000, 0, 12.34, 56.78, 2}),
        "camera 1 (De\\x1bsk) 640x480: 30.0 frames/s, 0.40 Mbit/s, latency 12.3 ms (max 56.8 ms), 2 dropped");
    EXPECT_EQ(FiguresText(kDesk, {}, {2.0, 3, 0, 3, {}, {}, {}}),
              "camera 1 (De\\x1bsk): 1.5 frames/s, 0.00 Mbit/s, 3 not decoded");
}

TEST(StatsText, IsOneJsonObjectPerLine) {
    EXPECT_EQ(
        FiguresJson(kDesk, {640, 480}, {0.5, 10, 1000, 1, 1.5, 2.5, 4}),
        "{\"camera\":1,\"name\":\"De\\u001bsk\",\"width\":640,\"height\":480,\"seconds\":0.5,\"frames\":10,"
        "\"fps\":20.0,\"bit_rate\":16000.0,\"latency_ms\":{\"median\":1.5,\"max\":2.5},\"dropped\":4,"
        "\"undecoded\":1}\n");
    EXPECT_EQ(FiguresJson(kDesk, {}, {1.0, 0, 0, 0, {}, {}, {}}),
              "{\"camera\":1,\"name\":\"De\\u001bsk\",\"width\":0,\"height\":0,\"seconds\":1.0,\"frames\":0,"
              "\"fps\":0.0,\"bit_rate\":0.0,\"latency_ms\":null,\"dropped\":null,\"undecoded\":0}\n");
    EXPECT_EQ(EventJson(kDesk, CameraEvent::kGone, "camera 1 is gone"),
              "{\"camera\":1,\"name\":\"De\\u001bsk\",\"event\":\"gone\",\"text\":\"camera 1 is gone\"}\n");
}

}  // namespace
}  // namespace zumod::peer
