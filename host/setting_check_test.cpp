#include "host/setting_check.h"

#include <gtest/gtest.h>

namespace zumod::host {
namespace {

TEST(SettingCheck, ValuesThatTheCodecTakesAreNoMistake) {
    EXPECT_EQ(SettingMistake("zu.codec.bitrate", "10000"), "");
    EXPECT_EQ(SettingMistake("zu.codec.keyint", "100000"), "");
    EXPECT_EQ(SettingMistake("zu.codec.preset", "placebo"), "");
    EXPECT_EQ(SettingMistake("zu.codec.threads", "16"), "");
    EXPECT_EQ(SettingMistake("product.codec.bitrate", "fast"), "") << "not ours";
}

TEST(SettingCheck, AMistakeNamesTheValuesThatTheCodecTakes) {
    EXPECT_EQ(
        SettingMistake("zu.codec.bitrate", "9999"),
        "zu.codec.bitrate is wrong, the codec will use its default: it takes 10000 to 1000000000 bits per "
        "second, not \"9999\"");
    EXPECT_EQ(SettingMistake("zu.codec.preset", "warp"),
              "zu.codec.preset is wrong, the codec will use its default: it takes ultrafast to placebo, not "
              "\"warp\"");
}

TEST(SettingCheck, AnUnknownKeyIsAMistake) {
    EXPECT_EQ(SettingMistake("zu.codec.bitrat", "500000"),
              "zu.codec.bitrat is unknown to the reference codec, which reads zu.codec.bitrate, "
              "zu.codec.preset, zu.codec.keyint, zu.codec.buffer, zu.codec.threads");
}

}  // namespace
}  // namespace zumod::host
