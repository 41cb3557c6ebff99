// zu-module-validate: checks whether a module does what the SDK requires.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "common/process_setup.h"
#include "common/safe_text.h"
#include "validate/child.h"
#include "validate/options.h"
#include "validate/report.h"
#include "validate/runner.h"
#include "validate/waivers.h"

namespace zumod::validate {
namespace {

constexpr char kProgram[] = "zu-module-validate";
// The address space of a check's process.
constexpr size_t kMemoryLimit = size_t{4} << 30;

// Runs one check here, for the runner or for a debugger.
int RunInProcess(const ValidateOptions& options) {
    const Context context{options.files.front(), options.kind, options.seed.value_or(0)};
    if (options.record >= 0) {
        const auto limit = std::chrono::ceil<std::chrono::milliseconds>(options.limit);
        PrepareChild({limit, kMemoryLimit}, options.record);
    }
    Context checked = context;
    if (options.record < 0 && context.kind == ModuleKind::kUnknown) {
        const auto module = ProbeModule(context);
        const bool known = module.size() > 1 && module.front() == kModuleRecord;
        checked.kind = known && module[1] == KindName(ModuleKind::kCamera)  ? ModuleKind::kCamera
                       : known && module[1] == KindName(ModuleKind::kCodec) ? ModuleKind::kCodec
                                                                            : ModuleKind::kUnknown;
    }
    const Check* const check = FindCheck(options.in_process);
    const auto record = check == nullptr ? ProbeModule(checked) : RunCheck(*check, checked);
    const std::string line = RecordLine(record);
    std::fflush(nullptr);
    if (options.record < 0) {
        std::cout << line << std::flush;
    } else if (write(options.record, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        return kExitFailure;
    }
    const int status = record.front() == kFailRecord ? kExitFailure : 0;
    if (check == nullptr || check->end == End::kAtOnce) {
        // The module may have left threads that use it.
        _exit(status);
    }
    return status;
}

Expected<std::vector<Waiver>> LoadWaivers(const std::string& path) {
    if (path.empty()) {
        return std::vector<Waiver>();
    }
    std::ifstream in(path);
    if (!in) {
        return Fail(SafeText(path) + ": " + ErrnoText(errno), kExitUsage);
    }
    return ReadWaivers(in, SafeText(path));
}

void Count(const Result& result, Severity fail_on, Summary& summary, bool& failed) {
    if (IsFailure(result.outcome)) {
        ++summary.failed;
        failed = failed || result.check->severity <= fail_on;
    } else if (result.outcome == Outcome::kSkipped) {
        ++summary.skipped;
    } else if (result.outcome == Outcome::kWaived) {
        ++summary.waived;
    } else {
        ++summary.passed;
    }
}

// Returns the exit status.
Expected<int> Validate(const ValidateOptions& options) {
    const StopSignals signals(StopSignals::Second::kEndsProcess);
    if (signals.Descriptor() < 0) {
        return Fail("signals cannot be received: " + ErrnoText(errno), kExitUsage);
    }
    Waiter waiter(&signals);
    const auto waivers = LoadWaivers(options.waivers);
    if (!waivers) {
        return Fail(waivers.error());
    }
    for (const std::string& file : options.files) {
        if (access(file.c_str(), R_OK) != 0) {
            return Fail(SafeText(file) + ": " + ErrnoText(errno), kExitUsage);
        }
    }
    const uint64_t seed = options.seed.value_or(std::random_device()());
    const RunLimits limits{options.limit, options.jobs};
    const auto modules = ProbeModules(options.files, options.kind, limits, waiter);
    if (!modules) {
        return Fail(modules.error().text, kExitUsage);
    }
    TextReport text(std::cout);
    JsonReport json(std::cout);
    JunitReport junit;
    Report& shown = options.json ? static_cast<Report&>(json) : text;
    const std::string today = Today();
    bool failed = false;
    bool checked = true;
    for (const ModuleFile& module : *modules) {
        std::vector<const Check*> checks;
        std::ranges::copy_if(options.checks, std::back_inserter(checks),
                             [&](const Check* check) { return AppliesTo(*check, module.kind); });
        shown.BeginModule(module, seed);
        junit.BeginModule(module, seed);
        Summary summary;
        const auto result = RunChecks(module, checks, seed, limits, waiter, [&](Result checked_result) {
            ApplyWaivers(*waivers, today, checked_result);
            Count(checked_result, options.fail_on, summary, failed);
            shown.Add(checked_result);
            junit.Add(checked_result);
        });
        if (!result) {
            return Fail(result.error().text, kExitUsage);
        }
        shown.EndModule(summary);
        junit.EndModule(summary);
        checked = checked && summary.passed + summary.failed + summary.waived > 0;
    }
    if (!options.junit.empty()) {
        std::ofstream out(options.junit);
        junit.Finish(out);
        out.close();
        if (!out) {
            return Fail(SafeText(options.junit) + " cannot be written", kExitUsage);
        }
    }
    // A module of which nothing could be checked has not passed.
    return failed ? kExitFailure : checked ? 0 : kExitUsage;
}

int RunProgram(int count, const char* const* words) {
    FillStandardDescriptors();
    const auto options = ParseOptions(count, words);
    if (!options) {
        return ReportError(kProgram, options.error());
    }
    using Command = ValidateOptions::Command;
    if (options->command == Command::kInProcess) {
        return RunInProcess(*options);
    }
    if (options->command == Command::kList) {
        ListChecks(std::cout, options->json);
        return 0;
    }
    if (options->command == Command::kExplain) {
        ExplainCheck(std::cout, *FindCheck(options->explained));
        return 0;
    }
    const auto status = Validate(*options);
    return status ? *status : ReportError(kProgram, status.error());
}

}  // namespace
}  // namespace zumod::validate

int main(int argc, char** argv) {
    // The only place that catches exceptions of this thread: the memory may be exhausted.
    try {
        return zumod::validate::RunProgram(argc, argv);
    } catch (const std::exception& exception) {
        return zumod::ReportError(zumod::validate::kProgram, {exception.what(), zumod::kExitUsage});
    }
}
