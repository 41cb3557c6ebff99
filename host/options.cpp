#include "host/options.h"

#include <vector>

#include "common/command_line.h"
#include "common/parse_number.h"
#include "common/unix_socket.h"
#include "host/host_log.h"

namespace zumod::host {
namespace {

constexpr size_t kMostPeers = 256;
constexpr char kDescription[] =
    "Lends this machine's cameras to peers: loads the camera module and serves the peers at a "
    "socket, or the one at standard input and output.";
constexpr char kFooter[] =
    "SIGINT, SIGTERM and SIGHUP close every camera and end the program with status 0.\n"
    "Exit status: 0 done, 1 a failure, 2 wrong options.";

std::string CheckProperty(const std::string& text) {
    const size_t equals = text.find('=');
    return equals == std::string::npos || equals == 0 ? "takes KEY=VALUE, not \"" + text + "\"" : "";
}

// A path that looks like an address of a network: "tcp://…", "HOST:PORT" or a port's number.
bool IsNetworkAddress(const std::string& text) {
    const size_t end = text.find_last_not_of("0123456789");
    const bool has_number = end != text.size() - 1;
    return text.find("://") != std::string::npos || (text.find('/') == std::string::npos && has_number &&
                                                     (end == std::string::npos || text[end] == ':'));
}

std::string CheckSocketPath(const std::string& text) {
    return IsNetworkAddress(text)
               ? "takes the path of a Unix socket, not \"" + text +
                     "\"; over a network use ssh: zu-camera-peer --exec 'ssh MACHINE zu-camera-host --stdio'"
               : "";
}

std::string CheckLevel(const std::string& text) {
    return LevelsUpTo(text) ? "" : "takes error, warning, info or trace, not \"" + text + "\"";
}

std::string CheckPeers(const std::string& text) {
    const auto number = ParseNumber<size_t>(text);
    return number && *number >= 1 && *number <= kMostPeers
               ? ""
               : "takes a number from 1 to " + std::to_string(kMostPeers) + ", not \"" + text + "\"";
}

void AddCommand(CLI::App& app, const char* name, std::string& command, const char* help) {
    app.add_option(name, command, help)->type_name("COMMAND")->check(NotEmpty("command"));
}

void AddPatterns(CLI::App& app, const char* name, std::vector<std::string>& patterns, const char* help) {
    app.add_option(name, patterns, help)
        ->type_name("PATTERN")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

}  // namespace

Expected<HostOptions> ParseOptions(int count, const char* const* words) {
    HostOptions options;
    std::vector<std::string> properties;
    std::string level;
    CLI::App app(kDescription, "zu-camera-host");
    app.footer(kFooter);
    AddHelpAndVersion(app);
    app.add_option("--listen", options.listen,
                   "Serve peers at this Unix socket. Its directory is created, for this user only, if it "
                   "does not exist")
        ->type_name("PATH")
        ->expected(0, 1)
        ->default_str(DefaultSocketPath())  // without a value
        ->check(CLI::Validator(CheckSocketPath, ""));
    app.add_option("--peers", options.limits.peers,
                   "How many peers are served at once, at most; without it 16")
        ->type_name("N")
        ->check(CLI::Validator(CheckPeers, ""));
    PeerLimits& limits = options.limits.each;
    AddTimeOption(
        app, "--idle",
        "Disconnect a peer that has no camera open and asks for nothing for this time; without it 60, 0: "
        "never",
        [&](Clock::duration idle) { limits.idle = idle; }, ZeroTime::kTaken);
    AddTimeOption(
        app, "--stuck",
        "Disconnect a peer that receives nothing for this time although something waits for it; "
        "without it 20, 0: never",
        [&](Clock::duration stuck) { limits.stuck = stuck; }, ZeroTime::kTaken);
    AddPatterns(app, "--allow", options.lending.allow,
                "Lend only cameras whose name or bus matches this pattern, such as 'Desk*'; may be given "
                "several times");
    AddPatterns(
        app, "--deny", options.lending.deny,
        "Lend no camera whose name or bus matches this pattern, even if --allow matches; may be given "
        "several times");
    app.add_flag("--list-only", options.lending.list_only, "List cameras, but open none");
    HelperCommands& commands = options.commands;
    AddCommand(app, "--ask", commands.ask,
               "Run this command before a peer may open a camera; exit status 0 allows it. The manual page "
               "lists its variables");
    AddTimeOption(app, "--ask-timeout", "How long the command of --ask may run; without it 30",
                  [&](Clock::duration limit) {
                      commands.ask_limit = std::chrono::duration_cast<std::chrono::milliseconds>(limit);
                  });
    AddCommand(app, "--on-open", commands.on_open, "Run this command when a peer has opened a camera");
    AddCommand(app, "--on-close", commands.on_close, "Run this command when a peer has closed a camera");
    app.add_flag("--stdio", options.stdio,
                 "Serve the one peer at standard input and output, and end with it");
    AddModulesOption(app, options.modules, "zu-client-camera.so and zu-codec.so");
    app.add_option("--env", properties,
                   "A text property that modules can look up; may be given several times")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->check(CLI::Validator(CheckProperty, ""));
    app.add_option(
           "--log-level", level,
           "The lines to show: error (level bit 4), warning (and bit 2; the default of --stdio), info "
           "(and bit 1; the default of --listen) or trace (and bit 8)")
        ->type_name("LEVEL")
        ->check(CLI::Validator(CheckLevel, ""));
    app.add_flag_callback(
        "--no-sandbox", [&options] { options.sandbox = false; },
        "Keep every right of the user: for debuggers, and for codec modules that need more than the sandbox "
        "permits");
    if (const auto result = ParseCommandLine(app, count, words); !result) {
        return Fail(result.error());
    }
    const bool listens = app.count("--listen") != 0;
    if (listens && options.listen.empty()) {
        return FailUsage("--listen: takes a path");
    }
    if (listens && options.stdio) {
        return FailUsage("--listen and --stdio exclude each other");
    }
    if (!listens && !options.stdio) {
        return FailUsage("give --listen or --stdio");
    }
    options.commands.describes_peers = listens;
    options.lending.ask = app.count("--ask") != 0;
    for (const std::string& property : properties) {
        const size_t equals = property.find('=');
        options.properties[property.substr(0, equals)] = property.substr(equals + 1);
    }
    // With --stdio the log appears on the terminal of the peer's user.
    options.log_levels = *LevelsUpTo(!level.empty() ? level : options.stdio ? "warning" : "info");
    return options;
}

}  // namespace zumod::host
