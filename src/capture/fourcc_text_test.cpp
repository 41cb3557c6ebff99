#include "src/capture/fourcc_text.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cstring>

namespace zumod {
namespace {

TEST(FourCcTextTest, ACodeReadsAsItsFourCharacters) {
    EXPECT_STREQ(FourCcText(V4L2_PIX_FMT_NV12).Get(), "NV12");
    EXPECT_STREQ(FourCcText(V4L2_PIX_FMT_MJPEG).Get(), "MJPG");
    EXPECT_STREQ(FourCcText(0x20203859).Get(), "Y8  ");
}

TEST(FourCcTextTest, BytesThatDoNotPrintArePassedAsTheyAre) {
    EXPECT_EQ(std::memcmp(FourCcText(0xFF800107).Get(), "\x07\x01\x80\xFF", 5), 0);
    EXPECT_STREQ(FourCcText(0).Get(), "");
}

}  // namespace
}  // namespace zumod
