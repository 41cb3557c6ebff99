#include "host/key_frame.h"

#include <gtest/gtest.h>

#include <vector>

namespace zumod::host {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(KeyFrame, AnIdrSliceIsOneWithStartCodesOfThreeAndOfFourBytes) {
    EXPECT_TRUE(IsKeyFrame(Bytes{0, 0, 1, 0x65, 0x88}));
    EXPECT_TRUE(IsKeyFrame(Bytes{0, 0, 0, 1, 0x65}));
    // The two bits before the type say how important the unit is.
    EXPECT_TRUE(IsKeyFrame(Bytes{0, 0, 1, 0x25}));
}

TEST(KeyFrame, ParameterSetsAndOtherUnitsMayComeBeforeTheSlice) {
    EXPECT_TRUE(IsKeyFrame(Bytes{0, 0, 0, 1,    0x09, 0x10,                    // access unit delimiter
                                 0, 0, 0, 1,    0x67, 0x42, 0x00, 0x00, 0x03,  // parameters of the sequence
                                 0, 0, 0, 1,    0x68, 0xCE,                    // parameters of the picture
                                 0, 0, 1, 0x06, 0x05,                          // additional information
                                 0, 0, 1, 0x65, 0x88}));
}

TEST(KeyFrame, ASliceOfAnotherPictureIsNone) {
    EXPECT_FALSE(IsKeyFrame(Bytes{0, 0, 0, 1, 0x41, 0x9A}));
    EXPECT_FALSE(IsKeyFrame(Bytes{0, 0, 0, 1, 0x09, 0x10, 0, 0, 1, 0x01}));
    for (const uint8_t partition : Bytes{0x42, 0x43, 0x44}) {
        EXPECT_FALSE(IsKeyFrame(Bytes{0, 0, 1, partition, 0, 0, 1, 0x65}));
    }
}

TEST(KeyFrame, OnlyTheFirstSliceCounts) {
    EXPECT_FALSE(IsKeyFrame(Bytes{0, 0, 1, 0x41, 0x9A, 0, 0, 1, 0x65, 0x88}));
    EXPECT_TRUE(IsKeyFrame(Bytes{0, 0, 1, 0x65, 0x88, 0, 0, 1, 0x41, 0x9A}));
}

TEST(KeyFrame, OtherBytesAreNone) {
    EXPECT_FALSE(IsKeyFrame({}));
    EXPECT_FALSE(IsKeyFrame(Bytes{0x65}));
    EXPECT_FALSE(IsKeyFrame(Bytes{0, 0, 1}));
    EXPECT_FALSE(IsKeyFrame(Bytes{0, 0, 0, 1}));
    EXPECT_FALSE(IsKeyFrame(Bytes{0, 0, 1, 0x67, 0x42}));
    EXPECT_FALSE(IsKeyFrame(Bytes{0, 1, 0x65, 0, 0, 2, 0x65}));
    EXPECT_FALSE(IsKeyFrame(Bytes(1000)));
}

}  // namespace
}  // namespace zumod::host
