// The host's log on standard error: one line per message, with the time and the level.
//
// Thread rule: any thread.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <optional>
#include <string>

#include "common/mutex.h"

namespace zumod::host {

// The bits of the level that is called error, warning, info or trace, and of every more severe one. Nothing
// for another name.
std::optional<uint32_t> LevelsUpTo(const std::string& name);

// One line with its line end: local time in milliseconds, level, text. The text may contain what a device
// calls itself; SafeText keeps it on one line and away from the terminal's controls.
std::string FormatLogLine(const timeval& time, uint32_t level, const std::string& text, bool colour);

// Whether lines on this descriptor are coloured: on a terminal, unless NO_COLOR has a value.
bool WantsColour(int descriptor);

class HostLog {
public:
    // Shows the levels whose bits are in `levels`. The descriptor stays open as long as the log exists.
    HostLog(int descriptor, uint32_t levels);
    HostLog(const HostLog&) = delete;
    HostLog& operator=(const HostLog&) = delete;

    // A log that nobody reads must not block a camera. If the descriptor stays full for some tenths of a
    // second, lines are dropped until it takes bytes again; then one line says how many.
    void Write(uint32_t level, const std::string& text);

private:
    bool Put(const std::string& line) ZU_REQUIRES(m_mutex);

    const int m_descriptor;
    const uint32_t m_levels;
    const bool m_colour;
    Mutex m_mutex;
    uint64_t m_dropped ZU_GUARDED_BY(m_mutex) = 0;  // since the last line that was written
};

}  // namespace zumod::host
