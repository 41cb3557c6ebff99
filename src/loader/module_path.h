// Where the file of a sibling module is.
#pragma once

#include <string>

namespace zumod {

// [any thread]. The path of the file of module `name` in the host's module directory: the environment
// property "zu.env.modules.dir" or, with `usePerModuleDir`, the one of that key with "_" and the name
// appended, which replaces the general directory even when the host has none. Without a directory, a log line
// and the bare file name.
std::string ZuModGetModulePath(const char* name, bool usePerModuleDir);

}  // namespace zumod
