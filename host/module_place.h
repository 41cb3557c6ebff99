// Where the modules are, seen from the program.
#pragma once

#include <string>

namespace zumod::host {

// The directory without a "/" at its end.
std::string WithoutTrailingSlash(std::string directory);

// [any thread]. The module directory of the install tree or of the build tree that the program stands in;
// empty when neither is there.
std::string FindModuleDirectory();

}  // namespace zumod::host
