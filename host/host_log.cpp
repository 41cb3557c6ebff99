#include "host/host_log.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "common/mutex.h"
#include "common/safe_text.h"
#include "common/unique_fd.h"
#include "zumod/runtime.h"

namespace zumod::host {
namespace {

constexpr size_t kBufferSize = size_t{64} << 10;

struct LevelStyle {
    uint32_t level;
    const char* name;
    const char* colour;
};
// The most severe level first.
constexpr LevelStyle kStyles[] = {
    {kLogFailure, "error", "\033[31m"},
    {kLogIgnored, "warning", "\033[33m"},
    {kLogEvent, "info", ""},
    {kLogTrace, "trace", "\033[2m"},
};
// How lines begin that say nothing is wrong. A second device file without pictures belongs to most cameras.
constexpr std::string_view kNormalEvents[] = {
    "[CameraEnumerator] invalid device, ",
    "[LinuxV4L2CameraCapture] current size ",
};
constexpr char kPlain[] = "\033[0m";

timeval Now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

// Waits for the reader. Returns false if the bytes cannot be written any more.
bool WriteAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor, bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<size_t>(count));
        } else if (errno == EAGAIN) {
            // Another program has made the shared description non-blocking.
            pollfd watched{descriptor, POLLOUT, 0};
            poll(&watched, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<uint32_t> LevelsUpTo(const std::string& name) {
    uint32_t levels = 0;
    for (const LevelStyle& style : kStyles) {
        levels |= style.level;
        if (style.name == name) {
            return levels;
        }
    }
    return std::nullopt;
}

uint32_t ShownLevel(uint32_t level, std::string_view text) {
    const bool normal = std::any_of(std::begin(kNormalEvents), std::end(kNormalEvents),
                                    [text](std::string_view start) { return text.starts_with(start); });
    return level == kLogIgnored && normal ? kLogEvent : level;
}

std::string FormatLogLine(const timeval& time, uint32_t level, std::string_view text, bool colour) {
    std::string name = std::to_string(level);
    std::string start;
    for (const LevelStyle& style : kStyles) {
        if (style.level == level) {
            name = style.name;
            start = colour ? style.colour : "";
        }
    }
    std::tm local{};
    localtime_r(&time.tv_sec, &local);
    char date[32] = "";
    (void)std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    char rest[32];
    std::snprintf(rest, sizeof rest, ".%03d %-7s ", static_cast<int>(time.tv_usec / 1000), name.c_str());
    return start + date + rest + SafeText(text) + (start.empty() ? "" : kPlain) + '\n';
}

bool WantsColour(int descriptor) {
    const char* unwanted =
        std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): no thread sets variables
    return (unwanted == nullptr || *unwanted == 0) && isatty(descriptor) == 1;
}

// The lines that wait, and the thread that writes them.
class HostLog::Buffer {
public:
    explicit Buffer(int descriptor, bool colour)
        : m_descriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)), m_colour(colour) {
        m_waiting.reserve(kBufferSize);
        m_bytes.reserve(kBufferSize);
    }

    // An empty line stands for one that could not be made.
    void Append(std::string_view line) noexcept {
        const MutexLock lock(m_mutex);
        // Lines after a dropped one wait until the loss has been said: its place is between them.
        if (m_dropped != 0 || line.empty() || line.size() > kBufferSize - m_waiting.size()) {
            ++m_dropped;
        } else {
            m_waiting.append(line);  // within its capacity
        }
        m_changed.notify_all();
    }

    void End() noexcept {
        const MutexLock lock(m_mutex);
        m_ended = true;
        m_changed.notify_all();
    }

    bool WaitUntilWritten(std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        const MutexLock lock(m_mutex);
        while (!IsEmpty() || m_is_writing) {
            if (m_changed.wait_until(m_mutex, deadline) == std::cv_status::timeout) {
                return IsEmpty() && !m_is_writing;
            }
        }
        return true;
    }

    // [the log's thread]. Returns after End, once everything is written.
    void WriteUntilEnd() {
        while (const auto dropped = Take()) {
            WriteAll(m_descriptor.Get(), m_bytes);
            if (*dropped != 0) {
                WriteLoss(*dropped);
            }
        }
    }

private:
    bool IsEmpty() const ZU_REQUIRES(m_mutex) { return m_waiting.empty() && m_dropped == 0; }

    // Waits for lines and moves them to m_bytes. Returns how many were dropped after them; nothing at the
    // end.
    std::optional<uint64_t> Take() {
        m_bytes.clear();
        const MutexLock lock(m_mutex);
        m_is_writing = false;
        m_changed.notify_all();
        while (IsEmpty() && !m_ended) {
            m_changed.wait(m_mutex);
        }
        if (IsEmpty()) {
            return std::nullopt;
        }
        m_is_writing = true;
        m_waiting.swap(m_bytes);
        return std::exchange(m_dropped, 0);
    }

    void WriteLoss(uint64_t lines) {
        try {
            WriteAll(m_descriptor.Get(),
                     FormatLogLine(Now(), kLogIgnored, std::to_string(lines) + " lines were lost", m_colour));
        } catch (const std::bad_alloc&) {
            const MutexLock lock(m_mutex);
            m_dropped += lines;
        }
    }

    const UniqueFd m_descriptor;
    const bool m_colour;
    std::string m_bytes;  // [the log's thread]. Reserved by the constructor: that thread may find no memory
    Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::string m_waiting ZU_GUARDED_BY(m_mutex);   // whole lines; never grows
    uint64_t m_dropped ZU_GUARDED_BY(m_mutex) = 0;  // after the lines in m_waiting
    bool m_is_writing ZU_GUARDED_BY(m_mutex) = false;
    bool m_ended ZU_GUARDED_BY(m_mutex) = false;
};

HostLog::HostLog(int descriptor, uint32_t levels)
    : m_levels(levels),
      m_colour(WantsColour(descriptor)),
      m_buffer(std::make_shared<Buffer>(descriptor, m_colour)) {}

HostLog::~HostLog() {
    m_buffer->End();
}

Expected<void> HostLog::Start() {
    try {
        std::thread([buffer = m_buffer] { buffer->WriteUntilEnd(); }).detach();
    } catch (const std::system_error& error) {
        return Fail("the log has no thread: " + ErrnoText(error.code().value()));
    }
    m_has_thread = true;
    return {};
}

void HostLog::Write(uint32_t level, std::string_view text) noexcept {
    if ((level & m_levels) == 0) {
        return;
    }
    try {
        if (PassesLimit(text)) {
            m_buffer->Append(FormatLogLine(Now(), level, text, m_colour));
        }
    } catch (const std::bad_alloc&) {
        m_buffer->Append({});
    }
}

bool HostLog::PassesLimit(std::string_view text) {
    if (!m_limits_sources) {
        return true;
    }
    const MutexLock lock(m_limit_mutex);
    const LineLimit::Decision decision = m_limit.Decide(text, std::chrono::steady_clock::now());
    WriteMissing(decision.before);
    return decision.passes;
}

void HostLog::EndSource(std::string_view source) noexcept {
    try {
        const MutexLock lock(m_limit_mutex);
        WriteMissing(m_limit.End(source, std::chrono::steady_clock::now()));
    } catch (const std::bad_alloc&) {
        m_buffer->Append({});
    }
}

void HostLog::WriteMissing(const std::vector<LineLimit::Missing>& missing) {
    for (const LineLimit::Missing& lines : missing) {
        const bool is_repeated = lines.why == LineLimit::Missing::Why::kRepeated;
        m_buffer->Append(FormatLogLine(Now(), is_repeated ? kLogEvent : kLogIgnored, lines.Text(), m_colour));
    }
}

void HostLog::Print(std::string_view text) noexcept {
    try {
        m_buffer->Append(SafeText(text) + '\n');
    } catch (const std::bad_alloc&) {
        m_buffer->Append({});
    }
}

bool HostLog::Flush(std::chrono::milliseconds limit) {
    {
        const MutexLock lock(m_limit_mutex);
        WriteMissing(m_limit.TakeMissing());
    }
    if (!m_has_thread && !Start()) {
        m_buffer->End();
        m_buffer->WriteUntilEnd();
    }
    return m_buffer->WaitUntilWritten(limit);
}

}  // namespace zumod::host
