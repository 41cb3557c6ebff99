#include "codec/encoder_settings.h"

#include <algorithm>
#include <optional>
#include <string>

#include "codec/rate_meter.h"
#include "codec/setting_keys.h"
#include "src/module/log.h"
#include "src/module/runtime.h"
#include "zumod/ref_ptr.h"
#include "zumod/values.h"

namespace zumod {
namespace {

constexpr int64_t kTwoSeconds = int64_t{2} * kAssumedRate;
constexpr char kDefaultPreset[] = "ultrafast";
// Chosen by line_bench, with the natural clip on a line of the stream's rate: no picture is more than 92 ms
// late. With 200 ms it is 147 ms, with 1000 ms 301 ms, and the quality is the same, but for the first
// picture, which loses 0.4 dB. With 50 ms two fifths of the bit rate are not used.
constexpr int64_t kDefaultBufferMs = 100;
// At a low bit rate 100 ms are too few bits for the first picture, which is a key frame: at 320x240 it was
// visibly worse. So the buffer holds at least this many bits, within a second.
constexpr int64_t kLeastDefaultBufferBits = 160'000;
constexpr int64_t kDefaultThreads = 1;

// The host's value for a key if it is right. Logs one line if it is wrong.
std::optional<std::string> RightProperty(const SettingKey& key) {
    // Borrowed from the host: this reference is held only while the value is read.
    const CRefPtr_T<IZUModData> value(CZUModRuntime::GetInstance()->GetEnvProperty(key.name));
    if (value == nullptr) {
        return std::nullopt;
    }
    std::optional<std::string> text = TextOf(value.Get());
    if (text && IsSettingValue(key, *text)) {
        return text;
    }
    ZuModLog(kLogIgnored, "[zu-codec] %s is wrong, the default is used: %s", key.name,
             text ? text->c_str() : "no text");
    return std::nullopt;
}

int64_t NumberProperty(const SettingKey& key, int64_t fallback) {
    const std::optional<std::string> text = RightProperty(key);
    return text ? SettingNumber(key, *text).value_or(fallback) : fallback;
}

}  // namespace

int64_t DefaultBitRate(int width, int height) {
    constexpr int64_t kLowestDefault = 100'000;
    const int64_t rate = int64_t{width} * height * kAssumedRate * 15 / 100;
    return std::clamp(rate, kLowestDefault, kBitRateKey.highest);
}

int64_t DefaultBufferMs(int64_t bit_rate) {
    return std::clamp(kLeastDefaultBufferBits * 1000 / bit_rate, kDefaultBufferMs, int64_t{1000});
}

EncoderSettings ReadEncoderSettings(int width, int height) {
    EncoderSettings settings;
    settings.bit_rate = NumberProperty(kBitRateKey, DefaultBitRate(width, height));
    settings.preset = RightProperty(kPresetKey).value_or(kDefaultPreset);
    settings.key_interval = static_cast<int>(NumberProperty(kKeyIntervalKey, kTwoSeconds));
    settings.buffer_ms = static_cast<int>(NumberProperty(kBufferKey, DefaultBufferMs(settings.bit_rate)));
    settings.threads = static_cast<int>(NumberProperty(kThreadsKey, kDefaultThreads));
    return settings;
}

}  // namespace zumod
