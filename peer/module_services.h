// What this program lends to the codec module that it loads: where modules are, and a place for what they
// log.
//
// Thread rule: the main thread, which alone calls the modules.
#pragma once

#include <string>

#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/runtime.h"

namespace zumod::peer {

// The directory given, or the one beside the program in the build tree or the install tree.
std::string ModuleDirectory(const std::string& given);

// A module that has made a codec stays loaded and attached as long as the process runs, so this one does too.
// Log lines are kept for an error message and not shown.
class ModuleServices final : public IZUModRuntime {
public:
    // The one of this process; modules are in `directory` from now on.
    static ModuleServices& For(const std::string& directory);

    ModuleServices(const ModuleServices&) = delete;
    ModuleServices& operator=(const ModuleServices&) = delete;

    int WriteLog(uint32_t level, const char* text) override;
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    IZUModData* GetEnvProperty(const char* key) override;

    // The first failure since the last call, or "".
    std::string TakeFailure();

private:
    ModuleServices();

    CRefPtr_T<IZUModData> m_directory;
    std::string m_failure;
};

}  // namespace zumod::peer
