#include "host/private_directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace zumod::host {

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool EnsurePrivateDirectory(const std::string& directory, std::string& error) {
    const auto refuse = [&](const std::string& why) {
        error = directory + ": " + why;
        return false;
    };
    if (mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return refuse("the directory cannot be made: " + std::generic_category().message(errno));
    }
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0) {
        return refuse(std::generic_category().message(errno));
    }
    if (!S_ISDIR(status.st_mode)) {
        return refuse("is not a directory");
    }
    if (status.st_uid != geteuid() && status.st_uid != 0) {
        return refuse("the directory belongs to another user");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return refuse("others may write to the directory; choose one that is yours alone (chmod go-w)");
    }
    return true;
}

}  // namespace zumod::host
