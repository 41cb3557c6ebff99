#include "vcam/model/camera_option.h"

#include <linux/videodev2.h>

#include <charconv>
#include <cstdio>
#include <iterator>
#include <vector>

#include "vcam/model/wire.h"
#include "vcam/picture/pixel_format.h"
#include "vcam/picture/y4m_source.h"

namespace zumod::vcam {
namespace {

constexpr uint32_t kGreatestRate = 1000;

struct Key {
    const char* name;
    const char* value;
    const char* help;
    bool (*read)(std::string_view value, CameraConfig& config, std::string& error);
};

template <class Number>
bool ReadNumber(std::string_view text, Number least, Number greatest, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && number >= least &&
           number <= greatest;
}

// Calls `read` for each part, until one fails.
template <class Read>
bool ReadList(std::string_view list, Read read) {
    for (;;) {
        const size_t colon = list.find(':');
        if (!read(list.substr(0, colon))) {
            return false;
        }
        if (colon == std::string_view::npos) {
            return true;
        }
        list.remove_prefix(colon + 1);
    }
}

std::string Quote(std::string_view text) {
    std::string quoted(1, '"');
    quoted.append(text);
    quoted.push_back('"');
    return quoted;
}

bool ReadDevice(std::string_view value, CameraConfig& config, std::string& error) {
    error = "device must be 0 to 255, not " + Quote(value);
    return ReadNumber(value, 0, 255, config.number);
}

bool ReadCard(std::string_view value, CameraConfig& config, std::string& error) {
    error = "card must have 1 to 31 characters";
    config.card = value;
    return !value.empty() && value.size() < sizeof(v4l2_capability::card);
}

bool ReadBus(std::string_view value, CameraConfig& config, std::string& error) {
    error = "bus must have 1 to 31 characters";
    config.bus = value;
    return !value.empty() && value.size() < sizeof(v4l2_capability::bus_info);
}

bool ReadFormats(std::string_view value, CameraConfig& config, std::string& error) {
    config.formats.clear();
    return ReadList(value, [&](std::string_view part) {
        const std::optional<uint32_t> fourcc = ParseFourcc(part);
        if (!fourcc) {
            error = "unknown format " + Quote(part) + "; there are " + FormatNames();
            return false;
        }
        config.formats.push_back(*fourcc);
        return true;
    });
}

bool ReadSizes(std::string_view value, CameraConfig& config, std::string& error) {
    config.sizes.clear();
    return ReadList(value, [&](std::string_view part) {
        const size_t cross = part.find('x');
        Size size;
        if (cross == std::string_view::npos ||
            !ReadNumber(part.substr(0, cross), kLeastSide, kGreatestSide, size.width) ||
            !ReadNumber(part.substr(cross + 1), kLeastSide, kGreatestSide, size.height) ||
            size.width % 2 != 0 || size.height % 2 != 0) {
            error = "a size is WIDTHxHEIGHT, both even and from 16 to 8192, not " + Quote(part);
            return false;
        }
        config.sizes.push_back(size);
        return true;
    });
}

bool ReadRates(std::string_view value, CameraConfig& config, std::string& error) {
    config.rates.clear();
    return ReadList(value, [&](std::string_view part) {
        const size_t slash = part.find('/');
        Rate rate;
        if (!ReadNumber(part.substr(0, slash), 1U, 1000000U, rate.numerator) ||
            (slash != std::string_view::npos &&
             !ReadNumber(part.substr(slash + 1), 1U, 1000000U, rate.denominator)) ||
            rate.numerator / rate.denominator > kGreatestRate) {
            error = "a rate is N or N/D frames a second, at most 1000, not " + Quote(part);
            return false;
        }
        config.rates.push_back(rate);
        return true;
    });
}

bool ReadSizePolicy(std::string_view value, CameraConfig& config, std::string& error) {
    error = "adjust must be exact, width or nearest, not " + Quote(value);
    config.size_policy = value == "exact"   ? SizePolicy::kExact
                         : value == "width" ? SizePolicy::kWidth
                                            : SizePolicy::kNearest;
    return value == "exact" || value == "width" || value == "nearest";
}

bool ReadRateSupport(std::string_view value, CameraConfig& config, std::string& error) {
    error = "parm must be settable, fixed or none, not " + Quote(value);
    config.rate_support = value == "settable" ? RateSupport::kSettable
                          : value == "fixed"  ? RateSupport::kFixed
                                              : RateSupport::kNone;
    return value == "settable" || value == "fixed" || value == "none";
}

bool ReadPadding(std::string_view value, CameraConfig& config, std::string& error) {
    error = "padding must be 0 to 4096 bytes, not " + Quote(value);
    return ReadNumber(value, 0U, 4096U, config.padding);
}

bool ReadStride(std::string_view value, CameraConfig& config, std::string& error) {
    error = "stride must be driver or asked, not " + Quote(value);
    config.keeps_stride = value == "asked";
    return value == "driver" || value == "asked";
}

bool ReadGrant(std::string_view value, CameraConfig& config, std::string& error) {
    error = "buffers must be 0 to 32, not " + Quote(value);
    uint32_t grant = 0;
    const bool good = ReadNumber(value, 0U, kMaxBuffers, grant);
    config.grant = grant;
    return good;
}

bool ReadY4m(std::string_view value, CameraConfig& config, std::string& error) {
    config.y4m = value;
    Y4mFile file;
    if (!Y4mFile::ReadSize(config.y4m, file, error)) {
        error = "y4m file " + Quote(value) + ": " + error;
        return false;
    }
    return true;
}

bool ReadFault(std::string_view value, CameraConfig& config, std::string& error) {
    const std::optional<Fault> fault = ParseFault(value, error);
    if (fault) {
        config.faults.push_back(*fault);
    }
    return fault.has_value();
}

constexpr Key kKeys[] = {
    {"device", "N", "the camera is /dev/videoN (the next free number)", ReadDevice},
    {"card", "NAME", "its name (Virtual Camera)", ReadCard},
    {"bus", "TEXT", "its bus information (usb-zu-vcam-N)", ReadBus},
    {"formats", "F:F...", "formats as listed below, in this order (NV12:YUYV)", ReadFormats},
    {"sizes", "WxH:WxH...", "even sizes, the first is the one it starts with (640x480)", ReadSizes},
    {"fps", "N:N/D...", "rates up to 1000, the first is the one it starts with (30)", ReadRates},
    {"adjust", "HABIT", "other sizes are taken (exact), judged by width alone (width), or by both (nearest)",
     ReadSizePolicy},
    {"parm", "HABIT", "the rate can be set (settable), only be read (fixed), or neither (none)",
     ReadRateSupport},
    {"padding", "BYTES", "added to each row of a picture (0)", ReadPadding},
    {"stride", "HABIT", "a longer row that a program asks for is ignored (driver) or kept (asked)",
     ReadStride},
    {"buffers", "N", "REQBUFS grants N, whatever was asked (what was asked, 2 to 32)", ReadGrant},
    {"y4m", "FILE", "shows this file (8 bit, 4:2:0) and has its size", ReadY4m},
    {"fault", "FAULT", "has this fault; may be given several times", ReadFault},
};

// Removes the next "key=value" from the list. A value in double quotes may hold commas.
std::string_view TakePart(std::string_view& list) {
    bool quoted = false;
    size_t end = 0;
    while (end < list.size() && (quoted || list[end] != ',')) {
        quoted ^= list[end] == '"';
        ++end;
    }
    const std::string_view part = list.substr(0, end);
    list.remove_prefix(end < list.size() ? end + 1 : end);
    return part;
}

std::string_view Unquote(std::string_view value) {
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        return value.substr(1, value.size() - 2);
    }
    return value;
}

}  // namespace

void CameraConfig::Complete() {
    if (formats.empty()) {
        formats = {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_YUYV};
    }
    if (!y4m.empty()) {
        Y4mFile file;
        std::string error;
        if (Y4mFile::ReadSize(y4m, file, error)) {
            sizes = {{file.width, file.height}};
            size_policy = SizePolicy::kNearest;
        }
    }
    if (sizes.empty()) {
        sizes = {{640, 480}};
    }
    if (rates.empty()) {
        rates = {{30, 1}};
    }
}

bool ParseCamera(std::string_view text, CameraConfig& config, std::string& error) {
    while (!text.empty()) {
        const std::string_view part = TakePart(text);
        const size_t equals = part.find('=');
        const std::string_view name = part.substr(0, equals);
        if (equals == std::string_view::npos) {
            error = "expected KEY=VALUE, not " + Quote(part);
            return false;
        }
        const Key* key = nullptr;
        for (const Key& candidate : kKeys) {
            if (name == candidate.name) {
                key = &candidate;
            }
        }
        if (key == nullptr) {
            error = "unknown key " + Quote(name);
            return false;
        }
        std::string reason;
        if (!key->read(Unquote(part.substr(equals + 1)), config, reason)) {
            error = reason;
            return false;
        }
    }
    config.Complete();
    return true;
}

std::string DescribeOptions() {
    std::string text = "Keys of --camera, as KEY=VALUE,KEY=VALUE...:\n";
    char line[160];
    for (const Key& key : kKeys) {
        std::snprintf(line, sizeof line, "  %-8s %-11s %s\n", key.name, key.value, key.help);
        text += line;
    }
    text += "\nFormats:\n";
    for (const PixelFormat& format : PixelFormats()) {
        std::snprintf(line, sizeof line, "  %-8s %s\n", FourccText(format.fourcc).c_str(),
                      format.description);
        text += line;
    }
    text +=
        "\nFaults, as fault=NAME/ARGUMENT..., or while it runs: zu-vcam ctl CAMERA NAME/ARGUMENT...\n"
        "Arguments may be left out from the right. Frames count from 0 within a stream, calls from 1;\n"
        "a COUNT of 0 means from then on.\n";
    for (const FaultRow& fault : FaultRows()) {
        std::snprintf(line, sizeof line, "  %-15s %-25s %s\n", fault.name, ArgumentsText(fault).c_str(),
                      fault.help);
        text += line;
    }
    return text;
}

}  // namespace zumod::vcam
