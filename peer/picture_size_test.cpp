#include "peer/picture_size.h"

#include <gtest/gtest.h>

namespace zumod::peer {
namespace {

TEST(PictureSize, IsReadFromItsText) {
    EXPECT_EQ(ParseSize("640x480"), (PictureSize{640, 480}));
    EXPECT_EQ(ParseSize("1x16384"), (PictureSize{1, 16384}));
}

TEST(PictureSize, IsNothingElse) {
    for (const char* text : {"", "x", "640", "640x", "x480", "640x480x1", "640 x480", "640X480", "-640x480",
                             "+640x480", "0x480", "640x0", "640x16385", "99999999999x480", "640x480 ", "a"}) {
        EXPECT_EQ(ParseSize(text), std::nullopt) << text;
    }
}

TEST(PictureSize, HasAText) {
    EXPECT_EQ(SizeText({1280, 720}), "1280x720");
}

TEST(PictureSize, ByDefaultIsTheLargestThatFitsInto1280x720) {
    EXPECT_EQ(DefaultSize({{640, 480}, {1280, 720}, {1920, 1080}, {960, 720}}), (PictureSize{1280, 720}));
    EXPECT_EQ(DefaultSize({{640, 480}, {1440, 400}, {800, 600}, {704, 800}}), (PictureSize{800, 600}));
}

TEST(PictureSize, ByDefaultIsTheSmallestWhereNoneFits) {
    EXPECT_EQ(DefaultSize({{3840, 2160}, {1920, 1080}, {2560, 1440}}), (PictureSize{1920, 1080}));
}

TEST(PictureSize, ByDefaultIs640x480WhereNoneIsListed) {
    EXPECT_EQ(DefaultSize({}), (PictureSize{640, 480}));
}

}  // namespace
}  // namespace zumod::peer
