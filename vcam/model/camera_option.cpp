#include "vcam/model/camera_option.h"

#include <linux/videodev2.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <type_traits>
#include <utility>

#include "common/parse_number.h"
#include "vcam/model/wire.h"
#include "vcam/picture/picture_stream.h"
#include "vcam/picture/pixel_format.h"
#include "vcam/picture/y4m_source.h"

namespace zumod::vcam {
namespace {

constexpr uint32_t kGreatestRate = 1000;

struct Key {
    const char* name;
    const char* value;
    const char* help;
    Expected<void> (*read)(const Key& key, std::string_view value, CameraConfig& config);
    const char* allowed = nullptr;  // the values, for an error
};

std::string Quote(std::string_view text) {
    return '"' + std::string(text) + '"';
}

Expected<void> FailValue(const Key& key, std::string_view value) {
    return Fail(std::string(key.name) + " must be " + key.allowed + ", not " + Quote(value));
}

template <class Number>
bool ParseWithin(std::string_view text, Number least, Number greatest, Number& number) {
    const auto parsed = ParseNumber<Number>(text);
    number = parsed.value_or(number);
    return parsed && *parsed >= least && *parsed <= greatest;
}

// The readers of values, each for a field of the configuration.

template <auto kField, auto kGreatest>
Expected<void> ReadNumber(const Key& key, std::string_view value, CameraConfig& config) {
    std::remove_const_t<decltype(kGreatest)> number = 0;
    if (!ParseWithin(value, {}, kGreatest, number)) {
        return FailValue(key, value);
    }
    config.*kField = number;
    return {};
}

template <auto kField>
Expected<void> ReadText(const Key& key, std::string_view value, CameraConfig& config) {
    constexpr int kMostCharacters = 31;
    // In UTF-8 every byte but the first of a character is 10xxxxxx.
    const auto characters = std::ranges::count_if(value, [](char byte) { return (byte & 0xc0) != 0x80; });
    if (characters < 1 || characters > kMostCharacters) {
        return Fail(std::string(key.name) + " must have 1 to 31 characters");
    }
    config.*kField = value;
    return {};
}

// The words are the field's values, in their order.
template <auto kField, const auto& kWords>
Expected<void> ReadChoice(const Key& key, std::string_view value, CameraConfig& config) {
    const auto* word = std::ranges::find(kWords, value);
    if (word == std::end(kWords)) {
        return FailValue(key, value);
    }
    config.*kField = static_cast<std::remove_reference_t<decltype(config.*kField)>>(word - kWords);
    return {};
}

template <auto kField, auto kReadItem>
Expected<void> ReadList(const Key& /*key*/, std::string_view value, CameraConfig& config) {
    auto& list = config.*kField;
    list.clear();
    for (;;) {
        const size_t colon = value.find(':');
        const auto item = kReadItem(value.substr(0, colon));
        if (!item) {
            return Fail(item.error());
        }
        list.push_back(*item);
        if (colon == std::string_view::npos) {
            return {};
        }
        value.remove_prefix(colon + 1);
    }
}

Expected<uint32_t> ReadFormat(std::string_view text) {
    const std::optional<uint32_t> fourcc = ParseFourcc(text);
    return fourcc ? Expected<uint32_t>(*fourcc)
                  : Fail("unknown format " + Quote(text) + "; there are " + FormatNames());
}

Expected<Size> ReadSize(std::string_view text) {
    const size_t cross = text.find('x');
    Size size;
    if (cross == std::string_view::npos ||
        !ParseWithin(text.substr(0, cross), kLeastSide, kGreatestSide, size.width) ||
        !ParseWithin(text.substr(cross + 1), kLeastSide, kGreatestSide, size.height) || size.width % 2 != 0 ||
        size.height % 2 != 0) {
        return Fail("a size is WIDTHxHEIGHT, both even and from 16 to 8192, not " + Quote(text));
    }
    return size;
}

bool IsRate(Rate rate) {
    const auto is_part = [](uint32_t part) { return part >= 1 && part <= 1000000; };
    return is_part(rate.numerator) && is_part(rate.denominator) &&
           rate.numerator / rate.denominator <= kGreatestRate;
}

Expected<Rate> ReadRate(std::string_view text) {
    const size_t slash = text.find('/');
    Rate rate;
    const auto read = [](std::string_view number) { return ParseNumber<uint32_t>(number).value_or(0); };
    rate.numerator = read(text.substr(0, slash));
    rate.denominator = slash == std::string_view::npos ? 1 : read(text.substr(slash + 1));
    if (!IsRate(rate)) {
        return Fail("a rate is N or N/D frames per second, at most 1000, not " + Quote(text));
    }
    return rate;
}

// FORMAT/WIDTHxHEIGHT/RATE:RATE...
Expected<void> ReadMode(const Key& key, std::string_view value, CameraConfig& config) {
    const size_t size_at = value.find('/');
    const size_t rates_at = size_at == std::string_view::npos ? size_at : value.find('/', size_at + 1);
    if (rates_at == std::string_view::npos) {
        return Fail("a mode is FORMAT/WIDTHxHEIGHT/RATE:RATE..., not " + Quote(value));
    }
    const auto fourcc = ReadFormat(value.substr(0, size_at));
    const auto size = ReadSize(value.substr(size_at + 1, rates_at - size_at - 1));
    CameraConfig list;
    const auto rates = ReadList<&CameraConfig::rates, ReadRate>(key, value.substr(rates_at + 1), list);
    if (!fourcc || !size || !rates) {
        return Fail(!fourcc ? fourcc.error() : !size ? size.error() : rates.error());
    }
    config.modes.push_back({*fourcc, *size, std::move(list.rates)});
    return {};
}

Expected<void> ReadY4m(const Key& /*key*/, std::string_view value, CameraConfig& config) {
    config.y4m = value;
    if (const auto file = Y4mFile::ReadSize(config.y4m); !file) {
        return Fail("y4m file " + Quote(value) + ": " + file.error().text);
    }
    return {};
}

// y4m:FIFO, raw:FORMAT:WIDTHxHEIGHT:FIFO or feed. A FIFO's name may hold colons.
Expected<void> ReadSource(const Key& /*key*/, std::string_view value, CameraConfig& config) {
    LiveSource source;
    const auto take = [&value] {
        const size_t colon = std::min(value.find(':'), value.size());
        const std::string_view word = value.substr(0, colon);
        value.remove_prefix(std::min(colon + 1, value.size()));
        return word;
    };
    const std::string_view whole = value;
    const std::string_view kind = take();
    if (kind == "raw") {
        source.kind = LiveSource::kRaw;
        const auto fourcc = ReadFormat(take());
        if (!fourcc) {
            return Fail(fourcc.error());
        }
        const auto size = ReadSize(take());
        if (!size) {
            return Fail(size.error());
        }
        if (FindPixelFormat(*fourcc)->pixel.find('Y') == std::string_view::npos) {
            return Fail("raw pictures cannot be " + FourccText(*fourcc));
        }
        if (size_t{size->width} * size->height > kMostLivePixels) {
            return Fail("raw pictures can have at most 4096x2304 pixels");
        }
        source.fourcc = *fourcc;
        source.size = *size;
    } else if (kind == "y4m") {
        source.kind = LiveSource::kY4m;
    } else if (whole == "feed") {
        source.kind = LiveSource::kFeed;
    }
    if (source.kind == LiveSource::kNone || (source.kind != LiveSource::kFeed && value.empty())) {
        return Fail("a source is y4m:FIFO, raw:FORMAT:WIDTHxHEIGHT:FIFO or feed, not " + Quote(whole));
    }
    source.path = value;
    struct stat status {};
    if (source.kind != LiveSource::kFeed &&
        (stat(source.path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode))) {
        return Fail("source " + Quote(value) + ": there is no FIFO of this name (see mkfifo)");
    }
    config.source = std::move(source);
    return {};
}

Expected<void> ReadFault(const Key& /*key*/, std::string_view value, CameraConfig& config) {
    return ParseFault(value).map([&config](const Fault& fault) { config.faults.push_back(fault); });
}

constexpr std::string_view kSizePolicies[] = {"exact", "width", "nearest"};
constexpr std::string_view kRateSupports[] = {"settable", "fixed", "none"};
constexpr std::string_view kStrides[] = {"driver", "asked"};

// clang-format off
constexpr Key kKeys[] = {
    {"device", "N", "the camera is /dev/videoN (the next free number)",
     ReadNumber<&CameraConfig::number, 255>, "0 to 255"},
    {"card", "NAME", "its name (Virtual Camera)", ReadText<&CameraConfig::card>},
    {"bus", "TEXT", "its bus information (usb-zu-vcam-N)", ReadText<&CameraConfig::bus>},
    {"formats", "F:F...", "the formats it offers, in this order, from the list below (NV12:YUYV)",
     ReadList<&CameraConfig::formats, ReadFormat>},
    {"sizes", "WxH:WxH...", "even sizes, the first is the one it starts with (640x480)",
     ReadList<&CameraConfig::sizes, ReadSize>},
    {"fps", "N:N/D...", "rates up to 1000, the first is the one it starts with (30)",
     ReadList<&CameraConfig::rates, ReadRate>},
    {"mode", "F/WxH/N:N/D...",
     "a format in one size at its rates, instead of formats, sizes and fps; may be given several times", ReadMode},
    {"adjust", "POLICY",
     "other sizes are kept (exact), or become the listed one nearest in width (width) or in both (nearest)",
     ReadChoice<&CameraConfig::size_policy, kSizePolicies>, "exact, width or nearest"},
    {"parm", "POLICY", "the rate can be set (settable), only be read (fixed), or neither (none)",
     ReadChoice<&CameraConfig::rate_support, kRateSupports>, "settable, fixed or none"},
    {"padding", "BYTES", "added to each row of a picture (0)",
     ReadNumber<&CameraConfig::padding, 4096U>, "0 to 4096 bytes"},
    {"stride", "POLICY", "a longer row that a program requests is ignored (driver) or kept (asked)",
     ReadChoice<&CameraConfig::keeps_stride, kStrides>, "driver or asked"},
    {"buffers", "N", "REQBUFS grants N instead of the number requested (that number, 2 to 32)",
     ReadNumber<&CameraConfig::grant, kMaxBuffers>, "0 to 32"},
    {"y4m", "FILE", "shows the pictures of this file (8 bit, 4:2:0) in their size, and at its rate unless fps is given",
     ReadY4m},
    {"source", "SOURCE",
     "shows live pictures: y4m:FIFO, raw:FORMAT:WIDTHxHEIGHT:FIFO, or feed (of another process)", ReadSource},
    {"fault", "FAULT", "a fault from the start; may be given several times", ReadFault},
};
// clang-format on

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
        if (const auto file = Y4mFile::ReadSize(y4m)) {
            sizes = {{file->width, file->height}};
            size_policy = SizePolicy::kNearest;
            const Rate rate{file->rate_numerator, file->rate_denominator};
            if (rates.empty() && IsRate(rate)) {
                rates = {rate};
            }
        }
    }
    if (sizes.empty() && source.kind == LiveSource::kRaw) {
        sizes = {source.size};
    }
    if (sizes.empty()) {
        sizes = {{640, 480}};
    }
    if (rates.empty()) {
        rates = {{30, 1}};
    }
    if (modes.empty()) {
        for (const uint32_t fourcc : formats) {
            for (const Size size : sizes) {
                modes.push_back({fourcc, size, rates});
            }
        }
    }
}

Expected<CameraConfig> ParseCamera(std::string_view text) {
    CameraConfig config;
    while (!text.empty()) {
        const std::string_view part = TakePart(text);
        const size_t equals = part.find('=');
        if (equals == std::string_view::npos) {
            return Fail("expected KEY=VALUE, not " + Quote(part));
        }
        const std::string_view name = part.substr(0, equals);
        const auto* key = std::ranges::find(kKeys, name, &Key::name);
        if (key == std::end(kKeys)) {
            return Fail("unknown key " + Quote(name));
        }
        if (const auto read = key->read(*key, Unquote(part.substr(equals + 1)), config); !read) {
            return Fail(read.error());
        }
    }
    const bool has_lists = !config.formats.empty() || !config.sizes.empty() || !config.rates.empty();
    if (!config.modes.empty() && (has_lists || !config.y4m.empty())) {
        return Fail("mode and one of formats, sizes, fps and y4m exclude each other");
    }
    if (config.source.IsLive() && !config.y4m.empty()) {
        return Fail("y4m and source exclude each other");
    }
    config.Complete();
    return config;
}

std::string DescribeOptions() {
    std::string text = "Keys of --camera, as KEY=VALUE,KEY=VALUE...:\n";
    char line[160];
    for (const Key& key : kKeys) {
        std::snprintf(line, sizeof line, "  %-8s %-14s %s\n", key.name, key.value, key.help);
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
