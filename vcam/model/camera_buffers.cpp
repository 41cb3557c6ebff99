// The buffers of a camera and the stream that fills them.
#include <algorithm>

#include "vcam/model/camera.h"

namespace zumod::vcam {
namespace {

constexpr uint32_t kLeastGrant = 2;

}  // namespace

bool Camera::IsOwner(const OpenFile& file) const {
    return board_.owner.load(std::memory_order_relaxed) == file.id;
}

bool Camera::IsStreaming() const {
    return (board_.stream.load(std::memory_order_relaxed) & CameraBoard::kStreaming) != 0;
}

// Makes the descriptor readable, so that whoever waits looks again: a driver's poll does not wait on a stream
// that is stopped or has failed.
void Camera::SendMark(const OpenFile& file) const {
    Record record{};
    record.magic = kWireMagic;
    record.kind = RecordKind::kMark;
    file.end.Send(record);
}

int Camera::RequestBuffers(OpenFile& file, void* argument) {
    auto& request = *static_cast<v4l2_requestbuffers*>(argument);
    const uint32_t owner = board_.owner.load(std::memory_order_relaxed);
    if (owner != 0 && !IsOwner(file)) {
        return EBUSY;
    }
    if (request.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    if (request.memory != V4L2_MEMORY_MMAP) {
        return EINVAL;
    }
    if (IsStreaming()) {
        return EBUSY;
    }
    const uint32_t asked = request.count;
    FreeBuffers();
    uint32_t granted = 0;
    if (asked != 0) {
        granted = std::clamp(asked, kLeastGrant, kMaxBuffers);
        if (config_.grant) {
            granted = *config_.grant;
        }
        if (const ActiveFault* fault = FindFault(FaultKind::kGrant)) {
            granted = static_cast<uint32_t>(std::min<uint64_t>(fault->fault.value, kMaxBuffers));
        }
    }
    if (granted != 0) {
        pool_ = BufferPool::Create(granted, layout_.sizeimage);
        if (!pool_) {
            return ENOMEM;
        }
        board_.length.store(layout_.sizeimage, std::memory_order_relaxed);
        board_.buffer_stride.store(pool_->Stride(), std::memory_order_relaxed);
        for (uint32_t i = 0; i < granted; ++i) {
            board_.buffers[i].store(0, std::memory_order_relaxed);
        }
        board_.count.store(granted, std::memory_order_release);
        board_.owner.store(file.id, std::memory_order_release);
    }
    request.count = granted;
    request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
    request.flags = 0;
    request.reserved[0] = request.reserved[1] = request.reserved[2] = 0;
    return 0;
}

void Camera::FreeBuffers() {
    pool_.reset();
    owner_lingers_ = false;
    board_.owner.store(0, std::memory_order_release);
    board_.count.store(0, std::memory_order_release);
    board_.mapped.store(0, std::memory_order_relaxed);
}

int Camera::QueryBuffer(OpenFile& /*file*/, void* argument) {
    auto& buffer = *static_cast<v4l2_buffer*>(argument);
    const uint32_t index = buffer.index;
    if (buffer.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || index >= board_.count.load(std::memory_order_relaxed)) {
        return EINVAL;
    }
    board_.Describe(index, buffer);
    return 0;
}

int Camera::StreamOn(OpenFile& file, void* argument) {
    if (board_.owner.load(std::memory_order_relaxed) != 0 && !IsOwner(file)) {
        return EBUSY;
    }
    if (*static_cast<uint32_t*>(argument) != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    if (!pool_) {
        return EINVAL;
    }
    if (IsStreaming()) {
        return 0;
    }
    const uint32_t before = board_.stream.load(std::memory_order_relaxed);
    const uint32_t streams = before / CameraBoard::kStreamStep + 1;
    board_.stream.store(streams * CameraBoard::kStreamStep | CameraBoard::kStreaming,
                        std::memory_order_release);
    frame_ = 0;
    painted_ahead_ = {};
    sequence_offset_ = 0;
    time_offset_us_ = 0;
    StartClock();
    return 0;
}

int Camera::StreamOff(OpenFile& file, void* argument) {
    if (board_.owner.load(std::memory_order_relaxed) != 0 && !IsOwner(file)) {
        return EBUSY;
    }
    if (*static_cast<uint32_t*>(argument) != V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        return EINVAL;
    }
    StopStream();
    return 0;
}

// Every buffer goes back to the program, as after REQBUFS.
void Camera::StopStream() {
    const uint32_t stream = board_.stream.load(std::memory_order_relaxed);
    const bool streamed = (stream & CameraBoard::kStreaming) != 0;
    board_.stream.store(stream & ~(CameraBoard::kStreaming | CameraBoard::kFailed),
                        std::memory_order_release);
    for (auto& buffer : board_.buffers) {
        buffer.store(static_cast<uint64_t>(BufferState::kDequeued), std::memory_order_release);
    }
    painted_ahead_ = {};
    if (!streamed) {
        return;
    }
    const auto owner = files_.find(board_.owner.load(std::memory_order_relaxed));
    if (owner != files_.end()) {
        SendMark(owner->second);
    }
}

}  // namespace zumod::vcam
