#include "src/bridge/input_format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

namespace zumod {
namespace {

uint32_t FourCC(const char* text) {
    uint32_t code = 0;
    std::memcpy(&code, text, sizeof code);
    return code;
}

struct Row {
    const char* fourcc;
    const char* name;  // null for none
    int32_t bits_per_pixel;
};

TEST(InputFormat, EveryFormatHasItsNameAndItsBits) {
    for (const Row& row : {Row{"NV21", "NV21", 8}, Row{"YU12", "I420", 8}, Row{"NV12", "NV12", 8},
                           Row{"YV12", "YV12", 8}, Row{"BGR4", nullptr, 32}, Row{"YUYV", "YUY2", 16}}) {
        const auto format = InputFormatOf(640, 480, FourCC(row.fourcc));
        ASSERT_TRUE(format) << row.fourcc;
        EXPECT_EQ(format->width, 640);
        EXPECT_EQ(format->height, 480);
        EXPECT_EQ(format->bits_per_pixel, row.bits_per_pixel) << row.fourcc;
        EXPECT_EQ(format->stride, 640 * row.bits_per_pixel / 8) << row.fourcc;
        EXPECT_EQ(format->format, row.name != nullptr ? FourCC(row.name) : 0u) << row.fourcc;
    }
}

TEST(InputFormat, OtherFormatsAreRefused) {
    for (const char* fourcc : {"MJPG", "H264", "nv12", "RGB3", "BGR3", "\0\0\0\0"}) {
        EXPECT_FALSE(InputFormatOf(640, 480, FourCC(fourcc))) << fourcc;
    }
}

TEST(InputFormat, TheStrideIsTheRowRoundedUpToAMultipleOfFour) {
    EXPECT_EQ(RowStride(641, 8), 644);
    EXPECT_EQ(RowStride(640, 8), 640);
    EXPECT_EQ(RowStride(642, 8), 644);
    EXPECT_EQ(RowStride(643, 8), 644);
    EXPECT_EQ(RowStride(644, 8), 644);
    EXPECT_EQ(RowStride(640, 16), 1280);
    EXPECT_EQ(RowStride(641, 16), 1284);
    EXPECT_EQ(RowStride(641, 32), 2564);
    EXPECT_EQ(RowStride(0, 8), 0);
    EXPECT_EQ(RowStride(1, 1), 4);
    // The division truncates toward zero, the mask rounds down: (-8 + 7) / 8 is 0, (-80 + 7) / 8 is -9.
    EXPECT_EQ(RowStride(-1, 8), 0);
    EXPECT_EQ(RowStride(-10, 8), -8);
}

TEST(InputFormat, TheGreatestSizesAreComputedIn32Bits) {
    EXPECT_EQ(RowStride(INT_MAX, 32), 0);  // INT_MAX * 32 + 7 is -25 in 32 bits, -25 / 8 is -3
    EXPECT_EQ(RowStride(INT_MIN, 8), 0);
}

}  // namespace
}  // namespace zumod
