// The newest picture from outside, and when it is to be delivered. It takes the place of the frame clock: a
// picture is delivered when it arrives, and not painted ahead of its time.
//
// - A picture that comes sooner than three quarters of a frame time after the last one waits until a whole
//   frame time is over; a newer one replaces it. So the jitter of a source at the agreed rate delays nothing.
// - For this rule the last picture counts as at least 31/32 of a frame time later than the one before. So a
//   program gets at most 3% more pictures than it agreed on, and a source whose clock is a little fast is not
//   delayed.
// - If none comes, the last picture is delivered again after kRepeatFrames frame times, and black if there
//   was none. So a program that waits for a frame with a time limit does not give up.
// - A program that is slow loses pictures, but never the newest: it waits until a buffer is queued.
//
// Thread rule: the camera's lock guards it. Each call passes the time.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "vcam/model/camera_config.h"
#include "vcam/picture/planar_image.h"

namespace zumod::vcam {

class LiveFeed {
public:
    using Duration = std::chrono::steady_clock::duration;
    using Time = std::chrono::steady_clock::time_point;
    using Picture = std::shared_ptr<const PlanarImage>;

    static constexpr int kRepeatFrames = 4;

    void BeginStream(Time now, Rate rate);
    // Null: black. The newest of `count` pictures that arrived.
    void Put(Picture picture, Time now, uint64_t count = 1);

    // When the next frame is to be delivered, unless Put is called before.
    Time Due() const;
    struct Frame {
        Picture picture;
        uint64_t missed = 0;  // pictures that were replaced since the last frame of the stream
    };
    // The frame that is due.
    Frame Take(Time now);
    // The time of the frame that was taken: when its picture arrived, unless it had to wait.
    Time TakenTime() const { return m_taken; }
    // How soon to look again for a queued buffer: queueing one makes no request that could wake anybody.
    Duration RetryTime() const { return m_frame_time / 4; }

private:
    Picture m_newest;
    Time m_arrived;
    bool m_is_new = false;  // not taken yet
    uint64_t m_missed = 0;
    Duration m_frame_time{};
    Time m_last_new;  // when the last frame with a new picture counts as delivered
    Time m_taken;
    Time m_repeat_at;
};

}  // namespace zumod::vcam
