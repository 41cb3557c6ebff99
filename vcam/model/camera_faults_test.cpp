// Each fault as a program meets it.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vcam/model/camera.h"
#include "vcam/testing/test_rig.h"

namespace zumod::vcam {
namespace {

// One field of the first `count` buffers of a camera with this fault.
template <class Field>
std::vector<Field> FirstBuffers(const std::string& fault, size_t count, Field v4l2_buffer::*field) {
    StreamingRig rig(4, "sizes=64x64,fps=500,fault=" + fault);
    std::vector<Field> values;
    while (values.size() < count) {
        values.push_back(rig.Next().buffer.*field);
    }
    return values;
}

using Values = std::vector<uint32_t>;

TEST(Fault, UnplugRaisesErrorAndHangUpAndFailsAllCalls) {
    StreamingRig rig(2);
    rig.Inject("unplug");
    const short events = rig.Poll();
    EXPECT_NE(events & POLLERR, 0);
    EXPECT_NE(events & POLLHUP, 0);
    v4l2_buffer buffer;
    EXPECT_EQ(rig.Dequeue(buffer), ENODEV);
    EXPECT_EQ(rig.Queue(0), ENODEV);
    EXPECT_EQ(rig.StreamOff(), ENODEV);
    v4l2_capability capability{};
    EXPECT_EQ(rig.Call(VIDIOC_QUERYCAP, capability), ENODEV);
    EXPECT_EQ(rig.Device().Number(), -1);
    EXPECT_EQ(rig.Reopen(), ENOENT);
}

TEST(Fault, UnplugComesBeforeTheFrameItNames) {
    StreamingRig rig(8, "sizes=64x64,fps=500,fault=unplug/3");
    for (uint32_t i = 0; i < 3; ++i) {
        // Unplugging discards frames that were not dequeued yet.
        const TestRig::Frame frame = rig.Next();
        if (frame.error == ENODEV) {
            break;
        }
        EXPECT_EQ(frame.buffer.sequence, i);
    }
    while ((rig.Poll() & POLLHUP) == 0) {
    }
    EXPECT_EQ(rig.Device().Status().delivered, 3U);
}

TEST(Fault, UnplugWakesABlockedDequeue) {
    TestRig rig("sizes=64x64,fault=no-frames");
    ASSERT_EQ(rig.Reopen(O_RDWR), 0);
    ASSERT_EQ(rig.Start(2), 0);
    int error = 0;
    std::thread waiting([&] {
        v4l2_buffer buffer;
        error = rig.Dequeue(buffer);
    });
    rig.Inject("unplug");
    waiting.join();
    EXPECT_EQ(error, ENODEV);
}

TEST(Fault, ReplugBringsTheCameraBackInItsInitialState) {
    StreamingRig rig(2);
    rig.Inject("unplug");
    rig.Inject("replug");
    EXPECT_EQ(rig.Device().Number(), 0);
    v4l2_buffer buffer;
    EXPECT_EQ(rig.Dequeue(buffer), ENODEV);
    EXPECT_EQ(rig.StreamOff(), ENODEV);
    rig.Unmap();
    ASSERT_EQ(rig.Reopen(), 0);
    ASSERT_EQ(rig.Start(2), 0);
    EXPECT_EQ(rig.Next().error, 0);
}

TEST(Fault, ReplugWaitsForItsDelay) {
    TestRig rig("sizes=64x64,fault=replug/50");
    const auto start = std::chrono::steady_clock::now();
    rig.Inject("unplug");
    for (int tries = 0; rig.Device().Number() < 0 && tries < 20000; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(rig.Device().Number(), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
}

TEST(Fault, ReplugAsBringsItBackUnderAnotherNumber) {
    TestRig rig;
    rig.Inject("unplug");
    rig.Inject("replug-as/5");
    EXPECT_EQ(rig.Device().Number(), 5);
    EXPECT_EQ(rig.Reopen(), 0);
}

TEST(Fault, ErrnoFailsTheNthCallOfTheRequest) {
    TestRig rig;
    rig.Inject("errno/QUERYCAP/EIO/2/2");
    v4l2_capability capability{};
    v4l2_format format = Format(64, 64, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(rig.Call(VIDIOC_QUERYCAP, capability), 0);
    EXPECT_EQ(rig.Call(VIDIOC_G_FMT, format), 0);
    EXPECT_EQ(rig.Call(VIDIOC_QUERYCAP, capability), EIO);
    EXPECT_EQ(rig.Call(VIDIOC_QUERYCAP, capability), EIO);
    EXPECT_EQ(rig.Call(VIDIOC_QUERYCAP, capability), 0);
}

TEST(Fault, ErrnoCountsQueueingAndDequeueingToo) {
    StreamingRig rig(4);
    rig.Inject("errno/DQBUF/EIO/2");
    rig.Inject("errno/QBUF/ENOMEM/1");
    EXPECT_EQ(rig.Next().error, 0);
    EXPECT_EQ(rig.Next().error, EIO);
    EXPECT_EQ(rig.Next().error, 0);
    EXPECT_EQ(rig.Queue(0), ENOMEM);
    EXPECT_EQ(rig.Queue(0), 0);
}

TEST(Fault, ErrnoFailsEveryRequestOfACapture) {
    const std::pair<unsigned long, const char*> requests[] = {
        {VIDIOC_ENUM_FMT, "errno/ENUM_FMT/EIO"}, {VIDIOC_TRY_FMT, "errno/TRY_FMT/EIO"},
        {VIDIOC_G_PARM, "errno/G_PARM/EIO"},     {VIDIOC_S_PARM, "errno/S_PARM/EIO"},
        {VIDIOC_QUERYBUF, "errno/QUERYBUF/EIO"}, {VIDIOC_STREAMOFF, "errno/STREAMOFF/EIO"},
    };
    for (const auto& [request, fault] : requests) {
        TestRig rig;
        rig.Inject(fault);
        char argument[256] = {};
        EXPECT_EQ(rig.File().Ioctl(request, argument), EIO);
    }
}

TEST(Fault, OpenBusyFailsToOpen) {
    TestRig rig;
    rig.Inject("open-busy/2");
    EXPECT_EQ(rig.Reopen(), EBUSY);
    EXPECT_EQ(rig.Reopen(), EBUSY);
    EXPECT_EQ(rig.Reopen(), 0);
}

TEST(Fault, FormatBusyFailsToSetTheFormat) {
    TestRig rig;
    rig.Inject("format-busy");
    v4l2_format format = Format(64, 64, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(rig.Call(VIDIOC_S_FMT, format), EBUSY);
    EXPECT_EQ(rig.Call(VIDIOC_S_FMT, format), 0);
}

TEST(Fault, BuffersBusyFailsToGrantBuffers) {
    TestRig rig;
    rig.Inject("buffers-busy");
    EXPECT_EQ(rig.Request(4), -EBUSY);
    EXPECT_EQ(rig.Request(4), 4);
}

TEST(Fault, StreamBusyFailsToStart) {
    TestRig rig;
    rig.Inject("stream-busy");
    EXPECT_EQ(rig.Start(2), EBUSY);
    EXPECT_EQ(rig.StreamOn(), 0);
}

TEST(Fault, EintrStormInterruptsDequeueingAndLeavesTheFrame) {
    StreamingRig rig(2);
    rig.Inject("eintr-storm/50");
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(rig.Next().error, EINTR);
    }
    const TestRig::Frame frame = rig.Next();
    EXPECT_EQ(frame.error, 0);
    EXPECT_EQ(frame.buffer.sequence, 0U);
}

TEST(Fault, EagainStormRefusesAFrameThatIsThere) {
    StreamingRig rig(2);
    rig.Inject("eagain-storm/50");
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(rig.Next().error, EAGAIN);
    }
    EXPECT_EQ(rig.Next().error, 0);
}

TEST(Fault, ReadableEmptyIsReadableWithNothingToDequeue) {
    StreamingRig rig(4, "sizes=64x64,fps=500,fault=readable-empty/1/2");
    EXPECT_EQ(rig.Next().buffer.sequence, 0U);
    EXPECT_EQ(rig.Next().error, EAGAIN);
    EXPECT_EQ(rig.Next().error, EAGAIN);
    EXPECT_EQ(rig.Next().buffer.sequence, 3U);
}

TEST(Fault, ShortReportsPartOfThePicture) {
    EXPECT_EQ(FirstBuffers("short/1/1/25", 3, &v4l2_buffer::bytesused), (Values{6144, 1536, 6144}));
}

TEST(Fault, ZeroReportsNoBytes) {
    EXPECT_EQ(FirstBuffers("zero/0/2", 3, &v4l2_buffer::bytesused), (Values{0, 0, 6144}));
}

TEST(Fault, LongClaimsMoreThanTheBufferHolds) {
    StreamingRig rig(2, "sizes=64x64,fps=500,fault=long");
    const TestRig::Frame frame = rig.Next();
    EXPECT_EQ(frame.buffer.bytesused, frame.buffer.length + 4096);
}

TEST(Fault, ErrorFlagMarksTheBuffer) {
    StreamingRig rig(2, "sizes=64x64,fps=500,fault=error-flag/1");
    EXPECT_EQ(rig.Next().buffer.flags & V4L2_BUF_FLAG_ERROR, 0U);
    EXPECT_NE(rig.Next().buffer.flags & V4L2_BUF_FLAG_ERROR, 0U);
}

TEST(Fault, BadIndexNamesABufferThatIsNotThere) {
    StreamingRig rig(2, "sizes=64x64,fps=500,fault=bad-index");
    EXPECT_EQ(rig.Next().buffer.index, 1000U);
    EXPECT_EQ(rig.Queue(1000), EINVAL);
    EXPECT_EQ(rig.Next().buffer.index, 1U);
}

TEST(Fault, StallHoldsTheFramesBack) {
    StreamingRig rig(8, "sizes=64x64,fps=500,fault=stall/300/2");
    const TestRig::Frame before[2] = {rig.Next(), rig.Next()};
    EXPECT_EQ(before[1].buffer.sequence, 1U);
    const TestRig::Frame after = rig.Next();
    ASSERT_EQ(after.error, 0);
    EXPECT_GE(TimeOf(after.buffer) - TimeOf(before[1].buffer), 300000 - 2000);
    EXPECT_GE(after.buffer.sequence, 149U);
}

TEST(Fault, NoFramesStreamsWithoutAFrame) {
    StreamingRig rig(2, "sizes=64x64,fps=1000,fault=no-frames");
    EXPECT_EQ(rig.Poll(100), 0);
    rig.Device().ClearFaults();
    EXPECT_EQ(rig.Next().error, 0);
}

TEST(Fault, TooFastDeliversFramesAboveTheNegotiatedRate) {
    StreamingRig rig(4, "sizes=64x64,fps=100,fault=too-fast/5");
    const TestRig::Frame first = rig.Next();
    const TestRig::Frame second = rig.Next();
    EXPECT_NEAR(static_cast<double>(TimeOf(second.buffer) - TimeOf(first.buffer)), 2000.0, 1.0);
}

TEST(Fault, DropLosesFramesAndTheSequenceShowsIt) {
    StreamingRig rig(4, "sizes=64x64,fps=500,fault=drop/1/2");
    EXPECT_EQ(rig.Next().buffer.sequence, 0U);
    const TestRig::Frame frame = rig.Next();
    EXPECT_EQ(frame.buffer.sequence, 3U);
    EXPECT_EQ(frame.buffer.index, 1U);
}

TEST(Fault, DropEveryLosesEveryNthFrame) {
    EXPECT_EQ(FirstBuffers("drop-every/3", 4, &v4l2_buffer::sequence), (Values{0, 1, 3, 4}));
}

TEST(Fault, SequenceWrapPassesTheLargestNumber) {
    EXPECT_EQ(FirstBuffers("sequence-wrap/2", 3, &v4l2_buffer::sequence),
              (Values{0xfffffffe, 0xffffffff, 0}));
}

TEST(Fault, TimeWrapPassesTheLargestSecond) {
    StreamingRig rig(4, "sizes=64x64,fps=500,fault=time-wrap/3");
    EXPECT_EQ(rig.Next().buffer.timestamp.tv_sec, 0xffffffffL);
    EXPECT_EQ(rig.Next().buffer.timestamp.tv_sec, 0L);
}

TEST(Fault, TimeBackReportsAnEarlierTime) {
    StreamingRig rig(4, "sizes=64x64,fps=500,fault=time-back/1/1/500");
    const int64_t first = TimeOf(rig.Next().buffer);
    EXPECT_NEAR(static_cast<double>(TimeOf(rig.Next().buffer) - first), -498000.0, 1.0);
    EXPECT_NEAR(static_cast<double>(TimeOf(rig.Next().buffer) - first), 4000.0, 1.0);
}

TEST(Fault, RepeatReportsASequenceNumberTwice) {
    EXPECT_EQ(FirstBuffers("repeat/2", 4, &v4l2_buffer::sequence), (Values{0, 1, 1, 3}));
}

TEST(Fault, SizeChangeSetsAnotherSizeThanWasNegotiated) {
    TestRig rig("fault=size-change/320/240");
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.width, 640U);
    ASSERT_EQ(rig.Call(VIDIOC_S_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.width, 320U);
    EXPECT_EQ(format.fmt.pix.height, 240U);
    ASSERT_EQ(rig.Start(2), 0);
    EXPECT_EQ(rig.Next().buffer.bytesused, 320U * 240 * 3 / 2);
}

TEST(Fault, StrideChangeMakesRowsLongerThanWasNegotiated) {
    TestRig rig("fault=stride-change/32");
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.bytesperline, 640U);
    ASSERT_EQ(rig.Call(VIDIOC_S_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.bytesperline, 672U);
    ASSERT_EQ(rig.Start(2), 0);
    EXPECT_EQ(rig.Next().buffer.bytesused, 672U * 480 * 3 / 2);
}

TEST(Fault, FatalFailsUntilTheStreamIsStopped) {
    StreamingRig rig(2, "sizes=64x64,fps=500,fault=fatal/1");
    v4l2_buffer buffer;
    TestRig::Frame frame = rig.Next();
    while (frame.error == 0) {
        frame = rig.NextAndQueue();
    }
    EXPECT_EQ(frame.error, EIO);
    EXPECT_NE(rig.Poll(0), 0);
    EXPECT_EQ(rig.Dequeue(buffer), EIO);
    EXPECT_EQ(rig.StreamOn(), 0);
    EXPECT_EQ(rig.Dequeue(buffer), EIO);
    ASSERT_EQ(rig.StreamOff(), 0);
    ASSERT_EQ(rig.Queue(0), 0);
    ASSERT_EQ(rig.StreamOn(), 0);
    EXPECT_EQ(rig.Next().error, 0);
}

TEST(Fault, GrantGrantsNoneOneOrEightBuffers) {
    for (const int count : {0, 1, 8}) {
        TestRig rig;
        rig.Inject("grant/" + std::to_string(count));
        EXPECT_EQ(rig.Request(4), count);
    }
}

TEST(Fault, GrantOfOneBufferStillStreams) {
    StreamingRig rig(4, "sizes=64x64,fps=500,fault=grant/1");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(rig.NextAndQueue().error, 0);
    }
}

TEST(Fault, SlowOpenReportsHowLongOpeningTakes) {
    TestRig rig;
    EXPECT_EQ(rig.Device().OpenDelay(), 0U);
    rig.Inject("slow-open/200");
    EXPECT_EQ(rig.Device().OpenDelay(), 200U);
}

TEST(Fault, ClearingRemovesAllFaults) {
    TestRig rig("fault=grant/1,fault=open-busy/0,fault=errno/DQBUF/EIO/1/0");
    EXPECT_NE(rig.Board().slow.load(), 0U);
    rig.Device().ClearFaults();
    EXPECT_EQ(rig.Board().slow.load(), 0U);
    EXPECT_EQ(rig.Reopen(), 0);
    EXPECT_EQ(rig.Request(4), 4);
}

}  // namespace
}  // namespace zumod::vcam
