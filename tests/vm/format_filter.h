// Shows this process's callers fewer of a camera's pixel formats than its driver offers, so that the module
// comes to each of its choices; everything else is the driver's. It stands in front of the C library's ioctl,
// which a program's own symbol comes before: the program must export it.
//
// Thread rule: made and destroyed on the test's thread while nothing is opened; read by any thread.
#pragma once

#include <cstdint>

namespace zumod::testing {

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
