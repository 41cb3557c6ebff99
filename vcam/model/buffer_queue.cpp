#include "vcam/model/buffer_queue.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace zumod::vcam {
namespace {

constexpr uint32_t kLeastGrant = 2;

}  // namespace

uint32_t BufferQueue::Grant(uint32_t asked) const {
    if (asked == 0) {
        return 0;
    }
    if (const Fault* fault = m_faults.Find(FaultKind::kGrant)) {
        return static_cast<uint32_t>(std::min<uint64_t>(fault->value, kMaxBuffers));
    }
    return m_grant.value_or(std::clamp(asked, kLeastGrant, kMaxBuffers));
}

int BufferQueue::Request(const OpenFile& file, v4l2_requestbuffers& request, uint32_t length) {
    if (IsBusyFor(file)) {
        return EBUSY;
    }
    if (request.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || request.memory != V4L2_MEMORY_MMAP) {
        return EINVAL;
    }
    if (IsStreaming()) {
        return EBUSY;
    }
    Free();
    const uint32_t granted = Grant(request.count);
    if (granted != 0) {
        m_pool = BufferPool::Create(granted, length);
        if (!m_pool) {
            return ENOMEM;
        }
        m_owner = &file;
        m_board.length.store(length, std::memory_order_relaxed);
        m_board.buffer_stride.store(m_pool->Stride(), std::memory_order_relaxed);
        for (uint32_t i = 0; i < granted; ++i) {
            m_board.buffers[i].store(0, std::memory_order_relaxed);
        }
        m_board.count.store(granted, std::memory_order_release);
        m_board.owner.store(file.Id(), std::memory_order_release);
    }
    request.count = granted;
    request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
    request.flags = 0;
    std::fill(std::begin(request.reserved), std::end(request.reserved), __u8{0});
    return 0;
}

void BufferQueue::Free() {
    m_pool.reset();
    m_owner = nullptr;
    m_board.owner.store(0, std::memory_order_release);
    m_board.count.store(0, std::memory_order_release);
    m_board.mapped.store(0, std::memory_order_relaxed);
}

void BufferQueue::Disown() {
    Stop();
    m_owner = nullptr;
}

void BufferQueue::FreeIfUnmapped() {
    if (HasOwnerClosed() && !m_pool->IsMappedElsewhere()) {
        Free();
    }
}

int BufferQueue::Query(v4l2_buffer& buffer) const {
    const uint32_t index = buffer.index;
    if (buffer.type != V4L2_BUF_TYPE_VIDEO_CAPTURE ||
        index >= m_board.count.load(std::memory_order_relaxed)) {
        return EINVAL;
    }
    m_board.Describe(index, buffer);
    return 0;
}

int BufferQueue::Map(const OpenFile& file, uint64_t offset, uint64_t length, bool writes,
                     UniqueFd& descriptor) {
    if (writes && file.IsReadOnly()) {
        return EACCES;
    }
    if (!m_pool) {
        return EINVAL;
    }
    const uint64_t index = offset / m_pool->Stride();
    if (offset % m_pool->Stride() != 0 || index >= m_pool->Count() || length == 0 ||
        length > m_pool->Stride()) {
        return EINVAL;
    }
    descriptor.Reset(fcntl(m_pool->Descriptor(), F_DUPFD_CLOEXEC, 0));
    if (!descriptor) {
        return errno;
    }
    m_board.mapped.fetch_or(1U << index, std::memory_order_relaxed);
    return 0;
}

int BufferQueue::StreamOn(const OpenFile& file, uint32_t& type) {
    if (IsBusyFor(file)) {
        return EBUSY;
    }
    if (type != V4L2_BUF_TYPE_VIDEO_CAPTURE || !m_pool) {
        return EINVAL;
    }
    if (!IsStreaming()) {
        const uint32_t streams = Stream() / CameraBoard::kStreamStep + 1;
        m_board.stream.store(streams * CameraBoard::kStreamStep | CameraBoard::kStreaming,
                             std::memory_order_release);
    }
    return 0;
}

int BufferQueue::StreamOff(const OpenFile& file, uint32_t& type) {
    if (IsBusyFor(file)) {
        return EBUSY;
    }
    if (type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    Stop();
    return 0;
}

void BufferQueue::Stop() {
    const bool streamed = IsStreaming();
    m_board.stream.store(Stream() & ~(CameraBoard::kStreaming | CameraBoard::kFailed),
                         std::memory_order_release);
    for (auto& buffer : m_board.buffers) {
        buffer.store(static_cast<uint64_t>(BufferState::kDequeued), std::memory_order_release);
    }
    if (streamed && m_owner != nullptr) {
        m_owner->SendMark();
    }
}

void BufferQueue::Fail() {
    m_board.stream.fetch_or(CameraBoard::kFailed, std::memory_order_acq_rel);
    if (m_owner != nullptr) {
        m_owner->SendMark();
    }
}

bool BufferQueue::Complete(uint32_t index, v4l2_buffer& buffer) {
    if (!m_board.Move(index, BufferState::kQueued, BufferState::kDone)) {
        return false;
    }
    m_board.Describe(index, buffer);
    buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    return true;
}

void BufferQueue::SendEmpty() const {
    Record record{};
    Send(record, RecordKind::kEmpty);
}

void BufferQueue::Send(Record& record, RecordKind kind) const {
    record.magic = kWireMagic;
    record.kind = kind;
    record.stream = Stream();
    if (m_owner != nullptr) {
        m_owner->Send(record);
    }
}

}  // namespace zumod::vcam
