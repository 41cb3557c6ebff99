// A check inside the process that runs it, and the record of its result, a line of fields that tabs separate.
//
// Design. The process of a check may end at any time: the module crashes, calls exit() or blocks. So the
// process reports as much as it can itself, where names and stacks are known: a signal handler writes the
// record of a crash and the stack, and an alarm writes the record of a hang and the stacks of all threads.
// The handlers use no memory from malloc, whose lock the stopped thread may hold. Only if the process says
// nothing does the runner judge by its exit status, or end it.
//
// The last record counts, because a module may crash after its check has passed. A module could write a false
// record: the validator finds mistakes, not deception.
//
// Thread rule: the main thread, before the module is loaded.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "validate/check.h"

namespace zumod::validate {

// The first field of a record.
inline constexpr char kPassRecord[] = "pass";
inline constexpr char kFailRecord[] = "fail";    // then what was expected and what came
inline constexpr char kSkipRecord[] = "skip";    // then the reason
inline constexpr char kCrashRecord[] = "crash";  // then the signal
inline constexpr char kHangRecord[] = "hang";
inline constexpr char kModuleRecord[] = "module";  // then kind, name, version, build stamp

// In place of the name of a check: finds out what the module is.
inline constexpr char kProbe[] = "probe";

struct ChildLimits {
    std::chrono::milliseconds time;
    size_t memory;  // bytes of address space
};

// Sets limits and handlers for the rest of the process. The handlers write to `record`.
void PrepareChild(const ChildLimits& limits, int record);

// Runs the check. Returns its record.
std::vector<std::string> RunCheck(const Check& check, const Context& context);

// The record of kProbe. If the kind in `context` is known, it is not changed.
std::vector<std::string> ProbeModule(const Context& context);

// As a line, with every control character replaced.
std::string RecordLine(const std::vector<std::string>& record);
std::vector<std::string> ParseRecord(const std::string& line);

}  // namespace zumod::validate
