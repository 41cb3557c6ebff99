#include "vcam/model/fault_set.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace zumod::vcam {
namespace {

FaultSet Set(std::initializer_list<const char*> texts) {
    FaultSet set;
    for (const char* text : texts) {
        set.Add(ParseFault(text).value());
    }
    return set;
}

v4l2_buffer Spoiled(const FaultSet& set, uint64_t frame) {
    v4l2_buffer buffer{};
    buffer.length = 8192;
    buffer.bytesused = 6144;
    buffer.index = 1;
    buffer.sequence = 7;
    buffer.timestamp = {5, 250000};
    set.Spoil(frame, buffer);
    return buffer;
}

TEST(FaultSet, FailsTheCallsThatAFaultCovers) {
    FaultSet set = Set({"errno/QUERYCAP/EIO/2/2"});
    EXPECT_EQ(set.FailsCall(VIDIOC_QUERYCAP), 0);
    EXPECT_EQ(set.FailsCall(VIDIOC_G_FMT), 0);
    EXPECT_EQ(set.FailsCall(VIDIOC_QUERYCAP), EIO);
    EXPECT_EQ(set.FailsCall(VIDIOC_QUERYCAP), EIO);
    EXPECT_EQ(set.FailsCall(VIDIOC_QUERYCAP), 0);
}

TEST(FaultSet, FailsOnlyTheCallThatAFaultIsAbout) {
    const struct {
        const char* fault;
        uint64_t request;
        int error;
    } cases[] = {
        {"open-busy", kOpenCall, EBUSY},         {"format-busy", VIDIOC_S_FMT, EBUSY},
        {"buffers-busy", VIDIOC_REQBUFS, EBUSY}, {"stream-busy", VIDIOC_STREAMON, EBUSY},
        {"eintr-storm/1", VIDIOC_DQBUF, EINTR},  {"eagain-storm/1", VIDIOC_DQBUF, EAGAIN},
    };
    for (const auto& test : cases) {
        FaultSet set = Set({test.fault});
        EXPECT_EQ(set.FailsCall(VIDIOC_QUERYCAP), 0) << test.fault;
        EXPECT_EQ(set.FailsCall(test.request), test.error) << test.fault;
        EXPECT_EQ(set.FailsCall(test.request), 0) << test.fault;
    }
}

TEST(FaultSet, CountsACallForEveryFaultAndLetsTheFirstKindDecide) {
    FaultSet set = Set({"eagain-storm/2", "errno/DQBUF/EIO"});
    EXPECT_EQ(set.FailsCall(VIDIOC_DQBUF), EIO);
    EXPECT_EQ(set.FailsCall(VIDIOC_DQBUF), EAGAIN);
    EXPECT_EQ(set.FailsCall(VIDIOC_DQBUF), 0);
}

TEST(FaultSet, DoesNotTakeAFaultOfFramesForOneOfOpen) {
    FaultSet set = Set({"drop/0/0", "no-frames", "grant/1"});
    EXPECT_EQ(set.FailsCall(kOpenCall), 0);
    EXPECT_FALSE(set.CountsCallsOf(kOpenCall));
}

TEST(FaultSet, KnowsWhichCallsItCounts) {
    EXPECT_TRUE(Set({"errno/QBUF/EIO"}).CountsCallsOf(VIDIOC_QBUF));
    EXPECT_FALSE(Set({"errno/QBUF/EIO"}).CountsCallsOf(VIDIOC_DQBUF));
    EXPECT_TRUE(Set({"eintr-storm"}).CountsCallsOf(VIDIOC_DQBUF));
}

TEST(FaultSet, DropsTheFramesOfARangeAndEveryNth) {
    FaultSet set = Set({"drop/1/2", "drop-every/5"});
    const FrameFate fates[] = {FrameFate::kDelivered, FrameFate::kDropped, FrameFate::kDropped,
                               FrameFate::kDelivered, FrameFate::kDropped, FrameFate::kDelivered};
    for (uint64_t frame = 0; frame < std::size(fates); ++frame) {
        EXPECT_EQ(set.OnFrame(frame), fates[frame]) << frame;
    }
}

TEST(FaultSet, LetsADroppedFrameNotBeAnEmptyOne) {
    FaultSet set = Set({"readable-empty/1/2", "drop/1"});
    EXPECT_EQ(set.OnFrame(0), FrameFate::kDelivered);
    EXPECT_EQ(set.OnFrame(1), FrameFate::kDropped);
    EXPECT_EQ(set.OnFrame(2), FrameFate::kEmpty);
}

TEST(FaultSet, UnplugsOnceAndKeepsTheUnplugOfALaterFrame) {
    FaultSet set = Set({"unplug/9", "unplug/3"});
    EXPECT_EQ(set.OnFrame(2), FrameFate::kDelivered);
    EXPECT_EQ(set.OnFrame(3), FrameFate::kUnplugged);
    EXPECT_EQ(set.OnFrame(3), FrameFate::kDelivered);
    EXPECT_EQ(set.OnFrame(9), FrameFate::kUnplugged);
    EXPECT_FALSE(set.Has(FaultKind::kUnplug));
}

TEST(FaultSet, UnplugsBeforeTheFirstFrameAfterOneThatWasSkipped) {
    FaultSet set = Set({"unplug/3"});
    EXPECT_EQ(set.OnFrame(2), FrameFate::kDelivered);
    EXPECT_EQ(set.OnFrame(4), FrameFate::kUnplugged);
    EXPECT_EQ(set.OnFrame(5), FrameFate::kDelivered);
}

TEST(FaultSet, FailsTheStreamAtItsFrameOrTheFirstAfterIt) {
    FaultSet set = Set({"fatal/3"});
    EXPECT_EQ(set.OnFrame(2), FrameFate::kDelivered);
    EXPECT_EQ(set.OnFrame(4), FrameFate::kFailed);
    EXPECT_EQ(set.OnFrame(5), FrameFate::kDelivered);
}

TEST(FaultSet, StallsOnceAtItsFrameOrTheFirstAfterIt) {
    FaultSet set = Set({"stall/250/3"});
    EXPECT_EQ(set.TakeStall(2), std::nullopt);
    EXPECT_EQ(set.TakeStall(4), std::chrono::milliseconds(250));
    EXPECT_EQ(set.TakeStall(5), std::nullopt);
}

TEST(FaultSet, SpoilsOnlyTheFramesThatAFaultCovers) {
    const FaultSet set = Set({"zero/1/1"});
    EXPECT_EQ(Spoiled(set, 0).bytesused, 6144U);
    EXPECT_EQ(Spoiled(set, 1).bytesused, 0U);
    EXPECT_EQ(Spoiled(set, 2).bytesused, 6144U);
}

TEST(FaultSet, SpoilsOneFieldPerFault) {
    EXPECT_EQ(Spoiled(Set({"short/0/1/25"}), 0).bytesused, 1536U);
    EXPECT_EQ(Spoiled(Set({"short/0/1/400"}), 0).bytesused, 6144U);
    EXPECT_EQ(Spoiled(Set({"long"}), 0).bytesused, 8192U + 4096);
    EXPECT_EQ(Spoiled(Set({"error-flag"}), 0).flags, uint32_t{V4L2_BUF_FLAG_ERROR});
    EXPECT_EQ(Spoiled(Set({"bad-index"}), 0).index, 1000U);
    EXPECT_EQ(Spoiled(Set({"repeat/0"}), 0).sequence, 6U);
    const timeval earlier = Spoiled(Set({"time-back/0/1/500"}), 0).timestamp;
    EXPECT_EQ(earlier.tv_sec, 4);
    EXPECT_EQ(earlier.tv_usec, 750000);
}

TEST(FaultSet, KeepsTheLow32BitsOfTheSecondsUnderTimeWrap) {
    v4l2_buffer buffer{};
    buffer.timestamp.tv_sec = (int64_t{1} << 32) + 3;
    Set({"time-wrap"}).Spoil(0, buffer);
    EXPECT_EQ(buffer.timestamp.tv_sec, 3);
}

TEST(FaultSet, FindsAndTakesTheOneThatWasAddedFirst) {
    FaultSet set = Set({"grant/3", "grant/4"});
    ASSERT_TRUE(set.Has(FaultKind::kGrant));
    EXPECT_EQ(set.Find(FaultKind::kGrant)->value, 3U);
    EXPECT_EQ(set.Take(FaultKind::kGrant)->value, 3U);
    EXPECT_EQ(set.Take(FaultKind::kGrant)->value, 4U);
    EXPECT_EQ(set.Take(FaultKind::kGrant), std::nullopt);
}

TEST(FaultSet, IsEmptyOnceCleared) {
    FaultSet set = Set({"errno/QBUF/EIO", "drop/0/0"});
    set.Clear();
    EXPECT_EQ(set.FailsCall(VIDIOC_QBUF), 0);
    EXPECT_EQ(set.OnFrame(0), FrameFate::kDelivered);
}

}  // namespace
}  // namespace zumod::vcam
