// Shared by the pieces of the preload library: what is a virtual camera's, by path and by descriptor. No C++
// runtime, no constructors, no allocation; any thread, also between fork and exec.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "vcam/model/camera_board.h"
#include "vcam/model/wire.h"

namespace zumod::vcam {

// The server's name from the environment, or null.
const char* ServerName();

// N of "/dev/videoN", also as "videoN" relative to /dev; -1 for anything else.
int NodeNumber(int directory, const char* path);

// Whether a descriptor is a device file of a virtual camera. One system call.
bool Identify(int fd, FileIdentity& identity);

// Descriptors known to be ours, so that calls which are frequent on other files need no system call. A mark
// may be out of date: Identify decides.
void MarkDescriptor(int fd, bool is_ours);
bool IsMarked(int fd);
// Both: marked, and really ours.
inline bool IsOurs(int fd) {
    FileIdentity identity;
    return IsMarked(fd) && Identify(fd, identity);
}

// The board of a device file's camera; null when its server is gone.
CameraBoard* BoardOf(const FileIdentity& identity);

// 0, ENOENT for a camera that is unplugged, kNotVirtual for a number that is none's, errno otherwise.
int StatNode(int number);
// Fills `numbers` with the cameras there are; returns how many.
unsigned ListNodes(uint32_t (&numbers)[kMaxCameras]);

// A descriptor with what /sys says of a virtual camera, or -1 for any other path.
int OpenEventFile(const char* path);

// The next definition of a function the library stands in front of. Looked up once; null when there is none.
void* FindReal(const char* name);

}  // namespace zumod::vcam

// Marks a function that programs see.
#define ZU_VCAM_EXPORT extern "C" __attribute__((visibility("default")))

// The real function behind the one being defined.
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
