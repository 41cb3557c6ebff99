// zu-vcam: runs a command with virtual cameras.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vcam/cli/control.h"
#include "vcam/model/camera_option.h"
#include "vcam/model/camera_server.h"

namespace zumod::vcam {
namespace {

constexpr int kUsageError = 2;
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

constexpr char kHelp[] =
    "Usage: zu-vcam [--camera KEY=VALUE,...]... [--name NAME] [--] COMMAND [ARGUMENT]...\n"
    "       zu-vcam ctl [--name NAME] CAMERA FAULT|clear|status\n"
    "\n"
    "Runs COMMAND with virtual cameras at /dev/videoN: no kernel module, no root. They behave like a\n"
    "driver, also towards the programs that COMMAND starts.\n"
    "\n"
    "  --camera LIST    a camera, as in card=\"Front Camera\",formats=NV12:YUYV,sizes=640x480,fps=30;\n"
    "                   may be given several times; one camera with defaults if it is not given\n"
    "  --name NAME      calls the cameras' server NAME, so that ctl can reach it from elsewhere\n"
    "  --list-options   prints every key of --camera and every fault\n"
    "  --help           this text\n"
    "\n"
    "ctl tells camera CAMERA (0 is the first that was given) what to do while it runs.\n";

int UsageError(const std::string& text) {
    std::fprintf(stderr, "zu-vcam: %s (see --help)\n", text.c_str());
    return kUsageError;
}

// The preload library beside the program in the build tree, under ../lib in an installed one.
std::string FindLibrary() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    if (length <= 0 || length == static_cast<ssize_t>(sizeof path)) {
        return {};
    }
    std::string directory(path, static_cast<size_t>(length));
    directory.resize(directory.rfind('/'));
    for (const char* place : {ZU_VCAM_LIBRARY_PLACES}) {
        std::string candidate = directory + "/" + place + "/" + ZU_VCAM_LIBRARY_NAME;
        if (access(candidate.c_str(), R_OK) == 0) {
            char* resolved = realpath(candidate.c_str(), nullptr);
            if (resolved != nullptr) {
                candidate = resolved;
                std::free(resolved);
            }
            return candidate;
        }
    }
    return {};
}

struct Arguments {
    std::vector<CameraConfig> cameras;
    std::string name;
    std::vector<char*> command;
};

int RunControl(int count, char** words) {
    int next = 0;
    std::string name;
    if (count >= 2 && std::strcmp(words[0], "--name") == 0) {
        name = words[1];
        next = 2;
    }
    if (count - next != 2) {
        return UsageError("ctl takes the number of a camera and a command");
    }
    std::string answer;
    const bool good = SendControl(std::string(words[next]) + " " + words[next + 1], answer, name);
    if (!good) {
        std::fprintf(stderr, "zu-vcam: %s\n", answer.c_str());
        return kUsageError;
    }
    if (!answer.empty()) {
        std::printf("%s\n", answer.c_str());
    }
    return 0;
}

// 0 to go on, otherwise the exit status plus one.
int ReadArguments(int count, char** words, Arguments& arguments) {
    int next = 1;
    while (next < count && words[next][0] == '-') {
        const std::string word = words[next++];
        if (word == "--") {
            break;
        }
        if (word == "--help") {
            std::fputs(kHelp, stdout);
            return 1;
        }
        if (word == "--list-options") {
            std::fputs(DescribeOptions().c_str(), stdout);
            return 1;
        }
        if (word != "--camera" && word != "--name") {
            return 1 + UsageError("unknown option \"" + word + "\"");
        }
        if (next == count) {
            return 1 + UsageError(word + " needs a value");
        }
        const char* value = words[next++];
        if (word == "--name") {
            arguments.name = value;
            continue;
        }
        CameraConfig config;
        std::string error;
        if (!ParseCamera(value, config, error)) {
            return 1 + UsageError("--camera: " + error);
        }
        arguments.cameras.push_back(config);
    }
    arguments.command.assign(words + next, words + count);
    arguments.command.push_back(nullptr);
    return 0;
}

void SetEnvironment(const std::string& library, const std::string& server_name) {
    const char* others = getenv("LD_PRELOAD");
    // After the others: a sanitizer's run time insists on being the first.
    const std::string preload = others == nullptr || *others == 0 ? library : others + (":" + library);
    setenv("LD_PRELOAD", preload.c_str(), 1);
    setenv(kServerVariable, server_name.c_str(), 1);
}

[[noreturn]] void Execute(const std::vector<char*>& command, const sigset_t& signals) {
    sigprocmask(SIG_SETMASK, &signals, nullptr);
    execvp(command[0], command.data());
    const int error = errno;
    std::fprintf(stderr, "zu-vcam: cannot run \"%s\": %s\n", command[0], std::strerror(error));
    _exit(error == ENOENT ? kNotFound : kCannotRun);
}

// Waits for the command and passes on what it is sent; its status as a shell gives it.
int Supervise(pid_t child, const sigset_t& signals) {
    for (;;) {
        siginfo_t info{};
        if (sigwaitinfo(&signals, &info) < 0) {
            continue;
        }
        if (info.si_signo != SIGCHLD) {
            // What a terminal sends reaches the command by itself.
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

int Run(int count, char** words) {
    if (count >= 2 && std::strcmp(words[1], "ctl") == 0) {
        return RunControl(count - 2, words + 2);
    }
    Arguments arguments;
    if (const int result = ReadArguments(count, words, arguments); result != 0) {
        return result - 1;
    }
    if (arguments.command[0] == nullptr) {
        return UsageError("no command given");
    }
    if (arguments.cameras.empty()) {
        arguments.cameras.emplace_back();
    }
    const std::string library = FindLibrary();
    if (library.empty()) {
        std::fprintf(stderr, "zu-vcam: %s is not where it belongs\n", ZU_VCAM_LIBRARY_NAME);
        return 1;
    }
    // Every thread inherits the mask: signals wait for sigwaitinfo.
    sigset_t handled;
    sigset_t before;
    sigemptyset(&handled);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) {
        sigaddset(&handled, signal);
    }
    sigprocmask(SIG_BLOCK, &handled, &before);
    std::string error;
    const auto server = CameraServer::Start(std::move(arguments.cameras), error, arguments.name);
    if (!server) {
        return UsageError(error);
    }
    SetEnvironment(library, server->Name());
    const pid_t child = fork();
    if (child < 0) {
        std::fprintf(stderr, "zu-vcam: cannot start a process: %s\n", std::strerror(errno));
        return 1;
    }
    if (child == 0) {
        Execute(arguments.command, before);
    }
    return Supervise(child, handled);
}

}  // namespace
}  // namespace zumod::vcam

int main(int argc, char** argv) {
    return zumod::vcam::Run(argc, argv);
}
