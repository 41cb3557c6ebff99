#include "common/sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/dma-heap.h>
#include <linux/videodev2.h>
#include <linux/vt.h>
#include <netinet/in.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <utility>

#include "common/call_filter.h"
#include "common/landlock.h"
#include "common/unique_fd.h"
#include "common/unix_socket.h"
#include "tests/support/process/scoped_environment.h"
#include "tests/support/process/work_directory.h"

namespace zumod {
namespace {

// "0", or the name of errno after a call that returned a negative number.
std::string Outcome(long result) {
    return result >= 0 ? "0" : strerrorname_np(errno);
}

struct End {
    std::string said;
    int signal = 0;  // that ended the process
};

// The report of the sandbox, or why it was not entered.
std::string ReportOf(const SandboxPlan& plan) {
    const auto report = EnterSandbox(plan);
    return report ? *report : report.error().text;
}

// What `act` returns in a child.
End InAnyChild(const std::function<std::string()>& act) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    UniqueFd from_child(ends[0]);
    UniqueFd to_parent(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        const std::string said = act();
        [[maybe_unused]] const ssize_t count = write(to_parent.Get(), said.data(), said.size());
        _exit(0);
    }
    to_parent.Reset();
    End end;
    char buffer[4096];
    for (ssize_t count = 0; (count = read(from_child.Get(), buffer, sizeof buffer)) > 0;) {
        end.said.append(buffer, static_cast<size_t>(count));
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    end.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return end;
}

// What `act` returns in a child that has entered the sandbox.
End InSandbox(const SandboxPlan& plan, const std::function<std::string()>& act) {
    return InAnyChild([&] {
        const auto report = EnterSandbox(plan);
        return report ? act() : report.error().text;
    });
}

class Sandbox : public ::testing::Test {
protected:
    const testing::WorkDirectory work;
};

class SandboxOfFiles : public Sandbox {
protected:
    void SetUp() override {
        if (const auto version = LandlockVersion(); !version) {
            GTEST_SKIP() << "the kernel has no Landlock: " << version.error().text;
        }
    }
};

class SandboxOfCalls : public Sandbox {
protected:
    void SetUp() override {
        if (const auto found = FindCallFilter(); !found) {
            GTEST_SKIP() << "the kernel has no filter of system calls: " << found.error().text;
        }
    }
};

TEST_F(Sandbox, ReportsWhatIsInForceAndWhatTheKernelDoesNotHave) {
    std::string expected = "sandbox: no new privileges, no capabilities";
    expected += kIsSanitized ? "" : ", not dumpable";
    const auto version = LandlockVersion();
    const auto filter = FindCallFilter();
    expected += version ? ", Landlock " + std::to_string(*version) : "";
    expected += filter ? ", filtered system calls" : "";
    expected += version ? "" : "; the kernel has no Landlock (" + version.error().text + ")";
    expected += filter ? "" : "; the kernel has no filter of system calls (" + filter.error().text + ")";
    EXPECT_EQ(InAnyChild([] { return ReportOf({}); }).said, expected);
    const testing::ScopedVariable variable("ZU_VCAM", "server");
    EXPECT_EQ(InAnyChild([] { return ReportOf({.cameras = true}); }).said,
              expected + "; connecting is permitted for the virtual cameras of ZU_VCAM");
}

// A kernel that answers these calls with an error, as far as this process can see.
void FailCalls(std::initializer_list<int> calls, uint32_t error) {
    const scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    for (const int call : calls) {
        EXPECT_EQ(seccomp_rule_add(filter, SCMP_ACT_ERRNO(error), call, 0), 0);
    }
    EXPECT_EQ(seccomp_load(filter), 0);
    seccomp_release(filter);
}

TEST_F(SandboxOfCalls, WithoutLandlockOrAFilterTheRestIsInForce) {
    const End end = InAnyChild([] {
        FailCalls({SCMP_SYS(landlock_create_ruleset), SCMP_SYS(seccomp)}, ENOSYS);
        return ReportOf({}) + '|' + std::to_string(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0));
    });
    EXPECT_EQ(end.said, std::string("sandbox: no new privileges, no capabilities") +
                            (kIsSanitized ? "" : ", not dumpable") +
                            "; the kernel has no Landlock (Function not implemented)"
                            "; the kernel has no filter of system calls (Function not implemented)|1");
}

TEST_F(SandboxOfFiles, ItIsNotEnteredIfTheKernelRefusesLandlock) {
    const End end = InAnyChild([] {
        FailCalls({SCMP_SYS(landlock_restrict_self)}, E2BIG);
        return ReportOf({});
    });
    EXPECT_EQ(end.said, "Landlock is not put in force: Argument list too long");
}

TEST_F(SandboxOfFiles, WithoutAFilterSignalsAndAbstractSocketsStillEndAtTheProgram) {
    if (*LandlockVersion() < 6) {
        GTEST_SKIP() << "Landlock restricts neither before version 6";
    }
    const UniqueFd listener = NewUnixSocket();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socklen_t size = sizeof(sa_family_t);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    // The kernel chooses an abstract name.
    ASSERT_EQ(bind(listener.Get(), name, size), 0);
    ASSERT_EQ(listen(listener.Get(), 8), 0);
    size = sizeof address;
    ASSERT_EQ(getsockname(listener.Get(), name, &size), 0);
    const auto tried = [&, parent = getpid()](const SandboxPlan& plan) {
        return InAnyChild([&] {
                   FailCalls({SCMP_SYS(seccomp)}, ENOSYS);
                   std::string said = EnterSandbox(plan) ? "" : "not entered ";
                   said += Outcome(kill(parent, 0));
                   return said + ' ' + Outcome(connect(NewUnixSocket().Get(), name, size));
               })
            .said;
    };
    EXPECT_EQ(tried({}), "EPERM EPERM");
    EXPECT_EQ(tried({.command = getpid()}), "0 EPERM");
    const testing::ScopedVariable variable("ZU_VCAM", "server");
    EXPECT_EQ(tried({.cameras = true}), "EPERM 0");
}

TEST_F(Sandbox, DropsPrivilegesForThisThreadAndLaterOnes) {
    const End end = InSandbox({}, [] {
        std::string said = std::to_string(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0));
        said += ' ' + std::to_string(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0));
        // As root: without capabilities the owner's rights remain, but no others.
        std::thread([&said] {
            struct {
                uint32_t version = 0x20080522;
                int pid = 0;
            } header;
            uint32_t sets[6] = {1, 1, 1, 1, 1, 1};
            syscall(SYS_capget, &header, sets);
            for (const uint32_t set : sets) {
                said += ' ' + std::to_string(set);
            }
        }).join();
        return said;
    });
    EXPECT_EQ(end.said, std::string("1 ") + (kIsSanitized ? "1" : "0") + " 0 0 0 0 0 0");
}

TEST_F(Sandbox, IsRefusedWhileAnotherThreadRuns) {
    if (kIsSanitized) {
        GTEST_SKIP() << "a sanitizer may run a thread, too";
    }
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd read_end(ends[0]);
    UniqueFd write_end(ends[1]);
    std::thread other([&] {
        char byte = 0;
        (void)!read(read_end.Get(), &byte, 1);
    });
    const auto result = EnterSandbox({});
    write_end.Reset();
    other.join();
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().text, "the sandbox cannot be entered: another thread runs already");
}

TEST_F(SandboxOfFiles, OnlyThePlansFilesCanBeUsed) {
    std::filesystem::create_directories(work / "modules");
    std::ofstream(work / "secret") << "x";
    std::ofstream(work / "modules/module") << "x";
    std::filesystem::create_symlink(work / "secret", work / "modules/link");
    const UniqueFd opened(open((work / "opened").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const End end = InSandbox({.modules = {work / "modules"}}, [&] {
        std::ostringstream said;
        const auto tried = [&](const std::string& path, int flags) {
            said << Outcome(open((work / path).c_str(), flags | O_CLOEXEC, 0600)) << ' ';
        };
        tried("modules/module", O_RDONLY);
        tried("modules/module", O_WRONLY);
        tried("modules/new", O_WRONLY | O_CREAT);
        tried("new", O_WRONLY | O_CREAT);
        tried("opened", O_WRONLY);
        tried(".", O_RDONLY | O_DIRECTORY);
        said << Outcome(open("/etc/passwd", O_RDONLY | O_CLOEXEC)) << ' ';
        said << Outcome(unlink((work / "modules/module").c_str())) << ' ';
        said << Outcome(write(opened.Get(), "x", 1));
        return said.str();
    });
    EXPECT_EQ(end.said, "0 EACCES EACCES EACCES EACCES EACCES EACCES EACCES 0");
}

TEST_F(SandboxOfFiles, AModuleMayBeALinkToAFileElsewhere) {
    std::filesystem::create_directories(work / "modules");
    std::filesystem::create_directories(work / "elsewhere");
    std::ofstream(work / "elsewhere/module") << "x";
    std::ofstream(work / "elsewhere/other") << "x";
    std::filesystem::create_symlink("../elsewhere/module", work / "modules/module");
    const End end = InSandbox({.modules = {work / "modules"}}, [this] {
        const std::string linked = Outcome(open((work / "modules/module").c_str(), O_RDONLY | O_CLOEXEC));
        return linked + ' ' + Outcome(open((work / "elsewhere/other").c_str(), O_RDONLY | O_CLOEXEC));
    });
    EXPECT_EQ(end.said, "0 EACCES");
}

TEST_F(SandboxOfFiles, TheSocketCanBeRemovedAndNothingCreated) {
    std::ofstream(work / "socket") << "";
    const End end = InSandbox({.socket_directory = work.Path()}, [this] {
        std::string said = Outcome(open((work / "other").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        said += ' ' + Outcome(open((work / "socket").c_str(), O_RDONLY | O_CLOEXEC));
        return said += ' ' + Outcome(unlink((work / "socket").c_str()));
    });
    EXPECT_EQ(end.said, "EACCES EACCES 0");
}

TEST_F(SandboxOfFiles, FilesAreCreatedAndRenamedOnlyInTheOutputDirectory) {
    std::filesystem::create_directories(work / "films");
    std::ofstream(work / "films/old") << "x";
    std::ofstream(work / "films/film") << "x";
    const auto act = [this] {
        const std::string film = work / "films/film";
        std::string said = Outcome(open((work / "films/new").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        said += ' ' + Outcome(rename((work / "films/old").c_str(), film.c_str()));
        said += ' ' + Outcome(rename(film.c_str(), (work / "film").c_str()));
        said += ' ' + Outcome(open((work / "other").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        return said += ' ' + Outcome(unlink(film.c_str()));
    };
    const std::string refused = FindCallFilter() ? "EPERM" : "EACCES";
    EXPECT_EQ(InSandbox({}, act).said, "EACCES " + refused + " " + refused + " EACCES EACCES");
    EXPECT_EQ(InSandbox({.output_directory = work / "films"}, act).said, "0 0 EACCES EACCES 0");
}

TEST_F(SandboxOfFiles, DevicesAreUsableOnlyWithCameras) {
    const auto use = [] { return Outcome(open("/dev/null", O_RDWR | O_CLOEXEC)); };
    EXPECT_EQ(InSandbox({}, use).said, "EACCES");
    // A file that did not exist when the sandbox was entered is permitted like this one: by its directory.
    EXPECT_EQ(InSandbox({.cameras = true}, use).said, "0");
}

TEST_F(SandboxOfFiles, OnlyTheTerminalOfStandardErrorCanBeOpenedAgain) {
    const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    const UniqueFd other(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(grantpt(terminal.Get()) == 0 && unlockpt(terminal.Get()) == 0);
    ASSERT_TRUE(grantpt(other.Get()) == 0 && unlockpt(other.Get()) == 0);
    char name[64];
    char other_name[64];
    ASSERT_EQ(ptsname_r(terminal.Get(), name, sizeof name), 0);
    ASSERT_EQ(ptsname_r(other.Get(), other_name, sizeof other_name), 0);
    constexpr int kFlags = O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const End end = InAnyChild([&] {
        const UniqueFd standard_error(open(name, O_RDWR | O_NOCTTY));
        dup2(standard_error.Get(), STDERR_FILENO);
        std::string said = EnterSandbox({}) ? "" : "not entered ";
        said += Outcome(open("/proc/self/fd/2", kFlags));
        return said + ' ' + Outcome(open(other_name, kFlags));
    });
    EXPECT_EQ(end.said, "0 EACCES");
}

TEST_F(SandboxOfCalls, NothingIsConnectedTo) {
    const UniqueFd connectable = NewUnixSocket();
    const End end = InSandbox({.cameras = true}, [&] {
        const UnixAddress nowhere = *UnixAddress::FromPath("/nonexistent");
        std::string said = Outcome(socket(AF_UNIX, SOCK_STREAM, 0));
        said += ' ' + Outcome(socket(AF_INET, SOCK_DGRAM, 0));
        said += ' ' + Outcome(nowhere.Connect(connectable));
        int pair[2];
        said += ' ' + Outcome(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair));
        return said + ' ' + Outcome(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    });
    EXPECT_EQ(end.said, "EPERM EPERM EPERM ENOSYS 0");
}

TEST_F(SandboxOfCalls, VirtualCamerasMayBeConnectedToAndNothingElse) {
    const testing::ScopedVariable variable("ZU_VCAM", "server");
    const auto connect_to_camera = [] {
        std::string said = Outcome(socket(AF_UNIX, SOCK_STREAM, 0));
        said += ' ' + Outcome(socket(AF_INET, SOCK_STREAM, 0));
        const UniqueFd camera(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        return said + ' ' + Outcome(UnixAddress::FromPath("/nonexistent")->Connect(camera));
    };
    EXPECT_EQ(InSandbox({.cameras = true}, connect_to_camera).said, "ENOSYS ENOSYS ENOENT");
    // The variable means nothing to a program that uses no cameras.
    EXPECT_EQ(InSandbox({}, connect_to_camera).said, "EPERM EPERM EPERM");
}

TEST_F(SandboxOfCalls, AProcessThatExecutesAProgramIsKilled) {
    const End end = InSandbox({}, [] {
        execl("/bin/true", "true", nullptr);
        return std::string("still here");
    });
    EXPECT_EQ(end.said, "");
    EXPECT_EQ(end.signal, SIGSYS);
}

TEST_F(SandboxOfCalls, NoProcessIsStartedOrSignalled) {
    if (kIsSanitized) {
        GTEST_SKIP() << "the run time of a sanitizer starts processes and needs signals";
    }
    const pid_t parent = getpid();
    const auto act = [parent] {
        std::string said = Outcome(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
        said += ' ' + Outcome(kill(parent, 0));
        said += ' ' + Outcome(kill(getpid(), 0));
        std::thread([&] { said += " thread"; }).join();
        said += ' ' + Outcome(prctl(PR_SET_DUMPABLE, 1, 0, 0, 0));
        rlimit limit{};
        said += ' ' + Outcome(getrlimit(RLIMIT_CORE, &limit));
        return said + ' ' + Outcome(setrlimit(RLIMIT_CORE, &limit));
    };
    EXPECT_EQ(InSandbox({}, act).said, "ENOSYS ENOSYS 0 thread ENOSYS 0 ENOSYS");
    EXPECT_EQ(InSandbox({.command = parent}, act).said, "ENOSYS 0 0 thread ENOSYS 0 ENOSYS");
}

TEST_F(SandboxOfCalls, AProcessThatMountsIsKilled) {
    const End end = InSandbox({}, [] {
        syscall(SYS_mount, nullptr, nullptr, nullptr, 0, nullptr);
        return std::string("still here");
    });
    EXPECT_EQ(end.said, "");
    EXPECT_EQ(end.signal, SIGSYS);
}

TEST_F(SandboxOfCalls, ALibraryThatStartsAHelperProgramIsRefused) {
    if (kIsSanitized) {
        GTEST_SKIP() << "the run time of a sanitizer starts processes";
    }
    // system() starts a process, which would execute a shell.
    const auto act = [] { return std::to_string(WEXITSTATUS(system("exit 0"))); };
    const End end = InSandbox({}, act);
    EXPECT_EQ(end.said, "127");
    EXPECT_EQ(end.signal, 0);
}

TEST_F(SandboxOfCalls, ADescriptorSendsNoSignalsToOthers) {
    const UniqueFd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const pid_t parent = getpid();
    const End end = InSandbox({}, [&] {
        std::string said = Outcome(fcntl(file.Get(), F_SETOWN, parent));
        said += ' ' + Outcome(fcntl(file.Get(), F_SETSIG, SIGKILL));
        return said + ' ' + Outcome(fcntl(file.Get(), F_SETFD, FD_CLOEXEC));
    });
    EXPECT_EQ(end.said, "ENOSYS ENOSYS 0");
}

TEST_F(SandboxOfCalls, OnlyDevicesOfCamerasAndCodecsAnswerIoctls) {
    const UniqueFd file(open("/dev/null", O_RDWR | O_CLOEXEC));
    const auto act = [&] {
        std::string said;
        v4l2_capability capability{};
        char bytes[64] = {};
        constexpr unsigned long kSoundCardInfo = 0x81785501;
        constexpr unsigned long kHidGetReportDescriptor = 0x90044802;  // of a security key
        // /dev/null itself answers ENOTTY to each of them. VT_ACTIVATE changes the console.
        for (const auto& [number, argument] : {std::pair<unsigned long, void*>{VIDIOC_QUERYCAP, &capability},
                                               {DMA_HEAP_IOCTL_ALLOC, bytes},
                                               {TIOCSTI, bytes},
                                               {VT_ACTIVATE, nullptr},
                                               {kSoundCardInfo, bytes},
                                               {kHidGetReportDescriptor, bytes}}) {
            said += ' ' + Outcome(ioctl(file.Get(), number, argument));
        }
        return said;
    };
    EXPECT_EQ(InSandbox({.cameras = true}, act).said, " ENOTTY ENOTTY ENOSYS ENOSYS ENOSYS ENOSYS");
    EXPECT_EQ(InSandbox({}, act).said, " ENOSYS ENOTTY ENOSYS ENOSYS ENOSYS ENOSYS");
}

}  // namespace
}  // namespace zumod
