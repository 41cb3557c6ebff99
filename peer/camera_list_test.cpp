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

// The body of a list of these.
Bytes Body(const std::vector<Bytes>& cameras) {
    const Bytes message = testing::ListBytes(cameras);
    return {message.begin() + 8, message.end()};
}

std::optional<std::vector<CameraEntry>> Parse(const Bytes& body) {
    std::string error;
    auto cameras = ParseCameraList(body, error);
    EXPECT_EQ(cameras.has_value(), error.empty()) << error;
    return cameras;
}

std::string ErrorOf(const Bytes& body) {
    std::string error;
    EXPECT_FALSE(ParseCameraList(body, error));
    return error;
}

Sizes ManySizes(uint32_t count) {
    Sizes sizes;
    for (uint32_t i = 0; i < count; ++i) {
        sizes.push_back({100 + i, 50 + i});
    }
    return sizes;
}

TEST(CameraList, MayBeEmpty) {
    const auto cameras = Parse(Body({}));
    ASSERT_TRUE(cameras);
    EXPECT_TRUE(cameras->empty());
}

TEST(CameraList, HoldsTheFieldsOfEachRecord) {
    Bytes front = CameraBytes(0, "Front", {{640, 480}, {1280, 720}});
    front[4] = 1;
    front[526] = 'X';
    const auto cameras = Parse(Body({front, CameraBytes(1, "Desk", {})}));
    ASSERT_TRUE(cameras);
    const std::vector<CameraEntry> expected = {{0, true, "Front", "Xront", {{640, 480}, {1280, 720}}},
                                               {1, false, "Desk", "Desk", {}}};
    EXPECT_EQ(*cameras, expected);
}

TEST(CameraList, KeepsANameThatFillsItsFieldAndOneByteOfEverything) {
    const std::string full(516, 'n');
    EXPECT_EQ(Parse(Body({CameraBytes(0, full, {})}))->at(0).name, full);
    EXPECT_EQ(Parse(Body({CameraBytes(0, "a\x1b\xff\n", {})}))->at(0).name, "a\x1b\xff\n");
}

TEST(CameraList, FindsTheSizesBeyondACountThatWrapped) {
    for (const uint32_t count : {255U, 256U, 257U, 300U, 512U, 2047U}) {
        const auto cameras = Parse(Body({CameraBytes(0, "Many", ManySizes(count))}));
        ASSERT_TRUE(cameras) << count;
        ASSERT_EQ(cameras->at(0).sizes.size(), count);
        EXPECT_EQ(cameras->at(0).sizes.back(), (PictureSize{100 + count - 1, 50 + count - 1}));
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
        const auto cameras = Parse(Body(records));
        ASSERT_TRUE(cameras);
        for (uint32_t id = 0; id < counts.size(); ++id) {
            EXPECT_EQ(cameras->at(id).id, id);
            EXPECT_EQ(cameras->at(id).sizes.size(), counts[id]);
        }
    }
}

TEST(CameraList, TakesAsManyCamerasAsAMachineCanHave) {
    const std::vector<Bytes> records(64, CameraBytes(3, "Cam", ManySizes(16)));
    EXPECT_EQ(Parse(Body(records))->size(), 64U);
}

TEST(CameraList, RefusesMoreCamerasThanThat) {
    EXPECT_EQ(ErrorOf(Number32(65)), "a camera list of 65 cameras");
    EXPECT_EQ(ErrorOf(Number32(0xFFFFFFFF)), "a camera list of 4294967295 cameras");
}

TEST(CameraList, RefusesABodyThatIsTooShortOrTooLongByAnyNumberOfBytes) {
    EXPECT_EQ(ErrorOf({1, 0, 0}), "a camera list of 3 bytes");
    const Bytes good = Body({CameraBytes(0, "A", {{1, 2}}), CameraBytes(1, "B", {{3, 4}, {5, 6}})});
    ASSERT_TRUE(Parse(good));
    for (size_t cut = 1; cut < good.size() - 4; ++cut) {
        const Bytes shorter(good.begin(), good.end() - static_cast<std::ptrdiff_t>(cut));
        std::string error;
        ASSERT_FALSE(ParseCameraList(shorter, error)) << cut;
    }
    for (size_t more = 1; more < 2048; ++more) {
        std::string error;
        ASSERT_FALSE(ParseCameraList(good + Bytes(more, 1), error)) << more;
    }
}

TEST(CameraList, RefusesARecordWhoseZeroBytesAreNone) {
    for (const size_t place : {5U, 522U, 525U, 1042U, 1299U, 1301U, 1303U}) {
        Bytes record = CameraBytes(0, "A", {});
        record[place] = 1;
        EXPECT_NE(ErrorOf(Body({record})), "") << place;
    }
}

// Where every place could be a record, the search must not try every combination.
TEST(CameraList, RefusesAnEndlessPuzzleAtOnce) {
    Bytes zeros(kLongestList - 8);
    zeros[0] = 64;
    EXPECT_NE(ErrorOf(zeros), "");
}

}  // namespace
}  // namespace zumod::peer
