// A host runtime that keeps every log line and answers property look-ups from a map.
//
// Thread rule: every operation is [any thread].
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "src/module/attach_runtime.h"
#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/runtime.h"

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

// The line `offset` places behind the only one that contains `text`. A failure of the test, and an empty
// line, if none or several contain it, or if nothing is there.
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

// The line directly behind it.
inline LogLine LineAfter(const LogLines& lines, const std::string& text) {
    return LineWith(lines, text, 1);
}

class RecordingHost : public IZUModRuntime {
public:
    virtual ~RecordingHost() = default;

    int WriteLog(uint32_t level, const char* text) override {
        const std::lock_guard guard(m_mutex);
        m_lines.push_back({level, text});
        return 0;
    }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    IZUModData* GetEnvProperty(const char* key) override {
        const std::lock_guard guard(m_mutex);
        m_asked_keys.emplace_back(key);
        const auto found = m_properties.find(key);
        return found != m_properties.end() ? found->second.Get() : nullptr;
    }

    std::vector<LogLine> Lines() const {
        const std::lock_guard guard(m_mutex);
        return m_lines;
    }
    std::vector<LogLine> TakeLines() {
        const std::lock_guard guard(m_mutex);
        return std::exchange(m_lines, {});
    }
    bool Has(const LogLine& line) const {
        const std::lock_guard guard(m_mutex);
        for (const LogLine& each : m_lines) {
            if (each == line) {
                return true;
            }
        }
        return false;
    }
    void SetProperty(const std::string& key, CRefPtr_T<IZUModData> value) {
        const std::lock_guard guard(m_mutex);
        m_properties[key] = std::move(value);
    }
    std::vector<std::string> AskedKeys() const {
        const std::lock_guard guard(m_mutex);
        return m_asked_keys;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<LogLine> m_lines;
    std::vector<std::string> m_asked_keys;
    std::map<std::string, CRefPtr_T<IZUModData>> m_properties;
};

// A test whose module code logs to `host`.
class LoggingTest : public ::testing::Test {
protected:
    LoggingTest() { AttachRuntime(&host); }
    ~LoggingTest() override { DetachRuntime(); }

    RecordingHost host;
};

}  // namespace zumod::testing
