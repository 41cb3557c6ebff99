// The codec module, found and loaded by the camera module's loader.
#include <gtest/gtest.h>

#include "src/loader/codec_factory.h"
#include "tests/support/doubles/codec_calls.h"
#include "tests/support/doubles/picture_pattern.h"
#include "tests/support/doubles/recording_host.h"
#include "zumod/values.h"

namespace zumod::testing {
namespace {

class CodecLoadingTest : public LoggingTest {
protected:
    CodecLoadingTest() { host.SetProperty("zu.env.modules.dir", CZUModData::FromText(ZU_MODULE_DIR)); }
};

TEST_F(CodecLoadingTest, BothFactoriesCreateACodecThatWorks) {
    const auto encoder = CreateVideoEncoder(9, false, false, false, true);
    const auto decoder = CreateVideoDecoder(9, kVideoTargetBgr32, 0);
    ASSERT_TRUE(encoder != nullptr && decoder != nullptr);
    const Pattern pattern{320, 240};
    const TestPicture picture = Paint(kBgr32, pattern);
    const auto stream = Encoded(*encoder, picture.record, picture.bytes);
    double psnr = 0;
    DecodeCall call(stream, [&](const VideoDecodedPicture& decoded) { psnr = PsnrOf(decoded, pattern); });
    constexpr size_t kDecode = 20;
    EXPECT_TRUE(CallSlot<bool>(decoder.Get(), kDecode, static_cast<IVDecArgs*>(&call)));
    EXPECT_GE(psnr, 36.0);
}

TEST_F(CodecLoadingTest, AnotherImageTypeIsRefusedAndTheLoaderLogsIt) {
    EXPECT_EQ(CreateVideoEncoder(8, false, false, false, true), nullptr);
    EXPECT_TRUE(host.Has({4, "[zu-codec] create refused, unknown image type 8"}));
    EXPECT_TRUE(host.Has({4, "[client_plugin] create module_name(zu-codec) fail"}));
}

}  // namespace
}  // namespace zumod::testing
