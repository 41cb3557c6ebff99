// zu-vcam: runs a command with virtual cameras.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/command_line.h"
#include "common/error.h"
#include "common/module_directory.h"
#include "vcam/cli/control.h"
#include "vcam/cli/program_check.h"
#include "vcam/model/camera_option.h"
#include "vcam/model/camera_server.h"
#include "vcam/picture/pixel_format.h"

namespace zumod::vcam {
namespace {

constexpr char kProgram[] = "zu-vcam";
constexpr char kLibrary[] = "libzu-vcam-preload.so";
// As a shell reports a command that cannot be run, and one that does not exist.
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

constexpr char kUsage[] =
    "Usage: zu-vcam [--camera LIST]... [--name NAME] [--] COMMAND [ARGUMENT]...\n"
    "       zu-vcam ctl [--name NAME] CAMERA FAULT|clear|status\n";
constexpr char kDescription[] =
    "Runs COMMAND with virtual cameras at /dev/videoN, without a kernel module and without root. "
    "COMMAND and the programs it starts find them as they find a driver's cameras.";

class HelpFormatter : public CLI::Formatter {
public:
    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override { return kUsage; }
};

struct Options {
    std::vector<CameraConfig> cameras;
    std::string server_name;
    std::vector<std::string> command;
};

CLI::Option* AddNameOption(CLI::App& app, std::string& name, const std::string& help) {
    return app.add_option("--name", name, help)->type_name("NAME");
}

// As ParseCommandLine, with a plainer text for an option at the end of the line.
Expected<void> Parse(CLI::App& app, int count, const char* const* words) {
    auto result = ParseCommandLine(app, count, words);
    if (!result) {
        const std::string& text = result.error().text;
        if (const size_t end = text.find(": 1 required"); end != std::string::npos) {
            return FailUsage(text.substr(0, end) + " needs a value");
        }
    }
    return result;
}

// The words after the options. CLI11 also leaves a "--" and options that it does not know there.
Expected<std::vector<std::string>> CommandOf(const CLI::App& app) {
    std::vector<std::string> words = app.remaining();
    if (!words.empty() && words.front() == "--") {
        words.erase(words.begin());
    } else if (!words.empty() && words.front().rfind('-', 0) == 0) {
        return FailUsage("unknown option \"" + words.front() + "\"");
    }
    if (words.empty()) {
        return FailUsage("no command given");
    }
    return words;
}

Expected<Options> ParseOptions(int count, const char* const* words) {
    CLI::App app(kDescription, kProgram);
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(
        "Formats: " + FormatNames() +
        "\n\nctl injects a fault into camera CAMERA while it runs (0 is the first --camera).\n"
        "Exit status: COMMAND's; 128 and the number of the signal that ended it; 127 if there is no such "
        "command, 126 if it cannot be run; 2 wrong options, 1 another failure.");
    AddHelpAndVersion(app);
    Options options;
    std::vector<std::string> cameras;
    bool list_options = false;
    app.add_option("--camera", cameras,
                   "Adds a camera, as in card=Front,formats=NV12:YUYV,sizes=640x480,fps=30 "
                   "(default: one camera with the defaults); may be given several times")
        ->type_name("LIST")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    AddNameOption(app, options.server_name,
                  "Names the cameras' server, so that ctl finds it from outside COMMAND");
    app.add_flag("--list-options", list_options, "Prints every key of --camera and every fault");
    app.prefix_command();
    if (const auto result = Parse(app, count, words); !result) {
        return Fail(result.error());
    }
    if (list_options) {
        return Fail(DescribeOptions(), 0);
    }
    for (const std::string& text : cameras) {
        auto camera = ParseCamera(text);
        if (!camera) {
            return FailUsage("--camera: " + camera.error().text);
        }
        options.cameras.push_back(std::move(*camera));
    }
    auto command = CommandOf(app);
    if (!command) {
        return Fail(command.error());
    }
    options.command = std::move(*command);
    if (options.cameras.empty()) {
        options.cameras.emplace_back();
    }
    return options;
}

Expected<int> RunControl(int count, const char* const* words) {
    CLI::App app("Injects a fault into a running camera, removes its faults or prints its state.",
                 "zu-vcam ctl");
    app.formatter(std::make_shared<HelpFormatter>());
    AddHelpAndVersion(app);
    std::string name;
    std::vector<std::string> line;
    AddNameOption(app, name, "The cameras' server (default: the one whose COMMAND this runs in)");
    app.add_option("line", line)->group("");  // described by the usage
    if (const auto result = Parse(app, count, words); !result) {
        return Fail(result.error());
    }
    if (line.size() != 2) {
        return FailUsage("ctl takes the number of a camera and a command");
    }
    return SendControl(line[0] + " " + line[1], name).map([](const std::string& answer) {
        if (!answer.empty()) {
            std::printf("%s\n", answer.c_str());
        }
        return 0;
    });
}

// The server's threads do not use the environment.
// NOLINTBEGIN(concurrency-mt-unsafe)
void SetEnvironment(const std::string& library, const std::string& server_name) {
    const char* others = getenv("LD_PRELOAD");
    // Behind the others: a sanitizer's run-time library must be the first.
    const std::string preload = others == nullptr || *others == 0 ? library : others + (":" + library);
    setenv("LD_PRELOAD", preload.c_str(), 1);
    setenv(kServerVariable, server_name.c_str(), 1);
}
// NOLINTEND(concurrency-mt-unsafe)

[[noreturn]] void Execute(std::vector<std::string> command, const sigset_t& signals) {
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (std::string& word : command) {
        words.push_back(word.data());
    }
    words.push_back(nullptr);
    pthread_sigmask(SIG_SETMASK, &signals, nullptr);
    execvp(words[0], words.data());
    const int error = errno;
    std::fprintf(stderr, "%s: cannot run \"%s\": %s\n", kProgram, words[0], ErrnoText(error).c_str());
    _exit(error == ENOENT ? kNotFound : kCannotRun);
}

// Waits for the command to end and forwards signals to it. Returns its status as a shell would.
int Supervise(pid_t child, const sigset_t& signals) {
    for (;;) {
        siginfo_t info{};
        if (sigwaitinfo(&signals, &info) < 0) {
            continue;
        }
        if (info.si_signo != SIGCHLD) {
            // The kernel sends a terminal's signals to the command as well.
            if (info.si_code <= 0) {
                kill(child, info.si_signo);
            }
            continue;
        }
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
    }
}

Expected<int> RunCommand(Options options) {
    const std::string library = FindModuleDirectory() + "/" + kLibrary;
    if (access(library.c_str(), R_OK) != 0) {
        return Fail(std::string(kLibrary) + " is not where it belongs");
    }
    // Every thread inherits the mask: only sigwaitinfo receives these signals.
    sigset_t handled;
    sigset_t before;
    sigemptyset(&handled);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) {
        sigaddset(&handled, signal);
    }
    pthread_sigmask(SIG_BLOCK, &handled, &before);
    const auto log = [](const std::string& line) {
        std::fprintf(stderr, "%s: %s\n", kProgram, line.c_str());
    };
    const auto server = CameraServer::Start(std::move(options.cameras), options.server_name, log);
    if (!server) {
        return FailUsage(server.error().text);
    }
    const ProgramUser starter{geteuid(), getegid()};
    if (const std::string why = WhyWithoutCameras(FindProgram(options.command.front()), starter);
        !why.empty()) {
        std::fprintf(stderr, "%s: warning: %s, so it does not see the cameras\n", kProgram, why.c_str());
    }
    SetEnvironment(library, (*server)->Name());
    const pid_t child = fork();
    if (child < 0) {
        return Fail("cannot start a process: " + ErrnoText(errno));
    }
    if (child == 0) {
        Execute(std::move(options.command), before);
    }
    return Supervise(child, handled);
}

Expected<int> Run(int count, const char* const* words) {
    if (count >= 2 && std::string_view(words[1]) == "ctl") {
        return RunControl(count - 1, words + 1);
    }
    return ParseOptions(count, words).and_then(RunCommand);
}

}  // namespace
}  // namespace zumod::vcam

// NOLINTNEXTLINE(bugprone-exception-escape): an exception nobody expects may end the program
int main(int argc, char** argv) {
    const auto status = zumod::vcam::Run(argc, argv);
    return status ? *status : zumod::ReportError(zumod::vcam::kProgram, status.error());
}
