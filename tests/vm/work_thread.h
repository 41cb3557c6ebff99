// What a capture thread costs: processor time and context switches, as the kernel counts them.
//
// Thread rule: any thread.
#pragma once

#include <sys/types.h>

#include <chrono>

namespace zumod::testing {

// Prints, as a figure of that name, what the thread does within that time: how much of a processor it takes,
// how often it gives it away, how often it asks for a filled buffer.
void PrintCostOf(pid_t thread, std::chrono::milliseconds time, const char* name);

}  // namespace zumod::testing
