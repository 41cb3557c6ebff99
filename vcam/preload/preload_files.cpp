// open, close, dup, fcntl, read, write and their other names.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>

#include "vcam/preload/preload.h"
#include "vcam/preload/raw_system.h"
#include "vcam/preload/rpc_client.h"

// The fortified names, which <fcntl.h> does not declare.
extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int directory, const char* path, int flags);
int __openat64_2(int directory, const char* path, int flags);
ssize_t __read_chk(int fd, void* buffer, size_t size, size_t buffer_size);
}

namespace zumod::vcam {
namespace {

constexpr int kNotOurs = -2;

int Fail(int error) {
    errno = error;
    return -1;
}

// Opens a virtual camera: the descriptor, -1 with errno set, or kNotOurs.
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
    const FileIdentity nobody{};
    Request request = MakeRequest(Operation::kOpen, nobody);
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

// A copy of a descriptor is ours if the first one is.
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

// What fcntl says of our descriptors beside what is true of the socket: how the file was opened.
int FixStatus(int fd, int command, int result) {
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

ZU_VCAM_EXPORT int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (TakesMode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    const int fd = OpenNode(AT_FDCWD, path, flags);
    return fd != kNotOurs ? fd : ZU_VCAM_REAL(open)(path, flags, mode);
}

ZU_VCAM_EXPORT int open64(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (TakesMode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    const int fd = OpenNode(AT_FDCWD, path, flags);
    return fd != kNotOurs ? fd : ZU_VCAM_REAL(open64)(path, flags, mode);
}

ZU_VCAM_EXPORT int openat(int directory, const char* path, int flags, ...) {
    mode_t mode = 0;
    if (TakesMode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    const int fd = OpenNode(directory, path, flags);
    return fd != kNotOurs ? fd : ZU_VCAM_REAL(openat)(directory, path, flags, mode);
}

ZU_VCAM_EXPORT int openat64(int directory, const char* path, int flags, ...) {
    mode_t mode = 0;
    if (TakesMode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    const int fd = OpenNode(directory, path, flags);
    return fd != kNotOurs ? fd : ZU_VCAM_REAL(openat64)(directory, path, flags, mode);
}

ZU_VCAM_EXPORT int __open_2(const char* path, int flags) {
    const int fd = OpenNode(AT_FDCWD, path, flags);
    return fd != kNotOurs ? fd : ZU_VCAM_REAL(__open_2)(path, flags);
}

ZU_VCAM_EXPORT int __open64_2(const char* path, int flags) {
    const int fd = OpenNode(AT_FDCWD, path, flags);
    return fd != kNotOurs ? fd : ZU_VCAM_REAL(__open64_2)(path, flags);
}

ZU_VCAM_EXPORT int __openat_2(int directory, const char* path, int flags) {
    const int fd = OpenNode(directory, path, flags);
    return fd != kNotOurs ? fd : ZU_VCAM_REAL(__openat_2)(directory, path, flags);
}

ZU_VCAM_EXPORT int __openat64_2(int directory, const char* path, int flags) {
    const int fd = OpenNode(directory, path, flags);
    return fd != kNotOurs ? fd : ZU_VCAM_REAL(__openat64_2)(directory, path, flags);
}

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

ZU_VCAM_EXPORT int fcntl(int fd, int command, ...) {
    if (TakesNoArgument(command)) {
        return FixStatus(fd, command, ZU_VCAM_REAL(fcntl)(fd, command));
    }
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return FixStatus(fd, command, ZU_VCAM_REAL(fcntl)(fd, command, argument));
}

ZU_VCAM_EXPORT int fcntl64(int fd, int command, ...) {
    if (TakesNoArgument(command)) {
        return FixStatus(fd, command, ZU_VCAM_REAL(fcntl64)(fd, command));
    }
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return FixStatus(fd, command, ZU_VCAM_REAL(fcntl64)(fd, command, argument));
}

// The cameras stream and do neither read nor write: as a driver without them, they refuse.
ZU_VCAM_EXPORT ssize_t read(int fd, void* buffer, size_t size) {
    return IsOurs(fd) ? Fail(EINVAL) : ZU_VCAM_REAL(read)(fd, buffer, size);
}

ZU_VCAM_EXPORT ssize_t __read_chk(int fd, void* buffer, size_t size, size_t buffer_size) {
    return IsOurs(fd) ? Fail(EINVAL) : ZU_VCAM_REAL(__read_chk)(fd, buffer, size, buffer_size);
}

ZU_VCAM_EXPORT ssize_t write(int fd, const void* buffer, size_t size) {
    return IsOurs(fd) ? Fail(EINVAL) : ZU_VCAM_REAL(write)(fd, buffer, size);
}
