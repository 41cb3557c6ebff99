// The cost of a capture thread: processor time and context switches, as counted by the kernel.
//
// Thread rule: any thread.
#pragma once

#include <sys/types.h>

#include <chrono>

namespace zumod::testing {

// Observes the thread for this time and prints under this name how much processor time it used, how often
// it waited and how often it asked for a filled buffer.
void PrintCostOf(pid_t thread, std::chrono::milliseconds time, const char* name);

}  // namespace zumod::testing
