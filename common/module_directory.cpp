#include "common/module_directory.h"

#include <filesystem>
#include <system_error>

namespace zumod {

std::string FindModuleDirectory() {
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    for (const char* relative : {ZU_MODULE_DIRECTORIES}) {
        const fs::path directory = fs::weakly_canonical(program.parent_path() / relative, error);
        if (!error && fs::is_directory(directory, error)) {
            return directory.string();
        }
    }
    return {};
}

}  // namespace zumod
