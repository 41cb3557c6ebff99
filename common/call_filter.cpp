#include "common/call_filter.h"

#include <fcntl.h>
#include <linux/dma-heap.h>
#include <linux/media.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/sandbox.h"

namespace zumod {
namespace {

constexpr uint32_t kPermit = SCMP_ACT_ALLOW;
constexpr uint32_t kRefuse = SCMP_ACT_ERRNO(EPERM);
constexpr uint32_t kMissing = SCMP_ACT_ERRNO(ENOSYS);
constexpr uint32_t kKill = SCMP_ACT_KILL_PROCESS;

// Calls that are answered without a look at their arguments. Any other call is kMissing.
struct CallGroup {
    uint32_t answer;
    const char* calls;  // names with a space between them; one that this processor does not have is skipped
};

constexpr CallGroup kCalls[] = {
    // Descriptors and files; Landlock decides about paths.
    {kPermit,
     "read write readv writev pread64 pwrite64 preadv pwritev close close_range lseek open openat openat2 "
     "access faccessat faccessat2 stat lstat fstat newfstatat statx statfs fstatfs readlink readlinkat "
     "getdents getdents64 getcwd unlink unlinkat ftruncate fallocate fadvise64 fsync fdatasync "
     "sync_file_range flock dup dup2 dup3 pipe pipe2 umask sendfile splice memfd_create"},
    // Memory.
    {kPermit,
     "mmap munmap mprotect mremap madvise mlock mlock2 munlock msync mincore brk membarrier mbind "
     "get_mempolicy"},
    // Threads and time.
    {kPermit,
     "futex futex_waitv set_robust_list get_robust_list set_tid_address rseq arch_prctl sched_yield "
     "sched_getaffinity sched_getparam sched_getscheduler sched_get_priority_max sched_get_priority_min "
     "getpriority getcpu clock_gettime clock_getres clock_nanosleep nanosleep gettimeofday time times exit "
     "exit_group"},
    // Waiting.
    {kPermit,
     "poll ppoll select pselect6 epoll_create epoll_create1 epoll_ctl epoll_wait epoll_pwait epoll_pwait2 "
     "eventfd eventfd2 signalfd signalfd4 timerfd_create timerfd_settime timerfd_gettime wait4 waitid"},
    // Signals.
    {kPermit,
     "rt_sigaction rt_sigprocmask rt_sigreturn rt_sigpending rt_sigtimedwait rt_sigsuspend sigaltstack "
     "restart_syscall pause"},
    // What the process is.
    {kPermit,
     "getpid gettid getppid getuid geteuid getgid getegid getresuid getresgid getgroups getpgrp getpgid "
     "getsid getrlimit getrusage sysinfo uname getrandom capget"},
    // Sockets that are connected, or that listen.
    {kPermit,
     "accept accept4 recvfrom recvmsg recvmmsg sendto sendmsg sendmmsg getsockopt setsockopt getsockname "
     "getpeername shutdown"},
    // What libraries try and can do without.
    {kRefuse,
     "bind listen mkdir mkdirat rmdir link linkat symlink symlinkat mknod mknodat "
     "truncate chmod fchmod fchmodat chown fchown lchown fchownat utimensat setuid setgid setreuid setregid "
     "setresuid setresgid setgroups capset fork vfork setrlimit setpriority sched_setparam "
     "sched_setscheduler sched_setattr sched_setaffinity unshare setns chroot personality process_vm_readv"},
    // What only a program does that was taken over.
    {kKill,
     "execve execveat ptrace process_vm_writev mount umount2 pivot_root move_mount open_tree fsopen fsmount "
     "init_module finit_module kexec_load"},
};

// To notice that a device appears or is removed.
constexpr CallGroup kCallsOfCameras = {kPermit,
                                       "inotify_init inotify_init1 inotify_add_watch inotify_rm_watch"};
// To put a file in its place. Landlock decides where.
constexpr const char* kCallsOfOutputFiles = "rename renameat renameat2";
// To wait for the end of a child.
constexpr CallGroup kCallsOfChildren = {kPermit, "pidfd_open"};

// What the run time of a sanitizer does, in a build for tests only: it stops all threads by ptrace to look
// for leaks, and starts separate processes.
constexpr CallGroup kCallsOfSanitizers = {
    kPermit, "ptrace process_vm_readv clone prctl prlimit64 kill tgkill personality"};

// The second byte of an ioctl's number is its type. The two highest bits say in which direction it moves
// data: without a direction it may be an old number of another driver, such as the type V of consoles.
constexpr unsigned kIoctlTypeMask = 0xC000'FF00;
constexpr unsigned kIoctlDirections[] = {0x4000'0000, 0x8000'0000, 0xC000'0000};
constexpr std::initializer_list<char> kCodecIoctlTypes = {'d', 'b'};   // DRM, dma-buf
constexpr std::initializer_list<char> kCameraIoctlTypes = {'V', '|'};  // V4L2, media controller
constexpr unsigned kLowWord = 0xFFFFFFFF;  // the kernel ignores the rest; some callers sign-extend
constexpr std::initializer_list<unsigned> kIoctls = {
    // Questions about a descriptor: is it a terminal, its width, what can be read, what is not sent yet.
    TCGETS, TIOCGWINSZ, FIONREAD, TIOCOUTQ, FIONBIO, FIOCLEX, FIONCLEX,
    // A codec's memory, and requests to a codec that keeps no state.
    DMA_HEAP_IOCTL_ALLOC, MEDIA_REQUEST_IOC_QUEUE, MEDIA_REQUEST_IOC_REINIT};

// Not F_SETOWN and F_SETSIG: with them the kernel sends any signal to any process of the user.
constexpr std::initializer_list<unsigned> kFcntls = {F_DUPFD,      F_DUPFD_CLOEXEC, F_GETFD,     F_SETFD,
                                                     F_GETFL,      F_SETFL,         F_GETLK,     F_SETLK,
                                                     F_SETLKW,     F_OFD_GETLK,     F_OFD_SETLK, F_OFD_SETLKW,
                                                     F_GETPIPE_SZ, F_SETPIPE_SZ,    F_ADD_SEALS, F_GET_SEALS};

constexpr std::initializer_list<unsigned> kPrctls = {PR_SET_NAME,     PR_GET_NAME,         PR_SET_TIMERSLACK,
                                                     PR_GET_DUMPABLE, PR_GET_NO_NEW_PRIVS, PR_GET_SECCOMP,
                                                     PR_SET_VMA};
constexpr unsigned kSocketTypeMask = 0xF;

std::vector<std::string> Words(const char* names) {
    std::istringstream stream(names);
    return {std::istream_iterator<std::string>(stream), {}};
}

class Filter {
public:
    Filter() : m_context(seccomp_init(kMissing), &seccomp_release) {
        if (!m_context) {
            m_error = -ENOMEM;
            return;
        }
        Note(seccomp_attr_set(m_context.get(), SCMP_FLTATR_ACT_BADARCH, kKill));
        // A tree instead of a list: every call of every frame passes the filter.
        Note(seccomp_attr_set(m_context.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2));
    }

    // The calls that fulfil all conditions.
    void Answer(const char* name, uint32_t action, std::initializer_list<scmp_arg_cmp> conditions = {}) {
        const int number = seccomp_syscall_resolve_name(name);
        if (!m_context || number < 0) {
            return;
        }
        Note(seccomp_rule_add_array(m_context.get(), action, number, static_cast<unsigned>(conditions.size()),
                                    conditions.begin()));
    }
    void Permit(const char* name, std::initializer_list<scmp_arg_cmp> conditions) {
        // A call that is permitted in any case takes no conditions.
        if (!kIsSanitized || !IsOfSanitizers(name)) {
            Answer(name, kPermit, conditions);
        }
    }
    void AnswerAll(const CallGroup& group) {
        for (const std::string& name : Words(group.calls)) {
            if (group.answer == kPermit || !kIsSanitized || !IsOfSanitizers(name)) {
                Answer(name.c_str(), group.answer);
            }
        }
    }

    int Load() {
        if (m_error == 0) {
            Note(seccomp_load(m_context.get()));
        }
        return -m_error;
    }

private:
    static bool IsOfSanitizers(const std::string& name) {
        const auto names = Words(kCallsOfSanitizers.calls);
        return std::ranges::find(names, name) != names.end();
    }
    // Keeps the first error.
    void Note(int result) {
        if (result < 0 && m_error == 0) {
            m_error = result;
        }
    }

    const std::unique_ptr<void, void (*)(void*)> m_context;
    int m_error = 0;
};

scmp_arg_cmp Equals(unsigned argument, uint64_t value) {
    return {argument, SCMP_CMP_EQ, value, 0};
}

scmp_arg_cmp Masked(unsigned argument, uint64_t mask, uint64_t value) {
    return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

void PermitIoctls(Filter& filter, const CallFilterNeeds& needs) {
    const auto types = [&](std::initializer_list<char> list) {
        for (const char type : list) {
            for (const unsigned direction : kIoctlDirections) {
                filter.Permit("ioctl",
                              {Masked(1, kIoctlTypeMask, direction | static_cast<unsigned>(type) << 8U)});
            }
        }
    };
    const auto numbers = [&](std::initializer_list<unsigned> list) {
        for (const unsigned number : list) {
            filter.Permit("ioctl", {Masked(1, kLowWord, number)});
        }
    };
    types(kCodecIoctlTypes);
    numbers(kIoctls);
    if (needs.cameras) {
        types(kCameraIoctlTypes);
    }
}

void PermitSockets(Filter& filter, const CallFilterNeeds& needs) {
    // Not SOCK_DGRAM: sendto() on such a socket takes an address, which is as good as connect().
    for (const int type : {SOCK_STREAM, SOCK_SEQPACKET}) {
        filter.Permit("socketpair",
                      {Equals(0, AF_UNIX), Masked(1, kSocketTypeMask, static_cast<uint64_t>(type))});
    }
    if (needs.virtual_cameras) {
        filter.Permit("socket", {Equals(0, AF_UNIX), Masked(1, kSocketTypeMask, SOCK_SEQPACKET)});
        filter.Permit("connect", {});
    } else {
        filter.Answer("socket", kRefuse);
        filter.Answer("connect", kRefuse);
    }
}

void PermitOwnProcess(Filter& filter, const CallFilterNeeds& needs) {
    const auto self = static_cast<uint64_t>(getpid());
    filter.Permit("tgkill", {Equals(0, self)});
    filter.Permit("kill", {Equals(0, self)});
    if (needs.command > 0) {
        filter.Permit("kill", {Equals(0, static_cast<uint64_t>(needs.command))});
    }
    filter.Permit("clone", {Masked(0, CLONE_THREAD, CLONE_THREAD)});
    filter.Permit("prlimit64", {Equals(2, 0)});  // only asks
    for (const unsigned option : kPrctls) {
        filter.Permit("prctl", {Equals(0, option)});
    }
    for (const unsigned command : kFcntls) {
        filter.Permit("fcntl", {Masked(1, kLowWord, command)});
    }
}

}  // namespace

Expected<void> FindCallFilter() {
    const uint32_t action = SECCOMP_RET_KILL_PROCESS;
    if (syscall(SYS_seccomp, SECCOMP_GET_ACTION_AVAIL, 0, &action) != 0) {
        return Fail(ErrnoText(errno));
    }
    return {};
}

Expected<void> FilterCalls(const CallFilterNeeds& needs) {
    Filter filter;
    for (const CallGroup& group : kCalls) {
        filter.AnswerAll(group);
    }
    if (needs.cameras) {
        filter.AnswerAll(kCallsOfCameras);
    }
    filter.AnswerAll({needs.output_files ? kPermit : kRefuse, kCallsOfOutputFiles});
    if (needs.command > 0) {
        filter.AnswerAll(kCallsOfChildren);
    }
    if (kIsSanitized) {
        filter.AnswerAll(kCallsOfSanitizers);
    }
    PermitIoctls(filter, needs);
    PermitSockets(filter, needs);
    PermitOwnProcess(filter, needs);
    if (const int error = filter.Load(); error != 0) {
        return Fail("system calls are not filtered: " + ErrnoText(error));
    }
    return {};
}

}  // namespace zumod
