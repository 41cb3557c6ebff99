// An interposed ioctl that observes this process's requests to cameras and answers some of them. The
// program must export it, so that it is found before the C library's. Everything that a filter does not
// answer goes to the driver.
//
// Thread rule: construct and destroy a filter on the test's thread while no camera is open; the rest is
// for any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zumod::testing {

// The threads that have asked for a filled buffer since the last ForgetCaptureThreads and still run.
std::vector<pid_t> CaptureThreads();
// Waits until this many are left: the kernel lists a thread for a moment longer than pthread_join waits for
// it.
bool CaptureThreadsLeft(size_t count);
void ForgetCaptureThreads();
// How often this thread has asked.
uint64_t DequeuesOf(pid_t thread);

// Shows this process fewer of a camera's pixel formats than its driver offers, so that a test reaches each
// of the module's choices.
class FormatFilter {
public:
    // VIDIOC_ENUM_FMT lists this format and no other.
    static FormatFilter Only(uint32_t pixel_format) { return FormatFilter(pixel_format, false); }
    // VIDIOC_S_FMT fails with EBUSY: the camera keeps its format.
    static FormatFilter KeepsItsFormat() { return FormatFilter(0, true); }
    ~FormatFilter();
    FormatFilter(const FormatFilter&) = delete;
    FormatFilter& operator=(const FormatFilter&) = delete;

private:
    FormatFilter(uint32_t only, bool keeps_format);
};

}  // namespace zumod::testing
