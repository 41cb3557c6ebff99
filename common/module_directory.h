// The directory of the modules that belong to the running program.
//
// Thread rule: any thread.
#pragma once

#include <string>

namespace zumod {

// The module directory of the install tree or of the build tree that the program is in, without a "/" at its
// end; empty if there is none.
std::string FindModuleDirectory();

}  // namespace zumod
