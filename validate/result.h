// What a check of a module came to.
//
// Thread rule: values.
#pragma once

#include <chrono>
#include <string>

#include "validate/check.h"

namespace zumod::validate {

enum class Outcome { kPass, kFail, kCrash, kHang, kSkipped, kWaived };

struct Result {
    const Check* check = nullptr;  // null: the module as a whole
    Outcome outcome = Outcome::kPass;
    std::string expected;
    std::string got;     // also the reason of kSkipped and kWaived
    std::string output;  // what the process of the check printed: stacks, lines of the module; may be cut
    std::chrono::duration<double> time{};
};

// A module file, and what is known about it.
struct ModuleFile {
    std::string path;
    ModuleKind kind = ModuleKind::kUnknown;
    std::string name;
    std::string version;
    std::string build_stamp;
    std::string problem;  // why it could not be asked; empty if it could
};

inline bool IsFailure(Outcome outcome) {
    return outcome == Outcome::kFail || outcome == Outcome::kCrash || outcome == Outcome::kHang;
}

const char* OutcomeName(Outcome outcome);

}  // namespace zumod::validate
