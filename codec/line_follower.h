// Decides which share of its bit rate an encoder may use, so that a slow line costs detail instead of
// pictures.
//
// The problem. The camera module drops a picture before it is encoded while the channel is behind, that is,
// while more than 5 messages wait to be sent. The encoder is not told: it sees only that the next call comes
// late. On a line of half the stream's rate every second picture is lost, and each one that is sent waits
// behind five others. With half the bits per picture all of them fit.
//
// The measure. The mean interval of kWindow calls, divided by the camera's interval, is the overload. The
// camera's interval is the median of the first window: the queue takes the pictures of at least half of its
// calls, and those that come at once, because opening the encoder took longer than some pictures, are
// fewer than half. Then it follows the mean of every window without gaps.
//
// The decision, once per window:
// - From an overload of 1.25 the bits are halved, as often as the overload says. The window after that is
//   ignored: the channel still sends the larger pictures that wait in the queue.
// - If that did not reduce the overload by a quarter, the line is not the cause. The camera has become slower
//   (many are, in the dark), or the machine has. The bits are given back, and the measured mean is the
//   camera's interval from then on.
// - Without gaps for some seconds the bits are doubled, as a trial. If the gaps return, they are halved
//   again, and the next trial waits twice as long, up to about a minute.
// - After a pause of 10 seconds everything starts again: nothing is known about the line any more.
//
// Thread rule: [encode thread]: one thread at a time. No input or output: the caller states the time.
#pragma once

#include <array>
#include <chrono>

namespace zumod {

class LineFollower {
public:
    using Duration = std::chrono::microseconds;

    static constexpr int kWindow = 8;
    static constexpr int kMostHalvings = 4;

    // Reports the call for a picture. `now` is any clock that only rises.
    void OnPicture(Duration now);

    // How often the bit rate is halved: 0 to kMostHalvings.
    int Halvings() const { return m_halvings; }

private:
    void Reset(Duration now);
    void OnWindow(Duration window);
    void OnCalm(double interval, Duration window);
    void OnGaps(double interval, double overload);

    Duration m_last{-1};  // the last call; negative before the first
    Duration m_begin{};   // of the window
    std::array<Duration, kWindow> m_intervals{};
    int m_count = 0;      // in the window
    double m_camera = 0;  // the camera's interval in microseconds; 0 while it is not known
    int m_halvings = 0;
    bool m_ignores_window = false;
    bool m_tries_fewer = false;  // the bits were halved, and no later window was judged
    double m_overload_before = 0;
    int m_halvings_before = 0;
    bool m_tries_more = false;  // the bits were doubled, and there were no gaps since
    Duration m_calm{};          // time without gaps since the last change
    Duration m_trial_after{};   // time without gaps before the bits are doubled
};

}  // namespace zumod
