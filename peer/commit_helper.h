// A child process that gives an output file its name, for a program that enters a sandbox before the file is
// complete.
//
// The problem: a file gets its name by a rename. The right to rename in a directory includes everything below
// it, so a program that keeps it for a picture in the home directory could replace any file there. The helper
// is forked before the sandbox is entered. It knows how to commit this one file, or to give it up, and
// nothing else; the program can only choose between the two.
//
// The protocol, on a socket pair: one byte asks the helper to commit. It answers with the text of the
// failure, which is empty on success, and ends. If the program closes its end, or is killed, the helper gives
// up.
//
// Thread rule: one thread at a time; Start() before any other thread starts.
#pragma once

#include <sys/types.h>

#include <functional>
#include <utility>

#include "common/error.h"
#include "common/unique_fd.h"

namespace zumod::peer {

class CommitHelper {
public:
    // Exactly one of the functions is called, in the helper.
    static Expected<CommitHelper> Start(const std::function<Expected<void>()>& commit,
                                        const std::function<void()>& give_up);

    CommitHelper(CommitHelper&& other) noexcept
        : m_socket(std::move(other.m_socket)), m_process(std::exchange(other.m_process, -1)) {}
    CommitHelper& operator=(CommitHelper&&) = delete;
    // Waits for the helper.
    ~CommitHelper();

    // Returns what `commit` returned. Call once.
    Expected<void> Commit();

private:
    CommitHelper(UniqueFd socket, pid_t process) : m_socket(std::move(socket)), m_process(process) {}

    UniqueFd m_socket;
    pid_t m_process;
};

}  // namespace zumod::peer
