#include "codec/picture_layout.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace zumod {
namespace {

constexpr uint32_t kNv12 = VideoFormatCode("NV12");
constexpr uint32_t kNv21 = VideoFormatCode("NV21");
constexpr uint32_t kI420 = VideoFormatCode("I420");
constexpr uint32_t kYv12 = VideoFormatCode("YV12");
constexpr uint32_t kYuy2 = VideoFormatCode("YUY2");
constexpr uint32_t kBgr = 0;

class PictureLayoutTest : public ::testing::Test {
protected:
    PictureError LayOut(const VideoInputFormat& record, uint64_t byte_count) {
        return LayOutPicture(record, byte_count, layout);
    }
    void ExpectPlane(int index, uint64_t offset, int stride, int row_bytes, int row_count) const {
        const PicturePlane& plane = layout.planes[index];
        EXPECT_EQ(plane.offset, offset) << "plane " << index;
        EXPECT_EQ(plane.stride, stride) << "plane " << index;
        EXPECT_EQ(plane.row_bytes, row_bytes) << "plane " << index;
        EXPECT_EQ(plane.row_count, row_count) << "plane " << index;
    }

    PictureLayout layout{};
};

TEST_F(PictureLayoutTest, Nv12HasItsChromaAfterTheLuma) {
    ASSERT_EQ(LayOut({640, 480, 640, 8, kNv12}, 460800), PictureError::kNone);
    EXPECT_EQ(layout.format->code, kNv12);
    EXPECT_EQ(layout.format->plane_count, 2);
    ExpectPlane(0, 0, 640, 640, 480);
    ExpectPlane(1, 307200, 640, 640, 240);
    EXPECT_EQ(layout.byte_count, 460800U);
}

TEST_F(PictureLayoutTest, Nv21HasTheLayoutOfNv12) {
    ASSERT_EQ(LayOut({640, 480, 640, 8, kNv21}, 460800), PictureError::kNone);
    EXPECT_EQ(layout.format->code, kNv21);
    ExpectPlane(1, 307200, 640, 640, 240);
}

TEST_F(PictureLayoutTest, I420HasUBeforeV) {
    ASSERT_EQ(LayOut({640, 480, 640, 8, kI420}, 460800), PictureError::kNone);
    EXPECT_EQ(layout.format->plane_count, 3);
    ExpectPlane(1, 307200, 320, 320, 240);
    ExpectPlane(2, 384000, 320, 320, 240);
}

TEST_F(PictureLayoutTest, Yv12HasVBeforeU) {
    ASSERT_EQ(LayOut({640, 480, 640, 8, kYv12}, 460800), PictureError::kNone);
    ExpectPlane(1, 384000, 320, 320, 240);
    ExpectPlane(2, 307200, 320, 320, 240);
}

TEST_F(PictureLayoutTest, Yuy2IsOnePlaneWithTwoBytesPerPixel) {
    ASSERT_EQ(LayOut({640, 480, 1280, 16, kYuy2}, 614400), PictureError::kNone);
    EXPECT_EQ(layout.format->plane_count, 1);
    ExpectPlane(0, 0, 1280, 1280, 480);
}

TEST_F(PictureLayoutTest, FormatZeroIsBgrWithFourBytesPerPixel) {
    ASSERT_EQ(LayOut({640, 480, 2560, 32, kBgr}, 1228800), PictureError::kNone);
    EXPECT_EQ(layout.format->code, kBgr);
    ExpectPlane(0, 0, 2560, 2560, 480);
}

TEST_F(PictureLayoutTest, OddSidesHaveAWholeChromaSampleForTheLastColumnAndRow) {
    ASSERT_EQ(LayOut({641, 479, 644, 8, kI420}, 644 * 479 + 2 * 322 * 240), PictureError::kNone);
    ExpectPlane(0, 0, 644, 641, 479);
    ExpectPlane(1, 308476, 322, 321, 240);
    ExpectPlane(2, 385756, 322, 321, 240);
    ASSERT_EQ(LayOut({641, 479, 644, 8, kNv12}, 644 * 479 + 644 * 240), PictureError::kNone);
    ExpectPlane(1, 308476, 644, 642, 240);
    ASSERT_EQ(LayOut({641, 479, 1284, 16, kYuy2}, 1284 * 479), PictureError::kNone);
    ExpectPlane(0, 0, 1284, 1284, 479);
}

TEST_F(PictureLayoutTest, AnyRecordedStrideIsUsed) {
    ASSERT_EQ(LayOut({640, 480, 700, 8, kNv12}, 700 * 720), PictureError::kNone);
    ExpectPlane(0, 0, 700, 640, 480);
    ExpectPlane(1, 336000, 700, 640, 240);
    ASSERT_EQ(LayOut({640, 480, 4096, 32, kBgr}, 4096 * 480), PictureError::kNone);
    ExpectPlane(0, 0, 4096, 2560, 480);
}

TEST_F(PictureLayoutTest, AnExactFitForALargerStrideMeansPaddedRows) {
    ASSERT_EQ(LayOut({320, 180, 320, 8, kI420}, 640 * 180 + 2 * 320 * 90), PictureError::kNone);
    ExpectPlane(0, 0, 640, 320, 180);
    ExpectPlane(1, 115200, 320, 160, 90);
    ExpectPlane(2, 144000, 320, 160, 90);
    ASSERT_EQ(LayOut({320, 180, 640, 16, kYuy2}, 1280 * 180), PictureError::kNone);
    ExpectPlane(0, 0, 1280, 640, 180);
    ASSERT_EQ(LayOut({320, 180, 1280, 32, kBgr}, 1284 * 180), PictureError::kNone);
    ExpectPlane(0, 0, 1284, 1280, 180);
}

TEST_F(PictureLayoutTest, AStrideThatNoDriverReachesIsNotDeduced) {
    // 15360 bytes: a row of 3840 pixels of 4 bytes, kept from the previous format.
    ASSERT_EQ(LayOut({640, 480, 640, 8, kNv12}, 15360 * 720), PictureError::kNone);
    ExpectPlane(0, 0, 15360, 640, 480);
    ASSERT_EQ(LayOut({640, 480, 640, 8, kNv12}, 15362 * 720), PictureError::kNone);
    ExpectPlane(0, 0, 640, 640, 480);
    EXPECT_EQ(layout.byte_count, 460800U);
    ASSERT_EQ(LayOut({640, 480, 1280, 16, kYuy2}, 40960 * 480), PictureError::kNone);
    ExpectPlane(0, 0, 1280, 1280, 480);
    // Rows that are longer than that themselves are aligned to at most 512 bytes.
    ASSERT_EQ(LayOut({4096, 16, 16384, 32, kBgr}, 16896 * 16), PictureError::kNone);
    ExpectPlane(0, 0, 16896, 16384, 16);
    ASSERT_EQ(LayOut({4096, 16, 16384, 32, kBgr}, 16900 * 16), PictureError::kNone);
    ExpectPlane(0, 0, 16384, 16384, 16);
}

TEST_F(PictureLayoutTest, ExtraBytesThatFitNoStrideAreIgnored) {
    ASSERT_EQ(LayOut({640, 480, 640, 8, kNv12}, 462848), PictureError::kNone);
    ExpectPlane(0, 0, 640, 640, 480);
    EXPECT_EQ(layout.byte_count, 460800U);
    // One more byte per row is half a pixel, which no driver chooses.
    ASSERT_EQ(LayOut({640, 480, 1280, 16, kYuy2}, 1281 * 480), PictureError::kNone);
    ExpectPlane(0, 0, 1280, 1280, 480);
    ASSERT_EQ(LayOut({640, 480, 2560, 32, kBgr}, 2562 * 480), PictureError::kNone);
    ExpectPlane(0, 0, 2560, 2560, 480);
    ASSERT_EQ(LayOut({640, 480, 640, 8, kNv12}, UINT64_MAX), PictureError::kNone);
    ExpectPlane(0, 0, 640, 640, 480);
}

TEST_F(PictureLayoutTest, RowsWithoutPaddingAreRecognisedIfTheRecordRoundsTheirLengthUp) {
    ASSERT_EQ(LayOut({642, 480, 644, 8, kNv12}, 642 * 720), PictureError::kNone);
    ExpectPlane(0, 0, 642, 642, 480);
    ExpectPlane(1, 308160, 642, 642, 240);
    ASSERT_EQ(LayOut({641, 479, 644, 8, kI420}, 641 * 479 + 2 * 321 * 240), PictureError::kNone);
    ExpectPlane(0, 0, 641, 641, 479);
    ExpectPlane(2, 641 * 479 + 321 * 240, 321, 321, 240);
}

TEST_F(PictureLayoutTest, TooFewBytesAreRefused) {
    EXPECT_EQ(LayOut({640, 480, 640, 8, kNv12}, 460799), PictureError::kTooFewBytes);
    EXPECT_EQ(LayOut({640, 480, 640, 8, kI420}, 0), PictureError::kTooFewBytes);
    EXPECT_EQ(LayOut({640, 480, 1280, 16, kYuy2}, 614399), PictureError::kTooFewBytes);
    EXPECT_EQ(LayOut({640, 480, 2560, 32, kBgr}, 1228799), PictureError::kTooFewBytes);
    EXPECT_EQ(LayOut({642, 480, 644, 8, kNv12}, 642 * 720 + 1), PictureError::kTooFewBytes);
    EXPECT_EQ(LayOut({642, 480, 644, 8, kNv12}, 642 * 720 - 1), PictureError::kTooFewBytes);
}

TEST_F(PictureLayoutTest, AStrideThatWasNotRoundedUpIsUsedUnchanged) {
    EXPECT_EQ(LayOut({640, 480, 700, 8, kNv12}, 640 * 720), PictureError::kTooFewBytes);
    EXPECT_EQ(LayOut({642, 480, 643, 8, kNv12}, 642 * 720), PictureError::kTooFewBytes);
}

TEST_F(PictureLayoutTest, SizesOutOfRangeAreRefused) {
    for (const int wrong : {0, -1, INT32_MIN, 16385, INT32_MAX}) {
        EXPECT_EQ(LayOut({wrong, 480, INT32_MAX, 8, kNv12}, UINT64_MAX), PictureError::kSize) << wrong;
        EXPECT_EQ(LayOut({640, wrong, 640, 8, kNv12}, UINT64_MAX), PictureError::kSize) << wrong;
    }
}

TEST_F(PictureLayoutTest, TheLargestSizeIsAccepted) {
    EXPECT_EQ(LayOut({16384, 16384, 65536, 32, kBgr}, uint64_t{65536} * 16384), PictureError::kNone);
}

TEST_F(PictureLayoutTest, StridesOutOfRangeAreRefused) {
    for (const int wrong : {639, 0, -640, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(LayOut({640, 480, wrong, 8, kNv12}, UINT64_MAX), PictureError::kStride) << wrong;
    }
    EXPECT_EQ(LayOut({640, 480, 1279, 16, kYuy2}, UINT64_MAX), PictureError::kStride);
    EXPECT_EQ(LayOut({640, 480, 2559, 32, kBgr}, UINT64_MAX), PictureError::kStride);
    EXPECT_EQ(LayOut({641, 480, 1282, 16, kYuy2}, UINT64_MAX), PictureError::kStride)
        << "the last pixel of an odd width needs its pair's four bytes";
}

TEST_F(PictureLayoutTest, OtherFormatsAreRefused) {
    EXPECT_EQ(LayOut({640, 480, 640, 8, VideoFormatCode("MJPG")}, 460800), PictureError::kFormat);
    EXPECT_EQ(LayOut({640, 480, 640, 8, VideoFormatCode("nv12")}, 460800), PictureError::kFormat);
    EXPECT_EQ(LayOut({640, 480, 1920, 24, kBgr}, UINT64_MAX), PictureError::kFormat);
}

TEST_F(PictureLayoutTest, ARefusedPictureLeavesTheLayoutUnchanged) {
    layout.width = 7;
    EXPECT_NE(LayOut({640, 480, 640, 8, kNv12}, 1), PictureError::kNone);
    EXPECT_EQ(layout.width, 7);
}

TEST_F(PictureLayoutTest, AsRecordedIgnoresTheByteCount) {
    ASSERT_EQ(LayOutPictureAsRecorded({640, 480, 700, 8, kNv12}, layout), PictureError::kNone);
    EXPECT_EQ(layout.byte_count, 700U * 720U);
    EXPECT_EQ(LayOutPictureAsRecorded({640, 480, 639, 8, kNv12}, layout), PictureError::kStride);
}

}  // namespace
}  // namespace zumod
