// Tests of the preload library: this program runs with it and calls the C library.
#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <fstream>
#include <set>
#include <thread>

#include "vcam/cli/control.h"
#include "vcam/picture/pattern.h"
#include "vcam/picture/pattern_reader.h"
#include "vcam/preload/addresses.h"
#include "vcam/testing/preloaded_cameras.h"
#include "vcam/testing/requests.h"

extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int directory, const char* path, int flags);
int __openat64_2(int directory, const char* path, int flags);
}

namespace zumod::vcam {
namespace {

int Call(int fd, unsigned long command, void* argument) {
    return ioctl(fd, command, argument) == 0 ? 0 : errno;
}

std::string CardOf(int fd) {
    v4l2_capability capability{};
    return Call(fd, VIDIOC_QUERYCAP, &capability) == 0 ? reinterpret_cast<const char*>(capability.card) : "";
}

int Request(int fd, uint32_t count) {
    v4l2_requestbuffers request = BufferRequest(count);
    return Call(fd, VIDIOC_REQBUFS, &request);
}

// Runs `work` in a child process. Returns what it returned there.
template <class Work>
bool InChild(Work work) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(work() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// An open device file that streams, with its buffers mapped and queued.
class Stream {
public:
    explicit Stream(int flags = O_RDWR | O_NONBLOCK, uint32_t count = 4) : m_fd(open("/dev/video0", flags)) {
        EXPECT_EQ(Request(m_fd, count), 0);
        for (uint32_t i = 0; i < count; ++i) {
            v4l2_buffer buffer = Buffer(i);
            EXPECT_EQ(Call(m_fd, VIDIOC_QUERYBUF, &buffer), 0);
            void* memory = mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd,
                                static_cast<off_t>(buffer.m.offset));
            EXPECT_NE(memory, MAP_FAILED);
            m_memory.push_back({memory, buffer.length});
            EXPECT_EQ(Call(m_fd, VIDIOC_QBUF, &buffer), 0);
        }
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(Call(m_fd, VIDIOC_STREAMON, &type), 0);
    }
    ~Stream() {
        for (const auto& [memory, length] : m_memory) {
            munmap(memory, length);
        }
        close(m_fd);
    }
    int Descriptor() const { return m_fd; }
    const uint8_t* Memory(uint32_t index) const {
        return static_cast<const uint8_t*>(m_memory.at(index).first);
    }

private:
    int m_fd;
    std::vector<std::pair<void*, size_t>> m_memory;
};

bool WaitReadable(int fd) {
    pollfd state{fd, POLLIN, 0};
    return poll(&state, 1, 20000) == 1;
}

TEST(Preload, OpensACameraByEveryVariantOfOpen) {
    const PreloadedCameras cameras{"card=Front"};
    const int directory = open("/dev", O_RDONLY | O_DIRECTORY);
    for (const int fd :
         {open("/dev/video0", O_RDWR), open64("/dev/video0", O_RDWR), openat(AT_FDCWD, "/dev/video0", O_RDWR),
          openat64(directory, "video0", O_RDWR), __open_2("/dev/video0", O_RDWR),
          __open64_2("/dev/video0", O_RDWR), __openat_2(directory, "video0", O_RDWR),
          __openat64_2(AT_FDCWD, "/dev/video0", O_RDWR),
          static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/dev/video0", O_RDWR))}) {
        ASSERT_GE(fd, 0);
        EXPECT_EQ(CardOf(fd), "Front");
        close(fd);
    }
    close(directory);
}

TEST(Preload, FindsNoCameraWithoutAServer) {
    EXPECT_EQ(open("/dev/video0", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Preload, LeavesOtherFilesAlone) {
    const PreloadedCameras cameras{""};
    EXPECT_EQ(open("/dev/video1", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    const int fd = open("/dev/null", O_RDWR);
    ASSERT_GE(fd, 0);
    v4l2_capability capability{};
    EXPECT_EQ(Call(fd, VIDIOC_QUERYCAP, &capability), ENOTTY);
    char byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 0);
    EXPECT_EQ(write(fd, &byte, 1), 1);
    struct stat status {};
    ASSERT_EQ(stat("/dev/null", &status), 0);
    EXPECT_EQ(major(status.st_rdev), 1U);
    close(fd);
    void* memory = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(memory, MAP_FAILED);
    munmap(memory, 4096);
}

TEST(Preload, CreatesFilesWithTheModeThatWasAsked) {
    const std::string path = ::testing::TempDir() + "m_zu_vcam_mode" + std::to_string(getpid());
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    struct stat status {};
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    close(fd);
    unlink(path.c_str());
}

TEST(Preload, HonoursTheFlagsOfOpen) {
    const PreloadedCameras cameras{""};
    const int fd = open("/dev/video0", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
    const int other = open("/dev/video0", O_RDWR);
    EXPECT_EQ(fcntl(other, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);
    EXPECT_EQ(fcntl(other, F_GETFD), 0);
    close(other);
}

TEST(Preload, MakesNodesLookLikeCharacterDevices) {
    const PreloadedCameras cameras{"device=7"};
    struct stat status {};
    ASSERT_EQ(stat("/dev/video7", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    EXPECT_EQ(major(status.st_rdev), 81U);
    EXPECT_EQ(minor(status.st_rdev), 7U);
    ASSERT_EQ(lstat("/dev/video7", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    struct stat64 status64 {};
    ASSERT_EQ(stat64("/dev/video7", &status64), 0);
    EXPECT_TRUE(S_ISCHR(status64.st_mode));
    ASSERT_EQ(fstatat(AT_FDCWD, "/dev/video7", &status, 0), 0);
    EXPECT_EQ(minor(status.st_rdev), 7U);
    struct statx extended {};
    ASSERT_EQ(statx(AT_FDCWD, "/dev/video7", 0, STATX_BASIC_STATS, &extended), 0);
    EXPECT_EQ(extended.stx_rdev_minor, 7U);
    struct statx by_number {};
    ASSERT_EQ(syscall(SYS_statx, AT_FDCWD, "/dev/video7", 0, STATX_BASIC_STATS, &by_number), 0);
    EXPECT_EQ(by_number.stx_rdev_minor, 7U);
    const int fd = open("/dev/video7", O_RDWR);
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    EXPECT_EQ(minor(status.st_rdev), 7U);
    close(fd);
    EXPECT_EQ(access("/dev/video7", R_OK | W_OK), 0);
    EXPECT_EQ(access("/dev/video7", X_OK), -1);
    EXPECT_EQ(stat("/dev/video8", &status), -1);
    char resolved[PATH_MAX];
#ifndef __SANITIZE_ADDRESS__  // that sanitizer's realpath goes to the C library past everything else
    EXPECT_STREQ(realpath("/dev/video7", resolved), "/dev/video7");
#endif
    EXPECT_EQ(readlink("/dev/video7", resolved, sizeof resolved), -1);
    EXPECT_EQ(errno, EINVAL);
    std::ifstream event("/sys/dev/char/81:7/uevent");
    std::string text((std::istreambuf_iterator<char>(event)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "MAJOR=81\nMINOR=7\nDEVNAME=video7\n");
}

TEST(Preload, RefusesToReadAndWrite) {
    const PreloadedCameras cameras{""};
    const int fd = open("/dev/video0", O_RDWR);
    const int copy = dup(fd);
    char byte = 0;
    for (const int each : {fd, copy}) {
        EXPECT_EQ(read(each, &byte, 1), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(write(each, &byte, 1), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    close(fd);
    close(copy);
}

// Reads the stream and closes it.
std::set<std::string> NodesByReaddir(DIR* directory) {
    std::set<std::string> names;
    while (const dirent* entry = readdir(directory)) {
        if (std::strncmp(entry->d_name, "video", 5) == 0) {
            EXPECT_TRUE(names.insert(entry->d_name).second);
            EXPECT_EQ(entry->d_type, DT_CHR);
        }
    }
    closedir(directory);
    return names;
}

TEST(Preload, ListsTheNodesInDev) {
    PreloadedCameras cameras{"", "device=12"};
    EXPECT_EQ(NodesByReaddir(opendir("/dev")), (std::set<std::string>{"video0", "video12"}));
    EXPECT_EQ(NodesByReaddir(fdopendir(open("/dev", O_RDONLY | O_DIRECTORY))),
              (std::set<std::string>{"video0", "video12"}));
    EXPECT_EQ(NodesByReaddir(fdopendir(open("/sys", O_RDONLY | O_DIRECTORY))), std::set<std::string>());
    dirent** entries = nullptr;
    const int count = scandir(
        "/dev", &entries,
        [](const dirent* entry) { return std::strncmp(entry->d_name, "video", 5) == 0 ? 1 : 0; }, alphasort);
    ASSERT_EQ(count, 2);
    EXPECT_STREQ(entries[0]->d_name, "video0");
    EXPECT_STREQ(entries[1]->d_name, "video12");
    std::free(entries[0]);
    std::free(entries[1]);
    std::free(entries);
    glob_t found{};
    ASSERT_EQ(glob("/dev/video*", 0, nullptr, &found), 0);
    ASSERT_EQ(found.gl_pathc, 2U);
    EXPECT_STREQ(found.gl_pathv[1], "/dev/video12");
    globfree(&found);
    cameras.At(0).Inject(ParseFault("unplug").value());
    EXPECT_EQ(NodesByReaddir(opendir("/dev")), (std::set<std::string>{"video12"}));
}

TEST(Preload, StreamsPicturesOfTheModel) {
    const PreloadedCameras cameras{"card=Model,sizes=160x120,fps=200,formats=YU12"};
    const PictureLayout layout = LayOut(V4L2_PIX_FMT_YUV420, 160, 120);
    const Pattern pattern(layout, "Model YU12 200");
    const Stream stream;
    for (uint32_t i = 0; i < 20; ++i) {
        ASSERT_TRUE(WaitReadable(stream.Descriptor()));
        v4l2_buffer buffer = Buffer();
        ASSERT_EQ(Call(stream.Descriptor(), VIDIOC_DQBUF, &buffer), 0);
        const uint8_t* memory = stream.Memory(buffer.index);
        const auto stamp = ReadStamp(memory, layout);
        ASSERT_TRUE(stamp);
        EXPECT_EQ(stamp->counter, buffer.sequence);
        std::vector<uint8_t> picture(layout.sizeimage);
        picture.resize(pattern.Paint(picture.data(), *stamp));
        ASSERT_EQ(buffer.bytesused, picture.size());
        EXPECT_EQ(std::memcmp(memory, picture.data(), picture.size()), 0);
        ASSERT_EQ(Call(stream.Descriptor(), VIDIOC_QBUF, &buffer), 0);
    }
}

TEST(Preload, MapsOnlySharedReadableMemory) {
    const PreloadedCameras cameras{""};
    const int fd = open("/dev/video0", O_RDWR);
    ASSERT_EQ(Request(fd, 2), 0);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_WRITE, MAP_SHARED, fd, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    void* memory = mmap64(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    EXPECT_NE(memory, MAP_FAILED);
    munmap(memory, 4096);
    close(fd);
}

// Ends this process at its next call of getsockname, as the sandbox of a browser does.
bool ForbidGetsockname() {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getsockname, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{std::size(program), program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST(Preload, MapsFilesInASandboxThatForbidsOtherCalls) {
    if (!InChild([] { return ForbidGetsockname(); })) {
        GTEST_SKIP() << "the kernel takes no system call filter here";
    }
    const PreloadedCameras cameras{""};
    const int file = memfd_create("other", 0);
    ASSERT_EQ(ftruncate(file, 4096), 0);
    EXPECT_TRUE(InChild([&] {
        if (!ForbidGetsockname()) {
            return false;
        }
        void* const anonymous =
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return anonymous != MAP_FAILED &&
               mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0) != MAP_FAILED &&
               mmap64(nullptr, 4096, PROT_READ, MAP_PRIVATE, file, 0) != MAP_FAILED &&
               mmap(anonymous, 4096, PROT_READ, MAP_SHARED | MAP_FIXED, file, 0) == anonymous &&
               syscall(SYS_mmap, nullptr, 4096, PROT_READ, MAP_SHARED, file, 0) != -1;
    }));
    close(file);
}

TEST(Preload, KeepsWhatIsMappedWhereACameraRefusesAMapping) {
    const PreloadedCameras cameras{""};
    const int fd = open("/dev/video0", O_RDWR);
    ASSERT_EQ(Request(fd, 2), 0);
    auto* const before =
        static_cast<char*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(before, MAP_FAILED);
    EXPECT_TRUE(InChild([&] {
        *before = 'k';
        const void* refused = mmap(before, 4096, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 12345 * 4096);
        const int error = errno;
        return refused == MAP_FAILED && error == EINVAL && *before == 'k';
    }));
    EXPECT_EQ(mmap(before, 4096, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0), before);
    munmap(before, 4096);
    close(fd);
}

TEST(Preload, RefusesToMapAnotherSocketAsTheKernelDoes) {
    const int other = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(other, 0);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, other, 0), MAP_FAILED);
    EXPECT_EQ(errno, ENODEV);
    close(other);
}

TEST(Preload, TreatsEveryCopyOfADescriptorAsTheSameFile) {
    PreloadedCameras cameras{""};
    const int fd = open("/dev/video0", O_RDWR);
    const int copies[] = {dup(fd), dup2(fd, 200), dup3(fd, 201, O_CLOEXEC), fcntl(fd, F_DUPFD, 100)};
    ASSERT_EQ(Request(fd, 2), 0);
    close(fd);
    for (const int copy : copies) {
        v4l2_buffer buffer = Buffer(1);
        EXPECT_EQ(Call(copy, VIDIOC_QUERYBUF, &buffer), 0);
    }
    EXPECT_EQ(cameras.At(0).Status().open_files, 1U);
    for (const int copy : copies) {
        close(copy);
    }
    EXPECT_EQ(cameras.At(0).Status().open_files, 0U);
}

TEST(Preload, IsBusyForASecondStreamerInAnotherProcess) {
    const PreloadedCameras cameras{"sizes=64x64"};
    const Stream stream;
    EXPECT_TRUE(InChild([] {
        const int fd = open("/dev/video0", O_RDWR);
        return fd >= 0 && Request(fd, 2) == EBUSY;
    }));
}

TEST(Preload, IsFreedWhenTheProcessThatStreamsDies) {
    const PreloadedCameras cameras{"sizes=64x64"};
    EXPECT_TRUE(InChild([] {
        const Stream stream;
        _exit(0);
        return false;
    }));
    const int fd = open("/dev/video0", O_RDWR);
    EXPECT_EQ(Request(fd, 2), 0);
    close(fd);
}

TEST(Preload, DeliversFramesToAForkedProcess) {
    const PreloadedCameras cameras{"sizes=64x64,fps=200"};
    const Stream stream;
    EXPECT_TRUE(InChild([&] {
        v4l2_buffer buffer = Buffer();
        return WaitReadable(stream.Descriptor()) && Call(stream.Descriptor(), VIDIOC_DQBUF, &buffer) == 0;
    }));
}

TEST(Preload, RecognisesADescriptorInheritedThroughExec) {
    const PreloadedCameras cameras{"card=Inherited"};
    const int fd = open("/dev/video0", O_RDWR);
    // A number that nothing else in this process uses, without close-on-exec.
    const int inherited = fcntl(fd, F_DUPFD, 100);
    ASSERT_GE(inherited, 100);
    const std::string number = std::to_string(inherited);
    EXPECT_TRUE(InChild([&] {
        setenv("ZU_VCAM_TEST_DESCRIPTOR", number.c_str(), 1);
        execl("/proc/self/exe", "preload_test", "--gtest_filter=Preload.ChildRecognisesItsDescriptor",
              nullptr);
        return false;
    }));
    close(inherited);
    close(fd);
}

TEST(Preload, ChildRecognisesItsDescriptor) {
    const char* descriptor = std::getenv("ZU_VCAM_TEST_DESCRIPTOR");
    if (descriptor != nullptr) {
        EXPECT_EQ(CardOf(std::atoi(descriptor)), "Inherited");
    }
}

TEST(Preload, ServesManyThreadsAtOnce) {
    const PreloadedCameras cameras{"device=0", "device=1", "device=2"};
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([&good, i] {
            const std::string path = "/dev/video" + std::to_string(i % 3);
            for (int round = 0; round < 30; ++round) {
                const int fd = open(path.c_str(), O_RDWR);
                good += CardOf(fd) == "Virtual Camera" ? 1 : 0;
                close(fd);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good, 180);
}

TEST(Preload, ShowsAnUnpluggedCameraAsADriverDoes) {
    PreloadedCameras cameras{"sizes=64x64"};
    const Stream stream;
    cameras.At(0).Inject(ParseFault("unplug").value());
    pollfd state{stream.Descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&state, 1, 20000), 1);
    EXPECT_EQ(state.revents & (POLLERR | POLLHUP), POLLERR | POLLHUP);
    v4l2_buffer buffer = Buffer();
    EXPECT_EQ(Call(stream.Descriptor(), VIDIOC_DQBUF, &buffer), ENODEV);
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(Call(stream.Descriptor(), VIDIOC_STREAMOFF, &type), ENODEV);
    EXPECT_EQ(open("/dev/video0", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    struct stat status {};
    EXPECT_EQ(stat("/dev/video0", &status), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Preload, FindsARepluggedCameraUnderItsNewNumber) {
    PreloadedCameras cameras{"card=Back"};
    cameras.At(0).Inject(ParseFault("unplug").value());
    cameras.At(0).Inject(ParseFault("replug-as/3").value());
    EXPECT_EQ(open("/dev/video0", O_RDWR), -1);
    const int fd = open("/dev/video3", O_RDWR);
    EXPECT_EQ(CardOf(fd), "Back");
    close(fd);
}

TEST(Preload, SlowOpenTakesTheGivenTime) {
    const PreloadedCameras cameras{"fault=slow-open/60"};
    const auto start = std::chrono::steady_clock::now();
    close(open("/dev/video0", O_RDWR));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
}

TEST(Preload, AcceptsControlLinesFromAnyProcess) {
    PreloadedCameras cameras{"", "device=4"};
    EXPECT_TRUE(InChild([] { return SendControl("1 unplug") == std::string(); }));
    EXPECT_EQ(cameras.At(1).Number(), -1);
    ASSERT_TRUE(SendControl("1 replug-as/9"));
    EXPECT_EQ(cameras.At(1).Number(), 9);
    EXPECT_EQ(
        SendControl("1 status"),
        "device=/dev/video9 present=yes streaming=no open=0 format=NV12 size=640x480 fps=30/1 delivered=0 "
        "dropped=0");
    EXPECT_FALSE(SendControl("2 status"));
    EXPECT_EQ(SendControl("0 nonsense"), Fail("unknown fault \"nonsense\"", kExitUsage));
}

TEST(Preload, CannotControlWithoutAServer) {
    EXPECT_EQ(SendControl("0 status"), Fail("no virtual cameras here: ZU_VCAM is not set", kExitUsage));
    EXPECT_EQ(SendControl("0 status", "nobody-has-this-name"),
              Fail("the server of the virtual cameras does not answer", kExitUsage));
}

TEST(Preload, ReportsNoDeviceAfterTheEndOfItsServer) {
    int fd = -1;
    {
        const PreloadedCameras cameras{""};
        fd = open("/dev/video0", O_RDWR);
        ASSERT_EQ(CardOf(fd), "Virtual Camera");
    }
    v4l2_capability capability{};
    EXPECT_EQ(Call(fd, VIDIOC_QUERYCAP, &capability), ENODEV);
    v4l2_buffer buffer = Buffer();
    EXPECT_EQ(Call(fd, VIDIOC_DQBUF, &buffer), ENODEV);
    close(fd);
}

constexpr uid_t kOtherUser = 65534;

// Runs `work` in a child process of another user. Only root can do that.
template <class Work>
bool AsOtherUser(Work work) {
    return InChild([&] { return setuid(kOtherUser) == 0 && work(); });
}

TEST(CameraServer, RefusesAProgramOfAnotherUser) {
    if (!AsOtherUser([] { return true; })) {
        GTEST_SKIP() << "only root can become another user";
    }
    const PreloadedCameras cameras{""};
    EXPECT_TRUE(InChild([] { return open("/dev/video0", O_RDWR) >= 0; }));
    EXPECT_TRUE(AsOtherUser([] { return open("/dev/video0", O_RDWR) == -1 && errno == ENOENT; }));
}

TEST(CameraServer, IsNotBelievedIfItBelongsToAnotherUser) {
    if (!AsOtherUser([] { return true; })) {
        GTEST_SKIP() << "only root can become another user";
    }
    // The impostor owns the name; a request that reached it would be answered with success.
    const std::string name = "impostor." + std::to_string(getpid());
    int listening[2];
    ASSERT_EQ(pipe(listening), 0);
    const pid_t impostor = fork();
    if (impostor == 0) {
        sockaddr_un address{};
        const unsigned length = ServerAddress(name.c_str(), address);
        const int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        if (setuid(kOtherUser) != 0 ||
            bind(listener, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
            listen(listener, 5) != 0 || write(listening[1], "l", 1) != 1) {
            _exit(1);
        }
        for (;;) {
            const int connection = accept(listener, nullptr, nullptr);
            char request[8192];
            const Reply reply{};
            if (recv(connection, request, sizeof request, 0) > 0) {
                send(connection, &reply, sizeof reply, MSG_NOSIGNAL);
            }
            close(connection);
        }
    }
    char byte = 0;
    ASSERT_EQ(read(listening[0], &byte, 1), 1);
    EXPECT_EQ(SendControl("0 status", name),
              Fail("the server of the virtual cameras belongs to another user", kExitUsage));
    setenv(kServerVariable, name.c_str(), 1);
    EXPECT_EQ(access("/dev/video0", F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
    unsetenv(kServerVariable);
    kill(impostor, SIGKILL);
    waitpid(impostor, nullptr, 0);
    close(listening[0]);
    close(listening[1]);
}

TEST(CameraServer, ClosesTheOldestOfTooManyConnectionsWithoutARequest) {
    const PreloadedCameras cameras{""};
    sockaddr_un address{};
    const unsigned length = ServerAddress(std::getenv(kServerVariable), address);
    std::vector<UniqueFd> idle;
    for (int i = 0; i < 257; ++i) {
        idle.emplace_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        ASSERT_EQ(connect(idle.back().Get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    }
    const auto is_closed = [&](size_t index, int timeout_ms) {
        pollfd state{idle[index].Get(), POLLIN, 0};
        return poll(&state, 1, timeout_ms) == 1;
    };
    EXPECT_TRUE(is_closed(0, 20000));
    EXPECT_FALSE(is_closed(1, 0));
    EXPECT_FALSE(is_closed(256, 0));
    const int fd = open("/dev/video0", O_RDWR);
    EXPECT_EQ(CardOf(fd), "Virtual Camera");
    close(fd);
}

TEST(CameraServer, RefusesTwoCamerasWithOneNumber) {
    std::vector<CameraConfig> configs(2);
    configs[0].number = configs[1].number = 3;
    const auto server = CameraServer::Start(configs);
    ASSERT_FALSE(server);
    EXPECT_EQ(server.error().text, "two cameras have device=3");
}

TEST(CameraServer, NumbersACameraWithoutANumberByTheNextFreeOne) {
    std::vector<CameraConfig> configs(3);
    configs[1].number = 0;
    const auto server = CameraServer::Start(configs).value();
    EXPECT_EQ(server->At(0).Number(), 1);
    EXPECT_EQ(server->At(1).Number(), 0);
    EXPECT_EQ(server->At(2).Number(), 2);
}

TEST(CameraServer, RefusesANameThatIsTaken) {
    const std::string name = "taken." + std::to_string(getpid());
    const auto first = CameraServer::Start({CameraConfig()}, name).value();
    const auto second = CameraServer::Start({CameraConfig()}, name);
    ASSERT_FALSE(second);
    EXPECT_EQ(second.error().text, "cannot serve cameras: Address already in use");
}

}  // namespace
}  // namespace zumod::vcam
