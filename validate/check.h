// A check, what it is given, and the ways in which it can end.
//
// A check is a function that returns if the module passes. It throws Finding if the module fails, and
// NotApplicable if there is nothing to check. Each check runs in a separate process, which ends afterwards: a
// check need not undo what it did.
//
// Thread rule: values; a check runs on the main thread of its process.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace zumod::validate {

enum class Severity {
    kMust,    // the contract requires it
    kShould,  // robustness that a good module has
    kNote,    // worth knowing
};

enum class ModuleKind { kUnknown, kCamera, kCodec };

// The modules that a check is for.
enum class Target { kBoth, kCamera, kCodec };

// The virtual cameras that a check needs.
enum class Cameras { kNone, kVirtual };

// How the process of a check ends once the check has passed.
enum class End {
    kAtOnce,
    kNormal,  // through the destructors that are left
};

struct Context {
    std::string file;
    ModuleKind kind = ModuleKind::kUnknown;
    uint64_t seed = 0;
};

struct Finding {
    std::string expected;
    std::string got;
};

struct NotApplicable {
    std::string reason;
};

struct Check {
    const char* name;
    Target target;
    Severity severity;
    const char* sentence;  // what a module that passes does
    const char* source;    // the header and operation that say so, or the reason
    void (*run)(const Context&);
    Cameras cameras = Cameras::kNone;
    End end = End::kAtOnce;
};

// The camera of the checks that need one, as zu-vcam takes it.
inline constexpr char kCheckCamera[] = "card=Validator,formats=NV12,sizes=64x48:96x64,fps=30";

// All checks, in the order in which they run.
std::span<const Check> Checks();

// Null if there is none of this name.
const Check* FindCheck(const std::string& name);

inline bool AppliesTo(const Check& check, ModuleKind kind) {
    return check.target == Target::kBoth ||
           (check.target == Target::kCamera && kind == ModuleKind::kCamera) ||
           (check.target == Target::kCodec && kind == ModuleKind::kCodec);
}

const char* SeverityName(Severity severity);
const char* KindName(ModuleKind kind);
const char* TargetName(Target target);

// Throws Finding if `holds` is false.
inline void Expect(bool holds, const std::string& expected, const std::string& got) {
    if (!holds) {
        throw Finding{expected, got};
    }
}

// Throws Finding if the numbers differ. `what` names the number.
template <class Number, class Other>
void ExpectEqual(const std::string& what, Number expected, Other got) {
    if (static_cast<int64_t>(expected) != static_cast<int64_t>(got)) {
        throw Finding{what + " is " + std::to_string(static_cast<int64_t>(expected)),
                      std::to_string(static_cast<int64_t>(got))};
    }
}

}  // namespace zumod::validate
