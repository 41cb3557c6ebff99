// Runs checks, each in a separate process, some at once.
//
// Thread rule: one thread at a time.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "validate/result.h"

namespace zumod::validate {

struct RunLimits {
    Clock::duration time;  // for each check
    int jobs;              // at once
};

// Finds out what each module is. `kind`: what the user says that it is.
Expected<std::vector<ModuleFile>> ProbeModules(const std::vector<std::string>& files, ModuleKind kind,
                                               const RunLimits& limits, Waiter& waiter);

// Runs these checks on the module. Calls `report` for each, in the order of `checks`. Fails if a signal
// interrupts it or processes cannot be started; no process is left then.
Expected<void> RunChecks(const ModuleFile& module, const std::vector<const Check*>& checks, uint64_t seed,
                         const RunLimits& limits, Waiter& waiter,
                         const std::function<void(const Result&)>& report);

}  // namespace zumod::validate
