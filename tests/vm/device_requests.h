// What this process asks of cameras, seen and partly answered on the way: this stands in front of the C
// library's ioctl, as a program's own symbol does; the program must export it. Everything but what a filter
// hides is the driver's.
//
// Thread rule: a filter is made and destroyed on the test's thread while nothing is opened; the rest is for
// any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace zumod::testing {

// The threads that have asked for a filled buffer since the last ForgetCaptureThreads, and still run.
std::vector<pid_t> CaptureThreads();
void ForgetCaptureThreads();
// How often that thread has asked.
uint64_t DequeuesOf(pid_t thread);

// Shows this process's callers fewer of a camera's pixel formats than its driver offers, so that the module
// comes to each of its choices.
class FormatFilter {
public:
    // VIDIOC_ENUM_FMT lists this format and no other.
    static FormatFilter Only(uint32_t pixel_format) { return FormatFilter(pixel_format, false); }
    // VIDIOC_S_FMT answers EBUSY: the camera keeps the format that it has.
    static FormatFilter KeepsItsFormat() { return FormatFilter(0, true); }
    ~FormatFilter();
    FormatFilter(const FormatFilter&) = delete;
    FormatFilter& operator=(const FormatFilter&) = delete;

private:
    FormatFilter(uint32_t only, bool keeps_format);
};

}  // namespace zumod::testing
