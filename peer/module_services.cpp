#include "peer/module_services.h"

#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "src/module/attach_runtime.h"
#include "zumod/values.h"

namespace zumod::peer {

std::string ModuleDirectory(const std::string& given) {
    namespace fs = std::filesystem;
    if (!given.empty()) {
        return given;
    }
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    for (const char* place : {ZU_PEER_MODULE_PLACES}) {
        const fs::path directory = fs::weakly_canonical(program.parent_path() / place, error);
        if (!error && fs::is_directory(directory, error)) {
            return directory.string();
        }
    }
    return program.parent_path().string();
}

ModuleServices& ModuleServices::For(const std::string& directory) {
    // Never destroyed: modules log until the process is gone.
    static auto* const services = new ModuleServices;
    services->m_directory = CZUModData::FromText(directory.c_str());
    return *services;
}

ModuleServices::ModuleServices() {
    AttachRuntime(this);
}

int ModuleServices::WriteLog(uint32_t level, const char* text) {
    if (level == kLogFailure && m_failure.empty()) {
        m_failure = text;
    }
    return 0;
}

IZUModData* ModuleServices::GetEnvProperty(const char* key) {
    return std::strcmp(key, kEnvModulesDir) == 0 ? m_directory.Get() : nullptr;
}

std::string ModuleServices::TakeFailure() {
    return std::exchange(m_failure, {});
}

}  // namespace zumod::peer
