#include "peer/camera_list.h"

#include <gtest/gtest.h>

#include "tests/support/wire/camera_messages.h"

namespace zumod::peer {
namespace {

using testing::operator+;
using testing::Bytes;
using testing::CameraBytes;
using testing::Number32;
using testing::Sizes;

// The body of a message that lists these cameras.
Bytes Body(const std::vector<Bytes>& cameras) {
    const Bytes message = testing::ListBytes(cameras);
    return {message.begin() + 8, message.end()};
}

// The cameras in a list that is well formed.
std::vector<CameraEntry> Cameras(const Bytes& body) {
    const auto cameras = ParseCameraList(body);
    EXPECT_TRUE(cameras) << cameras.error().text;
    return cameras.value_or(std::vector<CameraEntry>{});
}

std::string ErrorOf(const Bytes& body) {
    const auto cameras = ParseCameraList(body);
    EXPECT_FALSE(cameras);
    return cameras ? "" : cameras.error().text;
}

Sizes ManySizes(uint32_t count) {
    Sizes sizes;
    for (uint32_t i = 0; i < count; ++i) {
        sizes.push_back({100 + i, 50 + i});
    }
    return sizes;
}

TEST(CameraList, MayBeEmpty) {
    EXPECT_TRUE(Cameras(Body({})).empty());
}

TEST(CameraList, HoldsTheFieldsOfEachRecord) {
    Bytes front = CameraBytes(0, "Front", {{640, 480}, {1280, 720}});
    front[4] = 1;
    front[526] = 'X';
    const std::vector<CameraEntry> expected = {{0, true, "Front", "Xront", {{640, 480}, {1280, 720}}},
                                               {1, false, "Desk", "Desk", {}}};
    EXPECT_EQ(Cameras(Body({front, CameraBytes(1, "Desk", {})})), expected);
}

TEST(CameraList, KeepsANameThatFillsItsFieldAndEveryByteOfAName) {
    const std::string full(516, 'n');
    EXPECT_EQ(Cameras(Body({CameraBytes(0, full, {})})).at(0).name, full);
    EXPECT_EQ(Cameras(Body({CameraBytes(0, "a\x1b\xff\n", {})})).at(0).name, "a\x1b\xff\n");
}

TEST(CameraList, FindsTheSizesBeyondACountThatWrapped) {
    for (const uint32_t count : {255U, 256U, 257U, 300U, 512U, 2047U}) {
        const auto cameras = Cameras(Body({CameraBytes(0, "Many", ManySizes(count))}));
        ASSERT_EQ(cameras.size(), 1U) << count;
        ASSERT_EQ(cameras.at(0).sizes.size(), count);
        EXPECT_EQ(cameras.at(0).sizes.back(), (PictureSize{100 + count - 1, 50 + count - 1}));
    }
}

TEST(CameraList, FindsWhichOfSeveralCountsWrapped) {
    const std::vector<std::vector<uint32_t>> lists = {
        {300, 3, 2}, {3, 300, 2}, {3, 2, 300}, {600, 0, 260}, {0, 256, 0}};
    for (const auto& counts : lists) {
        std::vector<Bytes> records;
        for (uint32_t id = 0; id < counts.size(); ++id) {
            records.push_back(CameraBytes(id, "Cam", ManySizes(counts[id])));
        }
        const auto cameras = Cameras(Body(records));
        ASSERT_EQ(cameras.size(), counts.size());
        for (uint32_t id = 0; id < counts.size(); ++id) {
            EXPECT_EQ(cameras.at(id).id, id);
            EXPECT_EQ(cameras.at(id).sizes.size(), counts[id]);
        }
    }
}

TEST(CameraList, AcceptsAsManyCamerasAsAMachineCanHave) {
    const std::vector<Bytes> records(64, CameraBytes(3, "Cam", ManySizes(16)));
    EXPECT_EQ(Cameras(Body(records)).size(), 64U);
}

TEST(CameraList, RefusesMoreCamerasThanThat) {
    EXPECT_EQ(ErrorOf(Number32(65)), "a camera list of 65 cameras");
    EXPECT_EQ(ErrorOf(Number32(0xFFFFFFFF)), "a camera list of 4294967295 cameras");
}

TEST(CameraList, RefusesABodyThatIsTooShortOrTooLongByAnyNumberOfBytes) {
    EXPECT_EQ(ErrorOf({1, 0, 0}), "a camera list of 3 bytes");
    const Bytes good = Body({CameraBytes(0, "A", {{1, 2}}), CameraBytes(1, "B", {{3, 4}, {5, 6}})});
    ASSERT_EQ(Cameras(good).size(), 2U);
    for (size_t cut = 1; cut < good.size() - 4; ++cut) {
        const Bytes shorter(good.begin(), good.end() - static_cast<std::ptrdiff_t>(cut));
        ASSERT_FALSE(ParseCameraList(shorter)) << cut;
    }
    for (size_t more = 1; more < 2048; ++more) {
        ASSERT_FALSE(ParseCameraList(good + Bytes(more, 1))) << more;
    }
}

TEST(CameraList, RefusesARecordWhoseZeroBytesAreNotZero) {
    for (const size_t offset : {5U, 522U, 525U, 1042U, 1299U, 1301U, 1303U}) {
        Bytes record = CameraBytes(0, "A", {});
        record[offset] = 1;
        EXPECT_NE(ErrorOf(Body({record})), "") << offset;
    }
}

// The search must not try every combination.
TEST(CameraList, RefusesAtOnceIfEveryOffsetCouldBeARecord) {
    Bytes zeros(kLongestList - 8);
    zeros[0] = 64;
    EXPECT_NE(ErrorOf(zeros), "");
}

TEST(PictureSize, IsReadFromItsText) {
    EXPECT_EQ(ParseSize("640x480"), (PictureSize{640, 480}));
    EXPECT_EQ(ParseSize("640X480"), (PictureSize{640, 480}));
    EXPECT_EQ(ParseSize("1x16384"), (PictureSize{1, 16384}));
}

TEST(PictureSize, IsNotReadFromAnyOtherText) {
    for (const char* text : {"", "x", "640", "640x", "x480", "640x480x1", "640 x480", "640xX480", "-640x480",
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

TEST(PictureSize, ByDefaultIsTheSmallestIfNoneFits) {
    EXPECT_EQ(DefaultSize({{3840, 2160}, {1920, 1080}, {2560, 1440}}), (PictureSize{1920, 1080}));
}

TEST(PictureSize, ByDefaultIs640x480IfNoneIsListed) {
    EXPECT_EQ(DefaultSize({}), (PictureSize{640, 480}));
}

}  // namespace
}  // namespace zumod::peer
