// The command run: starts a program for which a host's cameras are at /dev/videoN.
//
// Three processes. The first one becomes zu-vcam, which serves the virtual cameras, starts the program,
// passes signals on and ends with its status. Before, it forks a second one, the keeper, which connects to
// the host and does so again when the connection was lost. For each connection the keeper forks a third one,
// which feeds the virtual cameras from inside the sandbox (run_session.h). Each ends when the one before it
// has ended. While no third one feeds them, the virtual cameras are unplugged.
//
// Signals from a terminal go to all of them. What they mean is for the program to decide, so the others
// ignore SIGINT and SIGHUP.
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "common/parse_number.h"
#include "peer/run_session.h"

namespace zumod::peer {
namespace {

constexpr char kVirtualCameras[] = "zu-vcam";
constexpr int kServerGone = 3;  // exit status of a feeding process
constexpr auto kFirstPause = std::chrono::milliseconds(500);
constexpr auto kLastPause = std::chrono::seconds(8);
constexpr auto kEndLimit = std::chrono::seconds(3);
constexpr auto kOrphanLimit = std::chrono::seconds(1);
// In place of options: the text of a failure follows.
constexpr char kFailureMark = '!';

std::string NewServerName() {
    std::random_device random;
    return "run." + std::to_string(getpid()) + "." + std::to_string(random());
}

void Unblock(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void PrintLine(const std::string& text) {
    (void)ReportError("zu-camera-peer", {text});
}

// Ends this process when its parent has ended.
void EndWith(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        _exit(0);
    }
}

// By its number: some versions of the C library declare pidfd_open() for C only.
UniqueFd OpenProcess(pid_t process) {
    return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
}

// It gets some time to exit by itself, and then after SIGTERM. Signals do not shorten that.
void EndChild(pid_t child) {
    const UniqueFd process = OpenProcess(child);
    for (const int signal : {SIGTERM, SIGKILL}) {
        if (!Waiter().WaitFor(process.Get(), POLLIN, Clock::now() + kOrphanLimit).value_or(false)) {
            kill(child, signal);
        }
    }
    waitpid(child, nullptr, 0);
}

// Ends what the command behind --exec started and left: a subreaper is the parent of such processes. One that
// made a session for itself, as the connection that several runs of ssh share, is meant to stay.
void EndOrphans() {
    constexpr int kMostRounds = 8;  // the children of an orphan become orphans
    for (int round = 0; round < kMostRounds; ++round) {
        bool any = false;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
            const auto id = ParseNumber<pid_t>(entry.path().filename().string());
            std::ifstream file(id ? entry.path() / "stat" : "");
            std::string text;
            std::getline(file, text);
            // The name, in brackets, may hold anything.
            std::istringstream fields(text.substr(text.find_last_of(')') + 1));
            char state = 0;
            pid_t parent = -1;
            pid_t group = -1;
            pid_t terminal_session = -1;
            if (!(fields >> state >> parent >> group >> terminal_session) || parent != getpid() ||
                terminal_session != getsid(0)) {
                continue;
            }
            any = true;
            EndChild(*id);
        }
        if (!any) {
            return;
        }
    }
}

std::string ListedSizes(const CameraEntry& camera) {
    std::string text;
    for (const PictureSize size : camera.sizes) {
        text += ' ';
        text += SizeText(size);
    }
    return text.empty() ? " none" : text;
}

class Keeper {
public:
    Keeper(const CommandContext& context, std::string server, UniqueFd listing)
        : m_context(context), m_listing(std::move(listing)) {
        m_plan.server = std::move(server);
    }

    [[noreturn]] void Run() {
        auto pause = Clock::duration(kFirstPause);
        for (;;) {
            // The connection is closed again, so the command behind --exec has ended.
            const Outcome outcome = Connect();
            EndOrphans();
            if (outcome == Outcome::kOver) {
                _exit(0);
            }
            if (outcome == Outcome::kLost) {
                pause = kFirstPause;
            }
            if (!m_context.waiter.Wait(Clock::now() + pause)) {
                _exit(0);
            }
            pause = std::min<Clock::duration>(2 * pause, kLastPause);
        }
    }

private:
    enum class Outcome : uint8_t { kNotConnected, kLost, kOver };

    Outcome Connect() {
        auto session = m_context.Connect();
        auto listed = session.and_then([](Session& connected) { return AskCameras(connected); });
        if (m_listing) {
            List(listed);
        }
        if (!listed) {
            if (listed.error() == Interrupted()) {
                _exit(0);
            }
            return Outcome::kNotConnected;
        }
        if (m_was_lost) {
            PrintLine("the host is back");
        }
        m_was_lost = true;
        return Feed(*session, *listed) ? Outcome::kOver : Outcome::kLost;
    }

    // For the first process, which reads until the end.
    void List(const Expected<std::vector<CameraEntry>>& listed) {
        std::string text;
        if (!listed || listed->empty()) {
            text = kFailureMark + (listed ? std::string("the host lists no camera") : listed.error().text);
        } else {
            m_plan.lent = *listed;
            for (const CameraEntry& camera : *listed) {
                if (const auto size = m_context.options.size; size && !Lists(camera, *size)) {
                    PrintLine(CameraLabel(camera) + " may not have " + SizeText(*size) + "; it lists" +
                              ListedSizes(camera));
                }
                text += VirtualCameraOption(camera, RequestedSize(m_context.options, camera),
                                            m_context.options.fps);
                text += '\0';
            }
        }
        for (size_t written = 0; written < text.size();) {
            const ssize_t count = write(m_listing.Get(), text.data() + written, text.size() - written);
            if (count <= 0) {
                _exit(1);
            }
            written += static_cast<size_t>(count);
        }
        m_listing.Reset();
        if (text.front() == kFailureMark) {
            _exit(1);
        }
    }

    // In a new process, for whose end it waits. Returns whether this process must end, too.
    bool Feed(Session& session, const std::vector<CameraEntry>& listed) {
        const pid_t keeper = getpid();
        const pid_t child = fork();
        if (child == 0) {
            EndWith(keeper);
            session.LeaveCommand();
            const auto end = FeedVirtualCameras(m_context, session, listed, m_plan);
            if (end && !end->text.empty()) {
                PrintLine(end->text +
                          (end->is_server_gone ? "" : "; the cameras are unplugged until the host is back"));
            }
            // No destructor: a thread may still be decoding.
            _exit(end && end->is_server_gone ? kServerGone : 0);
        }
        if (child < 0) {
            PrintLine("cannot start a process: " + ErrnoText(errno));
            return false;
        }
        const UniqueFd process = OpenProcess(child);
        const bool stopped = !m_context.waiter.WaitFor(process.Get(), POLLIN, Clock::time_point::max());
        if (stopped) {
            kill(child, SIGTERM);
            if (!Waiter().WaitFor(process.Get(), POLLIN, Clock::now() + kEndLimit).value_or(false)) {
                kill(child, SIGKILL);
            }
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (stopped || (WIFEXITED(status) && WEXITSTATUS(status) == kServerGone)) {
            return true;
        }
        if (WIFSIGNALED(status)) {
            PrintLine("decoding was ended by signal " + std::to_string(WTERMSIG(status)) +
                      "; the cameras are unplugged until the host is back");
        }
        return false;
    }

    const CommandContext& m_context;
    RunPlan m_plan;
    UniqueFd m_listing;
    bool m_was_lost = false;
};

[[noreturn]] void Keep(const CommandContext& context, const std::string& server, UniqueFd listing,
                       pid_t parent) {
    EndWith(parent);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);
    Unblock({SIGINT, SIGHUP});
    // The program's input and output end with it.
    const UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    dup2(null.Get(), STDIN_FILENO);
    dup2(null.Get(), STDOUT_FILENO);
    Keeper(context, server, std::move(listing)).Run();
}

// What the keeper wrote: an option of zu-vcam for each camera.
Expected<std::vector<std::string>> ReadOptions(const CommandContext& context, int listing) {
    std::string text;
    for (;;) {
        if (const auto ready = context.waiter.WaitFor(listing, POLLIN, Clock::time_point::max()); !ready) {
            return Fail(ready.error());
        }
        char bytes[4096];
        const ssize_t count = read(listing, bytes, sizeof bytes);
        if (count == 0) {
            break;
        }
        text.append(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    if (text.empty() || text.front() == kFailureMark) {
        return Fail(text.empty() ? "the connection to the host ended" : text.substr(1));
    }
    std::vector<std::string> options;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\0', begin), text.size());
        options.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return options;
}

// The one beside this program, otherwise one in PATH.
std::string FindVirtualCameras() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::string beside = (program.parent_path() / kVirtualCameras).string();
    return access(beside.c_str(), X_OK) == 0 ? beside : kVirtualCameras;
}

Error Become(std::vector<std::string> words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    std::signal(SIGPIPE, SIG_DFL);
    Unblock({SIGINT, SIGTERM, SIGHUP});
    execvp(pointers[0], pointers.data());
    return {"cannot run " + std::string(kVirtualCameras) +
            ", which shows a program the cameras: " + ErrnoText(errno)};
}

}  // namespace

Expected<void> RunProgram(const CommandContext& context) {
    if (const auto size = context.options.size; size && !CanBeVirtual(*size)) {
        return Fail(SizeText(*size) +
                        " cannot be shown to programs: both sides must be even and from 16 to 8192, and the "
                        "size at most 4096x2304 pixels",
                    kExitUsage);
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return Fail("no pipe: " + ErrnoText(errno));
    }
    const UniqueFd listing(ends[0]);
    UniqueFd to_listing(ends[1]);
    const std::string server = NewServerName();
    const pid_t self = getpid();
    const pid_t keeper = fork();
    if (keeper == 0) {
        Keep(context, server, std::move(to_listing), self);
    }
    if (keeper < 0) {
        return Fail("cannot start a process: " + ErrnoText(errno));
    }
    to_listing.Reset();
    const auto options = ReadOptions(context, listing.Get());
    if (!options) {
        return Fail(options.error());
    }
    std::vector<std::string> words = {FindVirtualCameras(), "--name", server};
    for (const std::string& option : *options) {
        words.insert(words.end(), {"--camera", option});
    }
    words.emplace_back("--");
    words.insert(words.end(), context.options.program.begin(), context.options.program.end());
    return Fail(Become(std::move(words)));
}

}  // namespace zumod::peer
