#include "zumod/camera_channel.h"

#include <gtest/gtest.h>

#include <vector>

namespace zumod {
namespace {

TEST(CameraChannel, AHeaderIsLengthTypeAndThreeZeroBytes) {
    std::vector<uint8_t> message(9, 0xAA);
    EXPECT_EQ(WriteHeader(message.data(), kHostNotice, 0x01020304), message.data() + 8);
    EXPECT_EQ(message, (std::vector<uint8_t>{4, 3, 2, 1, 128, 0, 0, 0, 0xAA}));
    EXPECT_EQ(ReadHeader(message.data()).length, 0x01020304U);
    EXPECT_EQ(ReadHeader(message.data()).type, kHostNotice);
}

TEST(CameraChannel, ARecordNeedNotBeAligned) {
    std::vector<uint8_t> bytes(17);
    EXPECT_EQ(WriteRecord(bytes.data() + 1, FormatRequest{1, 640, -480, 30}), bytes.data() + 17);
    const auto request = ReadRecord<FormatRequest>(bytes.data() + 1);
    EXPECT_EQ(request.id, 1U);
    EXPECT_EQ(request.width, 640);
    EXPECT_EQ(request.height, -480);
    EXPECT_EQ(request.fps, 30);
}

}  // namespace
}  // namespace zumod
