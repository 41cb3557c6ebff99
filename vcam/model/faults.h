// The faults a camera can be told to have: one table row per fault, from which the parser, the help text and
// the lists in the documents are made.
//
// Thread rule: values and pure functions; any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "common/error.h"

namespace zumod::vcam {

enum class FaultKind {
    kUnplug,
    kReplug,
    kReplugAs,
    kErrno,
    kOpenBusy,
    kFormatBusy,
    kBuffersBusy,
    kStreamBusy,
    kEintrStorm,
    kEagainStorm,
    kReadableEmpty,
    kShort,
    kZero,
    kLong,
    kErrorFlag,
    kBadIndex,
    kStall,
    kNoFrames,
    kTooFast,
    kDrop,
    kDropEvery,
    kSequenceWrap,
    kTimeWrap,
    kTimeBack,
    kRepeat,
    kSizeChange,
    kStrideChange,
    kFatal,
    kGrant,
    kSlowOpen,
};

// Fault::request of open(2), which is not an ioctl.
inline constexpr uint64_t kOpenCall = 0;

struct Fault {
    FaultKind kind = FaultKind::kUnplug;
    uint64_t first = 0;    // first frame of a stream, counted from 0, or first call from now, counted from 1
    uint64_t count = 1;    // number of frames or calls; 0: all from the first on
    uint64_t value = 0;    // see the arguments of the fault's row
    uint64_t value2 = 0;   // see the arguments of the fault's row
    uint64_t request = 0;  // of a call: a VIDIOC_ number or kOpenCall
    uint64_t error = 0;    // of a call: the errno it fails with

    bool operator==(const Fault&) const = default;

    // Whether it makes calls fail, counted from the moment it is injected. Any other fault applies to frames,
    // counted within a stream, or to the camera.
    bool FailsCalls() const { return error != 0; }
    // Whether it applies to this frame, or to this call, counted from 1.
    bool Covers(uint64_t index) const { return index >= first && (count == 0 || index - first < count); }
};

struct FaultArgument {
    const char* name = nullptr;  // as shown to a user: "COUNT"; null: there is no such argument
    uint64_t Fault::*field = nullptr;
    bool required = false;
};

struct FaultRow {
    Fault defaults;  // with the kind
    const char* name;
    FaultArgument arguments[4];
    const char* help;
};

// All faults, in the order of FaultKind.
std::span<const FaultRow> FaultRows();
const FaultRow& RowOf(FaultKind kind);
// The arguments as shown to a user: "FIRST/COUNT".
std::string ArgumentsText(const FaultRow& row);

// "errno/DQBUF/EIO/3" to a fault. An error is one line.
Expected<Fault> ParseFault(std::string_view text);

}  // namespace zumod::vcam
