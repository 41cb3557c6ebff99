#include "host/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace zumod::host {
namespace {

bool TakeOne(int standard, const char* name, UniqueFd& taken, std::string& error) {
    if (isatty(standard) == 1) {
        error = std::string(name) + " is a terminal; --stdio needs a program at the other end";
        return false;
    }
    taken.Reset(fcntl(standard, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!taken) {
        error = std::string(name) + " is closed";
        return false;
    }
    return true;
}

}  // namespace

void FillStandardDescriptors() {
    int opened = 0;
    do {
        opened = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (opened >= 0 && opened <= STDERR_FILENO);
    close(opened);
}

bool TakeStandardChannel(UniqueFd& in, UniqueFd& out, std::string& error) {
    if (!TakeOne(STDIN_FILENO, "standard input", in, error) ||
        !TakeOne(STDOUT_FILENO, "standard output", out, error)) {
        return false;
    }
    close(STDIN_FILENO);
    FillStandardDescriptors();
    dup2(STDERR_FILENO, STDOUT_FILENO);
    return true;
}

}  // namespace zumod::host
