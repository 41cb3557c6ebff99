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

// NOLINTBEGIN(bugprone-reserved-identifier): the C library gives these names
// The fortified variants, and what programs built with a glibc before 2.33 call.
extern "C" {
char* __realpath_chk(const char* path, char* resolved, size_t size);
ssize_t __readlink_chk(const char* path, char* buffer, size_t size, size_t buffer_size);
int __xstat(int version, const char* path, struct stat* result);
int __xstat64(int version, const char* path, struct stat64* result);
int __lxstat(int version, const char* path, struct stat* result);
int __lxstat64(int version, const char* path, struct stat64* result);
int __fxstat(int version, int fd, struct stat* result);
int __fxstat64(int version, int fd, struct stat64* result);
int __fxstatat(int version, int directory, const char* path, struct stat* result, int flags);
int __fxstatat64(int version, int directory, const char* path, struct stat64* result, int flags);
}
// NOLINTEND(bugprone-reserved-identifier)

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
Answer Refuse(const char* path, int error) {
    int number = -1;
    const Answer answer = FindNode(AT_FDCWD, path, number);
    if (answer != Answer::kFilled) {
        return answer;
    }
    errno = error;
    return Answer::kFailed;
}

// access: anything but execution is allowed.
Answer CheckAccess(int directory, const char* path, int mode) {
    int number = -1;
    const Answer answer = FindNode(directory, path, number);
    if (answer != Answer::kFilled || (mode & X_OK) == 0) {
        return answer;
    }
    errno = EACCES;
    return Answer::kFailed;
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

#define ZU_VCAM_ANSWER(answer, call) \
    const Answer found = answer;     \
    return found != Answer::kNotOurs ? ResultOf(found) : (call)

ZU_VCAM_EXPORT int stat(const char* path, struct stat* result) __THROW {
    ZU_VCAM_ANSWER(StatPath(AT_FDCWD, path, result), ZU_VCAM_REAL(stat)(path, result));
}

ZU_VCAM_EXPORT int stat64(const char* path, struct stat64* result) __THROW {
    ZU_VCAM_ANSWER(StatPath(AT_FDCWD, path, result), ZU_VCAM_REAL(stat64)(path, result));
}

ZU_VCAM_EXPORT int lstat(const char* path, struct stat* result) __THROW {
    ZU_VCAM_ANSWER(StatPath(AT_FDCWD, path, result), ZU_VCAM_REAL(lstat)(path, result));
}

ZU_VCAM_EXPORT int lstat64(const char* path, struct stat64* result) __THROW {
    ZU_VCAM_ANSWER(StatPath(AT_FDCWD, path, result), ZU_VCAM_REAL(lstat64)(path, result));
}

ZU_VCAM_EXPORT int fstat(int fd, struct stat* result) __THROW {
    ZU_VCAM_ANSWER(StatDescriptor(fd, result), ZU_VCAM_REAL(fstat)(fd, result));
}

ZU_VCAM_EXPORT int fstat64(int fd, struct stat64* result) __THROW {
    ZU_VCAM_ANSWER(StatDescriptor(fd, result), ZU_VCAM_REAL(fstat64)(fd, result));
}

ZU_VCAM_EXPORT int fstatat(int directory, const char* path, struct stat* result, int flags) __THROW {
    ZU_VCAM_ANSWER(StatAt(directory, path, result, flags),
                   ZU_VCAM_REAL(fstatat)(directory, path, result, flags));
}

ZU_VCAM_EXPORT int fstatat64(int directory, const char* path, struct stat64* result, int flags) __THROW {
    ZU_VCAM_ANSWER(StatAt(directory, path, result, flags),
                   ZU_VCAM_REAL(fstatat64)(directory, path, result, flags));
}

ZU_VCAM_EXPORT int __xstat(int version, const char* path, struct stat* result) {
    ZU_VCAM_ANSWER(StatPath(AT_FDCWD, path, result), ZU_VCAM_REAL(__xstat)(version, path, result));
}

ZU_VCAM_EXPORT int __xstat64(int version, const char* path, struct stat64* result) {
    ZU_VCAM_ANSWER(StatPath(AT_FDCWD, path, result), ZU_VCAM_REAL(__xstat64)(version, path, result));
}

ZU_VCAM_EXPORT int __lxstat(int version, const char* path, struct stat* result) {
    ZU_VCAM_ANSWER(StatPath(AT_FDCWD, path, result), ZU_VCAM_REAL(__lxstat)(version, path, result));
}

ZU_VCAM_EXPORT int __lxstat64(int version, const char* path, struct stat64* result) {
    ZU_VCAM_ANSWER(StatPath(AT_FDCWD, path, result), ZU_VCAM_REAL(__lxstat64)(version, path, result));
}

ZU_VCAM_EXPORT int __fxstat(int version, int fd, struct stat* result) {
    ZU_VCAM_ANSWER(StatDescriptor(fd, result), ZU_VCAM_REAL(__fxstat)(version, fd, result));
}

ZU_VCAM_EXPORT int __fxstat64(int version, int fd, struct stat64* result) {
    ZU_VCAM_ANSWER(StatDescriptor(fd, result), ZU_VCAM_REAL(__fxstat64)(version, fd, result));
}

ZU_VCAM_EXPORT int __fxstatat(int version, int directory, const char* path, struct stat* result, int flags) {
    ZU_VCAM_ANSWER(StatAt(directory, path, result, flags),
                   ZU_VCAM_REAL(__fxstatat)(version, directory, path, result, flags));
}

ZU_VCAM_EXPORT int __fxstatat64(int version, int directory, const char* path, struct stat64* result,
                                int flags) {
    ZU_VCAM_ANSWER(StatAt(directory, path, result, flags),
                   ZU_VCAM_REAL(__fxstatat64)(version, directory, path, result, flags));
}

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

ZU_VCAM_EXPORT int access(const char* path, int mode) __THROW {
    ZU_VCAM_ANSWER(CheckAccess(AT_FDCWD, path, mode), ZU_VCAM_REAL(access)(path, mode));
}

ZU_VCAM_EXPORT int faccessat(int directory, const char* path, int mode, int flags) __THROW {
    ZU_VCAM_ANSWER(CheckAccess(directory, path, mode), ZU_VCAM_REAL(faccessat)(directory, path, mode, flags));
}

ZU_VCAM_EXPORT ssize_t readlink(const char* path, char* buffer, size_t size) __THROW {
    ZU_VCAM_ANSWER(Refuse(path, kNotALink), ZU_VCAM_REAL(readlink)(path, buffer, size));
}

ZU_VCAM_EXPORT ssize_t __readlink_chk(const char* path, char* buffer, size_t size, size_t buffer_size) {
    ZU_VCAM_ANSWER(Refuse(path, kNotALink), ZU_VCAM_REAL(__readlink_chk)(path, buffer, size, buffer_size));
}

ZU_VCAM_EXPORT char* realpath(const char* path, char* resolved) __THROW {
    const Answer answer = ResolveNode(path, &resolved);
    return answer != Answer::kNotOurs ? resolved : ZU_VCAM_REAL(realpath)(path, resolved);
}

ZU_VCAM_EXPORT char* __realpath_chk(const char* path, char* resolved, size_t size) {
    const Answer answer = ResolveNode(path, &resolved);
    return answer != Answer::kNotOurs ? resolved : ZU_VCAM_REAL(__realpath_chk)(path, resolved, size);
}

ZU_VCAM_EXPORT ssize_t getxattr(const char* path, const char* name, void* value, size_t size) __THROW {
    ZU_VCAM_ANSWER(Refuse(path, kNoAttribute), ZU_VCAM_REAL(getxattr)(path, name, value, size));
}

ZU_VCAM_EXPORT ssize_t lgetxattr(const char* path, const char* name, void* value, size_t size) __THROW {
    ZU_VCAM_ANSWER(Refuse(path, kNoAttribute), ZU_VCAM_REAL(lgetxattr)(path, name, value, size));
}
