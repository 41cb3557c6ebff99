#include "codec/encoder_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "codec/setting_keys.h"
#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/recording_host.h"

namespace zumod::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class EncoderSettingsTest : public LoggingTest {
protected:
    void SetText(const char* key, const std::string& text) {
        host.SetProperty(key, CRefPtr_T<IZUModData>(
                                  new CountedData(ledger, kZUModDataText, CountedData::TextBytes(text))));
    }

    ReferenceLedger ledger;
};

TEST_F(EncoderSettingsTest, DependOnTheSizeIfTheHostHasNoProperties) {
    const EncoderSettings settings = ReadEncoderSettings(640, 480);
    EXPECT_EQ(settings.bit_rate, 1382400);
    EXPECT_EQ(settings.key_interval, 60) << "two seconds";
    EXPECT_EQ(settings.preset, "ultrafast");
    EXPECT_THAT(host.Lines(), IsEmpty());
    EXPECT_EQ(settings.buffer_ms, 115);
    EXPECT_EQ(settings.threads, 1);
    EXPECT_THAT(host.AskedKeys(), ElementsAre("zu.codec.bitrate", "zu.codec.preset", "zu.codec.keyint",
                                              "zu.codec.buffer", "zu.codec.threads"));
}

TEST_F(EncoderSettingsTest, TheBitRateGrowsWithThePictureBetweenTwoBounds) {
    EXPECT_EQ(DefaultBitRate(1280, 720), 4147200);
    EXPECT_EQ(DefaultBitRate(16, 16), 100000);
    EXPECT_EQ(DefaultBitRate(16384, 16384), 1000000000);
}

TEST_F(EncoderSettingsTest, TheBufferHoldsAKeyFrameAlsoAtALowBitRate) {
    EXPECT_EQ(DefaultBufferMs(4147200), 100);
    EXPECT_EQ(DefaultBufferMs(1600000), 100);
    EXPECT_EQ(DefaultBufferMs(800000), 200);
    EXPECT_EQ(DefaultBufferMs(320000), 500);
    EXPECT_EQ(DefaultBufferMs(100000), 1000);
}

TEST_F(EncoderSettingsTest, ComeFromTheHostIfItHasThem) {
    SetText("zu.codec.bitrate", "500000");
    SetText("zu.codec.preset", "veryfast");
    SetText("zu.codec.keyint", "15");
    SetText("zu.codec.buffer", "250");
    SetText("zu.codec.threads", "2");
    const EncoderSettings settings = ReadEncoderSettings(640, 480);
    EXPECT_EQ(settings.bit_rate, 500000);
    EXPECT_EQ(settings.preset, "veryfast");
    EXPECT_EQ(settings.key_interval, 15);
    EXPECT_EQ(settings.buffer_ms, 250);
    EXPECT_EQ(settings.threads, 2);
    EXPECT_THAT(host.Lines(), IsEmpty());
}

TEST_F(EncoderSettingsTest, AWrongBitRateIsLoggedAndTheDefaultUsed) {
    for (const char* wrong :
         {"", "fast", "9999", "1000000001", "-500000", "500000 ", "5e5", "99999999999999999999999"}) {
        SetText("zu.codec.bitrate", wrong);
        EXPECT_EQ(ReadEncoderSettings(640, 480).bit_rate, 1382400) << wrong;
        EXPECT_THAT(host.TakeLines(),
                    ElementsAre(LogLine{2, std::string("[zu-codec] zu.codec.bitrate is wrong, the default "
                                                       "is used: ") +
                                               wrong}));
    }
}

TEST_F(EncoderSettingsTest, AWrongKeyIntervalIsLoggedAndTheDefaultUsed) {
    for (const char* wrong : {"0", "-1", "100001", "two"}) {
        SetText("zu.codec.keyint", wrong);
        EXPECT_EQ(ReadEncoderSettings(640, 480).key_interval, 60) << wrong;
        EXPECT_EQ(host.TakeLines().size(), 1U) << wrong;
    }
}

TEST_F(EncoderSettingsTest, AWrongBufferOrNumberOfThreadsIsLoggedAndTheDefaultUsed) {
    for (const char* wrong : {"19", "10001", "1 s"}) {
        SetText("zu.codec.buffer", wrong);
        EXPECT_EQ(ReadEncoderSettings(640, 480).buffer_ms, 115) << wrong;
        EXPECT_EQ(host.TakeLines().size(), 1U) << wrong;
    }
    SetText("zu.codec.buffer", "250");
    for (const char* wrong : {"0", "17", "all"}) {
        SetText("zu.codec.threads", wrong);
        EXPECT_EQ(ReadEncoderSettings(640, 480).threads, 1) << wrong;
        EXPECT_EQ(host.TakeLines().size(), 1U) << wrong;
    }
}

TEST(SettingKeys, KnowTheValuesThatTheEncoderUses) {
    EXPECT_TRUE(IsSettingValue(kPresetKey, "placebo"));
    EXPECT_FALSE(IsSettingValue(kPresetKey, "warp"));
    EXPECT_TRUE(IsSettingValue(kBitRateKey, "10000"));
    EXPECT_FALSE(IsSettingValue(kBitRateKey, "9999"));
    EXPECT_FALSE(IsSettingValue(kThreadsKey, ""));
}

TEST_F(EncoderSettingsTest, AWrongPresetIsLoggedAndTheDefaultUsed) {
    for (const char* wrong : {"", "UltraFast", "ultrafast ", "warp"}) {
        SetText("zu.codec.preset", wrong);
        EXPECT_EQ(ReadEncoderSettings(640, 480).preset, "ultrafast") << wrong;
        EXPECT_EQ(host.TakeLines().size(), 1U) << wrong;
    }
}

TEST_F(EncoderSettingsTest, AValueThatIsNotTextIsWrong) {
    host.SetProperty("zu.codec.bitrate", CRefPtr_T<IZUModData>(new CountedData(
                                             ledger, kZUModDataInt64, CountedData::Int64Bytes(500000))));
    EXPECT_EQ(ReadEncoderSettings(640, 480).bit_rate, 1382400);
    EXPECT_THAT(host.Lines(), ElementsAre(LogLine{2,
                                                  "[zu-codec] zu.codec.bitrate is wrong, the default is "
                                                  "used: no text"}));
}

TEST_F(EncoderSettingsTest, KeepsNoReferenceToTheHostsValues) {
    SetText("zu.codec.bitrate", "500000");
    SetText("zu.codec.preset", "warp");
    ReadEncoderSettings(640, 480);
    EXPECT_EQ(ledger.taken, 4) << "for each value one by the host, and one during the read";
    EXPECT_EQ(ledger.Held(), 2);
    EXPECT_EQ(ledger.Alive(), 2);
}

}  // namespace
}  // namespace zumod::testing
