// Interposed fopen: the one file of /sys that programs read to learn what kind of device a node is.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vcam/preload/preload.h"
#include "vcam/preload/raw_system.h"

namespace zumod::vcam {
namespace {

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

// A short text in memory. Does not use the C library's formatting, which may allocate.
struct Writer {
    char text[80];
    size_t size = 0;

    void Put(const char* more) { size = static_cast<size_t>(PutText(text + size, more) - text); }
    void Put(unsigned number) { size = static_cast<size_t>(PutNumber(text + size, number) - text); }
};

}  // namespace

int OpenEventFile(const char* path) {
    const int number = EventFileNumber(path);
    if (number < 0 || StatNode(number) != 0) {
        return -1;
    }
    Writer writer;
    const auto node = static_cast<unsigned>(number);
    writer.Put("MAJOR=");
    writer.Put(kVideoMajor);
    writer.Put("\nMINOR=");
    writer.Put(node);
    writer.Put("\nDEVNAME=video");
    writer.Put(node);
    writer.Put("\n");
    const char name[] = "zu-vcam-uevent";
    const long fd = RawCall(SYS_memfd_create, Word(name), 0);
    if (fd >= 0) {
        RawCall(SYS_write, fd, Word(writer.text), static_cast<long>(writer.size));
        RawCall(SYS_lseek, fd, 0, SEEK_SET);
    }
    return static_cast<int>(fd);
}

}  // namespace zumod::vcam

using namespace zumod::vcam;

ZU_VCAM_EXPORT FILE* fopen(const char* path, const char* mode) {
    const int fd = OpenEventFile(path);
    return fd >= 0 ? fdopen(fd, mode) : ZU_VCAM_REAL(fopen)(path, mode);
}

ZU_VCAM_EXPORT FILE* fopen64(const char* path, const char* mode) {
    const int fd = OpenEventFile(path);
    return fd >= 0 ? fdopen(fd, mode) : ZU_VCAM_REAL(fopen64)(path, mode);
}
