// Interposed functions that inspect a path: stat, access, readlink, getxattr and their variants. A virtual
// camera looks like a character device that the user may read and write.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "vcam/preload/preload.h"
#include "vcam/preload/raw_system.h"

namespace zumod::vcam {
namespace {

constexpr mode_t kMode = S_IFCHR | 0660;
constexpr unsigned kDevice = 5;

enum class Answer { kNotOurs, kFailed, kFilled };

template <class Stat>
void Fill(int number, Stat& result) {
    std::memset(&result, 0, sizeof result);
    result.st_dev = kDevice;
    result.st_ino = kFirstInode + static_cast<unsigned>(number);
    result.st_mode = kMode;
    result.st_nlink = 1;
    result.st_uid = static_cast<uid_t>(RawCall(SYS_getuid));
    result.st_gid = static_cast<gid_t>(RawCall(SYS_getgid));
    result.st_rdev = makedev(kVideoMajor, static_cast<unsigned>(number));
    result.st_blksize = 4096;
}

// Finds the number of a node that is plugged in. kFailed sets errno.
Answer FindNode(int directory, const char* path, int& number) {
    number = NodeNumber(directory, path);
    if (number < 0 || ServerName() == nullptr) {
        return Answer::kNotOurs;
    }
    const int error = StatNode(number);
    if (error == kNotVirtual) {
        return Answer::kNotOurs;
    }
    if (error != 0) {
        errno = error;
        return Answer::kFailed;
    }
    return Answer::kFilled;
}

template <class Stat>
Answer StatPath(int directory, const char* path, Stat* result) {
    int number = -1;
    const Answer answer = FindNode(directory, path, number);
    if (answer == Answer::kFilled) {
        Fill(number, *result);
    }
    return answer;
}

template <class Stat>
Answer StatDescriptor(int fd, Stat* result) {
    FileIdentity identity;
    if (!IsMarked(fd) || !Identify(fd, identity)) {
        return Answer::kNotOurs;
    }
    Fill(static_cast<int>(identity.number), *result);
    return Answer::kFilled;
}

// realpath: sets *resolved to the result if the path is ours.
Answer ResolveNode(const char* path, char** resolved) {
    int number = -1;
    const Answer answer = FindNode(AT_FDCWD, path, number);
    if (answer == Answer::kFailed) {
        *resolved = nullptr;
    }
    if (answer != Answer::kFilled) {
        return answer;
    }
    if (*resolved == nullptr) {
        *resolved = static_cast<char*>(std::malloc(PATH_MAX));
    }
    if (*resolved != nullptr) {
        *PutNumber(PutText(*resolved, "/dev/video"), static_cast<unsigned>(number)) = 0;
    }
    return answer;
}

constexpr int kNotALink = EINVAL;
constexpr int kNoAttribute = ENODATA;

// For a call that fails on every device file.
Answer Refuse(int directory, const char* path, int error) {
    int number = -1;
    const Answer answer = FindNode(directory, path, number);
    if (answer != Answer::kFilled) {
        return answer;
    }
    errno = error;
    return Answer::kFailed;
}

// access: anything but execution is allowed.
Answer CheckAccess(int directory, const char* path, int mode) {
    int number = -1;
    return (mode & X_OK) != 0 ? Refuse(directory, path, EACCES) : FindNode(directory, path, number);
}

int ResultOf(Answer answer) {
    return answer == Answer::kFilled ? 0 : -1;
}

template <class Stat>
Answer StatAt(int directory, const char* path, Stat* result, int flags) {
    if (path != nullptr && path[0] == 0 && (flags & AT_EMPTY_PATH) != 0) {
        return StatDescriptor(directory, result);
    }
    return StatPath(directory, path, result);
}

}  // namespace
}  // namespace zumod::vcam

using namespace zumod::vcam;

// Defines a function that answers for a virtual camera, or calls the real function with the given arguments.
#define ZU_VCAM_INSPECT(type, name, parameters, answer, ...)                  \
    ZU_VCAM_EXPORT type name parameters __THROW {                             \
        const Answer found = answer;                                          \
        return found != Answer::kNotOurs ? static_cast<type>(ResultOf(found)) \
                                         : ZU_VCAM_REAL(name)(__VA_ARGS__);   \
    }

// The stat functions for struct stat or struct stat64. Programs built with a glibc before 2.33 call the
// functions with an x in their name.
#define ZU_VCAM_STAT_FAMILY(bits)                                                                          \
    ZU_VCAM_INSPECT(int, stat##bits, (const char* path, struct stat##bits* result),                        \
                    StatPath(AT_FDCWD, path, result), path, result)                                        \
    ZU_VCAM_INSPECT(int, lstat##bits, (const char* path, struct stat##bits* result),                       \
                    StatPath(AT_FDCWD, path, result), path, result)                                        \
    ZU_VCAM_INSPECT(int, fstat##bits, (int fd, struct stat##bits* result), StatDescriptor(fd, result), fd, \
                    result)                                                                                \
    ZU_VCAM_INSPECT(int, fstatat##bits,                                                                    \
                    (int directory, const char* path, struct stat##bits* result, int flags),               \
                    StatAt(directory, path, result, flags), directory, path, result, flags)                \
    ZU_VCAM_INSPECT(int, __xstat##bits, (int version, const char* path, struct stat##bits* result),        \
                    StatPath(AT_FDCWD, path, result), version, path, result)                               \
    ZU_VCAM_INSPECT(int, __lxstat##bits, (int version, const char* path, struct stat##bits* result),       \
                    StatPath(AT_FDCWD, path, result), version, path, result)                               \
    ZU_VCAM_INSPECT(int, __fxstat##bits, (int version, int fd, struct stat##bits* result),                 \
                    StatDescriptor(fd, result), version, fd, result)                                       \
    ZU_VCAM_INSPECT(int, __fxstatat##bits,                                                                 \
                    (int version, int directory, const char* path, struct stat##bits* result, int flags),  \
                    StatAt(directory, path, result, flags), version, directory, path, result, flags)

// NOLINTBEGIN(bugprone-reserved-identifier): names of the C library
ZU_VCAM_STAT_FAMILY()
ZU_VCAM_STAT_FAMILY(64)

ZU_VCAM_INSPECT(int, access, (const char* path, int mode), CheckAccess(AT_FDCWD, path, mode), path, mode)
ZU_VCAM_INSPECT(int, faccessat, (int directory, const char* path, int mode, int flags),
                CheckAccess(directory, path, mode), directory, path, mode, flags)
ZU_VCAM_INSPECT(ssize_t, readlink, (const char* path, char* buffer, size_t size),
                Refuse(AT_FDCWD, path, kNotALink), path, buffer, size)
ZU_VCAM_INSPECT(ssize_t, __readlink_chk, (const char* path, char* buffer, size_t size, size_t buffer_size),
                Refuse(AT_FDCWD, path, kNotALink), path, buffer, size, buffer_size)
ZU_VCAM_INSPECT(ssize_t, getxattr, (const char* path, const char* name, void* value, size_t size),
                Refuse(AT_FDCWD, path, kNoAttribute), path, name, value, size)
ZU_VCAM_INSPECT(ssize_t, lgetxattr, (const char* path, const char* name, void* value, size_t size),
                Refuse(AT_FDCWD, path, kNoAttribute), path, name, value, size)

#define ZU_VCAM_RESOLVE(name, parameters, ...)                                          \
    ZU_VCAM_EXPORT char* name parameters __THROW {                                      \
        const Answer answer = ResolveNode(path, &resolved);                             \
        return answer != Answer::kNotOurs ? resolved : ZU_VCAM_REAL(name)(__VA_ARGS__); \
    }

ZU_VCAM_RESOLVE(realpath, (const char* path, char* resolved), path, resolved)
ZU_VCAM_RESOLVE(__realpath_chk, (const char* path, char* resolved, size_t size), path, resolved, size)
// NOLINTEND(bugprone-reserved-identifier)

ZU_VCAM_EXPORT int statx(int directory, const char* path, int flags, unsigned mask,
                         struct statx* result) __THROW {
    struct stat plain;
    const Answer answer = StatAt(directory, path, &plain, flags);
    if (answer == Answer::kNotOurs) {
        return ZU_VCAM_REAL(statx)(directory, path, flags, mask, result);
    }
    if (answer == Answer::kFilled) {
        std::memset(result, 0, sizeof *result);
        result->stx_mask = STATX_BASIC_STATS;
        result->stx_blksize = static_cast<uint32_t>(plain.st_blksize);
        result->stx_nlink = 1;
        result->stx_uid = plain.st_uid;
        result->stx_gid = plain.st_gid;
        result->stx_mode = static_cast<uint16_t>(plain.st_mode);
        result->stx_ino = plain.st_ino;
        result->stx_rdev_major = major(plain.st_rdev);
        result->stx_rdev_minor = minor(plain.st_rdev);
        result->stx_dev_minor = kDevice;
    }
    return ResultOf(answer);
}
