// What the host lends to the modules it loads: its log, and properties that are all texts.
//
// Thread rule: every operation is [any thread]; nothing changes after construction.
#pragma once

#include <map>
#include <string>

#include "host/host_log.h"
#include "src/loader/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/runtime.h"

namespace zumod::host {

class HostRuntime final : public IZUModRuntime {
public:
    HostRuntime(HostLog& log, const std::map<std::string, std::string>& properties) : m_log(log) {
        for (const auto& [key, value] : properties) {
            m_properties.emplace(key, CZUModData::FromText(value.c_str()));
        }
    }
    HostRuntime(const HostRuntime&) = delete;
    HostRuntime& operator=(const HostRuntime&) = delete;

    int WriteLog(uint32_t level, const char* text) override {
        m_log.Write(level, text);
        return 0;
    }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    IZUModData* GetEnvProperty(const char* key) override {
        const auto found = m_properties.find(key);
        return found != m_properties.end() ? found->second.Get() : nullptr;
    }

private:
    HostLog& m_log;
    std::map<std::string, CRefPtr_T<IZUModData>, std::less<>> m_properties;
};

}  // namespace zumod::host
