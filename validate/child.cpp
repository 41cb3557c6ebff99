#include "validate/child.h"

#include <execinfo.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <string_view>

#include "common/safe_text.h"
#include "validate/module_under_test.h"

namespace zumod::validate {
namespace {

constexpr int kMostFrames = 64;
constexpr size_t kSignalStack = size_t{64} * 1024;

struct NamedSignal {
    int number;
    const char* name;
    const char* record;
};
constexpr NamedSignal kCrashSignals[] = {
    {SIGSEGV, "SIGSEGV", "crash\tSIGSEGV, a wrong address\n"},
    {SIGBUS, "SIGBUS", "crash\tSIGBUS, a wrong address\n"},
    {SIGILL, "SIGILL", "crash\tSIGILL, an invalid instruction\n"},
    {SIGFPE, "SIGFPE", "crash\tSIGFPE, a division by zero\n"},
    {SIGABRT, "SIGABRT", "crash\tSIGABRT, the process was aborted\n"},
};

// Written before the handlers are set, read by them.
int g_record = -1;
// Written by the thread whose stack was printed, read by the one that asked for it.
std::atomic<bool> g_printed{false};

// For handlers: a failed write changes nothing.
void Print(int descriptor, std::string_view text) {
    static_cast<void>(!write(descriptor, text.data(), text.size()));
}

void PrintStack() {
    std::array<void*, kMostFrames> frames{};
    backtrace_symbols_fd(frames.data(), backtrace(frames.data(), kMostFrames), STDERR_FILENO);
}

void OnCrash(int signal) {
    for (const NamedSignal& known : kCrashSignals) {
        if (known.number == signal) {
            Print(g_record, known.record);
        }
    }
    Print(STDERR_FILENO, "stack:\n");
    PrintStack();
    _exit(1);
}

void OnStackWanted(int /*signal*/) {
    const int error = errno;
    PrintStack();
    g_printed = true;
    errno = error;
}

// Prints the stack of another thread of this process, unless it blocks the signal.
void PrintStackOf(pid_t thread) {
    g_printed = false;
    if (syscall(SYS_tgkill, getpid(), thread, SIGRTMAX) != 0) {
        return;
    }
    constexpr timespec kPause = {0, 10'000'000};
    for (int i = 0; i < 100 && !g_printed; ++i) {
        nanosleep(&kPause, nullptr);
    }
}

// The entries of a directory, as the kernel returns them.
struct DirectoryEntry {
    uint64_t inode;
    int64_t offset;
    uint16_t length;
    uint8_t type;
    char name[1];
};

void OnAlarm(int /*signal*/) {
    Print(g_record, "hang\n");
    Print(STDERR_FILENO, "stack of the main thread:\n");
    PrintStack();
    const int directory = open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    alignas(DirectoryEntry) std::array<char, 4096> bytes{};
    long size = 0;
    while ((size = syscall(SYS_getdents64, directory, bytes.data(), bytes.size())) > 0) {
        for (long at = 0; at < size;) {
            const auto* const entry = reinterpret_cast<const DirectoryEntry*>(bytes.data() + at);
            const auto thread = static_cast<pid_t>(std::strtol(entry->name, nullptr, 10));
            if (thread > 0 && thread != syscall(SYS_gettid)) {
                Print(STDERR_FILENO, "stack of another thread:\n");
                PrintStackOf(thread);
            }
            at += entry->length;
        }
    }
    _exit(1);
}

void Handle(int signal, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(signal, &action, nullptr);
}

void Limit(__rlimit_resource resource, rlim_t value) {
    const rlimit limit = {value, value};
    setrlimit(resource, &limit);
}

ModuleKind KindByName(const char* name) {
    const std::string_view text = name != nullptr ? name : "";
    return text == kCodecModuleName     ? ModuleKind::kCodec
           : text == "zu-client-camera" ? ModuleKind::kCamera
                                        : ModuleKind::kUnknown;
}

// Tries to create what each kind of module creates.
ModuleKind KindByCreation(const Context& context) {
    for (const ModuleKind kind : {ModuleKind::kCamera, ModuleKind::kCodec}) {
        Context tried = context;
        tried.kind = kind;
        const Module module(tried);
        HostDouble host;
        module.Attach(&host);
        IZUModInterface* created = nullptr;
        if (module.Create(UsualPolicy(kind).Get(), &created) == 1 && created != nullptr) {
            return kind;
        }
        module.Detach();
    }
    return ModuleKind::kUnknown;
}

// The text, cut; it is the module's.
std::string Cut(const char* text) {
    constexpr size_t kMost = 64;
    return text != nullptr ? std::string(text, strnlen(text, kMost)) : "";
}

}  // namespace

void PrepareChild(const ChildLimits& limits, int record) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    g_record = record;
    fcntl(record, F_SETFD, FD_CLOEXEC);
    Limit(RLIMIT_CORE, 0);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // A sanitizer reserves most of the address space.
    Limit(RLIMIT_AS, limits.memory);
#endif
    // The first call loads a library.
    std::array<void*, 1> frame{};
    backtrace(frame.data(), static_cast<int>(frame.size()));
    // A separate stack, because the thread's own may have overflowed.
    static std::array<char, kSignalStack> stack;
    const stack_t alternative = {stack.data(), 0, stack.size()};
    sigaltstack(&alternative, nullptr);
    for (const NamedSignal& signal : kCrashSignals) {
        Handle(signal.number, &OnCrash, SA_ONSTACK | static_cast<int>(SA_RESETHAND));
    }
    Handle(SIGRTMAX, &OnStackWanted, SA_RESTART);
    Handle(SIGALRM, &OnAlarm, SA_RESTART);
    constexpr int kThousand = 1000;
    itimerval timer{};
    timer.it_value.tv_sec = limits.time.count() / kThousand;
    timer.it_value.tv_usec = limits.time.count() % kThousand * kThousand;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

std::vector<std::string> RunCheck(const Check& check, const Context& context) {
    try {
        check.run(context);
        return {kPassRecord};
    } catch (const Finding& finding) {
        return {kFailRecord, finding.expected, finding.got};
    } catch (const NotApplicable& skip) {
        return {kSkipRecord, skip.reason};
    } catch (const std::exception& exception) {
        return {kFailRecord, "no exception", exception.what()};
    }
}

std::vector<std::string> ProbeModule(const Context& context) {
    try {
        const Module module(context);
        const ZUModDescriptor& descriptor = module.Descriptor();
        ModuleKind kind = context.kind != ModuleKind::kUnknown ? context.kind : KindByName(descriptor.name);
        if (kind == ModuleKind::kUnknown) {
            kind = KindByCreation(context);
        }
        return {kModuleRecord, KindName(kind), Cut(descriptor.name), std::to_string(descriptor.version >> 48),
                Cut(descriptor.build_stamp)};
    } catch (const NotApplicable& skip) {
        return {kSkipRecord, skip.reason};
    }
}

std::string RecordLine(const std::vector<std::string>& record) {
    std::string line;
    for (const std::string& field : record) {
        line += SafeText(field);
        line += '\t';
    }
    if (!line.empty()) {
        line.back() = '\n';
    }
    return line;
}

std::vector<std::string> ParseRecord(const std::string& line) {
    std::vector<std::string> fields;
    for (size_t begin = 0; begin <= line.size();) {
        const size_t end = std::min(line.find('\t', begin), line.size());
        fields.push_back(line.substr(begin, end - begin));
        begin = end + 1;
    }
    return fields;
}

}  // namespace zumod::validate
