#include "host/helper.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <deque>
#include <exception>
#include <string_view>
#include <vector>

#include "common/safe_text.h"
#include "common/shell_command.h"
#include "common/waiter.h"

namespace zumod::host {
namespace {

enum class Kind : uint32_t { kAsk, kOpen, kClose, kCancel };

struct Request {
    Kind kind = Kind::kAsk;
    uint64_t number = 0;
    CameraUse use;
};
static_assert(std::is_trivially_copyable_v<Request>);

constexpr int kSocketNumber = STDERR_FILENO + 1;
constexpr size_t kLongestCommandLine = 128;
constexpr const char* kEventNames[] = {"ask", "open", "close"};
constexpr const char* kOptionNames[] = {"--ask", "--on-open", "--on-close"};

// Sends without waiting.
template <class Record>
bool SendRecord(int socket, const Record& record) {
    return send(socket, &record, sizeof record, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof record;
}

// Nothing if there is no record now. Fails at the end, and for anything that is not a record.
template <class Record>
Expected<std::optional<Record>> ReceiveRecord(int socket) {
    Record record;
    const ssize_t count = recv(socket, &record, sizeof record, MSG_DONTWAIT | MSG_TRUNC);
    if (count == sizeof record) {
        return record;
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return std::nullopt;
    }
    return Fail("the helper process is gone");
}

template <size_t kSize>
std::string TextOf(const char (&field)[kSize]) {
    return {field, strnlen(field, kSize)};
}

class Environment {
public:
    Environment() {
        for (char** variable = environ; *variable != nullptr; ++variable) {
            if (!std::string_view(*variable).starts_with("ZU_CAMERA_")) {
                m_variables.emplace_back(*variable);
            }
        }
    }
    void Set(const char* name, const std::string& value) {
        m_variables.push_back("ZU_CAMERA_" + std::string(name) + "=" + value);
    }
    std::vector<char*> Pointers() {
        std::vector<char*> pointers;
        for (std::string& variable : m_variables) {
            pointers.push_back(variable.data());
        }
        pointers.push_back(nullptr);
        return pointers;
    }

private:
    std::vector<std::string> m_variables;
};

Environment EnvironmentOf(Kind kind, const CameraUse& use) {
    Environment environment;
    environment.Set("EVENT", kEventNames[static_cast<size_t>(kind)]);
    environment.Set("ID", std::to_string(use.camera));
    environment.Set("NAME", SafeText(TextOf(use.name)));
    environment.Set("FILE", SafeText(TextOf(use.file)));
    environment.Set("WIDTH", std::to_string(use.width));
    environment.Set("HEIGHT", std::to_string(use.height));
    environment.Set("FPS", std::to_string(use.fps));
    environment.Set("PEER", std::to_string(use.peer));
    environment.Set("PEER_PID", use.pid != 0 ? std::to_string(use.pid) : "");
    environment.Set("PEER_UID", use.pid != 0 ? std::to_string(use.user) : "");
    environment.Set("PEER_COMMAND", CommandOf(use.pid));
    return environment;
}

Expected<pid_t> StartCommand(const std::string& command, Kind kind, const CameraUse& use) {
    Environment environment = EnvironmentOf(kind, use);
    const std::vector<char*> variables = environment.Pointers();
    return StartShellCommand({.text = command, .has_own_group = true, .environment = variables.data()});
}

// What runs in the helper process.
class Helper {
public:
    explicit Helper(const HelperCommands& commands) : m_commands(commands) {}
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    // Returns after the host has ended, and after the last command.
    void Run() {
        Waiter::Registration input = m_waiter.Watch(kSocketNumber, POLLIN, [this] { ReceiveRequests(); });
        while (!m_host_is_gone || !m_jobs.empty() || !m_hooks.empty()) {
            Clock::time_point next = Clock::time_point::max();
            if (m_host_is_gone) {
                input.reset();
                next = m_end;
            }
            for (const Job& job : m_jobs) {
                next = std::min(next, job.deadline);
            }
            (void)m_waiter.Wait(next);
            KillLateJobs();
            Reap();
            StartNextHook();
        }
    }

private:
    struct Job {
        Request request;
        pid_t pid;
        UniqueFd process;  // readable once it has ended
        Clock::time_point deadline;
        bool is_late = false;
        Waiter::Registration end = nullptr;
    };

    const std::string& CommandFor(Kind kind) const {
        return kind == Kind::kAsk    ? m_commands.ask
               : kind == Kind::kOpen ? m_commands.on_open
                                     : m_commands.on_close;
    }

    void ReceiveRequests() {
        for (;;) {
            const auto request = ReceiveRecord<Request>(kSocketNumber);
            if (!request) {
                m_host_is_gone = true;
                m_end = Clock::now() + m_commands.hook_limit;
                CancelQuestions(std::nullopt);
                return;
            }
            if (!*request) {
                return;
            }
            if ((*request)->kind == Kind::kCancel) {
                CancelQuestions((*request)->number);
            } else if ((*request)->kind < Kind::kCancel && !CommandFor((*request)->kind).empty()) {
                Accept(**request);
            }
        }
    }

    // All of them without a number. KillLateJobs ends them.
    void CancelQuestions(std::optional<uint64_t> number) {
        for (Job& job : m_jobs) {
            const bool is_meant = !number || job.request.number == *number;
            if (job.request.kind == Kind::kAsk && is_meant && !job.is_late) {
                job.deadline = Clock::time_point();
            }
        }
    }

    void Accept(const Request& request) {
        if (request.kind == Kind::kAsk) {
            if (std::ranges::count(m_jobs, Kind::kAsk, KindOf) < ptrdiff_t{kMostQuestions}) {
                Begin(request);
            } else {
                Finish(request, std::to_string(kMostQuestions) + " questions are open already");
            }
        } else if (m_hooks.size() < kMostHooks) {
            m_hooks.push_back(request);
        } else {
            Finish(request, "left out: " + std::to_string(kMostHooks) + " commands wait already");
        }
    }

    // Unless one is running.
    void StartNextHook() {
        while (!m_hooks.empty() && std::ranges::all_of(
                                       m_jobs, [](Kind kind) { return kind == Kind::kAsk; }, KindOf)) {
            const Request request = m_hooks.front();
            m_hooks.pop_front();
            Begin(request);
        }
    }

    static Kind KindOf(const Job& job) { return job.request.kind; }

    void Begin(const Request& request) {
        const auto child = StartCommand(CommandFor(request.kind), request.kind, request.use);
        if (!child) {
            Finish(request, child.error().text);
            return;
        }
        const auto limit = request.kind == Kind::kAsk ? m_commands.ask_limit : m_commands.hook_limit;
        // By its number: some versions of the C library declare pidfd_open() for C only.
        UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, *child, 0)));
        // Without a descriptor its end cannot be waited for.
        const auto deadline = process ? Clock::now() + limit : Clock::time_point();
        Job& job = m_jobs.emplace_back(Job{request, *child, std::move(process), deadline});
        if (job.process) {
            job.end = m_waiter.Watch(job.process.Get(), POLLIN, [] {});
        }
    }

    void KillLateJobs() {
        const auto now = Clock::now();
        if (now >= m_end) {
            m_hooks.clear();
        }
        for (Job& job : m_jobs) {
            if (!job.is_late && now >= std::min(job.deadline, m_end)) {
                job.is_late = true;
                job.deadline = Clock::time_point::max();
                kill(-job.pid, SIGKILL);
            }
        }
    }

    void Reap() {
        std::erase_if(m_jobs, [this](Job& job) {
            int status = 0;
            // One that was killed ends at once.
            const pid_t ended = waitpid(job.pid, &status, job.is_late ? 0 : WNOHANG);
            if (ended == 0 || (ended < 0 && errno == EINTR)) {
                return false;
            }
            Finish(job.request, job.is_late ? "the command took too long"
                                : ended < 0 ? "the command's status is not known"
                                            : CommandFailure(status));
            return true;
        });
    }

    void Finish(const Request& request, const std::string& failure) const {
        const bool is_question = request.kind == Kind::kAsk;
        if (!is_question && failure.empty()) {
            return;
        }
        HelperReply reply;
        reply.number = request.number;
        reply.result = !is_question      ? HelperResult::kSaid
                       : failure.empty() ? HelperResult::kAllowed
                                         : HelperResult::kRefused;
        const std::string text = kOptionNames[static_cast<size_t>(request.kind)] + (": " + failure);
        text.copy(reply.text, sizeof reply.text - 1);
        (void)SendRecord(kSocketNumber, reply);
    }

    const HelperCommands m_commands;
    Waiter m_waiter;
    std::vector<Job> m_jobs;      // questions, and at most one hook
    std::deque<Request> m_hooks;  // that wait; at most kMostHooks
    bool m_host_is_gone = false;
    Clock::time_point m_end = Clock::time_point::max();  // of every command, once the host is gone
};

// In the new process. The channel to a peer, the signals and the log stay with the host.
[[noreturn]] void BecomeHelper(int socket, const HelperCommands& commands) {
    const int input = open("/dev/null", O_RDONLY);
    // Without it a command would read what the peer sends.
    if (input < 0 || dup2(input, STDIN_FILENO) < 0) {
        _exit(1);  // the host notices
    }
    dup2(STDERR_FILENO, STDOUT_FILENO);
    dup2(socket, kSocketNumber);
    fcntl(kSocketNumber, F_SETFD, FD_CLOEXEC);
    syscall(SYS_close_range, kSocketNumber + 1, ~0U, 0U);
    prctl(PR_SET_NAME, "zu-host-helper");
    // A terminal sends its signals to both processes. The helper ends with the host.
    sigset_t signals;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // If the host was started with SIGCHLD ignored, no exit status would be kept.
    (void)signal(SIGCHLD, SIG_DFL);
    try {
        Helper(commands).Run();
    } catch (const std::exception&) {
        _exit(1);  // the host notices
    }
    _exit(0);
}

}  // namespace

Expected<std::unique_ptr<HelperProcess>> HelperProcess::Start(const HelperCommands& commands) {
    if (commands.ask.empty() && commands.on_open.empty() && commands.on_close.empty()) {
        return nullptr;
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return Fail("the helper process has no socket: " + ErrnoText(errno));
    }
    UniqueFd host(ends[0]);
    const UniqueFd helper(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        BecomeHelper(helper.Get(), commands);
    }
    if (child < 0) {
        return Fail("the helper process cannot be started: " + ErrnoText(errno));
    }
    return std::unique_ptr<HelperProcess>(new HelperProcess(std::move(host)));  // the constructor is private
}

bool HelperProcess::Ask(uint64_t number, const CameraUse& use) const {
    return SendRecord(m_socket.Get(), Request{Kind::kAsk, number, use});
}

bool HelperProcess::Cancel(uint64_t number) const {
    return SendRecord(m_socket.Get(), Request{Kind::kCancel, number, {}});
}

bool HelperProcess::OnOpen(const CameraUse& use) const {
    return SendRecord(m_socket.Get(), Request{Kind::kOpen, 0, use});
}

bool HelperProcess::OnClose(const CameraUse& use) const {
    return SendRecord(m_socket.Get(), Request{Kind::kClose, 0, use});
}

Expected<std::optional<HelperReply>> HelperProcess::Receive() const {
    return ReceiveRecord<HelperReply>(m_socket.Get());
}

std::string CommandOf(pid_t pid) {
    const UniqueFd file(
        pid > 0 ? open(("/proc/" + std::to_string(pid) + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC) : -1);
    char text[kLongestCommandLine];
    const ssize_t count = file ? read(file.Get(), text, sizeof text) : 0;
    std::string words(text, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    while (!words.empty() && words.back() == '\0') {
        words.pop_back();
    }
    std::ranges::replace(words, '\0', ' ');
    return SafeText(words);
}

}  // namespace zumod::host
