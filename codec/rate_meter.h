// Measures the picture rate that a stream's parameter sets state.
//
// The problem. Nothing tells an encoder the camera's rate: a format record has none, a picture has no time,
// and a camera may deliver another rate than it was asked for. Only the times of the calls show it. A stream
// states its rate in the parameter sets, and to change them the encoder has to be opened again, which costs
// a key frame. So the stated rate has to be right, but it must not follow every change.
//
// The rule. The rate of the calls is measured in windows of at least a second and four intervals. When four
// windows in a row agree within 5% with each other, and their mean differs from the stated rate by more than
// 5%, the mean becomes the stated rate. So there is at most one change in four seconds, and a short delay, a
// machine that is busy for a moment, or pictures that waited for the first one change nothing.
//
// The rate is that of the calls, not the camera's: if a line is so slow that every second picture is lost for
// a long time, then the stream has half the pictures, and says so.
//
// A call that comes more than two seconds after the last one begins a new window. Rates above 250 are not
// stated: no camera has them, and pictures that are encoded as fast as possible have no rate.
//
// Thread rule: [encode thread]: one thread at a time. No input or output: the caller states the time.
#pragma once

#include <chrono>

namespace zumod {

// Pictures per second that are stated until the rate is measured: the most common rate of cameras, and the
// one that a peer usually asks for.
inline constexpr int kAssumedRate = 30;

class RateMeter {
public:
    using Duration = std::chrono::microseconds;

    // Reports the call for a picture. `now` is any clock that only rises.
    void OnPicture(Duration now);

    // The rate to state, in tenths of a picture per second. From 10 pictures per second on it is rounded to
    // halves.
    int Tenths() const { return m_tenths; }

private:
    void OnWindow(double rate);

    int m_tenths = 10 * kAssumedRate;
    Duration m_last{-1};  // the last call; negative before the first
    Duration m_begin{};   // of the window
    int m_count = 0;      // intervals in the window
    double m_mean = 0;    // of the windows that agree, in pictures per second
    int m_agreeing = 0;   // windows, up to the number that is needed
};

}  // namespace zumod
