// The mappings of a file in this process.
//
// Thread rule: pure function; any thread.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace zumod::testing {

// How many times the file is mapped: the number of mappings that begin with its first byte.
inline int TimesMapped(const std::string& path) {
    const std::string wanted = std::filesystem::weakly_canonical(path);
    std::ifstream maps("/proc/self/maps");
    int times = 0;
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::string addresses, rights, offset, device, inode, file;
        fields >> addresses >> rights >> offset >> device >> inode >> std::ws;
        std::getline(fields, file);
        times += file == wanted && offset.find_first_not_of('0') == std::string::npos ? 1 : 0;
    }
    return times;
}

}  // namespace zumod::testing
