// The configuration of a virtual camera: its name, its formats, and how its driver behaves.
//
// Thread rule: a value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vcam/model/faults.h"

namespace zumod::vcam {

inline constexpr uint32_t kLeastSide = 16;
inline constexpr uint32_t kGreatestSide = 8192;

struct Size {
    uint32_t width = 0;
    uint32_t height = 0;

    bool operator==(const Size&) const = default;
};

// Frames per second, as a fraction.
struct Rate {
    uint32_t numerator = 30;
    uint32_t denominator = 1;

    bool operator==(const Rate&) const = default;
};

// A size of a format, with the rates that the camera has in it.
struct Mode {
    uint32_t fourcc = 0;
    Size size;
    std::vector<Rate> rates;  // the first is the default

    bool operator==(const Mode&) const = default;
};

// What the driver does with a size that it does not list.
enum class SizePolicy {
    kExact,    // accepts any even size unchanged
    kWidth,    // chooses the listed size with the nearest width
    kNearest,  // chooses the listed size that is nearest in width and height
};

// Whether programs can read and set the frame rate.
enum class RateSupport {
    kSettable,
    kFixed,  // G_PARM works and reports that the rate cannot be set
    kNone,   // neither G_PARM nor S_PARM exists
};

// Where a live camera's pictures come from.
struct LiveSource {
    enum Kind {
        kNone,  // not a live camera
        kY4m,   // a FIFO with a Y4M stream
        kRaw,   // a FIFO with raw pictures
        kFeed,  // another process (feed.h)
    };
    Kind kind = kNone;
    std::string path;     // of the FIFO
    uint32_t fourcc = 0;  // of raw pictures
    Size size;

    bool IsLive() const { return kind != kNone; }
    bool operator==(const LiveSource&) const = default;
};

struct CameraConfig {
    int number = -1;  // of /dev/videoN; -1: the next free one
    std::string card = "Virtual Camera";
    std::string bus;  // empty: derived from the number
    // Every format in every size at every rate, unless `modes` was given.
    std::vector<uint32_t> formats;
    std::vector<Size> sizes;
    std::vector<Rate> rates;
    std::vector<Mode> modes;  // the first is the one it starts with
    SizePolicy size_policy = SizePolicy::kNearest;
    RateSupport rate_support = RateSupport::kSettable;
    uint32_t padding = 0;           // bytes added to each row
    bool keeps_stride = false;      // accepts a larger bytesperline
    std::optional<uint32_t> grant;  // REQBUFS grants this number, independent of the request
    std::string y4m;                // shows this file instead of the test pattern
    LiveSource source;              // shows live pictures instead
    std::vector<Fault> faults;      // active from the start

    // Fills in the defaults, which are NV12 and YUYV, 640x480, 30 frames per second, and then the modes. A
    // Y4M file's size replaces the sizes; its rate is the default. The size of raw pictures is the default.
    void Complete();
};

}  // namespace zumod::vcam
