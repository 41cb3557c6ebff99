#include "peer/commit_helper.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string>

namespace zumod::peer {
namespace {

// Reads what is there, up to the buffer's size. Retries on EINTR.
ssize_t ReadSome(const UniqueFd& socket, char* buffer, size_t size) {
    for (;;) {
        const ssize_t count = read(socket.Get(), buffer, size);
        if (count >= 0 || errno != EINTR) {
            return count;
        }
    }
}

// The body of the helper. Stop signals are blocked in it, as in the program: it ends with the program.
void Serve(const UniqueFd& socket, const std::function<Expected<void>()>& commit,
           const std::function<void()>& give_up) {
    char request = 0;
    if (ReadSome(socket, &request, 1) != 1) {
        give_up();
        return;
    }
    const auto result = commit();
    if (!result) {
        const std::string& text = result.error().text;
        // One write: the text is shorter than the socket's buffer. Without a reader it is lost.
        [[maybe_unused]] const ssize_t count = send(socket.Get(), text.data(), text.size(), MSG_NOSIGNAL);
    }
}

}  // namespace

Expected<CommitHelper> CommitHelper::Start(const std::function<Expected<void>()>& commit,
                                           const std::function<void()>& give_up) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return Fail("no socket for a helper process: " + ErrnoText(errno));
    }
    UniqueFd ours(ends[0]);
    const UniqueFd of_helper(ends[1]);
    const pid_t process = fork();
    if (process < 0) {
        return Fail("no helper process: " + ErrnoText(errno));
    }
    if (process == 0) {
        // The helper must see the end of the program: it keeps no copy of the program's end.
        ours.Reset();
        try {
            Serve(of_helper, commit, give_up);
        } catch (const std::exception&) {
            // Without an answer, which the program reports.
            _exit(1);
        }
        _exit(0);
    }
    return CommitHelper(std::move(ours), process);
}

CommitHelper::~CommitHelper() {
    m_socket.Reset();
    if (m_process >= 0) {
        waitpid(m_process, nullptr, 0);
    }
}

Expected<void> CommitHelper::Commit() {
    const bool asked = send(m_socket.Get(), "c", 1, MSG_NOSIGNAL) == 1;
    std::string failure;
    char buffer[4096];
    for (ssize_t count = 0; asked && (count = ReadSome(m_socket, buffer, sizeof buffer)) > 0;) {
        failure.append(buffer, static_cast<size_t>(count));
    }
    int status = 0;
    const bool ended = waitpid(std::exchange(m_process, -1), &status, 0) > 0 && status == 0;
    if (!failure.empty()) {
        return Fail(failure);
    }
    return asked && ended ? Expected<void>() : Fail("the helper process that writes files has ended");
}

}  // namespace zumod::peer
