// The thread that paints and delivers a camera's frames.
//
// A frame is painted into the oldest queued buffer as soon as its predecessor was delivered. When it is due,
// only the hand-over is left. Painting is the only work that is done without the camera's lock: the thread
// itself keeps the buffer pool and the frame source alive, and discards the picture if the stream changed
// meanwhile. Due times are exact multiples of the frame time (frame_clock.h), so a late wake-up delays one
// frame and not the following ones. A live camera's pictures set the pace instead (live_feed.h): they are
// painted and delivered when they arrive.
//
// Step does one round of the thread's work for a given time. The thread is a loop around Step. Tests call
// Step without a thread.
//
// Thread rule: the camera's lock guards it and is held at every call, except at Start and Stop. Step and
// WaitUntilPainted release the lock for a while.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>

#include "common/mutex.h"
#include "vcam/model/buffer_queue.h"
#include "vcam/model/fault_set.h"
#include "vcam/model/format_state.h"
#include "vcam/model/frame_clock.h"
#include "vcam/model/live_feed.h"

namespace zumod::vcam {

class FrameThread {
public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;

    // What is to be done after a step.
    enum class Next {
        kStep,    // another step
        kSleep,   // another step at WakeTime()
        kWait,    // another step after a change
        kReap,    // the owner is gone: forget its file, then another step
        kUnplug,  // a fault unplugs the camera
    };
    // Does what kReap and kUnplug say; called with the lock held.
    using Handler = std::function<void(Next)>;

    // `live`: where a live camera's pictures come from; null for any other.
    FrameThread(BufferQueue& buffers, const FormatState& formats, FaultSet& faults, LiveFeed* live = nullptr)
        : m_buffers(buffers), m_formats(formats), m_faults(faults), m_live(live) {}
    FrameThread(const FrameThread&) = delete;
    FrameThread& operator=(const FrameThread&) = delete;

    void Start(Mutex& lock, Handler handler);
    // Ends the thread. Only after Start, once.
    void Stop(Mutex& lock);
    // To be called after every change that Step depends on.
    void Wake() { m_changed.notify_all(); }

    void BeginStream(Time now);
    // Continues from the current frame, at the rate and with the offsets that the active faults set.
    void RestartClock(Time now);
    Next Step(Mutex& lock, Time now) ZU_REQUIRES(lock);
    Time WakeTime() const { return m_wake_time; }
    // After this the thread does not write into the buffers until the lock is released.
    void WaitUntilPainted(Mutex& lock) ZU_REQUIRES(lock);

    uint64_t Delivered() const { return m_delivered; }
    // Frames for which no buffer was queued, that a fault took, or whose picture a newer one replaced.
    uint64_t Dropped() const { return m_dropped; }

private:
    // A picture in a buffer, ahead of its time.
    struct Painted {
        uint32_t stream = 0;  // 0: none
        uint32_t index = 0;
        uint64_t frame = 0;
        uint64_t time_us = 0;
        size_t bytes = 0;

        bool IsFor(const Painted& other) const {
            return stream == other.stream && index == other.index && frame == other.frame &&
                   time_us == other.time_us;
        }
    };

    void Loop(Mutex& lock, const Handler& handler);
    Next SleepUntil(Time time);
    // For a frame that is due. Nothing: go on with it.
    std::optional<Next> StepClocked(Mutex& lock, Time now) ZU_REQUIRES(lock);
    std::optional<Next> StepLive(Time now);
    Time FrameTime() const { return m_live != nullptr ? m_live->TakenTime() : m_clock.Due(m_frame); }
    void SkipTo(uint64_t frame);
    bool Paint(Mutex& lock) ZU_REQUIRES(lock);
    void Deliver();

    BufferQueue& m_buffers;
    const FormatState& m_formats;
    FaultSet& m_faults;
    LiveFeed* const m_live;
    std::shared_ptr<const FrameSource> m_live_source;  // of the frame that was taken

    std::condition_variable_any m_changed;
    std::condition_variable_any m_painting_ended;
    bool m_quit = false;
    bool m_is_painting = false;

    FrameClock m_clock;
    uint64_t m_frame = 0;  // the next one of the stream
    uint32_t m_sequence_offset = 0;
    int64_t m_time_offset_us = 0;
    std::optional<Time> m_stalled_until;
    Time m_wake_time;
    Painted m_painted;
    uint64_t m_delivered = 0;
    uint64_t m_dropped = 0;

    std::thread m_thread;
};

}  // namespace zumod::vcam
