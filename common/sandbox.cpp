#include "common/sandbox.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "common/call_filter.h"
#include "common/landlock.h"

namespace zumod {
namespace {

// Set in the environment of a program that uses virtual cameras.
constexpr char kVirtualCamerasVariable[] = "ZU_VCAM";

constexpr uint64_t kRead = kLandlockReadFile | kLandlockReadDirectory;
constexpr uint64_t kWriteFiles =
    kRead | kLandlockWriteFile | kLandlockMakeFile | kLandlockRemoveFile | kLandlockTruncate;
constexpr uint64_t kUseDevices = kRead | kLandlockWriteFile | kLandlockDeviceIoctl;
// What shared libraries and the C library read.
constexpr const char* kSystemFiles[] = {
    "/usr/lib",
    "/usr/lib64",
    "/usr/local/lib",
    "/lib",
    "/lib64",
    "/etc/ld.so.cache",
    "/usr/share/zoneinfo",
    "/etc/localtime",
    "/sys/devices/system/cpu",
};
// What a codec that uses hardware reads, besides its device: which hardware there is, and the drivers'
// tables.
constexpr const char* kHardwareFiles[] = {
    "/sys/devices", "/sys/dev/char",     "/sys/class/drm",     "/sys/class/video4linux",
    "/sys/bus",     "/usr/share/libdrm", "/usr/share/drirc.d", "/etc/libva.conf",
};
constexpr const char* kHardwareDevices[] = {"/dev/dri", "/dev/dma_heap"};

// With more than one thread, the others would stay outside.
Expected<void> CheckThatThereIsOneThread() {
    std::error_code error;
    const std::filesystem::directory_iterator tasks("/proc/self/task", error);
    if (error == std::errc::no_such_file_or_directory) {
        return {};  // without /proc it is up to the program
    }
    if (error) {
        return Fail("the sandbox cannot be entered: /proc/self/task: " + error.message());
    }
    if (std::distance(begin(tasks), end(tasks)) != 1) {
        return Fail("the sandbox cannot be entered: another thread runs already");
    }
    return {};
}

Expected<void> DropCapabilities() {
    // Without the capability to do so, the bounding set stays: no_new_privs makes it irrelevant.
    for (unsigned long capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
        (void)prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    }
    (void)prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capset, &header, none) != 0) {
        return Fail("the capabilities cannot be dropped: " + ErrnoText(errno));
    }
    return {};
}

Expected<void> DropPrivileges() {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return Fail("new privileges cannot be ruled out: " + ErrnoText(errno));
    }
    if (auto dropped = DropCapabilities(); !dropped) {
        return dropped;
    }
    if (!kIsSanitized && prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
        return Fail("the process stays dumpable: " + ErrnoText(errno));
    }
    return {};
}

void AddRules(std::vector<LandlockRule>& rules, const auto& paths, uint64_t rights) {
    for (const auto& path : paths) {
        rules.push_back({path, rights});
    }
}

// Where the dynamic linker looks first, if the user says so.
std::vector<std::string> LibraryPath() {
    const char* value = std::getenv("LD_LIBRARY_PATH");  // NOLINT(concurrency-mt-unsafe): the only thread
    std::vector<std::string> directories;
    std::istringstream words(value != nullptr ? value : "");
    for (std::string directory; std::getline(words, directory, ':');) {
        if (directory.starts_with('/')) {
            directories.push_back(directory);
        }
    }
    return directories;
}

// The directory, and where its links lead.
void AddModules(std::vector<LandlockRule>& rules, const std::string& directory) {
    rules.push_back({directory, kRead});
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        if (entry.is_symlink(error)) {
            rules.push_back({entry.path(), kLandlockReadFile});
        }
    }
}

// The terminals at standard output and error: a program may open them again, so that its writes do not block.
void AddTerminals(std::vector<LandlockRule>& rules) {
    for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
        if (isatty(descriptor) == 1) {
            rules.push_back(
                {"/proc/self/fd/" + std::to_string(descriptor), kLandlockWriteFile | kLandlockDeviceIoctl});
        }
    }
}

// Builds that measure themselves need their own files.
void AddInstrumentation(std::vector<LandlockRule>& rules) {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (kIsSanitized) {
        rules.push_back({"/proc", kRead});
        rules.push_back({program.parent_path(), kRead});
    }
#ifdef ZU_COVERAGE
    rules.push_back({program.parent_path().parent_path(), kWriteFiles});
#endif
}

std::vector<LandlockRule> MakeRules(const SandboxPlan& plan) {
    std::vector<LandlockRule> rules;
    AddRules(rules, kSystemFiles, kRead);
    AddRules(rules, LibraryPath(), kRead);
    AddRules(rules, kHardwareFiles, kRead);
    AddRules(rules, kHardwareDevices, kUseDevices);
    for (const std::string& directory : plan.modules) {
        AddModules(rules, directory);
    }
    if (plan.cameras) {
        rules.push_back({"/dev", kUseDevices});
    }
    rules.push_back({plan.socket_directory, kLandlockRemoveFile});
    rules.push_back({plan.output_directory, kWriteFiles});
    AddTerminals(rules);
    AddInstrumentation(rules);
    return rules;
}

}  // namespace

Expected<std::string> EnterSandbox(const SandboxPlan& plan) {
    if (const auto checked = CheckThatThereIsOneThread(); !kIsSanitized && !checked) {
        return Fail(checked.error());
    }
    const char* const server = std::getenv(kVirtualCamerasVariable);  // NOLINT(concurrency-mt-unsafe)
    const bool virtual_cameras = plan.cameras && server != nullptr;
    if (const auto dropped = DropPrivileges(); !dropped) {
        return Fail(dropped.error());
    }
    std::string in_force = "sandbox: no new privileges, no capabilities";
    in_force += kIsSanitized ? "" : ", not dumpable";
    std::string missing;
    if (const auto version = LandlockVersion()) {
        const auto restricted =
            RestrictByLandlock(*version, MakeRules(plan), virtual_cameras, plan.command > 0);
        if (!restricted) {
            return Fail(restricted.error());
        }
        in_force += ", Landlock " + std::to_string(*version);
    } else {
        missing += "; the kernel has no Landlock (" + version.error().text + ")";
    }
    if (const auto found = FindCallFilter()) {
        const CallFilterNeeds needs{plan.cameras, virtual_cameras, !plan.output_directory.empty(),
                                    plan.command};
        if (const auto filtered = FilterCalls(needs); !filtered) {
            return Fail(filtered.error());
        }
        in_force += ", filtered system calls";
    } else {
        missing += "; the kernel has no filter of system calls (" + found.error().text + ")";
    }
    if (virtual_cameras) {
        missing +=
            "; connecting is permitted for the virtual cameras of " + std::string(kVirtualCamerasVariable);
    }
    return in_force + missing;
}

}  // namespace zumod
