#include "peer/picture_writer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>

#include "common/av_objects.h"
#include "peer/picture_decoder.h"
#include "tests/support/wire/encoded_stream.h"

namespace zumod::peer {
namespace {

using Bytes = std::vector<uint8_t>;

// The pixels of a PNG file: red, green, blue.
Bytes PixelsOf(const Bytes& png, int& width, int& height) {
    const AvOwner<AVCodecContext> decoder(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_PNG)));
    EXPECT_EQ(avcodec_open2(decoder.get(), nullptr, nullptr), 0);
    const AvOwner<AVPacket> packet(av_packet_alloc());
    av_new_packet(packet.get(), static_cast<int>(png.size()));
    std::memcpy(packet->data, png.data(), png.size());
    const AvOwner<AVFrame> frame(av_frame_alloc());
    EXPECT_EQ(avcodec_send_packet(decoder.get(), packet.get()), 0);
    EXPECT_EQ(avcodec_receive_frame(decoder.get(), frame.get()), 0);
    EXPECT_EQ(frame->format, AV_PIX_FMT_RGB24);
    width = frame->width;
    height = frame->height;
    Bytes pixels;
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = frame->data[0] + y * frame->linesize[0];
        pixels.insert(pixels.end(), row, row + 3 * width);
    }
    return pixels;
}

TEST(PictureWriter, KeepsTheColoursOfEveryPixel) {
    // 3x2 pixels of blue, green, red and a byte that means nothing; each row has 4 bytes to spare.
    const uint8_t bytes[] = {255, 0, 0, 9, 0, 255, 0, 9, 0, 0, 255, 9, 7, 7, 7, 7,  //
                             1,   2, 3, 9, 4, 5,   6, 9, 7, 8, 9,   9, 7, 7, 7, 7};
    const VideoDecodedPicture picture{3, 2, 0, 1, {bytes}, {16}, 1};
    const Bytes png = EncodePicture(picture, *PictureFormatOf("a.png")).value();
    const Bytes signature = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    EXPECT_EQ(Bytes(png.begin(), png.begin() + 8), signature);
    int width = 0;
    int height = 0;
    EXPECT_EQ(PixelsOf(png, width, height),
              (Bytes{0, 0, 255, 0, 255, 0, 255, 0, 0, 3, 2, 1, 6, 5, 4, 9, 8, 7}));
    EXPECT_EQ(width, 3);
    EXPECT_EQ(height, 2);
}

TEST(PictureWriter, KnowsItsFormatsByTheEndingOfTheName) {
    EXPECT_NE(PictureFormatOf("a.png"), nullptr);
    EXPECT_EQ(PictureFormatOf("dir.jpg/A.PNG"), PictureFormatOf("a.png"));
    EXPECT_EQ(PictureFormatOf("-"), PictureFormatOf("a.png"));
    EXPECT_NE(PictureFormatOf("a.jpg"), PictureFormatOf("a.png"));
    EXPECT_NE(PictureFormatOf("a.JPEG"), nullptr);
    for (const char* other : {"", "png", "a.gif", "a.png.txt", "a"}) {
        EXPECT_EQ(PictureFormatOf(other), nullptr) << other;
    }
}

TEST(PictureWriter, WritesAJpegFileWithTheColours) {
    // 16x16 pixels: blue 40, green 200, red 90.
    Bytes bytes;
    for (int i = 0; i < 16 * 16; ++i) {
        bytes.insert(bytes.end(), {40, 200, 90, 0});
    }
    const VideoDecodedPicture picture{16, 16, 0, 1, {bytes.data()}, {64}, 1};
    const Bytes jpeg = EncodePicture(picture, *PictureFormatOf("a.jpg")).value();
    EXPECT_EQ(Bytes(jpeg.begin(), jpeg.begin() + 3), (Bytes{0xFF, 0xD8, 0xFF}));
    EXPECT_EQ(Bytes(jpeg.end() - 2, jpeg.end()), (Bytes{0xFF, 0xD9}));
    const AvOwner<AVCodecContext> decoder(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_MJPEG)));
    ASSERT_EQ(avcodec_open2(decoder.get(), nullptr, nullptr), 0);
    const AvOwner<AVPacket> packet(av_packet_alloc());
    av_new_packet(packet.get(), static_cast<int>(jpeg.size()));
    std::memcpy(packet->data, jpeg.data(), jpeg.size());
    const AvOwner<AVFrame> frame(av_frame_alloc());
    ASSERT_EQ(avcodec_send_packet(decoder.get(), packet.get()), 0);
    ASSERT_EQ(avcodec_receive_frame(decoder.get(), frame.get()), 0);
    EXPECT_EQ(frame->width, 16);
    // ITU-R BT.601, full range: Y 149, Cb 67, Cr 86.
    EXPECT_NEAR(frame->data[0][0], 149, 3);
    EXPECT_NEAR(frame->data[1][0], 67, 3);
    EXPECT_NEAR(frame->data[2][0], 86, 3);
}

TEST(PictureWriter, FailsIfAPictureCannotBeWritten) {
    const VideoDecodedPicture picture{0, 2, 0, 1, {nullptr}, {16}, 1};
    EXPECT_FALSE(EncodePicture(picture, *PictureFormatOf("a.png")));
}

class PictureDecoderTest : public ::testing::Test {
protected:
    Expected<PictureDecoder> Create(const char* directory, VideoTargetFormat target) {
        return PictureDecoder::Create(directory, target, m_waiter, std::chrono::seconds(60));
    }

private:
    Waiter m_waiter;
};

TEST_F(PictureDecoderTest, DecodesACamerasFrame) {
    testing::EncodedStream stream(320, 240);
    PictureDecoder decoder = Create(ZU_MODULE_DIR, kVideoTargetBgr32).value();
    int pictures = 0;
    EXPECT_TRUE(decoder
                    .Decode(stream.Next(0, 0),
                            [&](const VideoDecodedPicture& picture) {
                                ++pictures;
                                EXPECT_EQ(picture.width, 320);
                                EXPECT_EQ(picture.height, 240);
                                EXPECT_FALSE(
                                    EncodePicture(picture, *PictureFormatOf("a.png")).value().empty());
                            })
                    .value());
    EXPECT_EQ(pictures, 1);
}

TEST_F(PictureDecoderTest, WaitsForAKeyFrameAlsoAfterARestart) {
    testing::EncodedStream stream(320, 240);
    const Bytes key = stream.Next(0, 0);
    const Bytes second = stream.Next(1, 0);
    const auto nothing = [](const VideoDecodedPicture&) {};
    PictureDecoder decoder = Create(ZU_MODULE_DIR, kVideoTargetI420).value();
    EXPECT_FALSE(decoder.Decode(second, nothing).value());
    EXPECT_FALSE(decoder.Decode(Bytes(500, 0x55), nothing).value());
    EXPECT_TRUE(decoder.Decode(key, nothing).value());
    EXPECT_TRUE(decoder.Decode(second, nothing).value());
    EXPECT_TRUE(decoder.Restart());
    EXPECT_FALSE(decoder.Decode(second, nothing).value());
}

TEST_F(PictureDecoderTest, PassesAnExceptionOfTheCallbackOnAndStaysUsable) {
    testing::EncodedStream stream(320, 240);
    PictureDecoder decoder = Create(ZU_MODULE_DIR, kVideoTargetI420).value();
    const auto failing = [](const VideoDecodedPicture&) { throw std::bad_alloc(); };
    EXPECT_THROW(decoder.Decode(stream.Next(0, 0), failing), std::bad_alloc);
    EXPECT_TRUE(decoder.Decode(stream.Next(1, 0), [](const VideoDecodedPicture&) {}).value());
}

TEST_F(PictureDecoderTest, SaysWhereItLookedForTheModule) {
    const auto decoder = Create("/nonexistent", kVideoTargetI420);
    ASSERT_FALSE(decoder);
    EXPECT_EQ(decoder.error().text,
              "no decoder from zu-codec.so in /nonexistent (see --modules): "
              "[zumod] module file is not exist");
}

}  // namespace
}  // namespace zumod::peer
