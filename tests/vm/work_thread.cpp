#include "tests/vm/work_thread.h"

#include <filesystem>
#include <fstream>
#include <thread>

namespace zumod::testing {
namespace {

std::filesystem::path FolderOf(pid_t thread) {
    return "/proc/self/task/" + std::to_string(thread);
}

struct Count {
    double nanoseconds = 0;
    double waits = 0;
};

Count CountOf(pid_t thread) {
    Count count;
    std::ifstream(FolderOf(thread) / "schedstat") >> count.nanoseconds;
    std::ifstream status(FolderOf(thread) / "status");
    for (std::string word; status >> word;) {
        if (word == "voluntary_ctxt_switches:") {
            status >> count.waits;
        }
    }
    return count;
}

}  // namespace

std::vector<pid_t> ThreadsNamed(const std::string& name) {
    std::vector<pid_t> threads;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string found;
        std::getline(std::ifstream(entry.path() / "comm") >> std::ws, found);
        if (found == name) {
            threads.push_back(std::stoi(entry.path().filename()));
        }
    }
    return threads;
}

ThreadCost CostOf(pid_t thread, std::chrono::milliseconds time) {
    const auto start = std::chrono::steady_clock::now();
    const Count before = CountOf(thread);
    std::this_thread::sleep_for(time);
    const Count after = CountOf(thread);
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    return {(after.nanoseconds - before.nanoseconds) / 1e9 / passed.count(),
            (after.waits - before.waits) / passed.count()};
}

}  // namespace zumod::testing
