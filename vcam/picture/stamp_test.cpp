#include "common/picture_stamp.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <vector>

#include "vcam/picture/pattern.h"
#include "vcam/picture/pattern_reader.h"

namespace zumod::vcam {
namespace {

constexpr Stamp kStamp{0xdeadbeef, 0x123456789abc};

TEST(Stamp, IsDecodedFromItsBits) {
    EXPECT_EQ(DecodeStamp(EncodeStamp(kStamp)), kStamp);
}

TEST(Stamp, IsRejectedIfAnyOneBitIsWrong) {
    for (unsigned bit = 0; bit < kStampBits; ++bit) {
        StampPattern bits = EncodeStamp(kStamp);
        bits[bit] = !bits[bit];
        EXPECT_FALSE(DecodeStamp(bits)) << bit;
    }
}

TEST(Stamp, BeginsWithWhiteBlackWhiteWhite) {
    const StampPattern bits = EncodeStamp(kStamp);
    EXPECT_TRUE(bits[0]);
    EXPECT_FALSE(bits[1]);
    EXPECT_TRUE(bits[2]);
    EXPECT_TRUE(bits[3]);
}

TEST(StampGrid, HasBlocksOfAMacroblockOrMoreInLargePictures) {
    EXPECT_EQ(StampGrid::For(640, 480).block, 16U);
    EXPECT_EQ(StampGrid::For(1920, 1080).block, 32U);
}

TEST(StampGrid, FitsSmallPicturesWithSmallerBlocks) {
    EXPECT_EQ(StampGrid::For(160, 120).block, 8U);
    EXPECT_EQ(StampGrid::For(128, 96).block, 8U);
    EXPECT_EQ(StampGrid::For(64, 64).block, 4U);
}

TEST(StampGrid, IsEmptyIfThePictureIsTooSmall) {
    EXPECT_EQ(StampGrid::For(16, 16).block, 0U);
}

TEST(ReadStamp, FindsTheStampInEverySizeThatHasOne) {
    for (const auto& [width, height] :
         {std::pair{64U, 64U}, {128U, 96U}, {160U, 120U}, {642U, 480U}, {1280U, 720U}, {1920U, 1080U}}) {
        const PictureLayout layout = LayOut(V4L2_PIX_FMT_NV12, width, height);
        const Pattern pattern(layout, "TEST");
        std::vector<uint8_t> picture(layout.sizeimage);
        pattern.Paint(picture.data(), kStamp);
        EXPECT_EQ(ReadStamp(picture.data(), layout), kStamp) << width << "x" << height;
    }
}

TEST(ReadStamp, SurvivesCoarseLumaAndSmearedEdges) {
    const PictureLayout layout = LayOut(V4L2_PIX_FMT_NV12, 640, 480);
    const Pattern pattern(layout, "TEST");
    std::vector<uint8_t> picture(layout.sizeimage);
    pattern.Paint(picture.data(), kStamp);
    std::vector<uint8_t> smeared = picture;
    for (unsigned y = 0; y < 480; ++y) {
        for (unsigned x = 3; x + 3 < 640; ++x) {
            unsigned sum = 0;
            for (unsigned i = 0; i < 7; ++i) {
                sum += picture[y * 640 + x - 3 + i];
            }
            smeared[y * 640 + x] = static_cast<uint8_t>(sum / 7 / 2 / 32 * 32 + 60);
        }
    }
    EXPECT_EQ(ReadStamp(smeared.data(), 640, 640, 480), kStamp);
}

TEST(ReadStamp, FindsNoneInAPictureWithoutOne) {
    const std::vector<uint8_t> grey(640 * 480, 128);
    EXPECT_FALSE(ReadStamp(grey.data(), 640, 640, 480));
}

}  // namespace
}  // namespace zumod::vcam
