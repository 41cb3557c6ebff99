#include "src/plugin/camera_protocol.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/doubles/scripted_stream.h"

namespace zumod {
namespace {

using testing::Bytes;
using testing::operator+;

// The buffers are filled with this first, since every writer must overwrite the whole message.
constexpr uint8_t kDirt = 0xA5;

Bytes Zeros(size_t count) {
    return Bytes(count, 0);
}

Bytes Text(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

CameraDeviceInfo Camera(uint32_t id, const std::string& name) {
    CameraDeviceInfo camera{};
    camera.id = id;
    camera.name = name;
    camera.displayName = name;
    camera.file = "/dev/video" + std::to_string(id);
    return camera;
}

Bytes ListMessage(const std::vector<CameraDeviceInfo>& cameras) {
    Bytes message(CameraListSize(cameras), kDirt);
    WriteCameraList(message.data(), cameras);
    return message;
}

TEST(CameraProtocol, AStateNoticeHasSixteenBytes) {
    Bytes message(kStateNoticeSize, kDirt);
    WriteStateNotice(message.data(), kCameraOpen, 0x04030201);
    EXPECT_EQ(message, (Bytes{8, 0, 0, 0, 5, 0, 0, 0, 2, 0, 0, 0, 1, 2, 3, 4}));
    WriteStateNotice(message.data(), kCameraFailed, 0xFFFFFFFF);
    EXPECT_EQ(message, (Bytes{8, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0, 255, 255, 255, 255}));
    WriteStateNotice(message.data(), kCameraClosed, 0);
    EXPECT_EQ(message, (Bytes{8, 0, 0, 0, 5, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(CameraProtocol, AVersionReplyHasTwelveBytesAndSaysFive) {
    Bytes message(kVersionReplySize, kDirt);
    WriteVersionReply(message.data());
    EXPECT_EQ(message, (Bytes{4, 0, 0, 0, 0x0B, 0, 0, 0, 5, 0, 0, 0}));
}

TEST(CameraProtocol, AFrameBeginsWithItsIdAndTheNumberOfEncodedBytes) {
    Bytes message(kVideoFrameHeaderSize, kDirt);
    WriteVideoFrameHeader(message.data(), 0x0A0B0C0D, 0x00010203);
    EXPECT_EQ(message, (Bytes{0x0B, 2, 1, 0, 7, 0, 0, 0, 0x0D, 0x0C, 0x0B, 0x0A, 3, 2, 1, 0}));
}

TEST(CameraProtocol, AFrameWithoutBytesIsOnlyItsHeader) {
    Bytes message(kVideoFrameHeaderSize, kDirt);
    WriteVideoFrameHeader(message.data(), 1, 0);
    EXPECT_EQ(message, (Bytes{8, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(CameraProtocol, AFormatRequestIsReadFieldByField) {
    const Bytes body = {1, 0, 0, 0x80, 0x80, 2, 0, 0, 0xE0, 1, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    const auto request = ReadFormatRequest(body.data(), body.size());
    ASSERT_TRUE(request);
    EXPECT_EQ(request->id, 0x80000001u);
    EXPECT_EQ(request->width, 640);
    EXPECT_EQ(request->height, 480);
    EXPECT_EQ(request->fps, -1);
}

TEST(CameraProtocol, APropertyRequestIsReadFieldByField) {
    const Bytes body = {2, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0x80, 1, 0, 0, 0};
    const auto request = ReadPropertyRequest(body.data(), body.size());
    ASSERT_TRUE(request);
    EXPECT_EQ(request->id, 2u);
    EXPECT_EQ(request->property, -2);
    EXPECT_EQ(request->value, INT32_MIN);
    EXPECT_EQ(request->automatic, 1);
}

TEST(CameraProtocol, AFormatOrPropertyRequestHasExactlySixteenBytes) {
    const Bytes body(32, 1);
    for (uint64_t length = 0; length <= body.size(); ++length) {
        EXPECT_EQ(ReadFormatRequest(body.data(), length).has_value(), length == 16) << length;
        EXPECT_EQ(ReadPropertyRequest(body.data(), length).has_value(), length == 16) << length;
    }
}

TEST(CameraProtocol, TheMissingBytesOfAShortCloseRequestAreZero) {
    const Bytes body = {0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(ReadCloseRequest(nullptr, 0), 0u);
    EXPECT_EQ(ReadCloseRequest(body.data(), 1), 0x00000011u);
    EXPECT_EQ(ReadCloseRequest(body.data(), 2), 0x00002211u);
    EXPECT_EQ(ReadCloseRequest(body.data(), 3), 0x00332211u);
    EXPECT_EQ(ReadCloseRequest(body.data(), 4), 0x44332211u);
    EXPECT_EQ(ReadCloseRequest(body.data(), 5), 0x44332211u);
}

TEST(CameraProtocol, AnEmptyListHasTwelveBytes) {
    EXPECT_EQ(ListMessage({}), (Bytes{4, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(CameraProtocol, OneCameraWithTwoSizes) {
    CameraDeviceInfo camera = Camera(0, "Cam");
    camera.resolutions.push_back({640, 480});
    camera.resolutions.push_back({1280, 720});
    const Bytes expected = Bytes{0x2C, 5, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0} +  // 1324 bytes follow the header
                           Zeros(4) + Zeros(2) +                           // id, in use
                           Text("Cam") + Zeros(513) + Zeros(4) +           // name
                           Text("Cam") + Zeros(513) + Zeros(258) +         // display name
                           Bytes{2, 0, 0, 0} +                             // number of sizes
                           Bytes{0x80, 2, 0, 0, 0xE0, 1, 0, 0} +           // 640x480
                           Bytes{0, 5, 0, 0, 0xD0, 2, 0, 0};               // 1280x720
    const Bytes message = ListMessage({camera});
    EXPECT_EQ(message.size(), 1332u);
    EXPECT_EQ(message, expected);
    EXPECT_EQ(message[18], 'C');
    EXPECT_EQ(message[538], 'C');
    EXPECT_EQ(message[1312], 2);
}

TEST(CameraProtocol, NameAndDisplayNameAreSeparateFields) {
    CameraDeviceInfo camera = Camera(0x04030201, "One");
    camera.displayName = "Two";
    camera.inUse = true;
    const Bytes message = ListMessage({camera});
    const Bytes expected = Bytes{0x1C, 5, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0} + Bytes{1, 2, 3, 4, 1, 0} +
                           Text("One") + Zeros(517) + Text("Two") + Zeros(513 + 258 + 4);
    EXPECT_EQ(message, expected);
}

TEST(CameraProtocol, ThreeCamerasFollowOneAnother) {
    CameraDeviceInfo second = Camera(1, "B");
    second.resolutions.push_back({2, 1});
    const Bytes message = ListMessage({Camera(0, "A"), second, Camera(2, "C")});
    const Bytes header = {0x54, 0x0F, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0};  // 3924 bytes follow the header
    const Bytes first = Zeros(6) + Text("A") + Zeros(519) + Text("A") + Zeros(777);
    const Bytes second_record = Bytes{1, 0, 0, 0, 0, 0} + Text("B") + Zeros(519) + Text("B") + Zeros(773) +
                                Bytes{1, 0, 0, 0} + Bytes{2, 0, 0, 0, 1, 0, 0, 0};
    const Bytes third = Bytes{2, 0, 0, 0, 0, 0} + Text("C") + Zeros(519) + Text("C") + Zeros(777);
    EXPECT_EQ(message, header + first + second_record + third);
}

TEST(CameraProtocol, SixtyFourCamerasKeepTheirOrder) {
    std::vector<CameraDeviceInfo> cameras;
    for (uint32_t id = 0; id < 64; ++id) {
        cameras.push_back(Camera(id, "Cam"));
    }
    const Bytes message = ListMessage(cameras);
    ASSERT_EQ(message.size(), 12u + 64 * 1304);
    EXPECT_EQ((Bytes{message.begin(), message.begin() + 12}),
              (Bytes{0x04, 0x46, 0x01, 0, 2, 0, 0, 0, 64, 0, 0, 0}));  // 83460 bytes follow the header
    for (uint32_t id = 0; id < 64; ++id) {
        const uint8_t* record = message.data() + 12 + id * 1304;
        EXPECT_EQ(record[0], id);
        EXPECT_EQ(record[6], 'C');
        EXPECT_EQ(record[526], 'C');
    }
}

struct SizeCount {
    int count;
    uint8_t count_byte;
};

void PrintTo(const SizeCount& sizes, std::ostream* out) {
    *out << sizes.count << " sizes";
}

class CameraProtocolSizes : public ::testing::TestWithParam<SizeCount> {};

TEST_P(CameraProtocolSizes, AllPairsAreWrittenWhileTheCountByteWraps) {
    CameraDeviceInfo camera = Camera(0, "Cam");
    for (int i = 0; i < GetParam().count; ++i) {
        camera.resolutions.push_back({i, -1});
    }
    const Bytes message = ListMessage({camera, Camera(1, "Next")});
    const auto count = static_cast<size_t>(GetParam().count);
    ASSERT_EQ(message.size(), 12 + 2 * 1304 + 8 * count);
    EXPECT_EQ((Bytes{message.begin() + 1312, message.begin() + 1316}),
              (Bytes{GetParam().count_byte, 0, 0, 0}));
    for (size_t i = 0; i < count; ++i) {
        const auto pair = message.begin() + 1316 + static_cast<std::ptrdiff_t>(8 * i);
        EXPECT_EQ((Bytes{pair, pair + 8}), (Bytes{static_cast<uint8_t>(i & 0xFF),
                                                  static_cast<uint8_t>(i >> 8), 0, 0, 255, 255, 255, 255}));
    }
    EXPECT_EQ(message[1316 + 8 * count], 1);
}

INSTANTIATE_TEST_SUITE_P(Counts, CameraProtocolSizes,
                         ::testing::Values(SizeCount{0, 0}, SizeCount{1, 1}, SizeCount{255, 255},
                                           SizeCount{256, 0}, SizeCount{300, 44}),
                         [](const auto& test) { return std::to_string(test.param.count); });

TEST(CameraProtocol, ANameThatFillsItsFieldHasNoTerminatingZero) {
    struct Row {
        size_t length;
        size_t zeros;  // between the end of the name and the display name
    };
    for (const Row& row : {Row{515, 5}, Row{516, 4}, Row{600, 4}}) {
        const std::string name(row.length, 'n');
        const Bytes message = ListMessage({Camera(0, name)});
        const size_t kept = 520 - row.zeros;
        EXPECT_EQ(message, (Bytes{0x1C, 5, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0}) + Zeros(6) + Bytes(kept, 'n') +
                               Zeros(row.zeros) + Bytes(kept, 'n') + Zeros(516 - kept + 258 + 4))
            << row.length;
    }
}

}  // namespace
}  // namespace zumod
