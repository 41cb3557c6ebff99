#include "host/options.h"

#include <CLI/CLI.hpp>
#include <ostream>
#include <utility>
#include <vector>

#include "zumod/runtime.h"

namespace zumod::host {
namespace {

constexpr char kDescription[] =
    "Lends this machine's cameras to a peer: loads the camera module and serves peers one\n"
    "after another, or the one at standard input and output.";
constexpr char kFooter[] =
    "SIGINT, SIGTERM and SIGHUP close every camera and end the program with status 0.\n"
    "Exit status: 0 done, 1 a failure, 2 wrong options.";

// Each level shows the ones before it too.
const std::map<std::string, uint32_t> kLevels = {
    {"error", kLogFailure},
    {"warning", kLogFailure | kLogIgnored},
    {"info", kLogFailure | kLogIgnored | kLogEvent},
    {"trace", kLogFailure | kLogIgnored | kLogEvent | kLogTrace},
};

std::string CheckProperty(const std::string& text) {
    const size_t equals = text.find('=');
    return equals == std::string::npos || equals == 0 ? "takes KEY=VALUE, not \"" + text + "\"" : "";
}

std::string CheckLevel(const std::string& text) {
    return kLevels.count(text) == 1 ? "" : "takes error, warning, info or trace, not \"" + text + "\"";
}

std::string CheckNotEmpty(const std::string& text) {
    return text.empty() ? "takes a path" : "";
}

// One line, whatever the library put into its text.
int WrongOptions(std::ostream& err, std::string text) {
    for (char& c : text) {
        c = c == '\n' ? ' ' : c;
    }
    err << "zu-camera-host: " << text << " (see --help)\n";
    return kExitWrongOptions;
}

}  // namespace

std::optional<int> ParseOptions(int count, const char* const* words, HostOptions& options, std::ostream& out,
                                std::ostream& err) {
    CLI::App app(kDescription, "zu-camera-host");
    app.footer(kFooter);
    app.set_version_flag("--version", "zu-camera-host " ZU_VERSION);
    app.set_help_flag("--help", "Print this text and exit");
    auto* listen = app.add_option("--listen", options.listen,
                                  "Serve peers one after another at this Unix socket. Its directory is made, "
                                  "for this user alone, if it is not there")
                       ->type_name("PATH")
                       ->check(CLI::Validator(CheckNotEmpty, ""));
    auto* stdio = app.add_flag("--stdio", options.stdio,
                               "Serve the one peer at standard input and output, and end with it");
    app.add_option("--modules", options.modules,
                   "The directory of zu-client-camera.so and zu-codec.so (default: beside the program)")
        ->type_name("DIR")
        ->check(CLI::Validator(CheckNotEmpty, ""));
    std::vector<std::string> properties;
    app.add_option("--env", properties,
                   "A property that modules can look up, as a text; may be given several times")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->check(CLI::Validator(CheckProperty, ""));
    std::string level = "info";
    app.add_option("--log-level", level,
                   "The lines to show: error (level bit 4), warning (and bit 2), info (and bit 1; the "
                   "default) or trace (and bit 8)")
        ->type_name("LEVEL")
        ->check(CLI::Validator(CheckLevel, ""));
    try {
        app.parse(count, words);
    } catch (const CLI::Success& wanted) {
        return app.exit(wanted, out, err);
    } catch (const CLI::ParseError& error) {
        return WrongOptions(err, error.what());
    }
    if (listen->count() != 0 && stdio->count() != 0) {
        return WrongOptions(err, "--listen and --stdio exclude each other");
    }
    if (listen->count() == 0 && stdio->count() == 0) {
        return WrongOptions(err, "give --listen PATH or --stdio");
    }
    for (const std::string& property : properties) {
        const size_t equals = property.find('=');
        options.properties[property.substr(0, equals)] = property.substr(equals + 1);
    }
    options.log_levels = kLevels.at(level);
    return std::nullopt;
}

}  // namespace zumod::host
