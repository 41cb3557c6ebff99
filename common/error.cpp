#include "common/error.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/process_setup.h"

namespace zumod {
namespace {

// How long the end of a program waits for the reader of its error.
constexpr auto kPatience = std::chrono::seconds(1);

}  // namespace

tl::unexpected<Error> Fail(std::string text, int status) {
    return Fail(Error{std::move(text), status});
}

tl::unexpected<Error> Fail(Error error) {
    return tl::unexpected<Error>(std::move(error));
}

tl::unexpected<Error> FailUsage(const std::string& text) {
    return Fail(text + " (see --help)", kExitUsage);
}

std::string ErrnoText(int error) {
    char buffer[128];
    return strerror_r(error, buffer, sizeof buffer);
}

int ReportError(const char* program, const Error& error) {
    if (error.status == 0) {
        std::fputs(error.text.c_str(), stdout);
    } else {
        const UniqueFd terminal = OpenTerminalAgain(STDERR_FILENO);
        WriteWithin(kPatience, terminal ? terminal.Get() : STDERR_FILENO,
                    std::string(program) + ": " + error.text + "\n");
    }
    return error.status;
}

}  // namespace zumod
