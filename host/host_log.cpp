#include "host/host_log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "common/safe_text.h"
#include "src/base/time_text.h"
#include "zumod/runtime.h"

namespace zumod::host {
namespace {

constexpr int kPatienceMilliseconds = 200;

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
constexpr char kPlain[] = "\033[0m";

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

std::string FormatLogLine(const timeval& time, uint32_t level, const std::string& text, bool colour) {
    std::string name = std::to_string(level);
    std::string start;
    for (const LevelStyle& style : kStyles) {
        if (style.level == level) {
            name = style.name;
            start = colour ? style.colour : "";
        }
    }
    std::string line;
    FormatLocalDateTime(line, time.tv_sec);
    char rest[32];
    std::snprintf(rest, sizeof rest, ".%03d %-7s ", static_cast<int>(time.tv_usec / 1000), name.c_str());
    line += rest;
    line += SafeText(text);
    return start + line + (start.empty() ? "" : kPlain) + '\n';
}

bool WantsColour(int descriptor) {
    const char* unwanted =
        std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): no thread sets variables
    return (unwanted == nullptr || *unwanted == 0) && isatty(descriptor) == 1;
}

HostLog::HostLog(int descriptor, uint32_t levels)
    : m_descriptor(descriptor), m_levels(levels), m_colour(WantsColour(descriptor)) {}

void HostLog::Write(uint32_t level, const std::string& text) {
    if ((level & m_levels) == 0) {
        return;
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    const MutexLock lock(m_mutex);
    if (m_dropped != 0 &&
        Put(FormatLogLine(now, kLogIgnored, std::to_string(m_dropped) + " lines were lost", m_colour))) {
        m_dropped = 0;
    }
    if (m_dropped != 0 || !Put(FormatLogLine(now, level, text, m_colour))) {
        ++m_dropped;
    }
}

bool HostLog::Put(const std::string& line) {
    // Any thread may log, so this waits in its own poll(). A pipe that is ready takes PIPE_BUF bytes without
    // blocking.
    for (size_t done = 0; done < line.size();) {
        pollfd watched{m_descriptor, POLLOUT, 0};
        if (poll(&watched, 1, m_dropped != 0 ? 0 : kPatienceMilliseconds) != 1) {
            return false;
        }
        const ssize_t count =
            write(m_descriptor, line.data() + done, std::min<size_t>(line.size() - done, PIPE_BUF));
        if (count < 0 && errno != EINTR) {
            return false;
        }
        done += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    return true;
}

}  // namespace zumod::host
