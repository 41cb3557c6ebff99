// The one file of /sys that programs read to learn what kind of device a node is.
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

// Takes `prefix` off the text; false when it does not begin with it.
bool Skip(const char*& text, const char* prefix) {
    const size_t length = std::strlen(prefix);
    if (std::strncmp(text, prefix, length) != 0) {
        return false;
    }
    text += length;
    return true;
}

// N of "/sys/dev/char/81:N/uevent" and "/sys/class/video4linux/videoN/uevent", or -1.
int EventFileNumber(const char* path) {
    if (path == nullptr || !(Skip(path, "/sys/dev/char/81:") || Skip(path, "/sys/class/video4linux/video"))) {
        return -1;
    }
    int number = 0;
    unsigned digits = 0;
    for (; *path >= '0' && *path <= '9' && digits < 3; ++path, ++digits) {
        number = number * 10 + (*path - '0');
    }
    return digits != 0 && std::strcmp(path, "/uevent") == 0 ? number : -1;
}

// Appends text and a number, without the C library's formatting.
struct Writer {
    char text[80];
    size_t size = 0;

    void Put(const char* more) {
        const size_t length = std::strlen(more);
        std::memcpy(text + size, more, length);
        size += length;
    }
    void Put(int number) {
        char digits[12];
        unsigned count = 0;
        for (; count == 0 || number != 0; number /= 10) {
            digits[count++] = static_cast<char>('0' + number % 10);
        }
        while (count != 0) {
            text[size++] = digits[--count];
        }
    }
};

}  // namespace

int OpenEventFile(const char* path) {
    const int number = EventFileNumber(path);
    if (number < 0 || StatNode(number) != 0) {
        return -1;
    }
    Writer writer;
    writer.Put("MAJOR=81\nMINOR=");
    writer.Put(number);
    writer.Put("\nDEVNAME=video");
    writer.Put(number);
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
