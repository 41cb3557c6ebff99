// A host runtime that keeps every log line.
//
// Thread rule: every operation is [any thread].
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "src/module/attach_runtime.h"
#include "tests/support/doubles/quiet_host.h"

namespace zumod::testing {

struct LogLine {
    uint32_t level;
    std::string text;

    bool operator==(const LogLine&) const = default;
};

inline void PrintTo(const LogLine& line, std::ostream* out) {
    *out << "{" << line.level << ", \"" << line.text << "\"}";
}

using LogLines = std::vector<LogLine>;

// The line `offset` lines after the only one that contains `text`. If there is no such line, or if several
// lines contain the text, fails the test and returns an empty line.
inline LogLine LineWith(const LogLines& lines, const std::string& text, size_t offset = 0) {
    const auto contains = [&](const LogLine& line) { return line.text.find(text) != std::string::npos; };
    const auto found = std::find_if(lines.begin(), lines.end(), contains);
    const size_t place = static_cast<size_t>(found - lines.begin()) + offset;
    if (std::count_if(lines.begin(), lines.end(), contains) != 1 || place >= lines.size()) {
        ADD_FAILURE() << "not one line with \"" << text << "\" in " << ::testing::PrintToString(lines);
        return {};
    }
    return lines[place];
}

// The next line after it.
inline LogLine LineAfter(const LogLines& lines, const std::string& text) {
    return LineWith(lines, text, 1);
}

class RecordingHost : public QuietHost {
public:
    using LineFunction = std::function<void(uint32_t level, const char* text)>;

    // Sets errno to 0, as a host may: a caller that needs errno has to save it before it logs.
    int WriteLog(uint32_t level, const char* text) override {
        const bool own_thread = IsOwnThread();
        LineFunction on_line;
        {
            const std::lock_guard guard(m_mutex);
            m_lines.push_back({level, text});
            (own_thread ? m_own_lines : m_other_lines).push_back({level, text});
            on_line = m_on_line;
        }
        if (on_line) {
            on_line(level, text);
        }
        errno = 0;
        return 0;
    }
    IZUModData* GetEnvProperty(const char* key) override {
        {
            const std::lock_guard guard(m_mutex);
            m_asked_keys.emplace_back(key);
        }
        return QuietHost::GetEnvProperty(key);
    }

    // Calls the function for each line from now on, after the line was kept, on the thread that logs it.
    void OnLine(LineFunction on_line) {
        const std::lock_guard guard(m_mutex);
        m_on_line = std::move(on_line);
    }
    // Calls the function once, within the next line that contains `text`.
    void OnLineWith(const std::string& text, const std::function<void()>& function) {
        OnLine([=, this](uint32_t, const char* line) {
            if (std::string_view(line).find(text) != std::string_view::npos) {
                OnLine(nullptr);
                function();
            }
        });
    }

    // Whether this is the thread that constructed the host.
    bool IsOwnThread() const { return std::this_thread::get_id() == m_thread; }

    LogLines Lines() const { return Copy(m_lines); }
    // The lines of the thread that constructed the host, and those of all others.
    LogLines OwnerLines() const { return Copy(m_own_lines); }
    LogLines OtherLines() const { return Copy(m_other_lines); }
    LogLines TakeLines() {
        const std::lock_guard guard(m_mutex);
        m_own_lines.clear();
        m_other_lines.clear();
        return std::exchange(m_lines, {});
    }
    void Clear() { TakeLines(); }
    bool Has(const LogLine& line) const {
        const std::lock_guard guard(m_mutex);
        return std::find(m_lines.begin(), m_lines.end(), line) != m_lines.end();
    }
    std::vector<std::string> AskedKeys() const {
        const std::lock_guard guard(m_mutex);
        return m_asked_keys;
    }

private:
    LogLines Copy(const LogLines& lines) const {
        const std::lock_guard guard(m_mutex);
        return lines;
    }

    const std::thread::id m_thread = std::this_thread::get_id();
    mutable std::mutex m_mutex;
    LogLines m_lines;
    LogLines m_own_lines;
    LogLines m_other_lines;
    std::vector<std::string> m_asked_keys;
    LineFunction m_on_line;
};

// A test whose module code logs to `host`.
class LoggingTest : public ::testing::Test {
protected:
    LoggingTest() { AttachRuntime(&host); }
    ~LoggingTest() override { DetachRuntime(); }

    RecordingHost host;
};

}  // namespace zumod::testing
