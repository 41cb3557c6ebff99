#include "validate/process_look.h"

#include <malloc.h>

#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>

namespace zumod::validate {
namespace {

namespace fs = std::filesystem;

struct Mapping {
    uint64_t begin = 0;
    uint64_t end = 0;
    bool executable = false;
};

// Calls `visit` for each line of /proc/self/maps, "BEGIN-END rwxp OFFSET DEVICE INODE   PATH".
template <class Visit>
void ForEachMapping(const Visit& visit) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        Mapping mapping;
        const char* const end = line.data() + line.size();
        const auto first = std::from_chars(line.data(), end, mapping.begin, 16);
        const auto second = std::from_chars(first.ptr + 1, end, mapping.end, 16);
        mapping.executable = end - second.ptr > 3 && second.ptr[3] == 'x';
        visit(mapping);
    }
}

}  // namespace

size_t ThreadCount() {
    return static_cast<size_t>(
        std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
}

std::set<std::string> OpenDescriptors() {
    std::set<std::string> descriptors;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const fs::path target = fs::read_symlink(entry.path(), error);
        // Not the one that reads this directory.
        if (!error && target.string().find("/proc/") != 0) {
            descriptors.insert(entry.path().filename().string() + " -> " + target.string());
        }
    }
    return descriptors;
}

bool IsExecutable(const void* address) {
    const auto number = reinterpret_cast<uint64_t>(address);
    bool executable = false;
    ForEachMapping([&](const Mapping& mapping) {
        executable = executable || (mapping.executable && number >= mapping.begin && number < mapping.end);
    });
    return executable;
}

size_t HeapInUse() {
    const auto information = mallinfo2();
    return information.uordblks + information.hblkhd;
}

}  // namespace zumod::validate
