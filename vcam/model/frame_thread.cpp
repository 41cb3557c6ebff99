#include "vcam/model/frame_thread.h"

#include <sys/prctl.h>

#include <algorithm>

#include "vcam/picture/live_picture.h"

namespace zumod::vcam {
namespace {

constexpr uint64_t kFarBehind = 10000;  // frames: a computer that was suspended does not catch up

int64_t Microseconds(FrameThread::Time time) {
    return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

}  // namespace

void FrameThread::Start(Mutex& lock, Handler handler) {
    m_thread = std::thread([this, &lock, handler = std::move(handler)] { Loop(lock, handler); });
}

void FrameThread::Stop(Mutex& lock) {
    {
        const MutexLock held(lock);
        m_quit = true;
    }
    Wake();
    m_thread.join();
}

void FrameThread::Loop(Mutex& lock, const Handler& handler) {
    // The kernel's default timer slack would be a visible part of the frame time at high rates.
    prctl(PR_SET_TIMERSLACK, 1UL);
    const MutexLock held(lock);
    while (!m_quit) {
        const Next next = Step(lock, Clock::now());
        if (m_quit) {
            break;
        }
        switch (next) {
            case Next::kStep:
                break;
            case Next::kSleep:
                if (Clock::now() < m_wake_time) {
                    m_changed.wait_until(lock, m_wake_time);
                }
                break;
            case Next::kWait:
                m_changed.wait(lock);
                break;
            case Next::kReap:
            case Next::kUnplug:
                handler(next);
                break;
        }
    }
}

void FrameThread::BeginStream(Time now) {
    m_frame = 0;
    m_sequence_offset = 0;
    m_time_offset_us = 0;
    m_stalled_until.reset();
    if (m_live != nullptr) {
        m_live->BeginStream(now, m_formats.CurrentRate());
    }
    RestartClock(now);
}

void FrameThread::RestartClock(Time now) {
    Rate rate = m_formats.CurrentRate();
    if (const Fault* fault = m_faults.Find(FaultKind::kTooFast)) {
        rate.numerator *= static_cast<uint32_t>(std::clamp<uint64_t>(fault->value, 1, 1000));
    }
    const auto passed =
        m_frame == 0 ? Clock::duration(0) : FrameClock(Time(), rate).Due(m_frame - 1) - Time();
    m_clock = FrameClock(now - passed, rate);
    if (const Fault* fault = m_faults.Find(FaultKind::kSequenceWrap)) {
        m_sequence_offset = 0U - static_cast<uint32_t>(m_frame + fault->value);
    }
    if (const Fault* fault = m_faults.Find(FaultKind::kTimeWrap)) {
        const int64_t wrap = (int64_t{1} << 32) * 1000000 - static_cast<int64_t>(fault->value) * 1000;
        m_time_offset_us = wrap - Microseconds(now);
    }
}

FrameThread::Next FrameThread::Step(Mutex& lock, Time now) {
    if (!m_buffers.IsStreaming() || m_buffers.HasFailed() || m_faults.Has(FaultKind::kNoFrames)) {
        return Next::kWait;
    }
    if (!m_stalled_until) {
        if (const auto stall = m_faults.TakeStall(m_frame)) {
            m_stalled_until = now + *stall;
        }
    }
    if (m_stalled_until) {
        if (now < *m_stalled_until) {
            return SleepUntil(*m_stalled_until);
        }
        m_stalled_until.reset();
        if (m_live == nullptr) {
            SkipTo(m_clock.FirstAfter(now));
        }
        return Next::kStep;
    }
    if (const auto next = m_live != nullptr ? StepLive(now) : StepClocked(lock, now)) {
        return *next;
    }
    switch (m_faults.OnFrame(m_frame)) {
        case FrameFate::kUnplugged:
            return Next::kUnplug;
        case FrameFate::kFailed:
            m_buffers.Fail();
            return Next::kWait;
        case FrameFate::kDropped:
            SkipTo(m_frame + 1);
            return Next::kStep;
        case FrameFate::kEmpty:
            m_buffers.SendEmpty();
            SkipTo(m_frame + 1);
            return Next::kStep;
        case FrameFate::kDelivered:
            if (Paint(lock)) {
                Deliver();
                ++m_frame;
            }
            return Next::kStep;
    }
    return Next::kStep;
}

std::optional<FrameThread::Next> FrameThread::StepClocked(Mutex& lock, Time now) {
    if (const Time due = m_clock.Due(m_frame); now < due) {
        return Paint(lock) ? SleepUntil(due) : Next::kStep;
    }
    if (m_clock.FirstAfter(now) > m_frame + kFarBehind) {
        SkipTo(m_clock.FirstAfter(now));
        return Next::kStep;
    }
    return m_buffers.IsOwnerThere() ? std::nullopt : std::optional(Next::kReap);
}

std::optional<FrameThread::Next> FrameThread::StepLive(Time now) {
    if (const Time due = m_live->Due(); now < due) {
        return SleepUntil(due);
    }
    if (!m_buffers.IsOwnerThere()) {
        return Next::kReap;
    }
    if (m_buffers.Oldest() < 0) {
        return SleepUntil(now + m_live->RetryTime());
    }
    LiveFeed::Frame frame = m_live->Take(now);
    SkipTo(m_frame + frame.missed);
    m_live_source = std::make_shared<LivePicture>(m_formats.Layout(), std::move(frame.picture));
    return std::nullopt;
}

FrameThread::Next FrameThread::SleepUntil(Time time) {
    m_wake_time = time;
    return Next::kSleep;
}

void FrameThread::SkipTo(uint64_t frame) {
    if (frame > m_frame) {
        m_dropped += frame - m_frame;
        m_frame = frame;
    }
}

// Paints the next frame into the buffer that will carry it, unless there is none or it is painted already.
// Returns false if the stream changed meanwhile.
bool FrameThread::Paint(Mutex& lock) {
    const int index = m_buffers.Oldest();
    Painted painted{m_buffers.Stream(), static_cast<uint32_t>(index), m_frame,
                    static_cast<uint64_t>(Microseconds(FrameTime())), 0};
    if (index < 0 || m_painted.IsFor(painted)) {
        return true;
    }
    const std::shared_ptr<BufferPool> pool = m_buffers.Pool();
    const std::shared_ptr<const FrameSource> source = m_live != nullptr ? m_live_source : m_formats.Source();
    const Stamp stamp{static_cast<uint32_t>(painted.frame), painted.time_us};
    m_is_painting = true;
    lock.unlock();
    painted.bytes = source->Paint(pool->At(painted.index), stamp);
    lock.lock();
    m_is_painting = false;
    m_painting_ended.notify_all();
    if (painted.stream != m_buffers.Stream()) {
        return false;
    }
    m_painted = painted;
    return true;
}

void FrameThread::WaitUntilPainted(Mutex& lock) {
    m_painting_ended.wait(lock, [this] { return !m_is_painting; });
}

void FrameThread::Deliver() {
    Record record{};
    record.index = m_painted.index;
    const bool is_painted = m_painted.stream == m_buffers.Stream() && m_painted.frame == m_frame;
    if (!is_painted || !m_buffers.Complete(record.index, record.buffer)) {
        ++m_dropped;
        return;
    }
    v4l2_buffer& buffer = record.buffer;
    buffer.bytesused = static_cast<uint32_t>(m_painted.bytes);
    buffer.sequence = static_cast<uint32_t>(m_frame) + m_sequence_offset;
    const int64_t time_us = static_cast<int64_t>(m_painted.time_us) + m_time_offset_us;
    buffer.timestamp.tv_sec = static_cast<time_t>(time_us / 1000000);
    buffer.timestamp.tv_usec = static_cast<suseconds_t>(time_us % 1000000);
    m_faults.Spoil(m_frame, buffer);
    m_buffers.SendFrame(record);
    ++m_delivered;
}

}  // namespace zumod::vcam
