#include "tests/vm/device_requests.h"

#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

#include "tests/support/watch/wait_until.h"

namespace zumod::testing {
namespace {

std::atomic<uint32_t> only_format{0};
std::atomic<bool> keeps_its_format{false};

std::mutex threads_mutex;
std::map<pid_t, uint64_t> dequeues;

int Call(int descriptor, unsigned long request, void* argument) {
    return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
}

// Lists this format only.
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

std::vector<pid_t> CaptureThreads() {
    const std::lock_guard guard(threads_mutex);
    std::vector<pid_t> threads;
    for (const auto& [thread, count] : dequeues) {
        if (std::filesystem::exists("/proc/self/task/" + std::to_string(thread))) {
            threads.push_back(thread);
        }
    }
    return threads;
}

bool CaptureThreadsLeft(size_t count) {
    return WaitUntil([count] { return CaptureThreads().size() == count; });
}

void ForgetCaptureThreads() {
    const std::lock_guard guard(threads_mutex);
    dequeues.clear();
}

uint64_t DequeuesOf(pid_t thread) {
    const std::lock_guard guard(threads_mutex);
    return dequeues[thread];
}

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
    if (request == VIDIOC_DQBUF) {
        const std::lock_guard guard(threads_mutex);
        ++dequeues[gettid()];
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
