// The runtime that a program lends to the modules it loads: a log, and properties that are all texts.
//
// Thread rule: constructed on the main thread and never destroyed, because a loaded codec module keeps
// calling its runtime until the process exits. Modules call it from any thread; nothing changes after
// construction.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "zumod/ref_ptr.h"
#include "zumod/runtime.h"
#include "zumod/values.h"

namespace zumod {

class ModuleRuntime final : public IZUModRuntime {
public:
    // Called for each line that a module logs, on the module's thread.
    using LogFunction = std::function<void(uint32_t level, const char* text)>;

    ModuleRuntime(LogFunction log, const std::map<std::string, std::string>& properties)
        : m_log(std::move(log)) {
        for (const auto& [key, value] : properties) {
            m_properties.emplace(key, CZUModData::FromText(value.c_str()));
        }
    }
    ModuleRuntime(const ModuleRuntime&) = delete;
    ModuleRuntime& operator=(const ModuleRuntime&) = delete;

    int WriteLog(uint32_t level, const char* text) override {
        m_log(level, text);
        return 0;
    }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    IZUModData* GetEnvProperty(const char* key) override {
        const auto found = m_properties.find(key);
        return found != m_properties.end() ? found->second.Get() : nullptr;
    }

private:
    const LogFunction m_log;
    std::map<std::string, CRefPtr_T<IZUModData>, std::less<>> m_properties;
};

}  // namespace zumod
