// The path of another module's file.
//
// Thread rule: [any thread].
#pragma once

#include <string>

namespace zumod {

// The path of module `name` in the host's module directory. The directory is the environment property
// "zu.env.modules.dir" or, with `usePerModuleDir`, the property of that key with "_" and the name appended,
// which replaces the general directory even if the host has no such property. Without a directory, logs a
// line and returns the bare file name.
std::string ZuModGetModulePath(const char* name, bool usePerModuleDir);

}  // namespace zumod
