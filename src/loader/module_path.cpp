#include "src/loader/module_path.h"

#include "src/module/log.h"
#include "src/module/runtime.h"
#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"

namespace zumod {
namespace {

// The text of a property of the host's; a property of another kind counts as missing.
std::string EnvText(const char* key) {
    const CRefPtr_T<IZUModData> value(CZUModRuntime::GetInstance()->GetEnvProperty(key));
    if (value == nullptr || value->GetType() != kZUModDataText) {
        return {};
    }
    const char* text = value->GetString();
    return text != nullptr ? text : "";
}

}  // namespace

std::string ZuModGetModulePath(const char* name, bool usePerModuleDir) {
    std::string path = EnvText(kEnvModulesDir);
    if (usePerModuleDir) {
        // No fallback to the general directory, deliberately.
        path = EnvText((std::string(kEnvModulesDir) + "_" + name).c_str());
    }
    if (path.empty()) {
        ZuModLog(kLogIgnored, "[zumod] get module dir fail");
    } else {
        path += '/';
    }
    path += name;
    path += ".so";
    return path;
}

}  // namespace zumod
