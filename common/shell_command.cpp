#include "common/shell_command.h"

#include <spawn.h>
#include <sys/wait.h>

#include <csignal>

namespace zumod {
namespace {

class SpawnSettings {
public:
    explicit SpawnSettings(const ShellCommand& command) {
        posix_spawn_file_actions_init(&actions);
        if (command.input >= 0) {
            posix_spawn_file_actions_adddup2(&actions, command.input, STDIN_FILENO);
        }
        if (command.output >= 0) {
            posix_spawn_file_actions_adddup2(&actions, command.output, STDOUT_FILENO);
        }
        posix_spawnattr_init(&attributes);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes, &signals);
        sigaddset(&signals, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &signals);
        posix_spawnattr_setpgroup(&attributes, 0);
        const int group = command.has_own_group ? POSIX_SPAWN_SETPGROUP : 0;
        posix_spawnattr_setflags(&attributes,
                                 static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | group));
    }
    ~SpawnSettings() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

}  // namespace

Expected<pid_t> StartShellCommand(const ShellCommand& command) {
    const SpawnSettings settings(command);
    std::string text = command.text;
    char shell[] = "sh";
    char option[] = "-c";
    char* words[] = {shell, option, text.data(), nullptr};
    pid_t child = -1;
    const int error =
        posix_spawn(&child, "/bin/sh", &settings.actions, &settings.attributes, words, command.environment);
    if (error != 0) {
        return Fail("the command cannot be started: " + ErrnoText(error));
    }
    return child;
}

std::string CommandFailure(int wait_status) {
    if (WIFSIGNALED(wait_status)) {
        return "the command was ended by signal " + std::to_string(WTERMSIG(wait_status));
    }
    const int exit_status = WEXITSTATUS(wait_status);
    return exit_status == 0 ? "" : "the command ended with status " + std::to_string(exit_status);
}

}  // namespace zumod
