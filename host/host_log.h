// The host's log: one line a message on standard error, with the time and the level.
//
// Thread rule: every operation is [any thread].
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <mutex>
#include <string>

namespace zumod::host {

// A line and its end: local time to the millisecond, level, text. Control characters in the text, which may
// be a device's, become question marks: a line stays a line.
std::string FormatLogLine(const timeval& time, uint32_t level, const std::string& text, bool colour);

// Whether lines on this descriptor are to be coloured: on a terminal, unless NO_COLOR has a value.
bool WantsColour(int descriptor);

class HostLog {
public:
    // Shows the levels whose bits are in `levels`, on a descriptor that stays open.
    HostLog(int descriptor, uint32_t levels);
    HostLog(const HostLog&) = delete;
    HostLog& operator=(const HostLog&) = delete;

    // A log that nobody reads must not hold up a camera: after one wait of some tenths of a second, lines are
    // dropped, and counted in a line of its own, until the descriptor takes bytes again.
    void Write(uint32_t level, const std::string& text);

private:
    bool Put(const std::string& line);

    const int m_descriptor;
    const uint32_t m_levels;
    const bool m_colour;
    std::mutex m_mutex;
    uint64_t m_dropped = 0;  // since the last line that was written
};

}  // namespace zumod::host
