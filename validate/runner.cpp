#include "validate/runner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include "common/safe_text.h"
#include "common/unique_fd.h"
#include "validate/child.h"

namespace zumod::validate {
namespace {

constexpr char kSelf[] = "/proc/self/exe";
// The descriptor of the record in the process of a check.
constexpr int kRecordDescriptor = 3;
// What is kept of a process's output.
constexpr size_t kMostOutput = size_t{16} * 1024;
// How much later than the process itself the runner ends it.
constexpr auto kGrace = std::chrono::seconds(10);

// A pipe whose ends close on exec.
struct Pipe {
    UniqueFd read;
    UniqueFd write;
};

Expected<Pipe> OpenPipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        return Fail("no pipe: " + ErrnoText(errno));
    }
    // The process of the check may wait when it writes.
    fcntl(ends[1], F_SETFL, 0);
    return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// Reads what there is, keeps up to `most` bytes. Returns false at the end.
bool Drain(int descriptor, std::string& text, size_t most) {
    std::array<char, 4096> bytes{};
    for (;;) {
        const ssize_t count = read(descriptor, bytes.data(), bytes.size());
        if (count <= 0) {
            return count < 0 && (errno == EAGAIN || errno == EINTR);
        }
        text.append(bytes.data(), std::min(static_cast<size_t>(count), most - std::min(most, text.size())));
    }
}

// The program with virtual cameras, beside this one or on the path; empty if there is none.
std::string FindVirtualCameras() {
    std::error_code error;
    const auto beside = std::filesystem::read_symlink(kSelf, error).parent_path() / "zu-vcam";
    if (access(beside.c_str(), X_OK) == 0) {
        return beside;
    }
    const char* const path = getenv("PATH");  // NOLINT(concurrency-mt-unsafe): no other thread
    std::string directories = path != nullptr ? path : "";
    for (size_t begin = 0; begin < directories.size();) {
        const size_t end = std::min(directories.find(':', begin), directories.size());
        std::string file = directories.substr(begin, end - begin) + "/zu-vcam";
        if (access(file.c_str(), X_OK) == 0) {
            return file;
        }
        begin = end + 1;
    }
    return "";
}

// The process of one check.
class Child {
public:
    // Starts the command, which gets the record's descriptor.
    Expected<void> Start(std::vector<std::string> words, Clock::duration limit) {
        auto output = OpenPipe();
        auto record = OpenPipe();
        if (!output || !record) {
            return Fail(!output ? output.error() : record.error());
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, output->write.Get(), STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output->write.Get(), STDERR_FILENO);
        posix_spawn_file_actions_adddup2(&actions, record->write.Get(), kRecordDescriptor);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t none;
        sigemptyset(&none);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        // A group, so that everything that the check starts can be ended.
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        std::vector<char*> pointers;
        pointers.reserve(words.size() + 1);
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        const int error =
            posix_spawn(&m_process, pointers[0], &actions, &attributes, pointers.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        if (error != 0) {
            m_process = -1;
            return Fail("a check cannot be started: " + ErrnoText(error));
        }
        m_handle.Reset(static_cast<int>(syscall(SYS_pidfd_open, m_process, 0)));
        if (!m_handle) {
            return Fail("a process cannot be watched: " + ErrnoText(errno));
        }
        m_output = std::move(output->read);
        m_record = std::move(record->read);
        m_started = Clock::now();
        m_deadline = m_started + limit + kGrace;
        return {};
    }
    Child() = default;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { End(); }

    void Watch(Waiter& waiter) {
        m_registrations.push_back(waiter.Watch(m_handle.Get(), POLLIN, [this] { OnEnd(); }));
        WatchPipe(waiter, m_output.Get(), m_output_text, kMostOutput, 0);
        WatchPipe(waiter, m_record.Get(), m_record_text, kMostOutput, 1);
    }

    bool HasEnded() const { return m_status.has_value(); }
    Clock::time_point Deadline() const { return m_deadline; }

    void EndIfLate() {
        if (!HasEnded() && Clock::now() >= m_deadline) {
            m_late = true;
            kill(-m_process, SIGKILL);
            OnEnd();
        }
    }

    // The last record, or one about how the process ended.
    std::vector<std::string> Record() const {
        const size_t end = m_record_text.rfind('\n');
        if (end != std::string::npos && end > 0) {
            const size_t before = m_record_text.rfind('\n', end - 1);
            const size_t begin = before == std::string::npos ? 0 : before + 1;
            return ParseRecord(m_record_text.substr(begin, end - begin));
        }
        if (m_late) {
            return {kHangRecord};
        }
        const int status = m_status.value_or(0);
        if (WIFSIGNALED(status)) {
            return {kCrashRecord, std::string("signal ") + std::to_string(WTERMSIG(status))};
        }
        return {kFailRecord, "a check that ends",
                "the process ended with status " + std::to_string(WEXITSTATUS(status))};
    }
    const std::string& Output() const { return m_output_text; }
    Clock::duration Time() const { return m_ended - m_started; }

private:
    void WatchPipe(Waiter& waiter, int descriptor, std::string& text, size_t most, size_t index) {
        m_pipes[index] = waiter.Watch(descriptor, POLLIN, [this, descriptor, &text, most, index] {
            if (!Drain(descriptor, text, most)) {
                m_pipes[index].reset();
            }
        });
    }

    // The process is reaped, and what it left in the pipes is read.
    void OnEnd() {
        int status = 0;
        if (waitpid(m_process, &status, 0) != m_process) {
            return;
        }
        m_status = status;
        m_ended = Clock::now();
        Drain(m_output.Get(), m_output_text, kMostOutput);
        Drain(m_record.Get(), m_record_text, kMostOutput);
        End();
    }

    void End() {
        m_registrations.clear();
        m_pipes = {};
        if (m_process > 0) {
            // The group exists while one of its processes does. Nobody else can have its number until then.
            kill(-m_process, SIGKILL);
            if (!m_status) {
                waitpid(m_process, nullptr, 0);
            }
            m_process = -1;
        }
    }

    pid_t m_process = -1;
    UniqueFd m_handle;
    UniqueFd m_output;
    UniqueFd m_record;
    std::string m_output_text;
    std::string m_record_text;
    std::vector<Waiter::Registration> m_registrations;
    std::array<Waiter::Registration, 2> m_pipes;
    Clock::time_point m_started;
    Clock::time_point m_ended;
    Clock::time_point m_deadline;
    bool m_late = false;
    std::optional<int> m_status;
};

std::vector<std::string> ChildWords(const std::string& check, const std::string& file, ModuleKind kind,
                                    uint64_t seed, Clock::duration limit) {
    std::vector<std::string> words = {kSelf,
                                      "--in-process",
                                      check,
                                      "--record",
                                      std::to_string(kRecordDescriptor),
                                      "--seed",
                                      std::to_string(seed),
                                      "--timeout",
                                      std::to_string(std::chrono::duration<double>(limit).count())};
    if (kind != ModuleKind::kUnknown) {
        words.insert(words.end(), {"--kind", KindName(kind)});
    }
    words.insert(words.end(), {"--", file});
    return words;
}

// Waits until one of the children has ended or is late.
Expected<void> WaitForOne(std::vector<std::unique_ptr<Child>>& children, Waiter& waiter) {
    auto deadline = Clock::time_point::max();
    for (const auto& child : children) {
        if (child != nullptr && !child->HasEnded()) {
            deadline = std::min(deadline, child->Deadline());
        }
    }
    const auto waited = waiter.Wait(deadline);
    if (!waited) {
        return Fail(waited.error());
    }
    for (const auto& child : children) {
        if (child != nullptr) {
            child->EndIfLate();
        }
    }
    return {};
}

// Runs the commands, `jobs` at once, and calls `on_end` for each in their order. A command without words is
// not run: `on_end` gets null for it.
Expected<void> RunAll(const std::vector<std::vector<std::string>>& commands, const RunLimits& limits,
                      Waiter& waiter, const std::function<void(size_t, const Child*)>& on_end) {
    std::vector<std::unique_ptr<Child>> children(commands.size());
    size_t started = 0;
    size_t reported = 0;
    while (reported < commands.size()) {
        const auto running = std::ranges::count_if(
            children, [](const auto& child) { return child != nullptr && !child->HasEnded(); });
        if (started < commands.size() && running < limits.jobs) {
            if (!commands[started].empty()) {
                auto child = std::make_unique<Child>();
                if (auto result = child->Start(commands[started], limits.time); !result) {
                    return result;
                }
                child->Watch(waiter);
                children[started] = std::move(child);
            }
            ++started;
        } else if (auto result = WaitForOne(children, waiter); !result) {
            return result;
        }
        while (reported < started && (children[reported] == nullptr || children[reported]->HasEnded())) {
            on_end(reported, children[reported].get());
            children[reported].reset();
            ++reported;
        }
    }
    return {};
}

ModuleKind KindOf(const std::string& name) {
    return name == KindName(ModuleKind::kCamera)  ? ModuleKind::kCamera
           : name == KindName(ModuleKind::kCodec) ? ModuleKind::kCodec
                                                  : ModuleKind::kUnknown;
}

std::string Field(const std::vector<std::string>& record, size_t index) {
    return index < record.size() ? record[index] : "";
}

void TakeRecord(const std::vector<std::string>& record, Result& result) {
    const std::string& word = record.front();
    if (word == kPassRecord) {
        result.outcome = Outcome::kPass;
    } else if (word == kSkipRecord) {
        result.outcome = Outcome::kSkipped;
        result.got = Field(record, 1);
    } else if (word == kCrashRecord) {
        result.outcome = Outcome::kCrash;
        result.expected = "no crash";
        result.got = Field(record, 1);
    } else if (word == kHangRecord) {
        result.outcome = Outcome::kHang;
        result.expected = "an end within the time limit";
        result.got = "none";
    } else {
        result.outcome = Outcome::kFail;
        result.expected = Field(record, 1);
        result.got = Field(record, 2);
    }
}

}  // namespace

const char* OutcomeName(Outcome outcome) {
    constexpr const char* kNames[] = {"pass", "fail", "crash", "hang", "skipped", "waived"};
    return kNames[static_cast<size_t>(outcome)];
}

Expected<std::vector<ModuleFile>> ProbeModules(const std::vector<std::string>& files, ModuleKind kind,
                                               const RunLimits& limits, Waiter& waiter) {
    std::vector<ModuleFile> modules;
    std::vector<std::vector<std::string>> commands;
    for (const std::string& file : files) {
        commands.push_back(ChildWords(kProbe, file, kind, 0, limits.time));
        modules.push_back({file, kind, "", "", "", ""});
    }
    const auto result = RunAll(commands, limits, waiter, [&](size_t index, const Child* child) {
        const auto record = child->Record();
        ModuleFile& module = modules[index];
        if (record.front() == kModuleRecord) {
            module.kind = KindOf(Field(record, 1));
            module.name = Field(record, 2);
            module.version = Field(record, 3);
            module.build_stamp = Field(record, 4);
        } else {
            module.problem =
                record.front() == kSkipRecord ? Field(record, 1) : "it ends the process: " + record.front();
        }
    });
    if (!result) {
        return Fail(result.error());
    }
    return modules;
}

Expected<void> RunChecks(const ModuleFile& module, const std::vector<const Check*>& checks, uint64_t seed,
                         const RunLimits& limits, Waiter& waiter,
                         const std::function<void(const Result&)>& report) {
    const std::string cameras = FindVirtualCameras();
    std::vector<std::vector<std::string>> commands;
    for (const Check* const check : checks) {
        std::vector<std::string> words = ChildWords(check->name, module.path, module.kind, seed, limits.time);
        if (check->cameras == Cameras::kVirtual) {
            if (cameras.empty()) {
                words.clear();
            } else {
                // The program with the cameras has another /proc/self/exe.
                std::error_code error;
                words.front() = std::filesystem::read_symlink(kSelf, error).string();
                const std::vector<std::string> prefix = {cameras, "--camera", kCheckCamera, "--"};
                words.insert(words.begin(), prefix.begin(), prefix.end());
            }
        }
        commands.push_back(std::move(words));
    }
    return RunAll(commands, limits, waiter, [&](size_t index, const Child* child) {
        Result result;
        result.check = checks[index];
        if (child == nullptr) {
            result.outcome = Outcome::kSkipped;
            result.got = "zu-vcam is missing";
        } else {
            TakeRecord(child->Record(), result);
            result.output = child->Output();
            result.time = child->Time();
        }
        report(result);
    });
}

}  // namespace zumod::validate
