#include "vcam/cli/program_check.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "common/safe_text.h"
#include "common/unique_fd.h"

namespace zumod::vcam {
namespace {

// Scripts that are the interpreters of scripts: the kernel follows at most this many.
constexpr int kMostInterpreters = 5;
// A program has about a dozen headers.
constexpr size_t kMostHeaders = 512;

bool IsRunnable(const std::string& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(file.c_str(), X_OK) == 0;
}

// The loader ignores LD_PRELOAD in a program that gains rights.
bool GainsRights(const std::string& file, ProgramUser starter) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) {
        return false;
    }
    constexpr mode_t kGroupBits = S_ISGID | S_IXGRP;
    return ((status.st_mode & S_ISUID) != 0 && status.st_uid != starter.user) ||
           ((status.st_mode & kGroupBits) == kGroupBits && status.st_gid != starter.group) ||
           (starter.user != 0 && getxattr(file.c_str(), "security.capability", nullptr, 0) > 0);
}

// The interpreter of a script, or empty.
std::string InterpreterOf(const std::string& beginning) {
    if (beginning.rfind("#!", 0) != 0) {
        return {};
    }
    std::istringstream words(beginning.substr(2, beginning.find('\n') - 2));
    std::string interpreter;
    words >> interpreter;
    return interpreter;
}

// Whether no header of the program names a dynamic loader.
bool IsStatic(int fd, const Elf64_Ehdr& program) {
    std::vector<Elf64_Phdr> headers(std::min<size_t>(program.e_phnum, kMostHeaders));
    const auto size = static_cast<ssize_t>(headers.size() * sizeof(Elf64_Phdr));
    return program.e_phentsize == sizeof(Elf64_Phdr) &&
           pread(fd, headers.data(), static_cast<size_t>(size), static_cast<off_t>(program.e_phoff)) ==
               size &&
           std::ranges::find(headers, Elf64_Word{PT_INTERP}, &Elf64_Phdr::p_type) == headers.end();
}

std::string WhyWithoutCameras(const std::string& file, ProgramUser starter, int depth) {
    const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::string beginning(256, '\0');
    const ssize_t read = fd ? pread(fd.Get(), beginning.data(), beginning.size(), 0) : 0;
    beginning.resize(static_cast<size_t>(std::max<ssize_t>(read, 0)));
    if (const std::string interpreter = InterpreterOf(beginning); !interpreter.empty()) {
        return depth < kMostInterpreters ? WhyWithoutCameras(interpreter, starter, depth + 1) : std::string();
    }
    const std::string name = '"' + SafeText(file) + '"';
    if (GainsRights(file, starter)) {
        return name + " runs with more rights than its user (set-uid, set-gid or capabilities)";
    }
    if (beginning.size() < sizeof(Elf64_Ehdr) || beginning.rfind(ELFMAG, 0) != 0) {
        return {};
    }
    if (beginning[EI_CLASS] != ELFCLASS64) {
        return name + " is a 32-bit program";
    }
    Elf64_Ehdr program;
    std::memcpy(&program, beginning.data(), sizeof program);
    return IsStatic(fd.Get(), program) ? name + " is statically linked" : std::string();
}

}  // namespace

std::string FindProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): no thread sets it
    std::istringstream directories(path == nullptr ? "/bin:/usr/bin" : path);
    for (std::string directory; std::getline(directories, directory, ':');) {
        std::string file = (directory.empty() ? "." : directory) + "/" + name;
        if (IsRunnable(file)) {
            return file;
        }
    }
    return {};
}

std::string WhyWithoutCameras(const std::string& file, ProgramUser starter) {
    return WhyWithoutCameras(file, starter, 0);
}

}  // namespace zumod::vcam
