// What the module's capture threads cost: processor time and context switches, as the kernel counts them.
//
// Thread rule: any thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace zumod::testing {

// The threads of this process with that name.
std::vector<pid_t> ThreadsNamed(const std::string& name);

struct ThreadCost {
    double processor_share;  // of one processor
    double waits_a_second;   // how often it gave the processor away
};

// Over that time, in which the thread does what it does. Zeros when it has ended.
ThreadCost CostOf(pid_t thread, std::chrono::milliseconds time);

}  // namespace zumod::testing
