// Each test is the frame thread: it calls Step with the times that it chooses.
#include "vcam/model/frame_thread.h"

#include <gtest/gtest.h>

#include "vcam/picture/pattern_reader.h"
#include "vcam/testing/file_pair.h"
#include "vcam/testing/requests.h"
#include "vcam/testing/test_rig.h"

namespace zumod::vcam {
namespace {

using std::chrono::milliseconds;
using Next = FrameThread::Next;

const FrameThread::Time kStreamStart{std::chrono::seconds(100)};

// 100 frames per second: frame n is due (n + 1) * 10 ms after the start.
class FrameThreadTest : public ::testing::Test {
protected:
    void Start(uint32_t buffers = 4) {
        v4l2_requestbuffers request = BufferRequest(buffers);
        ASSERT_EQ(m_buffers.Request(m_file.File(), request, m_formats.Layout().sizeimage), 0);
        for (uint32_t i = 0; i < buffers; ++i) {
            ASSERT_TRUE(m_board.Move(i, BufferState::kDequeued, BufferState::kQueued));
        }
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ASSERT_EQ(m_buffers.StreamOn(m_file.File(), type), 0);
        m_frames.BeginStream(kStreamStart);
    }

    Next Step(int ms_after_start) {
        const MutexLock held(m_lock);
        return m_frames.Step(m_lock, kStreamStart + milliseconds(ms_after_start));
    }

    // What the camera says of the frame that it delivers at this time.
    v4l2_buffer FrameAt(int ms_after_start) {
        EXPECT_EQ(Step(ms_after_start), Next::kStep);
        const std::optional<Record> record = m_file.Receive();
        EXPECT_TRUE(record && record->kind == RecordKind::kFrame) << ms_after_start;
        return record.value_or(Record{}).buffer;
    }

    Mutex m_lock;
    CameraBoard m_board{};
    FaultSet m_faults;
    FormatState m_formats{Configure("sizes=64x64,fps=100"), m_faults};
    BufferQueue m_buffers{m_board, std::nullopt, m_faults};
    FrameThread m_frames{m_buffers, m_formats, m_faults};
    FilePair m_file{1};
};

TEST_F(FrameThreadTest, WaitsWhileNothingStreams) {
    EXPECT_EQ(Step(0), Next::kWait);
    Start();
    EXPECT_EQ(Step(0), Next::kSleep);
    m_buffers.Stop();
    EXPECT_EQ(Step(0), Next::kWait);
}

TEST_F(FrameThreadTest, PaintsAheadAndSleepsUntilTheFrameIsDue) {
    Start();
    EXPECT_EQ(Step(1), Next::kSleep);
    EXPECT_EQ(m_frames.WakeTime(), kStreamStart + milliseconds(10));
    EXPECT_EQ(m_file.Receive(), std::nullopt);
    const auto stamp = ReadStamp(m_buffers.Pool()->At(0), m_formats.Layout());
    ASSERT_TRUE(stamp);
    EXPECT_EQ(stamp->counter, 0U);
    EXPECT_EQ(stamp->time_us, 100010000U);
}

TEST_F(FrameThreadTest, DeliversTheOldestBufferWithTheTimeTheFrameWasDue) {
    Start();
    for (int i = 0; i < 3; ++i) {
        const v4l2_buffer buffer = FrameAt(10 * (i + 1) + 3);
        EXPECT_EQ(buffer.index, static_cast<uint32_t>(i));
        EXPECT_EQ(buffer.sequence, static_cast<uint32_t>(i));
        EXPECT_EQ(buffer.bytesused, 6144U);
        EXPECT_EQ(buffer.timestamp.tv_sec, 100);
        EXPECT_EQ(buffer.timestamp.tv_usec, 10000 * (i + 1));
    }
    EXPECT_EQ(m_frames.Delivered(), 3U);
    EXPECT_EQ(m_frames.Dropped(), 0U);
}

TEST_F(FrameThreadTest, DropsAFrameForWhichNoBufferIsQueued) {
    Start(2);
    FrameAt(10);
    FrameAt(20);
    EXPECT_EQ(Step(30), Next::kStep);
    EXPECT_EQ(m_file.Receive(), std::nullopt);
    EXPECT_EQ(m_frames.Dropped(), 1U);
    ASSERT_TRUE(m_board.Move(0, BufferState::kDone, BufferState::kDequeued));
    ASSERT_TRUE(m_board.Move(0, BufferState::kDequeued, BufferState::kQueued));
    EXPECT_EQ(FrameAt(40).sequence, 3U);
}

TEST_F(FrameThreadTest, CatchesUpAfterALateWakeUpButNotAfterASuspend) {
    Start(32);
    EXPECT_EQ(FrameAt(1000).sequence, 0U);
    EXPECT_EQ(FrameAt(1000).sequence, 1U);
    EXPECT_EQ(Step(200000), Next::kStep);
    EXPECT_EQ(m_frames.Dropped(), 20000U - 2);
    EXPECT_EQ(Step(200000), Next::kSleep);
    EXPECT_EQ(m_frames.WakeTime(), kStreamStart + milliseconds(200010));
}

TEST_F(FrameThreadTest, RepaintsAheadForAnotherTime) {
    Start();
    ASSERT_EQ(Step(0), Next::kSleep);
    m_frames.RestartClock(kStreamStart + milliseconds(5));
    ASSERT_EQ(Step(6), Next::kSleep);
    EXPECT_EQ(m_frames.WakeTime(), kStreamStart + milliseconds(15));
    EXPECT_EQ(ReadStamp(m_buffers.Pool()->At(0), m_formats.Layout())->time_us, 100015000U);
}

TEST_F(FrameThreadTest, NoticesThatItsOwnerIsGone) {
    Start();
    m_file.CloseProgram();
    EXPECT_EQ(Step(5), Next::kSleep);
    EXPECT_EQ(Step(10), Next::kReap);
}

TEST_F(FrameThreadTest, CountsFramesFromZeroInEachStream) {
    Start();
    FrameAt(10);
    m_buffers.Stop();
    ASSERT_TRUE(m_file.Receive());
    ASSERT_TRUE(m_board.Move(3, BufferState::kDequeued, BufferState::kQueued));
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(m_buffers.StreamOn(m_file.File(), type), 0);
    m_frames.BeginStream(kStreamStart + milliseconds(500));
    const v4l2_buffer buffer = FrameAt(510);
    EXPECT_EQ(buffer.sequence, 0U);
    EXPECT_EQ(buffer.index, 3U);
    EXPECT_EQ(m_frames.Delivered(), 2U);
}

TEST_F(FrameThreadTest, DropsAndEmptiesTheFramesThatAFaultSays) {
    m_faults.Add(ParseFault("drop/0").value());
    m_faults.Add({.kind = FaultKind::kReadableEmpty, .first = 1});
    Start();
    EXPECT_EQ(Step(10), Next::kStep);
    EXPECT_EQ(m_file.Receive(), std::nullopt);
    EXPECT_EQ(Step(20), Next::kStep);
    const std::optional<Record> record = m_file.Receive();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->kind, RecordKind::kEmpty);
    EXPECT_EQ(m_frames.Dropped(), 2U);
    EXPECT_EQ(FrameAt(30).sequence, 2U);
}

TEST_F(FrameThreadTest, FailsTheStreamBeforeItsFrame) {
    m_faults.Add({.kind = FaultKind::kFatal, .first = 1});
    Start();
    FrameAt(10);
    EXPECT_EQ(Step(20), Next::kWait);
    EXPECT_TRUE(m_buffers.HasFailed());
    EXPECT_EQ(m_file.Receive()->kind, RecordKind::kMark);
    EXPECT_EQ(Step(30), Next::kWait);
}

TEST_F(FrameThreadTest, AsksToBeUnpluggedBeforeItsFrame) {
    m_faults.Add(ParseFault("unplug/1").value());
    Start();
    FrameAt(10);
    EXPECT_EQ(Step(20), Next::kUnplug);
}

TEST_F(FrameThreadTest, StallsAndGoesOnWithTheFrameThatIsDueThen) {
    m_faults.Add(ParseFault("stall/100/1").value());
    Start();
    FrameAt(10);
    EXPECT_EQ(Step(15), Next::kSleep);
    EXPECT_EQ(m_frames.WakeTime(), kStreamStart + milliseconds(115));
    EXPECT_EQ(Step(60), Next::kSleep);
    EXPECT_EQ(m_frames.WakeTime(), kStreamStart + milliseconds(115));
    EXPECT_EQ(Step(115), Next::kStep);
    EXPECT_EQ(Step(115), Next::kSleep);
    EXPECT_EQ(FrameAt(120).sequence, 11U);
    EXPECT_EQ(m_frames.Dropped(), 10U);
}

TEST_F(FrameThreadTest, ForgetsAStallWhenTheNextStreamBegins) {
    m_faults.Add(ParseFault("stall/1000").value());
    Start();
    ASSERT_EQ(Step(0), Next::kSleep);
    m_frames.BeginStream(kStreamStart);
    ASSERT_EQ(Step(0), Next::kSleep);
    EXPECT_EQ(m_frames.WakeTime(), kStreamStart + milliseconds(10));
}

TEST_F(FrameThreadTest, DeliversNothingWhileAFaultForbidsIt) {
    m_faults.Add({.kind = FaultKind::kNoFrames});
    Start();
    EXPECT_EQ(Step(50), Next::kWait);
    m_faults.Clear();
    FrameAt(50);
}

TEST_F(FrameThreadTest, CountsOnFromTheCurrentFrameAtAnotherRate) {
    Start();
    FrameAt(10);
    m_faults.Add({.kind = FaultKind::kTooFast, .value = 5});
    m_frames.RestartClock(kStreamStart + milliseconds(10));
    EXPECT_EQ(Step(10), Next::kSleep);
    EXPECT_EQ(m_frames.WakeTime(), kStreamStart + milliseconds(12));
    EXPECT_EQ(FrameAt(12).sequence, 1U);
}

TEST_F(FrameThreadTest, WrapsSequenceAndTime) {
    m_faults.Add({.kind = FaultKind::kSequenceWrap, .value = 1});
    m_faults.Add({.kind = FaultKind::kTimeWrap, .value = 15});
    Start();
    v4l2_buffer buffer = FrameAt(10);
    EXPECT_EQ(buffer.sequence, 0xffffffffU);
    EXPECT_EQ(buffer.timestamp.tv_sec, 0xffffffffL);
    buffer = FrameAt(20);
    EXPECT_EQ(buffer.sequence, 0U);
    EXPECT_EQ(buffer.timestamp.tv_sec, 0L);
    EXPECT_EQ(buffer.timestamp.tv_usec, 5000);
}

// 10 frames per second from outside.
class LiveFrameThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        v4l2_requestbuffers request = BufferRequest(2);
        ASSERT_EQ(m_buffers.Request(m_file.File(), request, m_formats.Layout().sizeimage), 0);
        Queue(0);
        Queue(1);
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ASSERT_EQ(m_buffers.StreamOn(m_file.File(), type), 0);
        m_frames.BeginStream(kStreamStart);
    }
    void Queue(uint32_t index) {
        m_board.Move(index, BufferState::kDone, BufferState::kDequeued);
        ASSERT_TRUE(m_board.Move(index, BufferState::kDequeued, BufferState::kQueued));
    }
    void Put(int ms_after_start, uint8_t luma) {
        auto image = std::make_shared<PlanarImage>(64, 64);
        image->y[0] = luma;
        m_live.Put(image, kStreamStart + milliseconds(ms_after_start));
    }
    Next Step(int ms_after_start) {
        const MutexLock held(m_lock);
        return m_frames.Step(m_lock, kStreamStart + milliseconds(ms_after_start));
    }
    int WakeTime() const { return static_cast<int>((m_frames.WakeTime() - kStreamStart) / milliseconds(1)); }
    int Luma(uint32_t index) { return *m_buffers.Pool()->At(index); }

    Mutex m_lock;
    CameraBoard m_board{};
    FaultSet m_faults;
    FormatState m_formats{Configure("formats=NV12,sizes=64x64,fps=10,source=feed"), m_faults};
    BufferQueue m_buffers{m_board, std::nullopt, m_faults};
    LiveFeed m_live;
    FrameThread m_frames{m_buffers, m_formats, m_faults, &m_live};
    FilePair m_file{1};
};

TEST_F(LiveFrameThreadTest, DeliversAPictureWithTheTimeOfItsArrivalAndPaintsNoneAhead) {
    EXPECT_EQ(Step(1), Next::kSleep);
    EXPECT_EQ(WakeTime(), 100);
    Put(7, 50);
    EXPECT_EQ(Step(8), Next::kStep);
    const std::optional<Record> record = m_file.Receive();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->buffer.index, 0U);
    EXPECT_EQ(record->buffer.sequence, 0U);
    EXPECT_EQ(record->buffer.bytesused, 6144U);
    EXPECT_EQ(record->buffer.timestamp.tv_usec, 7000);
    EXPECT_EQ(Luma(0), 50);
    EXPECT_EQ(Step(9), Next::kSleep);
    EXPECT_EQ(WakeTime(), 408) << "the repeat";
    EXPECT_EQ(m_frames.Delivered(), 1U);
}

TEST_F(LiveFrameThreadTest, KeepsTheNewestPictureForAProgramThatIsSlow) {
    for (int frame = 0; frame < 2; ++frame) {
        Put(100 * frame, 50);
        EXPECT_EQ(Step(100 * frame), Next::kStep);
        ASSERT_TRUE(m_file.Receive());
    }
    Put(200, 51);
    EXPECT_EQ(Step(200), Next::kSleep);
    EXPECT_EQ(WakeTime(), 225) << "no buffer is queued";
    Put(300, 52);
    EXPECT_EQ(Step(300), Next::kSleep);
    Queue(1);
    EXPECT_EQ(Step(325), Next::kStep);
    const std::optional<Record> record = m_file.Receive();
    ASSERT_TRUE(record);
    EXPECT_EQ(Luma(1), 52);
    EXPECT_EQ(record->buffer.sequence, 3U);
    EXPECT_EQ(m_frames.Dropped(), 1U);
}

TEST_F(LiveFrameThreadTest, DropsThePictureThatAFaultSays) {
    m_faults.Add(ParseFault("drop/0").value());
    Put(10, 50);
    EXPECT_EQ(Step(10), Next::kStep);
    EXPECT_EQ(m_file.Receive(), std::nullopt);
    EXPECT_EQ(m_frames.Dropped(), 1U);
    Put(110, 51);
    EXPECT_EQ(Step(110), Next::kStep);
    ASSERT_TRUE(m_file.Receive());
    EXPECT_EQ(Luma(0), 51);
}

TEST_F(LiveFrameThreadTest, UnplugsTheCameraAlsoIfThePictureThatAFaultNamesIsReplaced) {
    m_faults.Add(ParseFault("unplug/1").value());
    Put(0, 50);
    EXPECT_EQ(Step(0), Next::kStep);
    Put(110, 51);
    Put(120, 52);
    EXPECT_EQ(Step(120), Next::kUnplug);
}

TEST_F(LiveFrameThreadTest, NoticesThatItsOwnerIsGone) {
    m_file.CloseProgram();
    EXPECT_EQ(Step(99), Next::kSleep);
    EXPECT_EQ(Step(100), Next::kReap);
}

}  // namespace
}  // namespace zumod::vcam
