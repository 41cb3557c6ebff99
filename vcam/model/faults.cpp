#include "vcam/model/faults.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <iterator>

namespace zumod::vcam {
namespace {

struct NamedNumber {
    const char* name;
    uint32_t number;
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

// One argument of a fault: the field it goes to, and whether it may be left out.
struct Argument {
    uint64_t Fault::*field;
    bool required;
};

std::vector<Argument> ArgumentsOf(FaultKind kind) {
    switch (kind) {
        case FaultKind::kUnplug:
        case FaultKind::kFatal:
            return {{&Fault::first, false}};
        case FaultKind::kReplug:
        case FaultKind::kSequenceWrap:
        case FaultKind::kTimeWrap:
        case FaultKind::kTooFast:
        case FaultKind::kStrideChange:
            return {{&Fault::value, false}};
        case FaultKind::kDropEvery:
        case FaultKind::kGrant:
        case FaultKind::kSlowOpen:
            return {{&Fault::value, true}};
        case FaultKind::kReplugAs:
            return {{&Fault::value2, true}, {&Fault::value, false}};
        case FaultKind::kSizeChange:
            return {{&Fault::value, true}, {&Fault::value2, true}};
        case FaultKind::kStall:
            return {{&Fault::value, true}, {&Fault::first, false}};
        case FaultKind::kOpenBusy:
        case FaultKind::kFormatBusy:
        case FaultKind::kBuffersBusy:
        case FaultKind::kStreamBusy:
        case FaultKind::kEintrStorm:
        case FaultKind::kEagainStorm:
            return {{&Fault::count, false}};
        case FaultKind::kErrno:
        case FaultKind::kReadableEmpty:
        case FaultKind::kZero:
        case FaultKind::kErrorFlag:
        case FaultKind::kDrop:
        case FaultKind::kRepeat:
            return {{&Fault::first, false}, {&Fault::count, false}};
        case FaultKind::kShort:
        case FaultKind::kLong:
        case FaultKind::kBadIndex:
        case FaultKind::kTimeBack:
            return {{&Fault::first, false}, {&Fault::count, false}, {&Fault::value, false}};
        case FaultKind::kNoFrames:
            return {};
    }
    return {};
}

Fault Defaults(FaultKind kind) {
    switch (kind) {
        case FaultKind::kOpenBusy:
        case FaultKind::kFormatBusy:
        case FaultKind::kBuffersBusy:
        case FaultKind::kStreamBusy:
        case FaultKind::kErrno:
            return {kind, 1};
        case FaultKind::kEintrStorm:
            return faults::EintrStorm();
        case FaultKind::kEagainStorm:
            return faults::EagainStorm();
        case FaultKind::kShort:
            return faults::Short();
        case FaultKind::kLong:
            return faults::Long();
        case FaultKind::kBadIndex:
            return faults::BadIndex();
        case FaultKind::kTooFast:
            return faults::TooFast();
        case FaultKind::kSequenceWrap:
            return faults::SequenceWrap();
        case FaultKind::kTimeWrap:
            return faults::TimeWrap();
        case FaultKind::kTimeBack:
            return faults::TimeBack();
        case FaultKind::kRepeat:
            return faults::Repeat();
        case FaultKind::kStrideChange:
            return faults::StrideChange();
        default:
            return {kind};
    }
}

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

int ParseError(std::string_view text) {
    const auto* found = std::find_if(std::begin(kErrors), std::end(kErrors),
                                     [text](const NamedNumber& entry) { return text == entry.name; });
    return found == std::end(kErrors) ? 0 : static_cast<int>(found->number);
}

}  // namespace

const std::vector<FaultDescription>& FaultDescriptions() {
    static const std::vector<FaultDescription> descriptions = {
        {FaultKind::kUnplug, "unplug", "FRAME",
         "is unplugged before frame FRAME of a stream (0 or none: at once)"},
        {FaultKind::kReplug, "replug", "MS",
         "comes back under its number, MS milliseconds after it was unplugged"},
        {FaultKind::kReplugAs, "replug-as", "NUMBER/MS", "comes back as /dev/videoNUMBER"},
        {FaultKind::kErrno, "errno", "REQUEST/ERROR/FIRST/COUNT",
         "COUNT calls of REQUEST fail with ERROR, from the FIRST from now: errno/DQBUF/EIO/3/1"},
        {FaultKind::kOpenBusy, "open-busy", "COUNT", "open fails with EBUSY, COUNT times (0: always)"},
        {FaultKind::kFormatBusy, "format-busy", "COUNT", "S_FMT fails with EBUSY"},
        {FaultKind::kBuffersBusy, "buffers-busy", "COUNT", "REQBUFS fails with EBUSY"},
        {FaultKind::kStreamBusy, "stream-busy", "COUNT", "STREAMON fails with EBUSY"},
        {FaultKind::kEintrStorm, "eintr-storm", "COUNT",
         "DQBUF fails with EINTR (100 times unless COUNT says)"},
        {FaultKind::kEagainStorm, "eagain-storm", "COUNT",
         "DQBUF fails with EAGAIN (100 times unless COUNT says)"},
        {FaultKind::kReadableEmpty, "readable-empty", "FIRST/COUNT",
         "the descriptor is readable, and there is nothing to dequeue"},
        {FaultKind::kShort, "short", "FIRST/COUNT/PERCENT", "bytesused is PERCENT of the picture (50)"},
        {FaultKind::kZero, "zero", "FIRST/COUNT", "bytesused is 0"},
        {FaultKind::kLong, "long", "FIRST/COUNT/BYTES",
         "bytesused is BYTES (4096) more than the buffer's length"},
        {FaultKind::kErrorFlag, "error-flag", "FIRST/COUNT", "the buffer is flagged as faulty"},
        {FaultKind::kBadIndex, "bad-index", "FIRST/COUNT/INDEX", "the buffer's index is INDEX (1000)"},
        {FaultKind::kStall, "stall", "MS/FRAME", "no frame for MS milliseconds, before frame FRAME"},
        {FaultKind::kNoFrames, "no-frames", "", "streams, and never gives a frame"},
        {FaultKind::kTooFast, "too-fast", "FACTOR", "gives frames FACTOR (4) times as fast as was agreed"},
        {FaultKind::kDrop, "drop", "FIRST/COUNT", "frames are lost; the sequence number shows it"},
        {FaultKind::kDropEvery, "drop-every", "N", "every Nth frame is lost"},
        {FaultKind::kSequenceWrap, "sequence-wrap", "FRAMES", "the sequence number wraps after FRAMES (10)"},
        {FaultKind::kTimeWrap, "time-wrap", "MS", "the time stamp's seconds wrap at 32 bits after MS (500)"},
        {FaultKind::kTimeBack, "time-back", "FIRST/COUNT/MS", "the time stamp is MS (1000) too early"},
        {FaultKind::kRepeat, "repeat", "FIRST/COUNT", "the sequence number of the frame before comes again"},
        {FaultKind::kSizeChange, "size-change", "WIDTH/HEIGHT", "S_FMT sets this size, whatever was asked"},
        {FaultKind::kStrideChange, "stride-change", "BYTES",
         "S_FMT makes rows BYTES (64) longer than TRY_FMT said"},
        {FaultKind::kFatal, "fatal", "FRAME", "before frame FRAME streaming fails (EIO) until STREAMOFF"},
        {FaultKind::kGrant, "grant", "N", "REQBUFS grants N buffers, whatever was asked"},
        {FaultKind::kSlowOpen, "slow-open", "MS", "open takes MS milliseconds"},
    };
    return descriptions;
}

uint32_t ParseRequest(std::string_view text) {
    constexpr std::string_view prefix = "VIDIOC_";
    if (text.substr(0, prefix.size()) == prefix) {
        text.remove_prefix(prefix.size());
    }
    const auto* found = std::find_if(std::begin(kRequests), std::end(kRequests),
                                     [text](const NamedNumber& entry) { return text == entry.name; });
    return found == std::end(kRequests) ? 0 : found->number;
}

std::optional<Fault> ParseFault(std::string_view text, std::string& error) {
    std::vector<std::string_view> parts = Split(text);
    const std::string name(parts[0]);
    const auto& descriptions = FaultDescriptions();
    const auto description =
        std::find_if(descriptions.begin(), descriptions.end(),
                     [&name](const FaultDescription& entry) { return entry.name == name; });
    if (description == descriptions.end()) {
        error = "unknown fault \"" + name + "\"";
        return std::nullopt;
    }
    Fault fault = Defaults(description->kind);
    size_t next = 1;
    if (fault.kind == FaultKind::kErrno) {
        fault.request = parts.size() > 1 ? ParseRequest(parts[1]) : 0;
        fault.error = parts.size() > 2 ? ParseError(parts[2]) : 0;
        if (fault.request == 0 || fault.error == 0) {
            error = "fault errno needs a known request and a known error, as in errno/DQBUF/EIO";
            return std::nullopt;
        }
        next = 3;
    }
    for (const Argument& argument : ArgumentsOf(fault.kind)) {
        if (next >= parts.size()) {
            if (argument.required) {
                error = "fault " + name + " needs " + description->arguments;
                return std::nullopt;
            }
            break;
        }
        uint64_t number = 0;
        const char* end = parts[next].data() + parts[next].size();
        const auto result = std::from_chars(parts[next].data(), end, number);
        if (result.ec != std::errc() || result.ptr != end) {
            error = "fault " + name + ": \"" + std::string(parts[next]) + "\" is not a number";
            return std::nullopt;
        }
        fault.*argument.field = number;
        ++next;
    }
    if (next < parts.size()) {
        error = "fault " + name + " takes no \"" + std::string(parts[next]) + "\"";
        return std::nullopt;
    }
    return fault;
}

}  // namespace zumod::vcam
