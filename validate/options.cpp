#include "validate/options.h"

#include <algorithm>
#include <map>
#include <memory>
#include <regex>
#include <thread>

#include "common/command_line.h"
#include "common/parse_number.h"
#include "common/safe_text.h"
#include "validate/child.h"

namespace zumod::validate {
namespace {

constexpr char kProgram[] = "zu-module-validate";
constexpr char kUsage[] =
    "Usage: zu-module-validate [OPTION]... FILE...\n"
    "       zu-module-validate list [--json]\n"
    "       zu-module-validate explain CHECK\n";
constexpr char kDescription[] =
    "Checks whether a camera or codec module does what the SDK requires. Each check runs in a separate "
    "process.";
constexpr char kFooter[] =
    "A file named list or explain is given as ./list.\n"
    "Exit status: 0 all checks pass, 1 a check fails, 2 wrong options or a file that cannot be checked.";

class HelpFormatter : public CLI::Formatter {
public:
    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override { return kUsage; }
};

// What the command line says, as texts.
struct Words {
    std::vector<std::string> words;
    std::vector<std::string> only;
    std::vector<std::string> skip;
    std::string reproduce;
};

Expected<std::vector<std::regex>> Compile(const std::string& option, const std::vector<std::string>& texts) {
    std::vector<std::regex> expressions;
    for (const std::string& text : texts) {
        try {
            expressions.emplace_back(text, std::regex::extended);
        } catch (const std::regex_error&) {
            return FailUsage(option + ": \"" + SafeText(text) + "\" is not a regular expression");
        }
    }
    return expressions;
}

bool MatchesAny(const char* name, const std::vector<std::regex>& expressions) {
    return std::ranges::any_of(
        expressions, [name](const std::regex& expression) { return std::regex_search(name, expression); });
}

Expected<void> SelectChecks(const Words& words, ValidateOptions& options) {
    const auto only = Compile("--only", words.only);
    const auto skip = Compile("--skip", words.skip);
    if (!only || !skip) {
        return Fail(!only ? only.error() : skip.error());
    }
    for (const Check& check : Checks()) {
        if ((only->empty() || MatchesAny(check.name, *only)) && !MatchesAny(check.name, *skip)) {
            options.checks.push_back(&check);
        }
    }
    if (options.checks.empty()) {
        return FailUsage("--only and --skip leave no check");
    }
    return {};
}

Expected<void> SelectReproduced(const std::string& text, ValidateOptions& options) {
    const size_t colon = text.find(':');
    const Check* const check = FindCheck(text.substr(0, colon));
    if (check == nullptr) {
        return FailUsage("--reproduce: there is no check \"" + SafeText(text.substr(0, colon)) + "\"");
    }
    const auto seed =
        colon != std::string::npos ? ParseNumber<uint64_t>(text.substr(colon + 1)) : std::nullopt;
    if (!seed) {
        return FailUsage("--reproduce takes CHECK:SEED");
    }
    options.checks = {check};
    options.seed = seed;
    return {};
}

Expected<void> TakeWords(const Words& words, ValidateOptions& options) {
    const std::string first = words.words.empty() ? "" : words.words.front();
    if (!options.in_process.empty()) {
        options.command = ValidateOptions::Command::kInProcess;
        if (options.in_process != kProbe && FindCheck(options.in_process) == nullptr) {
            return FailUsage("there is no check \"" + SafeText(options.in_process) + "\"");
        }
        if (words.words.size() != 1) {
            return FailUsage("--in-process takes one FILE");
        }
    } else if (first == "list") {
        options.command = ValidateOptions::Command::kList;
        return words.words.size() == 1 ? Expected<void>() : FailUsage("list takes no FILE");
    } else if (first == "explain") {
        options.command = ValidateOptions::Command::kExplain;
        if (words.words.size() != 2) {
            return FailUsage("explain takes one CHECK");
        }
        options.explained = words.words.back();
        return FindCheck(options.explained) != nullptr
                   ? Expected<void>()
                   : FailUsage("there is no check \"" + SafeText(options.explained) + "\"");
    }
    if (words.words.empty()) {
        return FailUsage("no FILE given");
    }
    options.files = words.words;
    return words.reproduce.empty() ? SelectChecks(words, options)
                                   : SelectReproduced(words.reproduce, options);
}

}  // namespace

Expected<ValidateOptions> ParseOptions(int count, const char* const* words) {
    ValidateOptions options;
    options.jobs = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1U, 64U));
    Words texts;
    CLI::App app(kDescription, kProgram);
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(kFooter);
    AddHelpAndVersion(app);
    const auto add_list = [&app](const char* name, std::vector<std::string>& list, const char* help) {
        app.add_option(name, list, help)
            ->type_name("RE")
            ->allow_extra_args(false)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    };
    add_list("--only", texts.only, "Runs only checks whose name has a match; may be given several times");
    add_list("--skip", texts.skip, "Leaves out checks whose name has a match; may be given several times");
    const std::map<std::string, ModuleKind> kinds = {{"camera", ModuleKind::kCamera},
                                                     {"codec", ModuleKind::kCodec}};
    app.add_option("--kind", options.kind, "What the module is (default: what it creates)")
        ->type_name("camera|codec")
        ->transform(CLI::Transformer(kinds).description(""))
        ->check(CLI::Validator(
            [](const std::string& text) {
                return text.size() == 1 ? "" : "takes camera or codec, not \"" + SafeText(text) + "\"";
            },
            ""));
    const std::map<std::string, Severity> severities = {
        {"must", Severity::kMust}, {"should", Severity::kShould}, {"note", Severity::kNote}};
    app.add_option("--fail-on", options.fail_on,
                   "The least severity that counts as a failure (default: should)")
        ->type_name("must|should|note")
        ->transform(CLI::Transformer(severities).description(""))
        ->check(CLI::Validator(
            [](const std::string& text) {
                return text.size() == 1 ? "" : "takes must, should or note, not \"" + SafeText(text) + "\"";
            },
            ""));
    app.add_option("--jobs", options.jobs, "How many checks run at once (default: one for each processor)")
        ->type_name("N")
        ->check(CLI::Range(1, 64).description(""));
    AddTimeOption(app, "--timeout", "How long a check may take (default: 30)",
                  [&options](Clock::duration limit) { options.limit = limit; });
    app.add_option("--seed", options.seed,
                   "The seed of what checks choose at random (default: another each time)")
        ->type_name("N");
    app.add_option("--reproduce", texts.reproduce, "Repeats one check with the seed of an earlier run")
        ->type_name("CHECK:SEED");
    app.add_option("--in-process", options.in_process,
                   "Runs one check in this process, without limits, for a debugger")
        ->type_name("CHECK");
    app.add_option("--waivers", options.waivers, "Failures to accept for a while: lines of CHECK DATE REASON")
        ->type_name("PATH");
    app.add_flag("--json", options.json, "Prints one JSON object per line");
    app.add_option("--junit", options.junit, "Also writes the results to this file, in JUnit's form")
        ->type_name("PATH");
    app.add_option("--record", options.record)->group("");  // the runner's
    app.add_option("FILE", texts.words)->group("");         // described by the usage
    if (const auto result = ParseCommandLine(app, count, words); !result) {
        return Fail(result.error());
    }
    return TakeWords(texts, options).map([&] { return options; });
}

}  // namespace zumod::validate
