#include "src/capture/device_calls.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zumod::device {

int Open(const char* path, int flags) {
    // The mode is unused. Without it, _FORTIFY_SOURCE turns this into a call of __open_2().
    return ::open(path, flags, 0);
}

int Close(int descriptor) {
    return ::close(descriptor);
}

int Ioctl(int descriptor, unsigned long request, void* argument) {
    return ::ioctl(descriptor, request, argument);
}

void* Map(size_t length, int protection, int flags, int descriptor, off_t offset) {
    return ::mmap(nullptr, length, protection, flags, descriptor, offset);
}

int Unmap(void* address, size_t length) {
    return ::munmap(address, length);
}

int Select(int count, fd_set* readable, timeval* timeout) {
    return ::select(count, readable, nullptr, nullptr, timeout);
}

}  // namespace zumod::device
