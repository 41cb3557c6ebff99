// Interposed functions on files: open, fopen, close, dup, fcntl, read, write and their variants.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "vcam/preload/preload.h"
#include "vcam/preload/raw_system.h"
#include "vcam/preload/rpc_client.h"

namespace zumod::vcam {
namespace {

constexpr int kNotOurs = -2;

int Fail(int error) {
    errno = error;
    return -1;
}

// N of "/sys/dev/char/81:N/uevent" and "/sys/class/video4linux/videoN/uevent", or -1.
int EventFileNumber(const char* path) {
    if (path == nullptr || !SkipPrefix(path, "/sys/")) {
        return -1;
    }
    if (SkipPrefix(path, "dev/char/")) {
        if (TakeNumber(path) != static_cast<int>(kVideoMajor) || !SkipPrefix(path, ":")) {
            return -1;
        }
    } else if (!SkipPrefix(path, "class/video4linux/video")) {
        return -1;
    }
    const int number = TakeNumber(path);
    return std::strcmp(path, "/uevent") == 0 ? number : -1;
}

// Opens the contents of a virtual camera's uevent file in /sys, which programs read to learn what kind of
// device a node is; -1 for any other path. Does not use the C library's formatting, which may allocate.
int OpenEventFile(const char* path) {
    const int number = EventFileNumber(path);
    if (number < 0 || StatNode(number) != 0) {
        return -1;
    }
    const auto node = static_cast<unsigned>(number);
    char text[80];
    char* end = PutNumber(PutText(text, "MAJOR="), kVideoMajor);
    end = PutNumber(PutText(end, "\nMINOR="), node);
    end = PutText(PutNumber(PutText(end, "\nDEVNAME=video"), node), "\n");
    const char name[] = "zu-vcam-uevent";
    const long fd = RawCall(SYS_memfd_create, Word(name), 0);
    if (fd >= 0) {
        RawCall(SYS_write, fd, Word(text), end - text);
        RawCall(SYS_lseek, fd, 0, SEEK_SET);
    }
    return static_cast<int>(fd);
}

// Opens a virtual camera or its uevent file. Returns the descriptor, -1 with errno set, or kNotOurs.
int OpenNode(int directory, const char* path, int flags) {
    const int number = NodeNumber(directory, path);
    if (number < 0) {
        const int event_file = OpenEventFile(path);
        return event_file >= 0 ? event_file : kNotOurs;
    }
    const char* server = ServerName();
    if (server == nullptr) {
        return kNotOurs;
    }
    Request request = MakeRequest(Operation::kOpen);
    request.value = static_cast<uint64_t>(number);
    request.flags = static_cast<uint32_t>(flags);
    Reply reply{};
    int fd = -1;
    if (CallServer(server, request, nullptr, 0, reply, &fd, (flags & O_CLOEXEC) != 0) != 0 ||
        reply.error == kNotVirtual) {
        return kNotOurs;
    }
    if (reply.delay_ms != 0) {
        timespec delay{reply.delay_ms / 1000, static_cast<long>(reply.delay_ms % 1000) * 1000000};
        RawCall(SYS_nanosleep, Word(&delay), 0);
    }
    if (reply.error != 0) {
        return Fail(reply.error);
    }
    if (fd < 0) {
        return Fail(EMFILE);
    }
    MarkDescriptor(fd, true);
    return fd;
}

bool TakesMode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

// A copy of a descriptor is ours if the original is.
int MarkCopy(int from, int to) {
    if (to >= 0) {
        MarkDescriptor(to, IsMarked(from));
    }
    return to;
}

bool TakesNoArgument(int command) {
    return command == F_GETFD || command == F_GETFL || command == F_GETOWN || command == F_GETSIG ||
           command == F_GETLEASE || command == F_GETPIPE_SZ || command == F_GET_SEALS;
}

// Corrects what fcntl reports of our descriptors: the access mode is that of open(), not of the socket.
int FixResult(int fd, int command, int result) {
    FileIdentity identity;
    if (command == F_GETFL && result >= 0 && IsMarked(fd) && Identify(fd, identity)) {
        result = (result & ~O_ACCMODE) | static_cast<int>(identity.flags & O_ACCMODE);
    }
    if (command == F_DUPFD || command == F_DUPFD_CLOEXEC) {
        return MarkCopy(fd, result);
    }
    return result;
}

}  // namespace
}  // namespace zumod::vcam

using namespace zumod::vcam;

// The functions of the open family differ in their parameters, in the directory that a path is relative to,
// and in what is passed on.
#define ZU_VCAM_OPEN(name, parameters, directory, ...)                      \
    ZU_VCAM_EXPORT int name parameters {                                    \
        va_list rest;                                                       \
        va_start(rest, flags);                                              \
        const mode_t mode = TakesMode(flags) ? va_arg(rest, mode_t) : 0;    \
        va_end(rest);                                                       \
        const int fd = OpenNode(directory, path, flags);                    \
        return fd != kNotOurs ? fd : ZU_VCAM_REAL(name)(__VA_ARGS__, mode); \
    }
#define ZU_VCAM_OPEN_WITHOUT_MODE(name, parameters, directory, ...)   \
    ZU_VCAM_EXPORT int name parameters {                              \
        const int fd = OpenNode(directory, path, flags);              \
        return fd != kNotOurs ? fd : ZU_VCAM_REAL(name)(__VA_ARGS__); \
    }

// NOLINTBEGIN(bugprone-reserved-identifier): names of the C library
// NOLINTBEGIN(clang-analyzer-valist.Uninitialized): the macro starts the list
ZU_VCAM_OPEN(open, (const char* path, int flags, ...), AT_FDCWD, path, flags)
ZU_VCAM_OPEN(open64, (const char* path, int flags, ...), AT_FDCWD, path, flags)
ZU_VCAM_OPEN(openat, (int directory, const char* path, int flags, ...), directory, directory, path, flags)
ZU_VCAM_OPEN(openat64, (int directory, const char* path, int flags, ...), directory, directory, path, flags)
// NOLINTEND(clang-analyzer-valist.Uninitialized)
ZU_VCAM_OPEN_WITHOUT_MODE(__open_2, (const char* path, int flags), AT_FDCWD, path, flags)
ZU_VCAM_OPEN_WITHOUT_MODE(__open64_2, (const char* path, int flags), AT_FDCWD, path, flags)
ZU_VCAM_OPEN_WITHOUT_MODE(__openat_2, (int directory, const char* path, int flags), directory, directory,
                          path, flags)
ZU_VCAM_OPEN_WITHOUT_MODE(__openat64_2, (int directory, const char* path, int flags), directory, directory,
                          path, flags)

#define ZU_VCAM_FOPEN(name)                                                 \
    ZU_VCAM_EXPORT FILE* name(const char* path, const char* mode) {         \
        const int fd = OpenEventFile(path);                                 \
        return fd >= 0 ? fdopen(fd, mode) : ZU_VCAM_REAL(name)(path, mode); \
    }

ZU_VCAM_FOPEN(fopen)
ZU_VCAM_FOPEN(fopen64)

ZU_VCAM_EXPORT int close(int fd) {
    MarkDescriptor(fd, false);
    return ZU_VCAM_REAL(close)(fd);
}

ZU_VCAM_EXPORT int dup(int fd) __THROW {
    return MarkCopy(fd, ZU_VCAM_REAL(dup)(fd));
}

ZU_VCAM_EXPORT int dup2(int fd, int to) __THROW {
    return MarkCopy(fd, ZU_VCAM_REAL(dup2)(fd, to));
}

ZU_VCAM_EXPORT int dup3(int fd, int to, int flags) __THROW {
    return MarkCopy(fd, ZU_VCAM_REAL(dup3)(fd, to, flags));
}

#define ZU_VCAM_FCNTL(name)                                                       \
    ZU_VCAM_EXPORT int name(int fd, int command, ...) {                           \
        if (TakesNoArgument(command)) {                                           \
            return FixResult(fd, command, ZU_VCAM_REAL(name)(fd, command));       \
        }                                                                         \
        va_list rest;                                                             \
        va_start(rest, command);                                                  \
        void* argument = va_arg(rest, void*);                                     \
        va_end(rest);                                                             \
        return FixResult(fd, command, ZU_VCAM_REAL(name)(fd, command, argument)); \
    }

// NOLINTBEGIN(clang-analyzer-valist.Uninitialized): the macro starts the list
ZU_VCAM_FCNTL(fcntl)
ZU_VCAM_FCNTL(fcntl64)
// NOLINTEND(clang-analyzer-valist.Uninitialized)

// The cameras only stream. Like such a driver they refuse read and write.
ZU_VCAM_EXPORT ssize_t read(int fd, void* buffer, size_t size) {
    return IsOurs(fd) ? Fail(EINVAL) : ZU_VCAM_REAL(read)(fd, buffer, size);
}

ZU_VCAM_EXPORT ssize_t __read_chk(int fd, void* buffer, size_t size, size_t buffer_size) {
    return IsOurs(fd) ? Fail(EINVAL) : ZU_VCAM_REAL(__read_chk)(fd, buffer, size, buffer_size);
}

ZU_VCAM_EXPORT ssize_t write(int fd, const void* buffer, size_t size) {
    return IsOurs(fd) ? Fail(EINVAL) : ZU_VCAM_REAL(write)(fd, buffer, size);
}
// NOLINTEND(bugprone-reserved-identifier)
