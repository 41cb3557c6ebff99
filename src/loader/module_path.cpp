#include "src/loader/module_path.h"

#include "src/base/own_memory.h"
#include "src/module/log.h"
#include "src/module/runtime.h"
#include "zumod/ref_ptr.h"
#include "zumod/values.h"

namespace zumod {
namespace {

// The text of one of the host's properties; a property of another kind counts as missing.
std::string EnvText(const char* key) {
    const CRefPtr_T<IZUModData> value(CZUModRuntime::GetInstance()->GetEnvProperty(key));
    return CopyText(CharactersOf(value.Get()));
}

}  // namespace

std::string ZuModGetModulePath(const char* name, bool usePerModuleDir) {
    std::string path = EnvText(kEnvModulesDir);
    if (usePerModuleDir) {
        // Required by the contract: no fallback to the general directory.
        path = EnvText(Allocate([name] { return std::string(kEnvModulesDir) + "_" + name; }).c_str());
    }
    if (path.empty()) {
        ZuModLog(kLogIgnored, "[zumod] get module dir fail");
    }
    return Allocate([&path, name] { return path + (path.empty() ? "" : "/") + name + ".so"; });
}

}  // namespace zumod
