// Commands of the user that run by /bin/sh: what they start with, and how their end reads in a message.
//
// Thread rule: [any thread].
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "common/error.h"

namespace zumod {

struct ShellCommand {
    std::string text;
    // What it gets as standard input and output; -1: those of this process.
    int input = -1;
    int output = -1;
    bool has_own_group = false;  // a process group, so that kill(-pid) ends all that it has started
    char* const* environment = environ;
};

// Returns the process, which the caller must wait for. No signal is blocked in it, and SIGPIPE has its
// default action, whatever this process does with signals.
Expected<pid_t> StartShellCommand(const ShellCommand& command);

// How a process with this wait status has failed; empty if it has not.
std::string CommandFailure(int wait_status);

}  // namespace zumod
