// The faults a camera can be told to have: what each is called on the command line, and how a test asks for
// it in C++. Values and pure functions; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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

struct Fault {
    FaultKind kind = FaultKind::kUnplug;
    uint64_t first = 0;  // the first frame of a stream, counted from 0, or the first call from now, from 1
    uint64_t count = 1;  // how many of them; 0 is all from then on
    uint64_t value = 0;  // what the fault's description says
    uint64_t value2 = 0;
    uint32_t request = 0;  // a VIDIOC_ number, for kErrno
    int error = 0;         // for kErrno

    bool operator==(const Fault&) const = default;

    // Whether a frame, or a call counted from 1, is meant.
    bool Covers(uint64_t index) const { return index >= first && (count == 0 || index - first < count); }
};

struct FaultDescription {
    FaultKind kind;
    const char* name;
    const char* arguments;  // as shown to a user: "FIRST/COUNT"
    const char* help;
};

const std::vector<FaultDescription>& FaultDescriptions();

// "errno/DQBUF/EIO/3" to a fault; on failure `error` says what is wrong, in one line.
std::optional<Fault> ParseFault(std::string_view text, std::string& error);
// "DQBUF" or "VIDIOC_DQBUF" to its number, 0 for an unknown one.
uint32_t ParseRequest(std::string_view text);

// The same from C++. Frames count from 0 within a stream, calls from 1; a count of 0 means from then on.
namespace faults {

inline Fault Unplug(uint64_t before_frame = 0) {
    return {FaultKind::kUnplug, before_frame};
}
inline Fault Replug(uint64_t after_ms = 0) {
    return {FaultKind::kReplug, 0, 1, after_ms};
}
inline Fault ReplugAs(uint64_t number, uint64_t after_ms = 0) {
    return {FaultKind::kReplugAs, 0, 1, after_ms, number};
}
inline Fault Errno(uint32_t request, int error, uint64_t first = 1, uint64_t count = 1) {
    return {FaultKind::kErrno, first, count, 0, 0, request, error};
}
inline Fault OpenBusy(uint64_t count = 1) {
    return {FaultKind::kOpenBusy, 1, count};
}
inline Fault FormatBusy(uint64_t count = 1) {
    return {FaultKind::kFormatBusy, 1, count};
}
inline Fault BuffersBusy(uint64_t count = 1) {
    return {FaultKind::kBuffersBusy, 1, count};
}
inline Fault StreamBusy(uint64_t count = 1) {
    return {FaultKind::kStreamBusy, 1, count};
}
inline Fault EintrStorm(uint64_t count = 100) {
    return {FaultKind::kEintrStorm, 1, count};
}
inline Fault EagainStorm(uint64_t count = 100) {
    return {FaultKind::kEagainStorm, 1, count};
}
inline Fault ReadableEmpty(uint64_t first = 0, uint64_t count = 1) {
    return {FaultKind::kReadableEmpty, first, count};
}
inline Fault Short(uint64_t first = 0, uint64_t count = 1, uint64_t percent = 50) {
    return {FaultKind::kShort, first, count, percent};
}
inline Fault Zero(uint64_t first = 0, uint64_t count = 1) {
    return {FaultKind::kZero, first, count};
}
inline Fault Long(uint64_t first = 0, uint64_t count = 1, uint64_t bytes = 4096) {
    return {FaultKind::kLong, first, count, bytes};
}
inline Fault ErrorFlag(uint64_t first = 0, uint64_t count = 1) {
    return {FaultKind::kErrorFlag, first, count};
}
inline Fault BadIndex(uint64_t first = 0, uint64_t count = 1, uint64_t index = 1000) {
    return {FaultKind::kBadIndex, first, count, index};
}
inline Fault Stall(uint64_t milliseconds, uint64_t before_frame = 0) {
    return {FaultKind::kStall, before_frame, 1, milliseconds};
}
inline Fault NoFrames() {
    return {FaultKind::kNoFrames};
}
inline Fault TooFast(uint64_t factor = 4) {
    return {FaultKind::kTooFast, 0, 1, factor};
}
inline Fault Drop(uint64_t first = 0, uint64_t count = 1) {
    return {FaultKind::kDrop, first, count};
}
inline Fault DropEvery(uint64_t nth) {
    return {FaultKind::kDropEvery, 0, 1, nth};
}
inline Fault SequenceWrap(uint64_t frames = 10) {
    return {FaultKind::kSequenceWrap, 0, 1, frames};
}
inline Fault TimeWrap(uint64_t milliseconds = 500) {
    return {FaultKind::kTimeWrap, 0, 1, milliseconds};
}
inline Fault TimeBack(uint64_t first = 0, uint64_t count = 1, uint64_t milliseconds = 1000) {
    return {FaultKind::kTimeBack, first, count, milliseconds};
}
inline Fault Repeat(uint64_t first = 1, uint64_t count = 1) {
    return {FaultKind::kRepeat, first, count};
}
inline Fault SizeChange(uint64_t width, uint64_t height) {
    return {FaultKind::kSizeChange, 0, 1, width, height};
}
inline Fault StrideChange(uint64_t bytes = 64) {
    return {FaultKind::kStrideChange, 0, 1, bytes};
}
inline Fault Fatal(uint64_t before_frame = 0) {
    return {FaultKind::kFatal, before_frame};
}
inline Fault Grant(uint64_t buffers) {
    return {FaultKind::kGrant, 0, 1, buffers};
}
inline Fault SlowOpen(uint64_t milliseconds) {
    return {FaultKind::kSlowOpen, 0, 1, milliseconds};
}

}  // namespace faults
}  // namespace zumod::vcam
