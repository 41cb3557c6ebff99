// What a virtual camera is like: what it is called, what it offers and which habits its driver has. A value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vcam/model/faults.h"

namespace zumod::vcam {

struct Size {
    uint32_t width = 0;
    uint32_t height = 0;

    bool operator==(const Size&) const = default;
};

// Frames a second, as a fraction.
struct Rate {
    uint32_t numerator = 30;
    uint32_t denominator = 1;

    bool operator==(const Rate&) const = default;
};

// What the driver makes of a size it does not list.
enum class SizeHabit {
    kExact,    // takes any even size as it is asked for
    kWidth,    // looks for the nearest width it lists and gives the height that goes with it
    kNearest,  // gives the size it lists that is nearest in both
};

enum class RateHabit {
    kSettable,  // G_PARM says that the rate can be set
    kFixed,     // G_PARM works, and says that it cannot
    kNone,      // there is neither G_PARM nor S_PARM
};

struct CameraConfig {
    int number = -1;  // of /dev/videoN; -1 takes the next free one
    std::string card = "Virtual Camera";
    std::string bus;  // empty: made from the number
    std::vector<uint32_t> formats;
    std::vector<Size> sizes;
    std::vector<Rate> rates;  // the first is the one a stream starts with
    SizeHabit size_habit = SizeHabit::kNearest;
    RateHabit rate_habit = RateHabit::kSettable;
    uint32_t padding = 0;           // bytes added to each row
    bool keeps_stride = false;      // a larger bytesperline in a request is kept
    std::optional<uint32_t> grant;  // buffers granted, whatever was asked
    std::string y4m;                // pictures from this file instead of the test picture
    std::vector<Fault> faults;      // from the start

    // Fills what was left empty: NV12 and YUYV, 640x480, 30 a second.
    void Complete();
};

}  // namespace zumod::vcam
