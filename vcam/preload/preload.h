// What the parts of the preload library share: which paths and descriptors are a virtual camera's.
//
// The library runs inside programs that may be written in C, before their initialisation and between fork and
// exec. So it needs no C++ runtime library, has no constructors and allocates nothing where the C library's
// function would not.
//
// Thread rule: any thread.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "vcam/model/camera_board.h"
#include "vcam/model/wire.h"

namespace zumod::vcam {

// What stat() reports: node N has the device number kVideoMajor:N and the inode kFirstInode + N.
inline constexpr unsigned kVideoMajor = 81;
inline constexpr uint64_t kFirstInode = 0x5a560000;

// Removes `prefix` from the text; false if the text does not begin with it.
inline bool SkipPrefix(const char*& text, const char* prefix) {
    const size_t length = std::strlen(prefix);
    if (std::strncmp(text, prefix, length) != 0) {
        return false;
    }
    text += length;
    return true;
}

// Removes a number from 0 to 999 from the text and returns it; -1 if there is none. Leading zeros are not
// accepted.
inline int TakeNumber(const char*& text) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text, text + std::strlen(text), number);
    if (error != std::errc() || number > 999 || (*text == '0' && end != text + 1)) {
        return -1;
    }
    text = end;
    return static_cast<int>(number);
}

// Each writes without a NUL and returns the end of what it wrote.
inline char* PutText(char* out, const char* text) {
    return std::copy_n(text, std::strlen(text), out);
}
inline constexpr unsigned kMaxDigits = 10;
inline char* PutNumber(char* out, unsigned number) {
    return std::to_chars(out, out + kMaxDigits, number).ptr;
}

// The server's name from the environment, or null.
const char* ServerName();

// Whether a directory's descriptor, or AT_FDCWD, is /dev.
bool IsDevDirectory(int directory);
// N of "videoN", or -1.
int ReadNodeName(const char* name);
// N of "/dev/videoN", also as "videoN" relative to /dev; -1 for anything else.
int NodeNumber(int directory, const char* path);

// Whether a descriptor is a device file of a virtual camera. One system call.
bool Identify(int fd, FileIdentity& identity);

// Marks the descriptors of virtual cameras, so that frequent calls on other files need no system call. A mark
// may be out of date; only Identify is certain.
void MarkDescriptor(int fd, bool is_ours);
bool IsMarked(int fd);
// Marked, and confirmed by Identify.
inline bool IsOurs(int fd) {
    FileIdentity identity;
    return IsMarked(fd) && Identify(fd, identity);
}

// The board of a device file's camera, or null if its server is gone.
CameraBoard* BoardOf(const FileIdentity& identity);

// Returns 0, ENOENT for an unplugged camera, kNotVirtual for a number of no virtual camera, or another errno.
int StatNode(int number);
// Fills `numbers` with the node numbers of the cameras that are plugged in; returns their count.
unsigned ListNodes(uint32_t (&numbers)[kMaxCameras]);

// The next definition of an interposed function, or null if there is none.
void* FindReal(const char* name);

}  // namespace zumod::vcam

// Declares an interposed function.
#define ZU_VCAM_EXPORT extern "C" __attribute__((visibility("default")))

// The function that NAME would be without this library; looked up once.
#define ZU_VCAM_REAL(name)                                     \
    ([]() {                                                    \
        static std::atomic<void*> real{nullptr};               \
        void* function = real.load(std::memory_order_relaxed); \
        if (function == nullptr) {                             \
            function = ::zumod::vcam::FindReal(#name);         \
            real.store(function, std::memory_order_relaxed);   \
        }                                                      \
        return reinterpret_cast<decltype(&::name)>(function);  \
    }())
