// The command line of zu-module-validate.
//
// Thread rule: values and a pure function; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "validate/check.h"

namespace zumod::validate {

struct ValidateOptions {
    enum class Command { kCheck, kList, kExplain, kInProcess };

    Command command = Command::kCheck;
    std::vector<std::string> files;
    std::string explained;             // the name of a check
    std::string in_process;            // likewise, or "probe"
    int record = -1;                   // the descriptor for the record of a check
    std::vector<const Check*> checks;  // selected by --only, --skip and --reproduce
    ModuleKind kind = ModuleKind::kUnknown;
    Severity fail_on = Severity::kShould;
    int jobs = 1;
    Clock::duration limit = std::chrono::seconds(30);
    std::optional<uint64_t> seed;
    bool json = false;
    std::string junit;    // a file
    std::string waivers;  // a file
};

// The error is a mistake, or the text that --help or --version asks for.
Expected<ValidateOptions> ParseOptions(int count, const char* const* words);

}  // namespace zumod::validate
