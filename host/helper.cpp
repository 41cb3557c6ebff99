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
#include <iterator>
#include <string_view>
#include <vector>

#include "common/safe_text.h"
#include "common/shell_command.h"
#include "common/waiter.h"

namespace zumod::host {
namespace {

enum class Kind : uint32_t { kAsk, kOpen, kClose, kCancel, kDescribe };

struct Request {
    Kind kind = Kind::kAsk;
    uint64_t number = 0;
    CameraUse use;
};
static_assert(std::is_trivially_copyable_v<Request>);

constexpr int kSocketNumber = STDERR_FILENO + 1;
constexpr size_t kLongestCommandLine = 128;
// How a shell ends if it cannot run the command.
constexpr int kNotExecutable = 126;
constexpr int kNotFound = 127;
// How often a process that was killed is looked at. Its descriptor is no help: it is readable although the
// process cannot be waited for while another process traces it.
constexpr auto kReapInterval = std::chrono::milliseconds(20);
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

// How a command ended: what that means as an answer, and a text unless it succeeded.
struct Outcome {
    HelperResult result;
    std::string failure;
};

Outcome OutcomeOf(int status) {
    if (status == 0) {
        return {HelperResult::kAllowed, ""};
    }
    switch (WIFEXITED(status) ? WEXITSTATUS(status) : 0) {
        case kNotExecutable:
            return {HelperResult::kNotAsked, "the command cannot be executed (status 126)"};
        case kNotFound:
            return {HelperResult::kNotAsked, "the command was not found (status 127)"};
        default:
            return {HelperResult::kRefused, CommandFailure(status)};
    }
}

// What runs in the helper process.
class Helper {
public:
    explicit Helper(const HelperCommands& commands) : m_commands(commands) {}
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    // Returns after the host has ended, and after the last command. One that cannot be killed is left behind.
    void Run() {
        Waiter::Registration input = m_waiter.Watch(kSocketNumber, POLLIN, [this] { ReceiveRequests(); });
        while (!m_host_is_gone || !m_hooks.empty() || !std::ranges::all_of(m_jobs, &Job::is_finished)) {
            if (m_host_is_gone) {
                input.reset();
            }
            (void)m_waiter.Wait(NextTime());
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
        bool is_killed = false;
        bool is_finished = false;  // it was killed and does not end; its result was reported
        Waiter::Registration end = nullptr;
    };

    const std::string& CommandFor(Kind kind) const {
        return kind == Kind::kAsk    ? m_commands.ask
               : kind == Kind::kOpen ? m_commands.on_open
                                     : m_commands.on_close;
    }

    Clock::time_point NextTime() const {
        Clock::time_point next = m_end;
        for (const Job& job : m_jobs) {
            if (job.is_killed && !job.is_finished) {
                next = std::min(next, Clock::now() + kReapInterval);
            }
            next = std::min(next, job.deadline);
        }
        return next;
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
            Accept(**request);
        }
    }

    // All of them without a number. KillLateJobs ends them.
    void CancelQuestions(std::optional<uint64_t> number) {
        for (Job& job : m_jobs) {
            const bool is_meant = !number || job.request.number == *number;
            if (job.request.kind == Kind::kAsk && is_meant && !job.is_killed) {
                job.deadline = Clock::time_point();
            }
        }
    }

    void Accept(const Request& request) {
        switch (request.kind) {
            case Kind::kAsk:
                AcceptQuestion(request);
                break;
            case Kind::kOpen:
            case Kind::kClose:
                AcceptHook(request);
                break;
            case Kind::kCancel:
                CancelQuestions(request.number);
                break;
            case Kind::kDescribe:
                Send({.number = request.number, .result = HelperResult::kDescribed},
                     CommandOf(request.use.pid));
                break;
        }
    }

    void AcceptQuestion(const Request& request) {
        if (std::ranges::count_if(m_jobs, IsQuestion) < ptrdiff_t{kMostQuestions}) {
            Begin(request);
        } else {
            Finish(request,
                   {HelperResult::kNotAsked, std::to_string(kMostQuestions) + " questions are open already"});
        }
    }

    // An open is also kept if there is only a command for its close, and the other way round: so that both
    // can be left out.
    void AcceptHook(const Request& request) {
        if (m_commands.on_open.empty() && m_commands.on_close.empty()) {
            return;
        }
        if (m_hooks.size() >= kManyHooks && request.kind == Kind::kClose && RemoveOpen(request.use)) {
            Finish(request, {HelperResult::kSaid, "left out: a camera was opened and closed while " +
                                                      std::to_string(kManyHooks) + " commands waited"});
        } else if (m_hooks.size() < kMostHooks) {
            m_hooks.push_back(request);
        } else {
            Finish(request, {HelperResult::kSaid,
                             "left out: " + std::to_string(kMostHooks) + " commands wait already"});
        }
    }

    // Whether the command for the last open of this camera by this peer still waited.
    bool RemoveOpen(const CameraUse& use) {
        const auto found = std::find_if(m_hooks.rbegin(), m_hooks.rend(), [&](const Request& hook) {
            return hook.use.peer == use.peer && hook.use.camera == use.camera;
        });
        if (found == m_hooks.rend() || found->kind != Kind::kOpen) {
            return false;
        }
        m_hooks.erase(std::next(found).base());
        return true;
    }

    // Unless one is running. Those that cannot be killed are not waited for, but they are few.
    void StartNextHook() {
        const auto is_running = [](const Job& job) { return !IsQuestion(job) && !job.is_finished; };
        while (!m_hooks.empty() && std::ranges::none_of(m_jobs, is_running)) {
            if (m_jobs.size() - CountQuestions() >= kMostUnkilledHooks) {
                return;
            }
            const Request request = m_hooks.front();
            m_hooks.pop_front();
            if (!CommandFor(request.kind).empty()) {
                Begin(request);
            }
        }
    }

    static bool IsQuestion(const Job& job) { return job.request.kind == Kind::kAsk; }
    size_t CountQuestions() const { return static_cast<size_t>(std::ranges::count_if(m_jobs, IsQuestion)); }

    void Begin(const Request& request) {
        const auto child = StartCommand(CommandFor(request.kind), request.kind, request.use);
        if (!child) {
            Finish(request, {HelperResult::kNotAsked, child.error().text});
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
            m_end = Clock::time_point::max();
            for (Job& job : m_jobs) {
                job.deadline = std::min(job.deadline, now);
            }
        }
        for (Job& job : m_jobs) {
            if (now < job.deadline) {
                continue;
            }
            if (!job.is_killed) {
                job.is_killed = true;
                job.deadline = now + m_commands.kill_limit;
                job.end.reset();
                kill(-job.pid, SIGKILL);
            } else {
                job.is_finished = true;
                job.deadline = Clock::time_point::max();
                Finish(job.request,
                       {HelperResult::kRefused, "the command took too long and cannot be killed"});
            }
        }
    }

    void Reap() {
        std::erase_if(m_jobs, [](const Job& job) {
            int status = 0;
            const pid_t ended = waitpid(job.pid, &status, WNOHANG);
            if (ended == 0 || (ended < 0 && errno == EINTR)) {
                return false;
            }
            if (!job.is_finished) {
                Finish(job.request,
                       job.is_killed ? Outcome{HelperResult::kRefused, "the command took too long"}
                       : ended < 0   ? Outcome{HelperResult::kRefused, "the command's status is not known"}
                                     : OutcomeOf(status));
            }
            return true;
        });
    }

    // Reports the answer to a question, and how a hook failed.
    static void Finish(const Request& request, const Outcome& outcome) {
        const bool is_question = request.kind == Kind::kAsk;
        if (!is_question && outcome.failure.empty()) {
            return;
        }
        Send({.number = request.number, .result = is_question ? outcome.result : HelperResult::kSaid},
             kOptionNames[static_cast<size_t>(request.kind)] + (": " + outcome.failure));
    }

    static void Send(HelperReply reply, const std::string& text) {
        text.copy(reply.text, sizeof reply.text - 1);
        (void)SendRecord(kSocketNumber, reply);
    }

    const HelperCommands m_commands;
    Waiter m_waiter;
    std::vector<Job> m_jobs;      // questions, at most one hook, and hooks that cannot be killed
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
    if (!commands.HasAny() && !commands.describes_peers) {
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

bool HelperProcess::Describe(uint64_t peer, pid_t pid) const {
    CameraUse use;
    use.pid = pid;
    return SendRecord(m_socket.Get(), Request{Kind::kDescribe, peer, use});
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
