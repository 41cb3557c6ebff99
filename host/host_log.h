// The host's log on standard error: one line per message, with the time and the level.
//
// A write to a terminal or a pipe may block for as long as nobody reads it, and poll() cannot prevent that:
// a terminal that is ready may take less than one line, and other programs write to the same terminal. The
// descriptor's flags belong to those programs too, so O_NONBLOCK is not an option. Therefore the callers only
// append to a buffer of fixed size, and one thread writes. If that thread is stuck, the buffer fills, further
// lines are dropped and counted, and one line says how many as soon as the reader reads again.
//
// Write takes a mutex for the time of a copy. It neither waits for the writer nor throws: the module calls it
// with the lock of its runtime held.
//
// Thread rule: any thread, except Start, Flush and the destructor: main thread.
#pragma once

#include <sys/time.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/error.h"
#include "common/mutex.h"
#include "host/line_limit.h"

namespace zumod::host {

// The bits of the level that is called error, warning, info or trace, and of every more severe one. Nothing
// for another name.
std::optional<uint32_t> LevelsUpTo(const std::string& name);

// The level at which a line of a module is shown. The contract fixes the levels that the camera module logs
// with; a few lines that every list or open writes have that of a warning.
uint32_t ShownLevel(uint32_t level, std::string_view text);

// One line with its line end: local time in milliseconds, level, text. The text may contain what a device
// calls itself; SafeText keeps it on one line and away from the terminal's controls.
std::string FormatLogLine(const timeval& time, uint32_t level, std::string_view text, bool colour);

// Whether lines on this descriptor are coloured: on a terminal, unless NO_COLOR has a value.
bool WantsColour(int descriptor);

class HostLog {
public:
    // Shows the levels whose bits are in `levels`. Uses a copy of the descriptor.
    HostLog(int descriptor, uint32_t levels);
    // Does not wait: a thread that is stuck ends when it can.
    ~HostLog();
    HostLog(const HostLog&) = delete;
    HostLog& operator=(const HostLog&) = delete;

    // Starts the thread that writes. Lines logged before wait in the buffer. A restriction that the kernel
    // puts on the calling thread only, such as Landlock's, must come before.
    Expected<void> Start();

    // From now on each source of lines is limited; see line_limit.h. Before Start.
    void LimitSources() { m_limits_sources = true; }
    // Nothing more comes from this source. If lines of it are missing, it says how many.
    void EndSource(std::string_view source) noexcept;

    void Write(uint32_t level, std::string_view text) noexcept;

    // A line of the program, of no level: the text without time. Control characters are escaped.
    void Print(std::string_view text) noexcept;

    // Waits until all lines are written. Returns false if they are not after this time. Starts the thread if
    // Start was not called; without a thread this writes, and blocks.
    bool Flush(std::chrono::milliseconds limit);

private:
    class Buffer;

    // Whether the line is written. Before it comes how many lines of its source are missing.
    bool PassesLimit(std::string_view text);
    void WriteMissing(const std::vector<LineLimit::Missing>& missing);

    const uint32_t m_levels;
    const bool m_colour;
    bool m_limits_sources = false;
    Mutex m_limit_mutex;
    LineLimit m_limit ZU_GUARDED_BY(m_limit_mutex);  // of all threads that write
    bool m_has_thread = false;
    const std::shared_ptr<Buffer> m_buffer;  // shared with the thread, which may outlive the log
};

}  // namespace zumod::host
