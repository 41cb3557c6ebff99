// The faults a camera can be told to have: one table row per fault, from which the parser, the help text and
// the lists in the documents are made.
//
// Thread rule: values and pure functions; any thread.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>

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

    // Whether it applies to this frame, or to this call, counted from 1.
    bool Covers(uint64_t index) const { return index >= first && (count == 0 || index - first < count); }
};

// What a fault applies to.
enum class FaultScope {
    kCall,   // calls of one kind, counted from the moment the fault is injected
    kFrame,  // frames, counted within a stream
    kClock,  // the sequence numbers and times of all frames
    kState,  // the camera, until the fault is cleared or has happened
};

struct FaultArgument {
    const char* name = nullptr;  // as shown to a user: "COUNT"; null: there is no such argument
    uint64_t Fault::*field = nullptr;
    bool required = false;
};

struct FaultRow {
    FaultScope scope;
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

// "errno/DQBUF/EIO/3" to a fault. On failure `error` says in one line what is wrong.
std::optional<Fault> ParseFault(std::string_view text, std::string& error);
// The same with numbers for all arguments, in the row's order. Throws std::invalid_argument for too many.
Fault MakeFault(FaultKind kind, std::initializer_list<uint64_t> arguments);

// Shorthands for tests. Arguments as on the command line; any may be left out from the right.
namespace faults {

constexpr uint64_t Number(std::integral auto number) {
    return static_cast<uint64_t>(number);
}

inline Fault Unplug(std::integral auto... frame) {
    return MakeFault(FaultKind::kUnplug, {Number(frame)...});
}
inline Fault Replug(std::integral auto... ms) {
    return MakeFault(FaultKind::kReplug, {Number(ms)...});
}
inline Fault ReplugAs(std::integral auto... number_ms) {
    return MakeFault(FaultKind::kReplugAs, {Number(number_ms)...});
}
inline Fault Errno(std::integral auto... request_error_first_count) {
    return MakeFault(FaultKind::kErrno, {Number(request_error_first_count)...});
}
inline Fault OpenBusy(std::integral auto... count) {
    return MakeFault(FaultKind::kOpenBusy, {Number(count)...});
}
inline Fault FormatBusy(std::integral auto... count) {
    return MakeFault(FaultKind::kFormatBusy, {Number(count)...});
}
inline Fault BuffersBusy(std::integral auto... count) {
    return MakeFault(FaultKind::kBuffersBusy, {Number(count)...});
}
inline Fault StreamBusy(std::integral auto... count) {
    return MakeFault(FaultKind::kStreamBusy, {Number(count)...});
}
inline Fault EintrStorm(std::integral auto... count) {
    return MakeFault(FaultKind::kEintrStorm, {Number(count)...});
}
inline Fault EagainStorm(std::integral auto... count) {
    return MakeFault(FaultKind::kEagainStorm, {Number(count)...});
}
inline Fault Short(std::integral auto... first_count_percent) {
    return MakeFault(FaultKind::kShort, {Number(first_count_percent)...});
}
inline Fault Zero(std::integral auto... first_count) {
    return MakeFault(FaultKind::kZero, {Number(first_count)...});
}
inline Fault ErrorFlag(std::integral auto... first_count) {
    return MakeFault(FaultKind::kErrorFlag, {Number(first_count)...});
}
inline Fault BadIndex(std::integral auto... first_count_index) {
    return MakeFault(FaultKind::kBadIndex, {Number(first_count_index)...});
}
inline Fault Stall(std::integral auto... ms_frame) {
    return MakeFault(FaultKind::kStall, {Number(ms_frame)...});
}
inline Fault Drop(std::integral auto... first_count) {
    return MakeFault(FaultKind::kDrop, {Number(first_count)...});
}
inline Fault Grant(std::integral auto... buffers) {
    return MakeFault(FaultKind::kGrant, {Number(buffers)...});
}
inline Fault SlowOpen(std::integral auto... ms) {
    return MakeFault(FaultKind::kSlowOpen, {Number(ms)...});
}

}  // namespace faults
}  // namespace zumod::vcam
