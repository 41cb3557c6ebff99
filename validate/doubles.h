// Host objects that record how a module uses them: a runtime, values and a creation policy.
//
// Thread rule: as their interfaces require. The recorded fields are read by the check when no thread of the
// module uses the object, or are atomic.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "zumod/zumod.h"

namespace zumod::validate {

// The number of references to an object of CCounted_T.
template <class Object>
int64_t CountOf(Object& object) {
    object.AddRef();
    return object.Release();
}

// A value that counts in `live` while it exists.
class TrackedValue final : public CCounted_T<IZUModData> {
public:
    TrackedValue(CRefPtr_T<IZUModData> content, std::atomic<int>& live)
        : m_content(std::move(content)), m_live(live) {
        ++m_live;
    }
    ~TrackedValue() override { --m_live; }

    uint32_t GetType() override { return m_content->GetType(); }
    const void* GetData() override { return m_content->GetData(); }
    uint64_t GetSize() override { return m_content->GetSize(); }
    const char* GetString() override { return m_content->GetString(); }
    const void* GetBlock() override { return m_content->GetBlock(); }
    bool GetBool() override { return m_content->GetBool(); }
    int64_t GetInt64() override { return m_content->GetInt64(); }
    float GetFloat() override { return m_content->GetFloat(); }
    IReference* GetObject() override { return m_content->GetObject(); }
    IZUModData* Clone() override {
        return new TrackedValue(CRefPtr_T<IZUModData>(m_content->Clone()), m_live);
    }
    uint64_t GetPointer() override { return m_content->GetPointer(); }

private:
    const CRefPtr_T<IZUModData> m_content;
    std::atomic<int>& m_live;
};

// A policy whose values are tracked.
class PolicyDouble final : public CCounted_T<IZUModCreatePolicy> {
public:
    void Set(const std::string& key, CRefPtr_T<IZUModData> value) { m_values[key] = std::move(value); }
    void Remove(const std::string& key) { m_values.erase(key); }

    // How many of the values that GetPolicy returned exist.
    int LiveValues() const { return m_live; }

    IZUModData* GetPolicy(const char* key) override {
        const auto found = key != nullptr ? m_values.find(key) : m_values.end();
        return found != m_values.end() ? new TrackedValue(found->second, m_live) : nullptr;
    }

private:
    std::map<std::string, CRefPtr_T<IZUModData>, std::less<>> m_values;
    std::atomic<int> m_live{0};
};

// A host that keeps the lines a module logs.
class HostDouble final : public IZUModRuntime {
public:
    struct Line {
        uint32_t level;
        bool has_text;
        size_t length;
    };

    // Called inside each WriteLog.
    std::function<void()> on_line;
    // Called for each look-up of a property; without it there are none.
    std::function<IZUModData*(const char* key)> on_property;

    int WriteLog(uint32_t level, const char* text) override {
        {
            const std::lock_guard lock(m_mutex);
            m_lines.push_back({level, text != nullptr, text != nullptr ? std::strlen(text) : 0});
        }
        if (on_line) {
            on_line();
        }
        return 0;
    }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    IZUModData* GetEnvProperty(const char* key) override {
        ++m_lookups;
        return on_property ? on_property(key) : nullptr;
    }

    std::vector<Line> Lines() {
        const std::lock_guard lock(m_mutex);
        return m_lines;
    }
    // Lines and look-ups.
    size_t Calls() { return Lines().size() + m_lookups; }

private:
    std::mutex m_mutex;
    std::vector<Line> m_lines;
    std::atomic<size_t> m_lookups{0};
};

}  // namespace zumod::validate
