#include "tests/vm/format_filter.h"

#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

namespace zumod::testing {
namespace {

std::atomic<uint32_t> only_format{0};
std::atomic<bool> keeps_its_format{false};

int Call(int descriptor, unsigned long request, void* argument) {
    return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
}

// The one format as the first and last of the list.
int ListOnly(int descriptor, v4l2_fmtdesc* description) {
    if (description->index > 0) {
        errno = EINVAL;
        return -1;
    }
    v4l2_fmtdesc offered = *description;
    for (; Call(descriptor, VIDIOC_ENUM_FMT, &offered) == 0; ++offered.index) {
        if (offered.pixelformat == only_format) {
            *description = offered;
            description->index = 0;
            return 0;
        }
    }
    return -1;
}

}  // namespace

FormatFilter::FormatFilter(uint32_t only, bool keeps_format) {
    only_format = only;
    keeps_its_format = keeps_format;
}

FormatFilter::~FormatFilter() {
    only_format = 0;
    keeps_its_format = false;
}

static int Filtered(int descriptor, unsigned long request, void* argument) {
    if (request == VIDIOC_ENUM_FMT && only_format != 0) {
        return ListOnly(descriptor, static_cast<v4l2_fmtdesc*>(argument));
    }
    if (request == VIDIOC_S_FMT && keeps_its_format) {
        errno = EBUSY;
        return -1;
    }
    return Call(descriptor, request, argument);
}

}  // namespace zumod::testing

extern "C" [[gnu::visibility("default")]] int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return zumod::testing::Filtered(descriptor, request, argument);
}
