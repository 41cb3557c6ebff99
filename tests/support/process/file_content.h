// The current content of a file.
//
// Thread rule: pure function; any thread.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace zumod::testing {

// All its bytes; empty if there is no such file.
inline std::string FileContent(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace zumod::testing
