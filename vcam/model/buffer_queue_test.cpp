#include "vcam/model/buffer_queue.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>

#include "vcam/testing/file_pair.h"
#include "vcam/testing/requests.h"

namespace zumod::vcam {
namespace {

constexpr uint32_t kLength = 6144;  // two pages when rounded up

class BufferQueueTest : public ::testing::Test {
protected:
    // The buffers granted, or minus errno.
    int Request(const FilePair& file, uint32_t count) {
        v4l2_requestbuffers request = BufferRequest(count);
        const int error = m_queue.Request(file.File(), request, kLength);
        return error != 0 ? -error : static_cast<int>(request.count);
    }
    int StreamOn(const FilePair& file) {
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        return m_queue.StreamOn(file.File(), type);
    }
    int StreamOff(const FilePair& file) {
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        return m_queue.StreamOff(file.File(), type);
    }
    // What QBUF does in the program.
    bool Queue(uint32_t index) { return m_board.Move(index, BufferState::kDequeued, BufferState::kQueued); }

    CameraBoard m_board{};
    FaultSet m_faults;
    BufferQueue m_queue{m_board, std::nullopt, m_faults};
    FilePair m_owner{1};
    FilePair m_other{2};
};

TEST_F(BufferQueueTest, GrantsWithinItsLimits) {
    EXPECT_EQ(Request(m_owner, 1), 2);
    EXPECT_EQ(Request(m_owner, 4), 4);
    EXPECT_EQ(Request(m_owner, 100), 32);
    EXPECT_EQ(Request(m_owner, 0), 0);
    EXPECT_FALSE(m_queue.HasBuffers());
}

TEST_F(BufferQueueTest, GrantsWhatIsConfiguredUnlessAFaultSaysOtherwise) {
    BufferQueue queue(m_board, 8, m_faults);
    v4l2_requestbuffers request = BufferRequest(4);
    ASSERT_EQ(queue.Request(m_owner.File(), request, kLength), 0);
    EXPECT_EQ(request.count, 8U);
    m_faults.Add(ParseFault("grant/100").value());
    request = BufferRequest(4);
    ASSERT_EQ(queue.Request(m_owner.File(), request, kLength), 0);
    EXPECT_EQ(request.count, kMaxBuffers);
}

TEST_F(BufferQueueTest, BelongsToTheFileThatRequestedBuffersUntilItFreesThem) {
    ASSERT_EQ(Request(m_owner, 2), 2);
    EXPECT_EQ(m_board.owner.load(), 1U);
    EXPECT_TRUE(m_queue.IsOwner(m_owner.File()));
    EXPECT_EQ(Request(m_other, 2), -EBUSY);
    EXPECT_EQ(StreamOn(m_other), EBUSY);
    EXPECT_EQ(StreamOff(m_other), EBUSY);
    ASSERT_EQ(Request(m_owner, 0), 0);
    EXPECT_EQ(m_board.owner.load(), 0U);
    EXPECT_EQ(Request(m_other, 2), 2);
}

TEST_F(BufferQueueTest, RequestsNoOtherMemoryAndNothingWhileStreaming) {
    v4l2_requestbuffers request = BufferRequest(2);
    request.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(m_queue.Request(m_owner.File(), request, kLength), EINVAL);
    ASSERT_EQ(Request(m_owner, 2), 2);
    ASSERT_EQ(StreamOn(m_owner), 0);
    EXPECT_EQ(Request(m_owner, 4), -EBUSY);
}

TEST_F(BufferQueueTest, DescribesItsBuffers) {
    ASSERT_EQ(Request(m_owner, 2), 2);
    v4l2_buffer buffer = Buffer(1);
    ASSERT_EQ(m_queue.Query(buffer), 0);
    EXPECT_EQ(buffer.length, kLength);
    EXPECT_EQ(buffer.m.offset, 8192U);
    buffer = Buffer(2);
    EXPECT_EQ(m_queue.Query(buffer), EINVAL);
}

TEST_F(BufferQueueTest, MapsOneWholeBuffer) {
    UniqueFd memory;
    EXPECT_EQ(m_queue.Map(m_owner.File(), 0, kLength, true, memory), EINVAL);
    ASSERT_EQ(Request(m_owner, 2), 2);
    EXPECT_EQ(m_queue.Map(m_owner.File(), 4096, kLength, true, memory), EINVAL);
    EXPECT_EQ(m_queue.Map(m_owner.File(), 2 * 8192, kLength, true, memory), EINVAL);
    EXPECT_EQ(m_queue.Map(m_owner.File(), 8192, 8193, true, memory), EINVAL);
    EXPECT_EQ(m_queue.Map(m_owner.File(), 8192, 0, true, memory), EINVAL);
    EXPECT_EQ(m_board.mapped.load(), 0U);
    EXPECT_EQ(m_queue.Map(m_owner.File(), 8192, kLength, true, memory), 0);
    EXPECT_TRUE(memory);
    EXPECT_EQ(m_board.mapped.load(), 2U);
}

TEST_F(BufferQueueTest, MapsForWritingOnlyWhatIsOpenForWriting) {
    const FilePair reader(3, O_RDONLY);
    ASSERT_EQ(Request(reader, 2), 2);
    UniqueFd memory;
    EXPECT_EQ(m_queue.Map(reader.File(), 0, kLength, true, memory), EACCES);
    EXPECT_EQ(m_queue.Map(reader.File(), 0, kLength, false, memory), 0);
}

TEST_F(BufferQueueTest, StreamsOnlyWithBuffersAndCountsTheStreams) {
    EXPECT_EQ(StreamOn(m_owner), EINVAL);
    ASSERT_EQ(Request(m_owner, 2), 2);
    ASSERT_EQ(StreamOn(m_owner), 0);
    const uint32_t first = m_queue.Stream();
    EXPECT_EQ(StreamOn(m_owner), 0);
    EXPECT_EQ(m_queue.Stream(), first);
    ASSERT_EQ(StreamOff(m_owner), 0);
    EXPECT_FALSE(m_queue.IsStreaming());
    ASSERT_EQ(StreamOn(m_owner), 0);
    EXPECT_TRUE(m_queue.IsStreaming());
    EXPECT_NE(m_queue.Stream(), first);
}

TEST_F(BufferQueueTest, ReturnsEveryBufferAndMarksTheDescriptorWhenTheStreamStops) {
    ASSERT_EQ(Request(m_owner, 2), 2);
    ASSERT_TRUE(Queue(0));
    ASSERT_EQ(StreamOff(m_owner), 0);
    EXPECT_EQ(m_owner.Receive(), std::nullopt) << "a mark although nothing streamed";
    ASSERT_TRUE(Queue(0));
    ASSERT_EQ(StreamOn(m_owner), 0);
    v4l2_buffer buffer{};
    ASSERT_TRUE(m_queue.Complete(0, buffer));
    ASSERT_EQ(StreamOff(m_owner), 0);
    EXPECT_TRUE(Queue(0));
    const std::optional<Record> record = m_owner.Receive();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->kind, RecordKind::kMark);
}

TEST_F(BufferQueueTest, StaysFailedUntilTheStreamStops) {
    ASSERT_EQ(Request(m_owner, 2), 2);
    ASSERT_EQ(StreamOn(m_owner), 0);
    m_queue.Fail();
    EXPECT_TRUE(m_queue.HasFailed());
    ASSERT_TRUE(m_owner.Receive());
    EXPECT_EQ(StreamOn(m_owner), 0);
    EXPECT_TRUE(m_queue.HasFailed());
    ASSERT_EQ(StreamOff(m_owner), 0);
    EXPECT_FALSE(m_queue.HasFailed());
}

TEST_F(BufferQueueTest, CompletesOnlyAQueuedBuffer) {
    ASSERT_EQ(Request(m_owner, 3), 3);
    ASSERT_TRUE(Queue(2));
    ASSERT_TRUE(Queue(0));
    EXPECT_EQ(m_queue.Oldest(), 2);
    v4l2_buffer buffer{};
    EXPECT_FALSE(m_queue.Complete(1, buffer));
    ASSERT_TRUE(m_queue.Complete(2, buffer));
    EXPECT_EQ(buffer.index, 2U);
    EXPECT_EQ(m_queue.Oldest(), 0);
}

TEST_F(BufferQueueTest, SendsFramesOfItsStreamToTheOwner) {
    ASSERT_EQ(Request(m_owner, 2), 2);
    ASSERT_EQ(StreamOn(m_owner), 0);
    Record frame{};
    frame.index = 1;
    m_queue.SendFrame(frame);
    m_queue.SendEmpty();
    std::optional<Record> record = m_owner.Receive();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->magic, kWireMagic);
    EXPECT_EQ(record->kind, RecordKind::kFrame);
    EXPECT_EQ(record->stream, m_queue.Stream());
    EXPECT_EQ(record->index, 1U);
    record = m_owner.Receive();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->kind, RecordKind::kEmpty);
}

TEST_F(BufferQueueTest, StaysBusyAfterItsOwnerClosedUntilItsMemoryIsUnmapped) {
    ASSERT_EQ(Request(m_owner, 2), 2);
    ASSERT_EQ(StreamOn(m_owner), 0);
    UniqueFd descriptor;
    ASSERT_EQ(m_queue.Map(m_owner.File(), 0, kLength, true, descriptor), 0);
    void* memory = mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor.Get(), 0);
    ASSERT_NE(memory, MAP_FAILED);
    EXPECT_TRUE(m_queue.IsOwnerThere());
    m_owner.CloseProgram();
    EXPECT_FALSE(m_queue.IsOwnerThere());
    m_queue.Disown();
    EXPECT_FALSE(m_queue.IsStreaming());
    m_queue.FreeIfUnmapped();
    EXPECT_TRUE(m_queue.HasOwnerClosed());
    EXPECT_EQ(Request(m_other, 2), -EBUSY);
    munmap(memory, kLength);
    m_queue.FreeIfUnmapped();
    EXPECT_FALSE(m_queue.HasOwnerClosed());
    EXPECT_EQ(Request(m_other, 2), 2);
}

TEST_F(BufferQueueTest, KeepsBuffersWhoseOwnerIsThere) {
    ASSERT_EQ(Request(m_owner, 2), 2);
    m_queue.FreeIfUnmapped();
    EXPECT_TRUE(m_queue.HasBuffers());
}

}  // namespace
}  // namespace zumod::vcam
