#include "common/command_line.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <string_view>

#include "common/duration.h"
#include "common/terminal_text.h"

namespace zumod {
namespace {

// A line of help, in several lines if it is too long. The description of an option, which starts at `column`,
// continues there.
std::string Wrapped(std::string line, size_t column) {
    constexpr std::string_view kUsage = "Usage: ";
    const size_t indent = line.starts_with("  ") ? column : line.starts_with(kUsage) ? kUsage.size() : 0;
    std::string wrapped;
    while (line.size() > kUsualColumns) {
        size_t space = line.rfind(' ', kUsualColumns);
        if (space == std::string::npos || space <= indent) {
            space = line.find(' ', kUsualColumns);
        }
        if (space == std::string::npos) {
            break;
        }
        wrapped += line.substr(0, space) + '\n';
        line = std::string(indent, ' ') + line.substr(space + 1);
    }
    return wrapped + line;
}

}  // namespace

void AddHelpAndVersion(CLI::App& app) {
    app.set_help_flag("-h,--help", "Print this text and exit");
    app.set_version_flag("-V,--version", app.get_name() + " " ZU_VERSION);
}

void AddModulesOption(CLI::App& app, std::string& directory, const std::string& files) {
    app.add_option("--modules", directory,
                   "The directory of " + files + " (default: the one that belongs to the program)")
        ->type_name("DIR")
        ->check(NotEmpty("path"));
}

void AddTimeOption(CLI::App& app, const std::string& name, const std::string& help,
                   const std::function<void(std::chrono::steady_clock::duration)>& set, ZeroTime zero) {
    using Duration = std::chrono::steady_clock::duration;
    const auto parse = [zero](const std::string& text) {
        return zero == ZeroTime::kTaken && text == "0" ? std::optional(Duration::zero())
                                                       : ParseDuration(text);
    };
    const auto check = [parse](const std::string& text) {
        return parse(text) ? "" : "takes a time such as 90, 1m30s or 00:01:30, not \"" + text + "\"";
    };
    app.add_option_function<std::string>(
           name, [parse, set](const std::string& text) { set(*parse(text)); }, help)
        ->type_name("TIME")
        ->check(CLI::Validator(check, ""));
}

CLI::Validator NotEmpty(const std::string& what) {
    return {[what](const std::string& text) { return text.empty() ? "takes a " + what : ""; }, ""};
}

Expected<void> ParseCommandLine(CLI::App& app, int count, const char* const* words) {
    try {
        app.parse(count, words);
    } catch (const CLI::Success& request) {
        std::stringstream out;
        app.exit(request, out, out);
        std::string text;
        for (std::string line; std::getline(out, line);) {
            text += Wrapped(line, app.get_formatter()->get_column_width()) + '\n';
        }
        return Fail(text, 0);
    } catch (const CLI::ParseError& error) {
        std::string text = error.what();
        std::replace(text.begin(), text.end(), '\n', ' ');
        return FailUsage(text);
    }
    return {};
}

}  // namespace zumod
