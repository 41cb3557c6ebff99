// A program that a test starts, with its standard error in a file. The destructor kills it if it still
// runs.
//
// Thread rule: one thread at a time.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/support/process/file_content.h"
#include "tests/support/watch/wait_until.h"

namespace zumod::testing {

class ChildProcess {
public:
    // Standard input and output are these descriptors, or /dev/null. `errors` is the file for standard error.
    ChildProcess(std::vector<std::string> words, std::string errors, int in = -1, int out = -1)
        : m_errors(std::move(errors)) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        Direct(actions, in, STDIN_FILENO);
        Direct(actions, out, STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_errors.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        std::vector<char*> pointers;
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        EXPECT_EQ(posix_spawn(&m_pid, pointers[0], &actions, nullptr, pointers.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~ChildProcess() {
        if (!m_status) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return m_pid; }
    void Signal(int signal) const { EXPECT_EQ(kill(m_pid, signal), 0); }

    // Waits for its end. Returns the exit status, 128 plus the signal's number, or -1 if it does not end
    // in time.
    int Wait() {
        EXPECT_TRUE(WaitUntil([this] { return HasEnded(); })) << "does not end; it said:\n" << Errors();
        return m_status.value_or(-1);
    }

    bool HasEnded() {
        int status = 0;
        if (!m_status && waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return m_status.has_value();
    }

    // What it has written on standard error so far.
    std::string Errors() const { return FileContent(m_errors); }

    // Waits until it has written this text or has ended. Returns whether it has written it.
    bool Says(const std::string& text) {
        const auto has = [&] { return Errors().find(text) != std::string::npos; };
        WaitUntil([&] { return has() || HasEnded(); });
        return has();
    }

private:
    static void Direct(posix_spawn_file_actions_t& actions, int descriptor, int standard) {
        if (descriptor >= 0) {
            posix_spawn_file_actions_adddup2(&actions, descriptor, standard);
        } else {
            posix_spawn_file_actions_addopen(&actions, standard, "/dev/null", O_RDWR, 0);
        }
    }

    const std::string m_errors;
    pid_t m_pid = -1;
    std::optional<int> m_status;
};

}  // namespace zumod::testing
