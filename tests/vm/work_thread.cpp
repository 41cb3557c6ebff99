#include "tests/vm/work_thread.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "tests/vm/device_requests.h"

namespace zumod::testing {
namespace {

std::filesystem::path FolderOf(pid_t thread) {
    return "/proc/self/task/" + std::to_string(thread);
}

struct Count {
    double nanoseconds = 0;
    double waits = 0;
    double dequeues = 0;
};

Count CountOf(pid_t thread) {
    Count count;
    count.dequeues = static_cast<double>(DequeuesOf(thread));
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

void PrintCostOf(pid_t thread, std::chrono::milliseconds time, const char* name) {
    const auto start = std::chrono::steady_clock::now();
    const Count before = CountOf(thread);
    std::this_thread::sleep_for(time);
    const Count after = CountOf(thread);
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    const auto per_second = [&](double Count::*part) {
        return (after.*part - before.*part) / passed.count();
    };
    std::printf(
        "[figure] %s: the work thread takes %.2f %% of a processor, waits %.1f and asks %.1f times a "
        "second\n",
        name, 100 * per_second(&Count::nanoseconds) / 1e9, per_second(&Count::waits),
        per_second(&Count::dequeues));
}

}  // namespace zumod::testing
