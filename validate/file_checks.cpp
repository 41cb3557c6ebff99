// Checks of the file, and of what loading and unloading it does to a process.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include "validate/checks.h"
#include "validate/elf_image.h"
#include "validate/module_under_test.h"
#include "validate/process_look.h"

namespace zumod::validate {
namespace {

constexpr size_t kKiB = 1024;

// Standard output and standard error, in memory, until the end of its life.
class CapturedOutput {
public:
    CapturedOutput() : m_file(memfd_create("output", MFD_CLOEXEC)) {
        std::fflush(nullptr);
        for (size_t i = 0; i < kStandard.size(); ++i) {
            m_saved[i] = fcntl(kStandard[i], F_DUPFD_CLOEXEC, 0);
            dup2(m_file, kStandard[i]);
        }
    }
    ~CapturedOutput() {
        std::fflush(nullptr);
        for (size_t i = 0; i < kStandard.size(); ++i) {
            dup2(m_saved[i], kStandard[i]);
            close(m_saved[i]);
        }
        close(m_file);
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    // The number of bytes written so far.
    int64_t Size() const {
        std::fflush(nullptr);
        struct stat status {};
        fstat(m_file, &status);
        return status.st_size;
    }

private:
    static constexpr std::array<int, 2> kStandard = {STDOUT_FILENO, STDERR_FILENO};
    const int m_file;
    std::array<int, 2> m_saved{};
};

// What loading must leave as it is, by name.
std::map<std::string, std::string> ProcessState() {
    std::map<std::string, std::string> state;
    state["number of threads"] = std::to_string(ThreadCount());
    for (const std::string& descriptor : OpenDescriptors()) {
        state["descriptors"].append(descriptor).append(", ");
    }
    const mode_t mask = umask(0);
    umask(mask);
    state["umask"] = std::to_string(mask);
    state["locale"] = std::setlocale(LC_ALL, nullptr);  // NOLINT(concurrency-mt-unsafe): the only thread
    state["working directory"] = std::filesystem::current_path().string();
    for (char** variable = environ; *variable != nullptr; ++variable) {
        state["environment"].append(*variable).append("\n");
    }
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        state["handler of signal " + std::to_string(signal)] =
            std::to_string(reinterpret_cast<uintptr_t>(action.sa_handler));
    }
    return state;
}

void LoadUseUnload(const Context& context) {
    Module module(context);
    HostDouble host;
    module.Attach(&host);
    UseBriefly(module);
    module.Detach();
    module.Unload();
}

}  // namespace

void OneExport(const Context& context) {
    std::string names;
    for (const ElfImage::Symbol& symbol : ElfImage(context.file).ExportedSymbols()) {
        names.append(names.empty() ? "" : ", ").append(symbol.name);
    }
    Expect(names == kEntryPointName, kEntryPointName, names.empty() ? "no export" : names);
}

void NoUniqueSymbol(const Context& context) {
    for (const ElfImage::Symbol& symbol : ElfImage(context.file).ExportedSymbols()) {
        Expect(symbol.binding != STB_GNU_UNIQUE, "no symbol of the kind \"unique\"", symbol.name);
    }
}

void NoTextRelocations(const Context& context) {
    const ElfImage image(context.file);
    Expect(!image.Dynamic(DT_TEXTREL) && (image.Dynamic(DT_FLAGS).value_or(0) & DF_TEXTREL) == 0,
           "code that is not changed when it is loaded", "DT_TEXTREL");
}

void NoExecutableStack(const Context& context) {
    const auto stack = ElfImage(context.file).Segment(PT_GNU_STACK);
    Expect(stack && (stack->p_flags & PF_X) == 0, "PT_GNU_STACK without PF_X",
           stack ? "an executable stack" : "no PT_GNU_STACK");
}

void ReadOnlyRelocations(const Context& context) {
    const ElfImage image(context.file);
    Expect(image.Segment(PT_GNU_RELRO).has_value(), "PT_GNU_RELRO (linked with -z relro)", "none");
    Expect(image.Dynamic(DT_BIND_NOW) || (image.Dynamic(DT_FLAGS).value_or(0) & DF_BIND_NOW) != 0 ||
               (image.Dynamic(DT_FLAGS_1).value_or(0) & DF_1_NOW) != 0,
           "immediate binding (linked with -z now)", "lazy binding");
}

void NoRunPath(const Context& context) {
    const ElfImage image(context.file);
    Expect(!image.Dynamic(DT_RPATH) && !image.Dynamic(DT_RUNPATH), "no DT_RPATH and no DT_RUNPATH",
           "a search path of the build machine");
}

void ResolvesNow(const Context& context) {
    std::string error;
    Expect(LoadFile(context.file, error) != nullptr, "dlopen with RTLD_NOW succeeds", error);
}

void NoSideEffects(const Context& context) {
    const auto before = ProcessState();
    std::string error;
    void* library = nullptr;
    int64_t written = 0;
    {
        const CapturedOutput output;
        library = LoadFile(context.file, error);
        written = output.Size();
    }
    if (library == nullptr) {
        throw NotApplicable{"the module does not load"};
    }
    ExpectEqual("the number of bytes written to standard output and error", 0, written);
    const auto after = ProcessState();
    for (const auto& [name, value] : before) {
        const auto found = after.find(name);
        if (found == after.end() || found->second != value) {
            throw Finding{std::string(name).append(" as before: ").append(value),
                          found != after.end() ? found->second : "nothing"};
        }
    }
}

void ManyLoads(const Context& context) {
    constexpr int kWarmUp = 3;
    constexpr int kRounds = 20;
    constexpr size_t kAllowed = 64 * kKiB;
    size_t before = 0;
    for (int round = 0; round < kRounds; ++round) {
        LoadUseUnload(context);
        if (round == kWarmUp) {
            before = HeapInUse();
        }
    }
    const size_t after = HeapInUse();
    Expect(after < before + kAllowed, "less than 64 KiB more memory in use after 16 rounds",
           std::to_string((after - before) / kKiB) + " KiB more");
}

void UnloadsHarmlessly(const Context& context) {
    // The destructors that are left run when the process ends. A crash in one of them is the result then.
    LoadUseUnload(context);
}

}  // namespace zumod::validate
