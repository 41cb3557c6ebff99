#include "vcam/model/faults.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "common/parse_number.h"

namespace zumod::vcam {
namespace {

struct NamedNumber {
    std::string_view name;
    uint64_t number;
};

constexpr NamedNumber kRequests[] = {
    {"QUERYCAP", VIDIOC_QUERYCAP},
    {"ENUM_FMT", VIDIOC_ENUM_FMT},
    {"ENUM_FRAMESIZES", VIDIOC_ENUM_FRAMESIZES},
    {"ENUM_FRAMEINTERVALS", VIDIOC_ENUM_FRAMEINTERVALS},
    {"TRY_FMT", VIDIOC_TRY_FMT},
    {"G_FMT", VIDIOC_G_FMT},
    {"S_FMT", VIDIOC_S_FMT},
    {"G_PARM", VIDIOC_G_PARM},
    {"S_PARM", VIDIOC_S_PARM},
    {"REQBUFS", VIDIOC_REQBUFS},
    {"QUERYBUF", VIDIOC_QUERYBUF},
    {"QBUF", VIDIOC_QBUF},
    {"DQBUF", VIDIOC_DQBUF},
    {"STREAMON", VIDIOC_STREAMON},
    {"STREAMOFF", VIDIOC_STREAMOFF},
    {"ENUMINPUT", VIDIOC_ENUMINPUT},
    {"G_INPUT", VIDIOC_G_INPUT},
    {"S_INPUT", VIDIOC_S_INPUT},
    {"G_PRIORITY", VIDIOC_G_PRIORITY},
    {"S_PRIORITY", VIDIOC_S_PRIORITY},
    {"QUERYCTRL", VIDIOC_QUERYCTRL},
    {"G_CTRL", VIDIOC_G_CTRL},
    {"S_CTRL", VIDIOC_S_CTRL},
};

constexpr NamedNumber kErrors[] = {
    {"EPERM", EPERM},   {"ENOENT", ENOENT}, {"EINTR", EINTR},         {"EIO", EIO},       {"ENXIO", ENXIO},
    {"EAGAIN", EAGAIN}, {"ENOMEM", ENOMEM}, {"EACCES", EACCES},       {"EFAULT", EFAULT}, {"EBUSY", EBUSY},
    {"ENODEV", ENODEV}, {"EINVAL", EINVAL}, {"ENOTTY", ENOTTY},       {"ENOSPC", ENOSPC}, {"EPIPE", EPIPE},
    {"ERANGE", ERANGE}, {"EPROTO", EPROTO}, {"ETIMEDOUT", ETIMEDOUT},
};

constexpr FaultArgument kFirst = {"FIRST", &Fault::first};
constexpr FaultArgument kCount = {"COUNT", &Fault::count};
constexpr FaultArgument kBefore = {"FRAME", &Fault::first};
constexpr FaultArgument kMs = {"MS", &Fault::value};

constexpr FaultArgument Value(const char* name) {
    return {name, &Fault::value};
}
constexpr FaultArgument Needed(const char* name, uint64_t Fault::*field = &Fault::value) {
    return {name, field, true};
}

// The call that fails, and how. For kErrno the arguments say it.
constexpr Fault Fails(FaultKind kind, uint64_t request, uint64_t error, uint64_t count = 1) {
    return {.kind = kind, .first = 1, .count = count, .request = request, .error = error};
}

using enum FaultKind;

// clang-format off
constexpr FaultRow kRows[] = {
    {{.kind = kUnplug}, "unplug", {kBefore},
     "is unplugged before frame FRAME of a stream (0 or none: at once)"},
    {{.kind = kReplug}, "replug", {kMs},
     "comes back under its number, MS milliseconds after it was unplugged"},
    {{.kind = kReplugAs}, "replug-as", {Needed("NUMBER", &Fault::value2), kMs},
     "comes back as /dev/videoNUMBER"},
    {Fails(kErrno, 0, 0), "errno",
     {Needed("REQUEST", &Fault::request), Needed("ERROR", &Fault::error), kFirst, kCount},
     "COUNT calls of REQUEST fail with ERROR, beginning with the FIRST: errno/DQBUF/EIO/3/1"},
    {Fails(kOpenBusy, kOpenCall, EBUSY), "open-busy", {kCount},
     "open fails with EBUSY, COUNT times (0: always)"},
    {Fails(kFormatBusy, VIDIOC_S_FMT, EBUSY), "format-busy", {kCount},
     "S_FMT fails with EBUSY"},
    {Fails(kBuffersBusy, VIDIOC_REQBUFS, EBUSY), "buffers-busy", {kCount},
     "REQBUFS fails with EBUSY"},
    {Fails(kStreamBusy, VIDIOC_STREAMON, EBUSY), "stream-busy", {kCount},
     "STREAMON fails with EBUSY"},
    {Fails(kEintrStorm, VIDIOC_DQBUF, EINTR, 100), "eintr-storm", {kCount},
     "DQBUF fails with EINTR (100 times unless COUNT says)"},
    {Fails(kEagainStorm, VIDIOC_DQBUF, EAGAIN, 100), "eagain-storm", {kCount},
     "DQBUF fails with EAGAIN (100 times unless COUNT says)"},
    {{.kind = kReadableEmpty}, "readable-empty", {kFirst, kCount},
     "the descriptor is readable, and there is nothing to dequeue"},
    {{.kind = kShort, .value = 50}, "short", {kFirst, kCount, Value("PERCENT")},
     "bytesused is PERCENT of the picture (50)"},
    {{.kind = kZero}, "zero", {kFirst, kCount},
     "bytesused is 0"},
    {{.kind = kLong, .value = 4096}, "long", {kFirst, kCount, Value("BYTES")},
     "bytesused is BYTES (4096) more than the buffer's length"},
    {{.kind = kErrorFlag}, "error-flag", {kFirst, kCount},
     "the buffer is flagged as faulty"},
    {{.kind = kBadIndex, .value = 1000}, "bad-index", {kFirst, kCount, Value("INDEX")},
     "the buffer's index is INDEX (1000)"},
    {{.kind = kStall}, "stall", {Needed("MS"), kBefore},
     "no frame for MS milliseconds, before frame FRAME"},
    {{.kind = kNoFrames}, "no-frames", {},
     "streams, but delivers no frame"},
    {{.kind = kTooFast, .value = 4}, "too-fast", {Value("FACTOR")},
     "delivers frames FACTOR (4) times as fast as negotiated"},
    {{.kind = kDrop}, "drop", {kFirst, kCount},
     "frames are lost; the sequence number shows it"},
    {{.kind = kDropEvery}, "drop-every", {Needed("N")},
     "every Nth frame is lost"},
    {{.kind = kSequenceWrap, .value = 10}, "sequence-wrap", {Value("FRAMES")},
     "the sequence number wraps after FRAMES (10)"},
    {{.kind = kTimeWrap, .value = 500}, "time-wrap", {kMs},
     "the time stamp's seconds wrap at 32 bits after MS (500)"},
    {{.kind = kTimeBack, .value = 1000}, "time-back", {kFirst, kCount, kMs},
     "the time stamp is MS (1000) too early"},
    {{.kind = kRepeat, .first = 1}, "repeat", {kFirst, kCount},
     "the sequence number of the previous frame is repeated"},
    {{.kind = kSizeChange}, "size-change", {Needed("WIDTH"), Needed("HEIGHT", &Fault::value2)},
     "S_FMT sets this size instead of the requested one"},
    {{.kind = kStrideChange, .value = 64}, "stride-change", {Value("BYTES")},
     "S_FMT makes rows BYTES (64) longer than TRY_FMT said"},
    {{.kind = kFatal}, "fatal", {kBefore},
     "before frame FRAME streaming fails (EIO) until STREAMOFF"},
    {{.kind = kGrant}, "grant", {Needed("N")},
     "REQBUFS grants N buffers instead of the number requested"},
    {{.kind = kSlowOpen}, "slow-open", {Needed("MS")},
     "open takes MS milliseconds"},
};
// clang-format on

constexpr bool IsInOrder() {
    size_t index = 0;
    for (const FaultRow& row : kRows) {
        if (static_cast<size_t>(row.defaults.kind) != index++) {
            return false;
        }
    }
    return true;
}
static_assert(IsInOrder(), "RowOf uses the kind as an index");

std::vector<std::string_view> Split(std::string_view text) {
    std::vector<std::string_view> parts;
    for (;;) {
        const size_t slash = text.find('/');
        parts.push_back(text.substr(0, slash));
        if (slash == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(slash + 1);
    }
}

bool ReadName(std::string_view text, std::span<const NamedNumber> names, uint64_t& number) {
    const auto found = std::ranges::find(names, text, &NamedNumber::name);
    if (found == names.end()) {
        return false;
    }
    number = found->number;
    return true;
}

bool ReadArgument(const FaultArgument& argument, std::string_view text, Fault& fault) {
    uint64_t& number = fault.*argument.field;
    if (argument.field == &Fault::request) {
        constexpr std::string_view kPrefix = "VIDIOC_";
        text.remove_prefix(text.starts_with(kPrefix) ? kPrefix.size() : 0);
        return ReadName(text, kRequests, number);
    }
    if (argument.field == &Fault::error) {
        return ReadName(text, kErrors, number);
    }
    const auto parsed = ParseNumber<uint64_t>(text);
    number = parsed.value_or(number);
    return parsed.has_value();
}

}  // namespace

std::span<const FaultRow> FaultRows() {
    return kRows;
}

const FaultRow& RowOf(FaultKind kind) {
    return kRows[static_cast<size_t>(kind)];
}

std::string ArgumentsText(const FaultRow& row) {
    std::string text;
    for (const FaultArgument& argument : row.arguments) {
        if (argument.name != nullptr) {
            text += text.empty() ? "" : "/";
            text += argument.name;
        }
    }
    return text;
}

Expected<Fault> ParseFault(std::string_view text) {
    const std::vector<std::string_view> parts = Split(text);
    const std::string name(parts[0]);
    const auto* row = std::ranges::find(kRows, name, &FaultRow::name);
    if (row == std::end(kRows)) {
        return Fail("unknown fault \"" + name + "\"");
    }
    Fault fault = row->defaults;
    size_t next = 1;
    for (const FaultArgument& argument : row->arguments) {
        if (argument.name == nullptr) {
            break;
        }
        if (next < parts.size() && ReadArgument(argument, parts[next], fault)) {
            ++next;
        } else if (argument.field == &Fault::request || argument.field == &Fault::error) {
            return Fail("fault errno needs a known request and a known error, as in errno/DQBUF/EIO");
        } else if (next < parts.size()) {
            return Fail("fault " + name + ": \"" + std::string(parts[next]) + "\" is not a number");
        } else if (argument.required) {
            return Fail("fault " + name + " needs " + ArgumentsText(*row));
        }
    }
    if (next < parts.size()) {
        return Fail("fault " + name + " takes no \"" + std::string(parts[next]) + "\"");
    }
    return fault;
}

}  // namespace zumod::vcam
