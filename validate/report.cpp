#include "validate/report.h"

#include <iomanip>
#include <sstream>

#include "common/safe_text.h"

namespace zumod::validate {
namespace {

using Fields = std::vector<std::pair<const char*, std::string>>;

// SafeText leaves '"' and makes every "\" begin an escape.
std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + "\"";
}

std::string JsonLine(const Fields& fields) {
    std::string line;
    for (const auto& [key, value] : fields) {
        line.append(line.empty() ? "{" : ", ").append(Quoted(key)).append(": ").append(value);
    }
    return line + "}\n";
}

std::string XmlText(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        escaped += c == '<'   ? "&lt;"
                   : c == '>' ? "&gt;"
                   : c == '&' ? "&amp;"
                   : c == '"' ? "&quot;"
                              : std::string(1, c);
    }
    return escaped;
}

std::string Seconds(std::chrono::duration<double> time) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(3) << time.count();
    return text.str();
}

// The lines of a process's output, safe for a terminal.
std::vector<std::string> OutputLines(const std::string& output) {
    std::vector<std::string> lines;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(SafeText(line));
    }
    return lines;
}

// As an argument for a shell.
std::string ShellWord(const std::string& word) {
    std::string quoted = "'";
    for (const char c : word) {
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return quoted + "'";
}

}  // namespace

void TextReport::BeginModule(const ModuleFile& module, uint64_t seed) {
    m_module = module;
    m_seed = seed;
    m_out << SafeText(module.path) << ": ";
    if (!module.problem.empty()) {
        m_out << module.problem << "; only checks for every module\n";
    } else {
        m_out << module.name << ", major version " << module.version << ", built " << module.build_stamp
              << ", kind " << KindName(module.kind) << '\n';
    }
    m_out << "validator " ZU_VERSION ", " ZU_MACHINE ", seed " << seed << '\n';
}

void TextReport::Add(const Result& result) {
    m_out << std::left << std::setw(8) << OutcomeName(result.outcome) << result.check->name;
    if (result.outcome == Outcome::kSkipped || result.outcome == Outcome::kWaived) {
        m_out << ": " << result.got;
    }
    m_out << '\n';
    if (!IsFailure(result.outcome)) {
        m_out.flush();
        return;
    }
    m_out << "    a module " << SeverityName(result.check->severity) << ": " << result.check->sentence << '\n'
          << "    expected:   " << result.expected << '\n'
          << "    got:        " << result.got << '\n'
          << "    written in: " << result.check->source << '\n'
          << "    run alone:  zu-module-validate --kind " << KindName(m_module.kind) << " --reproduce "
          << result.check->name << ':' << m_seed << " -- " << SafeText(ShellWord(m_module.path)) << '\n';
    for (const std::string& line : OutputLines(result.output)) {
        m_out << "    | " << line << '\n';
    }
    m_out.flush();
}

void TextReport::EndModule(const Summary& summary) {
    m_out << SafeText(m_module.path) << ": " << summary.passed << " passed, " << summary.failed << " failed, "
          << summary.skipped << " skipped, " << summary.waived << " waived\n";
    m_out.flush();
}

void JsonReport::BeginModule(const ModuleFile& module, uint64_t seed) {
    m_file = Quoted(SafeText(module.path));
    m_seed = seed;
    m_out << JsonLine({{"type", "\"module\""},
                       {"file", m_file},
                       {"kind", Quoted(KindName(module.kind))},
                       {"name", Quoted(module.name)},
                       {"major_version", Quoted(module.version)},
                       {"build_stamp", Quoted(module.build_stamp)},
                       {"problem", Quoted(module.problem)},
                       {"validator", Quoted(ZU_VERSION)},
                       {"machine", Quoted(ZU_MACHINE)},
                       {"seed", std::to_string(seed)}});
}

void JsonReport::Add(const Result& result) {
    std::string output;
    for (const std::string& line : OutputLines(result.output)) {
        output.append(output.empty() ? "" : ", ").append(Quoted(line));
    }
    m_out << JsonLine({{"type", "\"result\""},
                       {"file", m_file},
                       {"check", Quoted(result.check->name)},
                       {"severity", Quoted(SeverityName(result.check->severity))},
                       {"result", Quoted(OutcomeName(result.outcome))},
                       {"expected", Quoted(result.expected)},
                       {"got", Quoted(result.got)},
                       {"source", Quoted(result.check->source)},
                       {"seconds", Seconds(result.time)},
                       {"seed", std::to_string(m_seed)},
                       {"output", "[" + output + "]"}});
    m_out.flush();
}

void JsonReport::EndModule(const Summary& summary) {
    m_out << JsonLine({{"type", "\"summary\""},
                       {"file", m_file},
                       {"passed", std::to_string(summary.passed)},
                       {"failed", std::to_string(summary.failed)},
                       {"skipped", std::to_string(summary.skipped)},
                       {"waived", std::to_string(summary.waived)}});
    m_out.flush();
}

void JunitReport::BeginModule(const ModuleFile& module, uint64_t /*seed*/) {
    m_module = XmlText(SafeText(module.path));
    m_cases.clear();
}

void JunitReport::Add(const Result& result) {
    m_cases += "    <testcase classname=\"" + m_module + "\" name=\"" + result.check->name + "\" time=\"" +
               Seconds(result.time) + "\">";
    if (IsFailure(result.outcome)) {
        m_cases += std::string("<failure type=\"") + OutcomeName(result.outcome) + "\" message=\"" +
                   XmlText("expected: " + result.expected + "; got: " + result.got) + "\"/>";
    } else if (result.outcome != Outcome::kPass) {
        m_cases +=
            "<skipped message=\"" + XmlText(OutcomeName(result.outcome) + (": " + result.got)) + "\"/>";
    }
    m_cases += "</testcase>\n";
}

void JunitReport::EndModule(const Summary& summary) {
    const int skipped = summary.skipped + summary.waived;
    m_suites += "  <testsuite name=\"" + m_module + "\" tests=\"" +
                std::to_string(summary.passed + summary.failed + skipped) + "\" failures=\"" +
                std::to_string(summary.failed) + "\" skipped=\"" + std::to_string(skipped) + "\">\n" +
                m_cases + "  </testsuite>\n";
}

void JunitReport::Finish(std::ostream& out) const {
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n" << m_suites << "</testsuites>\n";
}

void ListChecks(std::ostream& out, bool json) {
    for (const Check& check : Checks()) {
        if (json) {
            out << JsonLine({{"check", Quoted(check.name)},
                             {"kind", Quoted(TargetName(check.target))},
                             {"severity", Quoted(SeverityName(check.severity))},
                             {"sentence", Quoted(check.sentence)},
                             {"source", Quoted(check.source)}});
        } else {
            out << std::left << std::setw(26) << check.name << std::setw(8) << TargetName(check.target)
                << std::setw(8) << SeverityName(check.severity) << check.sentence << '\n';
        }
    }
}

void ExplainCheck(std::ostream& out, const Check& check) {
    out << check.name << '\n'
        << "A module that passes " << check.sentence << ".\n"
        << "For:        "
        << (check.target == Target::kBoth     ? "camera and codec modules"
            : check.target == Target::kCamera ? "camera modules"
                                              : "codec modules")
        << '\n'
        << "Severity:   " << SeverityName(check.severity) << '\n'
        << "Written in: " << check.source << '\n'
        << "Run alone:  zu-module-validate --reproduce " << check.name << ":SEED FILE\n"
        << "In a debugger: gdb --args zu-module-validate --in-process " << check.name << " FILE\n";
}

}  // namespace zumod::validate
