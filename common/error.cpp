#include "common/error.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace zumod {

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
        std::fprintf(stderr, "%s: %s\n", program, error.text.c_str());
    }
    return error.status;
}

}  // namespace zumod
