// The thread that gives a camera's frames, and the faults that befall them.
#include <sys/prctl.h>

#include <algorithm>

#include "vcam/model/camera.h"

namespace zumod::vcam {
namespace {

constexpr uint64_t kFarBehind = 10000;  // frames: a machine that slept does not make up for them

uint64_t Microseconds(std::chrono::steady_clock::time_point time) {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count());
}

}  // namespace

// Begins counting where the stream stands, at the rate it has now.
void Camera::StartClock() {
    Rate rate = rate_;
    if (const ActiveFault* fault = FindFault(FaultKind::kTooFast)) {
        rate.numerator *= static_cast<uint32_t>(std::clamp<uint64_t>(fault->fault.value, 1, 1000));
    }
    const auto passed = FrameClock(Clock::time_point(), rate);
    const auto before = frame_ == 0 ? std::chrono::nanoseconds(0) : passed.Due(frame_ - 1).time_since_epoch();
    clock_ = FrameClock(Clock::now() - before, rate);
    if (const ActiveFault* fault = FindFault(FaultKind::kSequenceWrap)) {
        sequence_offset_ = 0U - static_cast<uint32_t>(frame_ + fault->fault.value);
    }
    if (const ActiveFault* fault = FindFault(FaultKind::kTimeWrap)) {
        const auto wrap = (int64_t{1} << 32) * 1000000 - static_cast<int64_t>(fault->fault.value) * 1000;
        time_offset_us_ = wrap - static_cast<int64_t>(Microseconds(Clock::now()));
    }
}

void Camera::FrameLoop() {
    // The default slack of a timer would be a visible part of the frame time at high rates.
    prctl(PR_SET_TIMERSLACK, 1UL);
    Lock lock(mutex_);
    while (!quit_) {
        if (replug_at_ && Clock::now() >= *replug_at_) {
            PlugLocked(replug_number_);
        }
        const bool failed = (board_.stream.load(std::memory_order_relaxed) & CameraBoard::kFailed) != 0;
        if (!IsStreaming() || failed || FindFault(FaultKind::kNoFrames) != nullptr) {
            WaitForWork(lock);
            continue;
        }
        if (ServeStall(lock)) {
            continue;
        }
        const auto due = clock_.Due(frame_);
        if (Clock::now() < due) {
            const uint32_t stream = board_.stream.load(std::memory_order_relaxed);
            PaintAhead(lock);
            if (stream == board_.stream.load(std::memory_order_relaxed) && !quit_ && Clock::now() < due) {
                changed_.wait_until(lock, due);
            }
            continue;  // anything may have changed meanwhile
        }
        if (clock_.FirstAfter(Clock::now()) > frame_ + kFarBehind) {
            dropped_ += clock_.FirstAfter(Clock::now()) - frame_;
            frame_ = clock_.FirstAfter(Clock::now());
            continue;
        }
        if (!IsOwnerThere()) {
            ReapLocked(lock);
            continue;
        }
        if (TakesFrame()) {
            ++dropped_;
            ++frame_;
            continue;
        }
        if (!IsStreaming() || (board_.stream.load(std::memory_order_relaxed) & CameraBoard::kFailed) != 0) {
            continue;
        }
        const uint64_t frame = frame_;
        const uint32_t stream = board_.stream.load(std::memory_order_relaxed);
        PaintAhead(lock);
        if (stream == board_.stream.load(std::memory_order_relaxed) && frame == frame_) {
            Deliver();
            ++frame_;
        }
    }
}

// A program may end without a word: then its last frame finds nobody.
bool Camera::IsOwnerThere() const {
    const auto owner = files_.find(board_.owner.load(std::memory_order_relaxed));
    return owner != files_.end() && !owner->second.end.IsAbandoned();
}

void Camera::WaitForWork(Lock& lock) {
    if (replug_at_) {
        changed_.wait_until(lock, *replug_at_);
    } else {
        changed_.wait(lock);
    }
}

bool Camera::ServeStall(Lock& lock) {
    const ActiveFault* stall = FindFault(FaultKind::kStall);
    if (stall == nullptr || frame_ < stall->fault.first) {
        return false;
    }
    const auto until = Clock::now() + std::chrono::milliseconds(stall->fault.value);
    const uint32_t stream = board_.stream.load(std::memory_order_relaxed);
    RemoveFault(stall);
    changed_.wait_until(lock, until,
                        [&] { return quit_ || stream != board_.stream.load(std::memory_order_relaxed); });
    if (stream == board_.stream.load(std::memory_order_relaxed)) {
        const uint64_t next = std::max(clock_.FirstAfter(Clock::now()), frame_);
        dropped_ += next - frame_;
        frame_ = next;
    }
    return true;
}

// Paints the next frame into the buffer that is to carry it, if there is one. The lock is released meanwhile.
void Camera::PaintAhead(Lock& lock) {
    const int index = board_.Oldest();
    const uint64_t time_us = Microseconds(clock_.Due(frame_));
    if (index < 0 || !pool_ ||
        (painted_ahead_.pool == pool_ && painted_ahead_.index == static_cast<uint32_t>(index) &&
         painted_ahead_.frame == frame_ && painted_ahead_.time_us == time_us)) {
        return;
    }
    Painted painted{pool_, static_cast<uint32_t>(index), frame_, time_us, 0};
    const std::shared_ptr<const FrameSource> source = source_;
    const uint32_t stream = board_.stream.load(std::memory_order_relaxed);
    painting_ = true;
    lock.unlock();
    painted.bytes =
        source->Paint(painted.pool->At(painted.index), {static_cast<uint32_t>(painted.frame), time_us});
    lock.lock();
    painting_ = false;
    painted_.notify_all();
    if (stream == board_.stream.load(std::memory_order_relaxed)) {
        painted_ahead_ = std::move(painted);
    }
}

// Faults that take a frame away, or the camera with it.
bool Camera::TakesFrame() {
    if (FrameFault(FaultKind::kUnplug) != nullptr) {
        RemoveFault(FindFault(FaultKind::kUnplug));
        UnplugLocked();
        return false;
    }
    const ActiveFault* fatal = FindFault(FaultKind::kFatal);
    if (fatal != nullptr && frame_ >= fatal->fault.first) {
        RemoveFault(fatal);
        board_.stream.fetch_or(CameraBoard::kFailed, std::memory_order_acq_rel);
        SendMark(files_.at(board_.owner.load(std::memory_order_relaxed)));
        return false;
    }
    const ActiveFault* every = FindFault(FaultKind::kDropEvery);
    return FrameFault(FaultKind::kDrop) != nullptr ||
           (every != nullptr && every->fault.value != 0 && (frame_ + 1) % every->fault.value == 0);
}

const Camera::ActiveFault* Camera::FrameFault(FaultKind kind) {
    const auto found = std::find_if(faults_.begin(), faults_.end(), [&](const ActiveFault& active) {
        return active.fault.kind == kind && active.fault.Covers(frame_);
    });
    return found == faults_.end() ? nullptr : &*found;
}

void Camera::Deliver() {
    const auto owner = files_.find(board_.owner.load(std::memory_order_relaxed));
    if (owner == files_.end()) {
        return;
    }
    Record record{};
    record.magic = kWireMagic;
    record.stream = board_.stream.load(std::memory_order_relaxed);
    if (FrameFault(FaultKind::kReadableEmpty) != nullptr) {
        record.kind = RecordKind::kEmpty;
        owner->second.end.Send(record);
        ++dropped_;
        return;
    }
    const bool ready = painted_ahead_.pool == pool_ && pool_ && painted_ahead_.frame == frame_;
    if (!ready || !board_.Move(painted_ahead_.index, BufferState::kQueued, BufferState::kDone)) {
        ++dropped_;
        return;
    }
    record.kind = RecordKind::kFrame;
    record.index = painted_ahead_.index;
    board_.Describe(record.index, record.buffer);
    v4l2_buffer& buffer = record.buffer;
    buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    buffer.bytesused = static_cast<uint32_t>(painted_ahead_.bytes);
    buffer.sequence = static_cast<uint32_t>(frame_) + sequence_offset_;
    const auto time_us =
        static_cast<uint64_t>(static_cast<int64_t>(painted_ahead_.time_us) + time_offset_us_);
    buffer.timestamp.tv_sec = static_cast<time_t>(time_us / 1000000);
    buffer.timestamp.tv_usec = static_cast<suseconds_t>(time_us % 1000000);
    Spoil(buffer);
    owner->second.end.Send(record);
    ++delivered_;
}

// Faults in what a program is told about a frame.
void Camera::Spoil(v4l2_buffer& buffer) {
    if (const ActiveFault* fault = FrameFault(FaultKind::kShort)) {
        buffer.bytesused =
            static_cast<uint32_t>(buffer.bytesused * std::min<uint64_t>(fault->fault.value, 100) / 100);
    }
    if (FrameFault(FaultKind::kZero) != nullptr) {
        buffer.bytesused = 0;
    }
    if (const ActiveFault* fault = FrameFault(FaultKind::kLong)) {
        buffer.bytesused = buffer.length + static_cast<uint32_t>(fault->fault.value);
    }
    if (FrameFault(FaultKind::kErrorFlag) != nullptr) {
        buffer.flags |= V4L2_BUF_FLAG_ERROR;
    }
    if (const ActiveFault* fault = FrameFault(FaultKind::kBadIndex)) {
        buffer.index = static_cast<uint32_t>(fault->fault.value);
    }
    if (FrameFault(FaultKind::kRepeat) != nullptr) {
        --buffer.sequence;
    }
    if (const ActiveFault* fault = FrameFault(FaultKind::kTimeBack)) {
        const auto back = static_cast<int64_t>(fault->fault.value) * 1000;
        const int64_t time_us = int64_t{buffer.timestamp.tv_sec} * 1000000 + buffer.timestamp.tv_usec - back;
        buffer.timestamp.tv_sec = static_cast<time_t>(time_us / 1000000);
        buffer.timestamp.tv_usec = static_cast<suseconds_t>(time_us % 1000000);
    }
    if (FindFault(FaultKind::kTimeWrap) != nullptr) {
        buffer.timestamp.tv_sec &= 0xffffffff;
    }
}

}  // namespace zumod::vcam
