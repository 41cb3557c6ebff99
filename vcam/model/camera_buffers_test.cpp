// Buffers, streams and ownership, as a program meets them.
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/select.h>

#include <cstring>
#include <memory>
#include <thread>

#include "vcam/model/camera.h"
#include "vcam/picture/pattern_reader.h"
#include "vcam/testing/test_rig.h"

namespace zumod::vcam {
namespace {

v4l2_streamparm Parm(uint32_t numerator, uint32_t denominator) {
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {numerator, denominator};
    return parm;
}

TEST(Camera, GrantsTheRequestedNumberWithinItsLimits) {
    TestRig rig;
    EXPECT_EQ(rig.Request(1), 2);
    EXPECT_EQ(rig.Request(4), 4);
    EXPECT_EQ(rig.Request(100), 32);
    EXPECT_EQ(rig.Request(0), 0);
}

TEST(Camera, GrantsWhatItIsConfiguredTo) {
    for (const int grant : {0, 2, 4, 8}) {
        TestRig rig("buffers=" + std::to_string(grant));
        EXPECT_EQ(rig.Request(4), grant);
    }
}

TEST(Camera, KnowsNoMemoryButItsOwn) {
    TestRig rig;
    v4l2_requestbuffers request{};
    request.count = 4;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(rig.Call(VIDIOC_REQBUFS, request), EINVAL);
}

TEST(Camera, ReportsWhereABufferIsAndItsState) {
    TestRig rig;
    ASSERT_EQ(rig.Request(2), 2);
    v4l2_buffer buffer = Buffer(1);
    ASSERT_EQ(rig.Call(VIDIOC_QUERYBUF, buffer), 0);
    EXPECT_EQ(buffer.length, 64U * 64 * 3 / 2);
    EXPECT_EQ(buffer.m.offset, 8192U);
    EXPECT_EQ(buffer.flags, uint32_t{V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC});
    ASSERT_EQ(rig.Queue(1), 0);
    ASSERT_EQ(rig.Call(VIDIOC_QUERYBUF, buffer), 0);
    EXPECT_EQ(buffer.flags, uint32_t{V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_QUEUED});
    buffer.index = 2;
    EXPECT_EQ(rig.Call(VIDIOC_QUERYBUF, buffer), EINVAL);
}

TEST(Camera, QueuesABufferOnlyOnceAndOnlyOneItHas) {
    TestRig rig;
    EXPECT_EQ(rig.Queue(0), EINVAL);
    ASSERT_EQ(rig.Request(2), 2);
    EXPECT_EQ(rig.Queue(0), 0);
    EXPECT_EQ(rig.Queue(0), EINVAL);
    EXPECT_EQ(rig.Queue(2), EINVAL);
}

TEST(Camera, MapsOnlyItsBuffers) {
    TestRig rig;
    EXPECT_EQ(rig.File().Map(4096, PROT_READ, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(rig.Request(2), 2);
    EXPECT_EQ(rig.File().Map(4096, PROT_READ, 4096), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(rig.File().Map(1 << 20, PROT_READ, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    void* memory = rig.File().Map(6144, PROT_READ | PROT_WRITE, 8192);
    ASSERT_NE(memory, MAP_FAILED);
    v4l2_buffer buffer = Buffer(1);
    ASSERT_EQ(rig.Call(VIDIOC_QUERYBUF, buffer), 0);
    EXPECT_NE(buffer.flags & V4L2_BUF_FLAG_MAPPED, 0U);
    munmap(memory, 6144);
}

TEST(Camera, OpenedForReadingIsNotMappedForWriting) {
    TestRig rig;
    ASSERT_EQ(rig.Reopen(O_RDONLY), 0);
    ASSERT_EQ(rig.Request(2), 2);
    EXPECT_EQ(rig.File().Map(6144, PROT_READ | PROT_WRITE, 0), MAP_FAILED);
    EXPECT_EQ(errno, EACCES);
    void* memory = rig.File().Map(6144, PROT_READ, 0);
    EXPECT_NE(memory, MAP_FAILED);
    munmap(memory, 6144);
}

TEST(Camera, DoesNotStreamWithoutBuffers) {
    TestRig rig;
    EXPECT_EQ(rig.StreamOn(), EINVAL);
    v4l2_buffer buffer;
    EXPECT_EQ(rig.Dequeue(buffer), EINVAL);
    EXPECT_EQ(rig.StreamOff(), 0);
}

TEST(Camera, DeliversFramesInOrderWithExactTimes) {
    StreamingRig rig(8, "sizes=64x64,fps=250");
    int64_t first = 0;
    for (uint32_t i = 0; i < 8; ++i) {
        const TestRig::Frame frame = rig.Next();
        ASSERT_EQ(frame.error, 0);
        EXPECT_EQ(frame.buffer.sequence, i);
        EXPECT_EQ(frame.buffer.index, i);
        EXPECT_EQ(frame.buffer.bytesused, 64U * 64 * 3 / 2);
        EXPECT_EQ(frame.buffer.flags, uint32_t{V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_MAPPED});
        EXPECT_EQ(frame.buffer.field, uint32_t{V4L2_FIELD_NONE});
        const int64_t time = TimeOf(frame.buffer);
        first = i == 0 ? time : first;
        EXPECT_NEAR(static_cast<double>(time - first), 4000.0 * i, 1.0);
    }
}

TEST(Camera, StampsTheSequenceAndTheTimeIntoThePicture) {
    StreamingRig rig(4, "sizes=128x96,fps=250");
    for (int i = 0; i < 4; ++i) {
        const TestRig::Frame frame = rig.Next();
        ASSERT_EQ(frame.error, 0);
        const auto stamp = ReadStamp(rig.Memory(frame.buffer.index), LayOut(V4L2_PIX_FMT_NV12, 128, 96));
        ASSERT_TRUE(stamp);
        EXPECT_EQ(stamp->counter, frame.buffer.sequence);
        EXPECT_EQ(stamp->time_us, static_cast<uint64_t>(TimeOf(frame.buffer)));
    }
}

TEST(Camera, DropsFramesWhileNoBufferIsQueued) {
    StreamingRig rig(2);
    ASSERT_EQ(rig.Next().error, 0);
    ASSERT_EQ(rig.Next().error, 0);
    for (int tries = 0; rig.Device().Status().dropped < 3 && tries < 20000; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(rig.Queue(0), 0);
    const TestRig::Frame frame = rig.Next();
    ASSERT_EQ(frame.error, 0);
    EXPECT_GE(frame.buffer.sequence, 5U);
}

TEST(Camera, HasNothingToDequeueBeforeAFrameIsDue) {
    // On a busy machine the first frame may be due before the test looks. Then it starts another camera.
    constexpr int kAttempts = 20;
    bool has_nothing = false;
    for (int i = 0; i < kAttempts && !has_nothing; ++i) {
        StreamingRig rig(2, "sizes=64x64,fps=1");
        v4l2_buffer buffer;
        has_nothing = rig.Poll(0) == 0 && rig.Dequeue(buffer) == EAGAIN;
    }
    EXPECT_TRUE(has_nothing);
}

TEST(Camera, LetsABlockingFileWaitForAFrame) {
    TestRig rig;
    ASSERT_EQ(rig.Reopen(O_RDWR), 0);
    ASSERT_EQ(rig.Start(2), 0);
    v4l2_buffer buffer;
    EXPECT_EQ(rig.Dequeue(buffer), 0);
}

TEST(Camera, WakesABlockedDequeueWhenTheStreamStops) {
    TestRig rig("sizes=64x64,fault=no-frames");
    ASSERT_EQ(rig.Reopen(O_RDWR), 0);
    ASSERT_EQ(rig.Start(2), 0);
    int error = 0;
    std::thread waiting([&] {
        v4l2_buffer buffer;
        error = rig.Dequeue(buffer);
    });
    EXPECT_EQ(rig.StreamOff(), 0);
    waiting.join();
    EXPECT_EQ(error, EINVAL);
    // The rearmed mark keeps the descriptor readable.
    EXPECT_NE(rig.Poll(0), 0);
}

TEST(Camera, ReturnsEveryBufferWhenTheStreamStops) {
    StreamingRig rig(2);
    ASSERT_NE(rig.Poll(), 0);
    ASSERT_EQ(rig.StreamOff(), 0);
    v4l2_buffer buffer;
    EXPECT_EQ(rig.Dequeue(buffer), EINVAL);
    EXPECT_EQ(rig.Queue(0), 0);
    EXPECT_EQ(rig.Queue(1), 0);
}

TEST(Camera, CountsFramesFromZeroInEachStreamAndDiscardsOldOnes) {
    StreamingRig rig(4);
    ASSERT_NE(rig.Poll(), 0);
    ASSERT_EQ(rig.StreamOff(), 0);
    ASSERT_EQ(rig.Queue(2), 0);
    ASSERT_EQ(rig.StreamOn(), 0);
    const TestRig::Frame frame = rig.Next();
    ASSERT_EQ(frame.error, 0);
    EXPECT_EQ(frame.buffer.sequence, 0U);
    EXPECT_EQ(frame.buffer.index, 2U);
}

TEST(Camera, DoesNotLetAPollWaitOnAStoppedStream) {
    TestRig rig;
    EXPECT_NE(rig.Poll(0), 0);
}

TEST(Camera, IsSeenBySelectAndEpollByItself) {
    StreamingRig rig(4);
    const int fd = rig.File().Descriptor();
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval limit{20, 0};
    EXPECT_EQ(select(fd + 1, &readable, nullptr, nullptr, &limit), 1);
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event), 0);
    EXPECT_EQ(epoll_wait(epoll, &event, 1, 20000), 1);
    EXPECT_EQ(event.events, uint32_t{EPOLLIN});
    close(epoll);
}

TEST(Camera, IsNeverWritable) {
    StreamingRig rig(2);
    pollfd state{rig.File().Descriptor(), POLLOUT, 0};
    EXPECT_EQ(poll(&state, 1, 0), 0);
}

TEST(Camera, IsBusyForAnotherFileAsSoonAsItGrantedBuffers) {
    TestRig rig;
    ModelFile second(rig.Device());
    ASSERT_EQ(rig.Request(2), 2);
    v4l2_requestbuffers request = BufferRequest(2);
    EXPECT_EQ(second.Ioctl(VIDIOC_REQBUFS, &request), EBUSY);
    ASSERT_EQ(rig.Request(0), 0);
    EXPECT_EQ(second.Ioctl(VIDIOC_REQBUFS, &request), 0);
}

TEST(Camera, IsBusyForASecondStreamer) {
    TestRig rig;
    ModelFile second(rig.Device());
    ASSERT_EQ(rig.Start(2), 0);
    v4l2_requestbuffers request = BufferRequest(2);
    EXPECT_EQ(second.Ioctl(VIDIOC_REQBUFS, &request), EBUSY);
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(second.Ioctl(VIDIOC_STREAMON, &type), EBUSY);
    EXPECT_EQ(second.Ioctl(VIDIOC_STREAMOFF, &type), EBUSY);
    v4l2_buffer buffer = Buffer();
    EXPECT_EQ(second.Ioctl(VIDIOC_QBUF, &buffer), EBUSY);
    EXPECT_EQ(second.Ioctl(VIDIOC_DQBUF, &buffer), EBUSY);
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(second.Ioctl(VIDIOC_S_FMT, &format), EBUSY);
    EXPECT_EQ(second.Ioctl(VIDIOC_G_FMT, &format), 0);
}

TEST(Camera, DoesNotChangeFormatOrRateWhileItIsInUse) {
    StreamingRig rig(2);
    v4l2_format format = Format(64, 64, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(rig.Call(VIDIOC_S_FMT, format), EBUSY);
    v4l2_streamparm parm = Parm(1, 30);
    EXPECT_EQ(rig.Call(VIDIOC_S_PARM, parm), EBUSY);
    EXPECT_EQ(rig.Request(4), -EBUSY);
}

TEST(Camera, IsFreeAtOnceWhenItsUserClosedAndUnmapped) {
    StreamingRig rig(2);
    rig.Unmap();
    ASSERT_EQ(rig.Reopen(), 0);
    EXPECT_EQ(rig.Start(2), 0);
}

// The kernel keeps a device file until its memory is unmapped too.
TEST(Camera, StaysBusyWhileItsMemoryIsMapped) {
    StreamingRig rig(2);
    ASSERT_EQ(rig.Reopen(), 0);
    EXPECT_EQ(rig.Request(2), -EBUSY);
    rig.Unmap();
    EXPECT_EQ(rig.Request(2), 2);
}

TEST(Camera, IsKeptOpenByACopyOfTheDescriptor) {
    TestRig rig;
    ASSERT_EQ(rig.Request(2), 2);
    const int copy = dup(rig.File().Descriptor());
    ASSERT_EQ(rig.Reopen(), 0);
    EXPECT_EQ(rig.Request(2), -EBUSY);
    EXPECT_EQ(rig.Device().Status().open_files, 2U);
    close(copy);
    EXPECT_EQ(rig.Request(2), 2);
    EXPECT_EQ(rig.Device().Status().open_files, 1U);
}

TEST(Camera, StopsPaintingForAProgramThatEnded) {
    StreamingRig rig(2);
    rig.CloseFile();
    for (int tries = 0; rig.Device().Status().streaming && tries < 20000; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_FALSE(rig.Device().Status().streaming);
}

TEST(Camera, KeepsARateOfAThousandFrames) {
    StreamingRig rig(32, "sizes=160x120,fps=1000");
    TestRig::Frame first = rig.NextAndQueue();
    ASSERT_EQ(first.error, 0);
    TestRig::Frame last;
    for (int i = 0; i < 300; ++i) {
        last = rig.NextAndQueue();
        ASSERT_EQ(last.error, 0);
    }
    const int64_t microseconds = TimeOf(last.buffer) - TimeOf(first.buffer);
    EXPECT_NEAR(static_cast<double>(microseconds),
                1000.0 * static_cast<double>(last.buffer.sequence - first.buffer.sequence), 2.0);
}

TEST(Camera, KeepsItsRateWithFifteenOthersRunning) {
    constexpr size_t kCount = 16;
    constexpr double kRate = 30;
    // Enough buffers that no frame is lost while the reader waits for a processor.
    std::vector<std::unique_ptr<TestRig>> rigs;
    for (size_t i = 0; i < kCount; ++i) {
        rigs.push_back(std::make_unique<TestRig>("sizes=640x480,fps=30"));
        ASSERT_EQ(rigs.back()->Start(24), 0);
    }
    for (const auto& rig : rigs) {
        int64_t first = 0;
        for (uint32_t i = 0; i < 20; ++i) {
            const TestRig::Frame frame = rig->Next();
            ASSERT_EQ(frame.error, 0);
            EXPECT_EQ(frame.buffer.sequence, i);
            const int64_t time = TimeOf(frame.buffer);
            first = i == 0 ? time : first;
            EXPECT_NEAR(static_cast<double>(time - first), 1e6 / kRate * i, 2.0);
        }
    }
}

}  // namespace
}  // namespace zumod::vcam
