#include "codec/encoder_settings.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string_view>

#include "src/module/log.h"
#include "src/module/runtime.h"
#include "zumod/ref_ptr.h"
#include "zumod/values.h"

namespace zumod {
namespace {

constexpr int64_t kLowestBitRate = 10'000;
constexpr int64_t kHighestBitRate = 1'000'000'000;
constexpr int64_t kLongestKeyInterval = 100'000;
constexpr int64_t kTwoSeconds = int64_t{2} * kAssumedRate;
constexpr char kDefaultPreset[] = "ultrafast";
constexpr std::array<std::string_view, 10> kPresets = {"ultrafast", "superfast", "veryfast", "faster",
                                                       "fast",      "medium",    "slow",     "slower",
                                                       "veryslow",  "placebo"};

// The host's value for a key. `text` is empty for a value of another kind.
struct Property {
    bool present = false;
    std::optional<std::string> text;
};

Property ReadProperty(const char* key) {
    // Borrowed from the host: this reference is held only while the value is read.
    const CRefPtr_T<IZUModData> value(CZUModRuntime::GetInstance()->GetEnvProperty(key));
    return {value != nullptr, TextOf(value.Get())};
}

void LogWrong(const char* key, const Property& property) {
    ZuModLog(kLogIgnored, "[zu-codec] %s is wrong, the default is used: %s", key,
             property.text ? property.text->c_str() : "no text");
}

int64_t NumberProperty(const char* key, int64_t lowest, int64_t highest, int64_t fallback) {
    const Property property = ReadProperty(key);
    if (!property.present) {
        return fallback;
    }
    int64_t number = 0;
    if (property.text) {
        const char* end = property.text->data() + property.text->size();
        const auto [stop, error] = std::from_chars(property.text->data(), end, number);
        if (error == std::errc() && stop == end && number >= lowest && number <= highest) {
            return number;
        }
    }
    LogWrong(key, property);
    return fallback;
}

std::string PresetProperty() {
    Property property = ReadProperty(kEnvPreset);
    if (!property.present) {
        return kDefaultPreset;
    }
    if (property.text && std::find(kPresets.begin(), kPresets.end(), *property.text) != kPresets.end()) {
        return *property.text;
    }
    LogWrong(kEnvPreset, property);
    return kDefaultPreset;
}

}  // namespace

int64_t DefaultBitRate(int width, int height) {
    constexpr int64_t kLowestDefault = 100'000;
    const int64_t rate = int64_t{width} * height * kAssumedRate * 15 / 100;
    return std::clamp(rate, kLowestDefault, kHighestBitRate);
}

EncoderSettings ReadEncoderSettings(int width, int height) {
    EncoderSettings settings;
    settings.bit_rate =
        NumberProperty(kEnvBitRate, kLowestBitRate, kHighestBitRate, DefaultBitRate(width, height));
    settings.preset = PresetProperty();
    settings.key_interval =
        static_cast<int>(NumberProperty(kEnvKeyInterval, 1, kLongestKeyInterval, kTwoSeconds));
    return settings;
}

}  // namespace zumod
