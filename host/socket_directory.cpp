#include "host/socket_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace zumod::host {
namespace {

constexpr int kOpenFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

bool IsTrusted(uid_t user) {
    return user == geteuid() || user == 0;
}

bool OthersMayWrite(const struct stat& status) {
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// Where the directory is, without links.
std::string PathOf(const UniqueFd& directory) {
    std::error_code error;
    const auto path =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(directory.Get()), error);
    return error ? "a directory above" : path.string();
}

// Checks the directory and every one above it.
Expected<void> CheckUpwards(UniqueFd directory) {
    struct stat status {};
    if (fstat(directory.Get(), &status) != 0) {
        return Fail(PathOf(directory) + ": " + ErrnoText(errno));
    }
    for (;;) {
        if (!IsTrusted(status.st_uid)) {
            return Fail(PathOf(directory) + ": the directory belongs to another user");
        }
        if (OthersMayWrite(status) && (status.st_mode & S_ISVTX) == 0) {
            return Fail(PathOf(directory) + ": others may write to the directory and replace what is in it");
        }
        UniqueFd parent(openat(directory.Get(), "..", kOpenFlags));
        struct stat above {};
        if (!parent || fstat(parent.Get(), &above) != 0) {
            return Fail(PathOf(directory) + "/..: " + ErrnoText(errno));
        }
        if (above.st_dev == status.st_dev && above.st_ino == status.st_ino) {
            return {};
        }
        directory = std::move(parent);
        status = above;
    }
}

UniqueFd CopyOf(const UniqueFd& directory) {
    return UniqueFd(fcntl(directory.Get(), F_DUPFD_CLOEXEC, 0));
}

// Opens what `name` is in the directory; `path` is its path for an error. Creates it if it does not exist.
Expected<UniqueFd> Enter(const UniqueFd& directory, const std::string& name, const std::string& path) {
    struct stat status {};
    if (fstatat(directory.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISLNK(status.st_mode) && !IsTrusted(status.st_uid)) {
            return Fail(path + ": the link belongs to another user");
        }
    } else if (errno == ENOENT) {
        if (const auto checked = CheckUpwards(CopyOf(directory)); !checked) {
            return Fail(checked.error());
        }
        if (mkdirat(directory.Get(), name.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
            return Fail(path + ": the directory cannot be created: " + ErrnoText(errno));
        }
    }
    UniqueFd entered(openat(directory.Get(), name.c_str(), kOpenFlags));
    if (!entered) {
        return Fail(path + ": " + (errno == ENOTDIR ? "is not a directory" : ErrnoText(errno)));
    }
    return entered;
}

Expected<void> CheckDirectory(const UniqueFd& directory, const std::string& path) {
    struct stat status {};
    if (fstat(directory.Get(), &status) != 0) {
        return Fail(path + ": " + ErrnoText(errno));
    }
    if (!IsTrusted(status.st_uid)) {
        return Fail(path + ": the directory belongs to another user");
    }
    if (OthersMayWrite(status)) {
        // Nobody should change the mode of a directory for everybody, such as /tmp.
        const bool shared = (status.st_mode & S_ISVTX) != 0 || status.st_uid != geteuid();
        return Fail(path + ": others may write to the directory; " +
                    (shared ? "choose a new one in it, such as " + path + "/zu"
                            : "choose one that only you may write to (chmod go-w)"));
    }
    return CheckUpwards(CopyOf(directory));
}

}  // namespace

Expected<UniqueFd> OpenPrivateDirectory(const std::string& path) {
    const std::filesystem::path whole(path);
    std::filesystem::path walked = whole.has_root_directory() ? "/" : ".";
    UniqueFd directory(open(walked.c_str(), kOpenFlags));
    if (!directory) {
        return Fail(walked.string() + ": " + ErrnoText(errno));
    }
    for (const auto& name : whole.relative_path()) {
        // A path that ends with "/" has an empty last name.
        if (!name.empty()) {
            walked /= name;
            auto next = Enter(directory, name.string(), walked.string());
            if (!next) {
                return next;
            }
            directory = std::move(*next);
        }
    }
    if (const auto checked = CheckDirectory(directory, path); !checked) {
        return Fail(checked.error());
    }
    return directory;
}

}  // namespace zumod::host
