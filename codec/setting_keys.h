// The environment properties of the host that configure an encoder, and which values they may have. All are
// text.
//
// Thread rule: constants and pure functions; any thread.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace zumod {

inline constexpr std::array<std::string_view, 10> kPresets = {"ultrafast", "superfast", "veryfast", "faster",
                                                              "fast",      "medium",    "slow",     "slower",
                                                              "veryslow",  "placebo"};

struct SettingKey {
    const char* name;
    const char* values;                            // what it may be, for an error
    int64_t lowest = 0;                            // of a number
    int64_t highest = 0;                           // of a number
    std::span<const std::string_view> words = {};  // instead of a number
};

inline constexpr SettingKey kBitRateKey{"zu.codec.bitrate", "10000 to 1000000000 bits per second", 10'000,
                                        1'000'000'000};
inline constexpr SettingKey kPresetKey{"zu.codec.preset", "ultrafast to placebo", 0, 0, kPresets};
inline constexpr SettingKey kKeyIntervalKey{"zu.codec.keyint", "1 to 100000 pictures", 1, 100'000};
inline constexpr SettingKey kBufferKey{"zu.codec.buffer", "20 to 10000 milliseconds", 20, 10'000};
inline constexpr SettingKey kThreadsKey{"zu.codec.threads", "1 to 16", 1, 16};

inline constexpr std::array<const SettingKey*, 5> kSettingKeys = {&kBitRateKey, &kPresetKey, &kKeyIntervalKey,
                                                                  &kBufferKey, &kThreadsKey};

// The value of a key that takes a number; none if the text is not one, or out of range.
inline std::optional<int64_t> SettingNumber(const SettingKey& key, std::string_view text) {
    int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool is_number = error == std::errc() && stop == end;
    return is_number && number >= key.lowest && number <= key.highest ? std::optional(number) : std::nullopt;
}

// Whether the encoder uses this value instead of the default.
inline bool IsSettingValue(const SettingKey& key, std::string_view text) {
    return key.words.empty() ? SettingNumber(key, text).has_value()
                             : std::find(key.words.begin(), key.words.end(), text) != key.words.end();
}

}  // namespace zumod
