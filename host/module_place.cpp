#include "host/module_place.h"

#include <filesystem>
#include <system_error>

namespace zumod::host {

std::string WithoutTrailingSlash(std::string directory) {
    while (directory.size() > 1 && directory.back() == '/') {
        directory.pop_back();
    }
    return directory;
}

std::string FindModuleDirectory() {
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    for (const char* place : {ZU_HOST_MODULE_PLACES}) {
        const fs::path directory = fs::weakly_canonical(program.parent_path() / place, error);
        if (!error && fs::is_directory(directory, error)) {
            return directory.string();
        }
    }
    return {};
}

}  // namespace zumod::host
