// A host runtime that drops log lines and answers property look-ups from a map.
//
// Thread rule: every operation is [any thread].
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/runtime.h"

namespace zumod::testing {

class QuietHost : public IZUModRuntime {
public:
    virtual ~QuietHost() = default;

    int WriteLog(uint32_t, const char*) override { return 0; }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    IZUModData* GetEnvProperty(const char* key) override {
        const std::lock_guard guard(m_mutex);
        const auto found = m_properties.find(key);
        return found != m_properties.end() ? found->second.Get() : nullptr;
    }

    void SetProperty(const std::string& key, CRefPtr_T<IZUModData> value) {
        const std::lock_guard guard(m_mutex);
        m_properties[key] = std::move(value);
    }

private:
    std::mutex m_mutex;
    std::map<std::string, CRefPtr_T<IZUModData>, std::less<>> m_properties;
};

}  // namespace zumod::testing
