// Interposed ioctl and mmap, and syscall(), with which some libraries make these and other calls.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "vcam/preload/preload.h"
#include "vcam/preload/raw_system.h"
#include "vcam/preload/rpc_client.h"

namespace zumod::vcam {
namespace {

constexpr unsigned kVideoType = 'V';

struct MapArguments {
    void* address;
    size_t length;
    int protection;
    int flags;
    int fd;
    off_t offset;
};

// Performs an ioctl on a virtual camera; false for any other descriptor.
bool DeviceIoctl(int fd, unsigned long command, void* argument, int& result) {
    FileIdentity identity;
    if (_IOC_TYPE(command) != kVideoType || !Identify(fd, identity)) {
        return false;
    }
    MarkDescriptor(fd, true);
    CameraBoard* board = BoardOf(identity);
    const int kept = errno;
    const int error = board == nullptr
                          ? ENODEV
                          : ClientIoctl(fd, identity, *board, ServerChannel(identity), command, argument);
    errno = error != 0 ? error : kept;
    result = error != 0 ? -1 : 0;
    return true;
}

// Whether the descriptor is a socket, as every descriptor of a virtual camera is.
bool IsSocket(int fd) {
    struct stat status {};
    return RawCall(SYS_fstat, fd, Word(&status)) == 0 && S_ISSOCK(status.st_mode);
}

// The memory that a virtual camera's descriptor stands for; -1, with errno set, if the camera refuses.
int MemoryOf(const FileIdentity& identity, const MapArguments& arguments) {
    if ((arguments.flags & MAP_SHARED) == 0 || (arguments.protection & PROT_READ) == 0) {
        errno = EINVAL;
        return -1;
    }
    Request request = MakeRequest(Operation::kMap, identity);
    request.value = static_cast<uint64_t>(arguments.offset);
    request.argument = arguments.length;
    request.flags = (arguments.protection & PROT_WRITE) != 0 ? 1 : 0;
    Reply reply{};
    int memory = -1;
    const int failure = CallServer(identity.server, request, nullptr, 0, reply, &memory);
    if (failure != 0 || reply.error != 0) {
        errno = failure != 0 ? failure : reply.error;
    } else if (memory < 0) {
        errno = EMFILE;
    }
    return memory;
}

// Every program maps files and memory, also where a seccomp filter ends it for a call it does not need, such
// as getsockname. So the kernel is asked first. A virtual camera's descriptor is a socket, and the kernel
// refuses to map any socket with ENODEV: only then Identify() looks closer.
//
// The refused attempt changes nothing, except with MAP_FIXED: the kernel removes what was mapped at the
// address before it asks the file. A camera would then leave a hole where it refuses a mapping, and another
// thread could map something into the hole before the second attempt. There a socket is recognised by fstat,
// which every filter allows, and the kernel is not asked.
template <class Map>
void* MapFile(const MapArguments& arguments, Map real) {
    const auto map = [&](int fd) {
        return real(arguments.address, arguments.length, arguments.protection, arguments.flags, fd,
                    arguments.offset);
    };
    const int kept = errno;
    const bool replaces = (arguments.flags & (MAP_FIXED | MAP_ANONYMOUS)) == MAP_FIXED;
    if (!replaces || !IsSocket(arguments.fd)) {
        void* mapped = map(arguments.fd);
        if (mapped != MAP_FAILED || errno != ENODEV) {
            return mapped;
        }
    }
    FileIdentity identity;
    if (!Identify(arguments.fd, identity)) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    const int memory = MemoryOf(identity, arguments);
    if (memory < 0) {
        return MAP_FAILED;
    }
    errno = kept;
    void* mapped = map(memory);
    RawClose(memory);
    return mapped;
}

}  // namespace
}  // namespace zumod::vcam

using namespace zumod::vcam;

ZU_VCAM_EXPORT int ioctl(int fd, unsigned long command, ...) __THROW {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    int result = 0;
    return DeviceIoctl(fd, command, argument, result) ? result : ZU_VCAM_REAL(ioctl)(fd, command, argument);
}

ZU_VCAM_EXPORT void* mmap(void* address, size_t length, int protection, int flags, int fd,
                          off_t offset) __THROW {
    return MapFile({address, length, protection, flags, fd, offset}, ZU_VCAM_REAL(mmap));
}

ZU_VCAM_EXPORT void* mmap64(void* address, size_t length, int protection, int flags, int fd,
                            off64_t offset) __THROW {
    return MapFile({address, length, protection, flags, fd, offset}, ZU_VCAM_REAL(mmap64));
}

// libv4lconvert makes its device calls in this way.
ZU_VCAM_EXPORT long syscall(long number, ...) __THROW {
    long words[6];
    va_list arguments;
    va_start(arguments, number);
    for (long& word : words) {
        word = va_arg(arguments, long);
    }
    va_end(arguments);
    const int first = static_cast<int>(words[0]);
    switch (number) {
        case SYS_openat:
            return openat(first, reinterpret_cast<const char*>(words[1]), static_cast<int>(words[2]),
                          static_cast<mode_t>(words[3]));
#ifdef SYS_open
        case SYS_open:
            return open(reinterpret_cast<const char*>(words[0]), static_cast<int>(words[1]),
                        static_cast<mode_t>(words[2]));
#endif
        case SYS_close:
            return close(first);
        case SYS_ioctl:
            return ioctl(first, static_cast<unsigned long>(words[1]), reinterpret_cast<void*>(words[2]));
        case SYS_mmap:
            return Word(mmap(reinterpret_cast<void*>(words[0]), static_cast<size_t>(words[1]),
                             static_cast<int>(words[2]), static_cast<int>(words[3]),
                             static_cast<int>(words[4]), words[5]));
        case SYS_statx:
            return statx(first, reinterpret_cast<const char*>(words[1]), static_cast<int>(words[2]),
                         static_cast<unsigned>(words[3]), reinterpret_cast<struct statx*>(words[4]));
        case SYS_read:
            return read(first, reinterpret_cast<void*>(words[1]), static_cast<size_t>(words[2]));
        default: {
            const long result = RawCall(number, words[0], words[1], words[2], words[3], words[4], words[5]);
            if (result < 0 && result > -4096) {
                errno = static_cast<int>(-result);
                return -1;
            }
            return result;
        }
    }
}
