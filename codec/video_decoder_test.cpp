#include "codec/video_decoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "codec/video_encoder.h"
#include "tests/support/doubles/codec_calls.h"
#include "tests/support/doubles/picture_pattern.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/wire/hostile_frames.h"
#include "zumod/values.h"

namespace zumod::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const LogLine kInvalidData{2, "[zu-codec] decode fail: Invalid data found when processing input"};

class VideoDecoderTest : public LoggingTest {
protected:
    VideoDecoderTest() { CreateDecoder(kVideoTargetI420); }

    void CreateDecoder(VideoTargetFormat target, uint8_t* screen = nullptr) {
        decoder = CRefPtr_T<CVideoDecoder>(new CVideoDecoder(target, screen));
    }
    // Encodes the next picture; the first one is a key frame.
    std::vector<uint8_t> Stream(const Pattern& shown) {
        const TestPicture picture = Paint(kI420, shown);
        auto bytes = Encoded(*encoder, picture.record, picture.bytes);
        host.TakeLines();
        return bytes;
    }
    // Returns the number of decoded pictures; `taker` receives each.
    int Decode(const std::vector<uint8_t>& stream, DecodeCall::Taker taker) {
        DecodeCall call(stream, std::move(taker));
        const bool any = decoder->Decode(&call);
        EXPECT_EQ(any, call.pictures > 0);
        return call.pictures;
    }
    int Decode(const std::vector<uint8_t>& stream) {
        return Decode(stream, [](const VideoDecodedPicture&) {});
    }
    // 0 if there is no picture.
    double PsnrAfterDecoding(const std::vector<uint8_t>& stream, const Pattern& shown) {
        double psnr = 0;
        Decode(stream, [&](const VideoDecodedPicture& picture) { psnr = PsnrOf(picture, shown); });
        return psnr;
    }

    const Pattern pattern{320, 240};
    CRefPtr_T<CVideoEncoder> encoder{new CVideoEncoder({})};
    CRefPtr_T<CVideoDecoder> decoder;
};

TEST_F(VideoDecoderTest, APictureHasTheStreamsSizeAndTheTargetsFormat) {
    struct {
        VideoTargetFormat target;
        uint32_t format;
        int planes;
    } const kTargets[] = {
        {kVideoTargetI420, kI420, 3}, {kVideoTargetNv12, kNv12, 2}, {kVideoTargetBgr32, 0, 1}};
    const auto stream = Stream(pattern);
    for (const auto& target : kTargets) {
        CreateDecoder(target.target);
        const int pictures = Decode(stream, [&](const VideoDecodedPicture& picture) {
            EXPECT_EQ(picture.width, 320);
            EXPECT_EQ(picture.height, 240);
            EXPECT_EQ(picture.format, target.format);
            EXPECT_EQ(picture.plane_count, target.planes);
            EXPECT_EQ(picture.key_frame, 1);
        });
        EXPECT_EQ(pictures, 1);
    }
    EXPECT_THAT(host.Lines(), IsEmpty());
}

TEST_F(VideoDecoderTest, EveryFormatKeepsTheColours) {
    const auto stream = Stream(pattern);
    for (const VideoTargetFormat target : {kVideoTargetI420, kVideoTargetNv12}) {
        CreateDecoder(target);
        EXPECT_GE(PsnrAfterDecoding(stream, pattern), 36.0) << target;
    }
}

TEST_F(VideoDecoderTest, OnlyKeyFramesAreMarkedAsSuch) {
    std::vector<int> key_frames;
    for (int i = 0; i < 3; ++i) {
        Decode(Stream({320, 240, 8 * i}),
               [&](const VideoDecodedPicture& picture) { key_frames.push_back(picture.key_frame); });
    }
    EXPECT_THAT(key_frames, ElementsAre(1, 0, 0));
}

TEST_F(VideoDecoderTest, AStreamThatStartsInTheMiddleWaitsForAKeyFrame) {
    Stream(pattern);
    EXPECT_EQ(Decode(Stream({320, 240, 8})), 0);
    encoder = CRefPtr_T<CVideoEncoder>(new CVideoEncoder({}));
    EXPECT_GE(PsnrAfterDecoding(Stream(pattern), pattern), 36.0);
}

TEST_F(VideoDecoderTest, TheOutputFormatMayScale) {
    const VideoOutputFormat half{160, 120, 0, kI420};
    EXPECT_EQ(decoder->SetOutputFormat(&half), 1);
    const int pictures = Decode(Stream(pattern), [](const VideoDecodedPicture& picture) {
        EXPECT_EQ(picture.width, 160);
        EXPECT_EQ(picture.height, 120);
        EXPECT_NEAR(picture.planes[0][0], 90, 6);
        EXPECT_NEAR(picture.planes[1][0], 80, 6);
        EXPECT_NEAR(picture.planes[1][79], 170, 6);
        EXPECT_NEAR(picture.planes[2][0], 170, 6);
        EXPECT_NEAR(picture.planes[2][59 * picture.strides[2]], 80, 6);
    });
    EXPECT_EQ(pictures, 1);
}

TEST_F(VideoDecoderTest, TheOutputFormatMayChangeBetweenPictures) {
    const VideoOutputFormat nv12{0, 0, 0, kNv12};
    EXPECT_GE(PsnrAfterDecoding(Stream(pattern), pattern), 36.0);
    EXPECT_EQ(decoder->SetOutputFormat(&nv12), 1);
    const int pictures = Decode(Stream(pattern), [](const VideoDecodedPicture& picture) {
        EXPECT_EQ(picture.format, kNv12);
        EXPECT_EQ(picture.width, 320);
    });
    EXPECT_EQ(pictures, 1);
}

TEST_F(VideoDecoderTest, AnOutputFormatOutOfRangeIsRefusedAndTheOldOneKept) {
    const VideoOutputFormat wrong[] = {{320, 0, 320, kI420},     {0, 240, 320, kI420},
                                       {-1, -1, 320, kI420},     {16385, 240, 16385, kI420},
                                       {320, INT32_MAX, 320, 0}, {320, 240, 320, kYv12}};
    for (const VideoOutputFormat& format : wrong) {
        EXPECT_EQ(decoder->SetOutputFormat(&format), 0);
        EXPECT_THAT(host.TakeLines(), SizeIs(1));
    }
    EXPECT_EQ(decoder->SetOutputFormat(nullptr), 0);
    EXPECT_GE(PsnrAfterDecoding(Stream(pattern), pattern), 36.0);
}

TEST_F(VideoDecoderTest, AScreenBufferReceivesThePictureAndNoOtherByteChanges) {
    constexpr uint8_t kUntouched = 0xA5;
    constexpr int kStride = 328;
    constexpr size_t kSize = kStride * 240 * 3 / 2;
    constexpr size_t kMargin = 64;
    std::vector<uint8_t> screen(kSize + 2 * kMargin, kUntouched);
    CreateDecoder(kVideoTargetI420, screen.data() + kMargin);
    const VideoOutputFormat format{320, 240, kStride, kI420};
    EXPECT_EQ(decoder->SetOutputFormat(&format), 1);
    double psnr = 0;
    Decode(Stream(pattern), [&](const VideoDecodedPicture& picture) {
        EXPECT_EQ(picture.planes[0], screen.data() + kMargin);
        EXPECT_EQ(picture.planes[1], screen.data() + kMargin + kStride * 240);
        EXPECT_EQ(picture.planes[2], screen.data() + kMargin + kStride * 240 + kStride / 2 * 120);
        EXPECT_EQ(picture.strides[0], kStride);
        EXPECT_EQ(picture.strides[1], kStride / 2);
        psnr = PsnrOf(picture, pattern);
    });
    EXPECT_GE(psnr, 36.0);
    const auto untouched = [&](size_t first, size_t count) {
        return std::all_of(screen.begin() + static_cast<std::ptrdiff_t>(first),
                           screen.begin() + static_cast<std::ptrdiff_t>(first + count),
                           [](uint8_t byte) { return byte == kUntouched; });
    };
    EXPECT_TRUE(untouched(0, kMargin));
    EXPECT_TRUE(untouched(kMargin + kSize, kMargin));
    for (size_t row = 0; row < 240; ++row) {
        EXPECT_TRUE(untouched(kMargin + row * kStride + 320, kStride - 320)) << row;
    }
}

TEST_F(VideoDecoderTest, AScreenBufferIsNotWrittenBeforeItsSizeIsSet) {
    std::vector<uint8_t> screen(320 * 240 * 3 / 2, 0xA5);
    CreateDecoder(kVideoTargetI420, screen.data());
    EXPECT_EQ(Decode(Stream(pattern)), 0);
    EXPECT_THAT(host.Lines(),
                ElementsAre(LogLine{4, "[zu-codec] a decoded picture of 320x240 can not be converted"}));
    EXPECT_THAT(screen, ::testing::Each(0xA5));
}

TEST_F(VideoDecoderTest, TheFormatOfAScreenBufferNeedsASizeAndAStride) {
    std::vector<uint8_t> screen(320 * 240 * 3 / 2);
    CreateDecoder(kVideoTargetI420, screen.data());
    for (const VideoOutputFormat& wrong :
         {VideoOutputFormat{0, 0, 320, kI420}, {320, 240, 319, kI420}, {320, 240, -320, kI420}}) {
        EXPECT_EQ(decoder->SetOutputFormat(&wrong), 0);
    }
}

TEST_F(VideoDecoderTest, DamagedBytesAreLoggedAndTheNextKeyFrameIsDecoded) {
    EXPECT_EQ(Decode({1, 2, 3, 4, 5, 6, 7, 8, 9}), 0);
    EXPECT_THAT(host.TakeLines(), ElementsAre(kInvalidData));
    EXPECT_GE(PsnrAfterDecoding(Stream(pattern), pattern), 36.0);
}

TEST_F(VideoDecoderTest, APictureOfWhichAPartIsMissingIsNotPassedOn) {
    EXPECT_EQ(Decode(kUsualPicture + kFirstMacroblocks), 0);
    EXPECT_THAT(host.TakeLines(), ElementsAre(kInvalidData));
}

TEST_F(VideoDecoderTest, AfterADamagedPictureTheNextOneIsAKeyFrame) {
    EXPECT_EQ(Decode(Stream(pattern)), 1);
    auto cut = Stream({320, 240, 8});
    cut.resize(cut.size() / 2);
    EXPECT_EQ(Decode(cut), 0);
    EXPECT_EQ(Decode(Stream({320, 240, 16})), 0) << "refers to the damaged picture";
    encoder = CRefPtr_T<CVideoEncoder>(new CVideoEncoder({}));
    EXPECT_EQ(Decode(Stream(pattern)), 1);
}

TEST_F(VideoDecoderTest, APictureWithMorePixelsThanTheLimitIsRefused) {
    const auto limit = CZUModData::FromInt64(int64_t{640} * 480);
    ASSERT_TRUE(decoder->SetProperty("zu.codec.property.max.pixels", limit.Get()));
    for (const auto& picture : {kHugePicture, kHugePictureCropped}) {
        EXPECT_EQ(Decode(picture + kFirstMacroblocks), 0);
        const auto lines = host.TakeLines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], (LogLine{4, "[zu-codec] a picture of 16000x16000 has more than 307200 pixels"}));
    }
    EXPECT_GE(PsnrAfterDecoding(Stream(pattern), pattern), 36.0);
    // Also in the middle of a stream.
    EXPECT_EQ(Decode(kHugePicture + kFirstMacroblocks), 0);
}

TEST_F(VideoDecoderTest, TheLimitOfPixelsMayChangeAndMustBeInRange) {
    EXPECT_EQ(Decode(Stream(pattern)), 1);
    for (const int64_t wrong : {int64_t{0}, int64_t{-1}, int64_t{268435457}, INT64_MAX}) {
        EXPECT_FALSE(
            decoder->SetProperty("zu.codec.property.max.pixels", CZUModData::FromInt64(wrong).Get()));
    }
    EXPECT_FALSE(decoder->SetProperty("zu.codec.property.max.pixels", CZUModData::FromBool(true).Get()));
    EXPECT_TRUE(decoder->SetProperty("zu.codec.property.max.pixels", CZUModData::FromInt64(76799).Get()));
    encoder = CRefPtr_T<CVideoEncoder>(new CVideoEncoder({}));
    const Pattern larger{352, 288};
    EXPECT_EQ(Decode(Stream(larger)), 0);
    EXPECT_TRUE(decoder->SetProperty("zu.codec.property.max.pixels", CZUModData::FromInt64(101376).Get()));
    encoder = CRefPtr_T<CVideoEncoder>(new CVideoEncoder({}));
    EXPECT_EQ(Decode(Stream(larger)), 1);
}

TEST_F(VideoDecoderTest, WithoutArgumentsOrBytesThereIsNoPicture) {
    EXPECT_FALSE(decoder->Decode(nullptr));
    EXPECT_THAT(host.TakeLines(), ElementsAre(LogLine{2, "[zu-codec] decode without arguments"}));
    struct NoBytes final : IVDecArgs {
        uint64_t AddRef() override { return 1; }
        int64_t Release() override { return 1; }
        const void* GetInputData() override { return data; }
        uint64_t GetInputSize() override { return size; }
        void OnPicture(const VideoDecodedPicture*) override { ADD_FAILURE(); }
        const void* data = nullptr;
        uint64_t size = 100;
    } no_bytes;
    EXPECT_FALSE(decoder->Decode(&no_bytes));
    no_bytes.data = &no_bytes;
    no_bytes.size = UINT64_MAX;
    EXPECT_FALSE(decoder->Decode(&no_bytes));
    no_bytes.size = INT32_MAX;
    EXPECT_FALSE(decoder->Decode(&no_bytes));
    no_bytes.size = 0x100000064;  // 100 in 32 bits
    EXPECT_FALSE(decoder->Decode(&no_bytes));
    const LogLine line{2, "[zu-codec] decode fail: Invalid argument"};
    EXPECT_THAT(host.Lines(), ElementsAre(line, line, line, line));
}

TEST_F(VideoDecoderTest, TheEndOfAStreamIsNotAFailureAndAnotherStreamMayFollow) {
    EXPECT_EQ(Decode(Stream(pattern)), 1);
    EXPECT_EQ(Decode({}), 0) << "no picture was still held";
    encoder = CRefPtr_T<CVideoEncoder>(new CVideoEncoder({}));
    EXPECT_GE(PsnrAfterDecoding(Stream(pattern), pattern), 36.0);
    EXPECT_THAT(host.Lines(), IsEmpty());
}

TEST_F(VideoDecoderTest, ADamagedStreamDoesNoHarm) {
    std::mt19937 random(20);
    std::vector<std::vector<uint8_t>> stream;
    for (int i = 0; i < 4; ++i) {
        stream.push_back(Stream({320, 240, 8 * i}));
    }
    int decoded = 0;
    for (int round = 0; round < 200; ++round) {
        for (auto damaged : stream) {
            // Without a whole key frame nothing is decoded.
            if (round % 2 == 0 && damaged == stream[0]) {
                decoded += Decode(damaged);
                continue;
            }
            for (int i = 0; i < 3; ++i) {
                damaged.at(random() % damaged.size()) = static_cast<uint8_t>(random());
            }
            damaged.resize(1 + random() % damaged.size());
            decoded += Decode(damaged, [](const VideoDecodedPicture& picture) {
                volatile uint8_t last =
                    picture.planes[0][(picture.height - 1) * picture.strides[0] + picture.width - 1];
                static_cast<void>(last);
            });
        }
    }
    EXPECT_GT(decoded, 0);
    encoder = CRefPtr_T<CVideoEncoder>(new CVideoEncoder({}));
    EXPECT_GE(PsnrAfterDecoding(Stream(pattern), pattern), 36.0);
}

TEST_F(VideoDecoderTest, NothingIsPrinted) {
    ::testing::internal::CaptureStderr();
    const auto stream = Stream(pattern);
    for (const VideoTargetFormat target : {kVideoTargetI420, kVideoTargetNv12, kVideoTargetBgr32}) {
        CreateDecoder(target);
        Decode(stream);
        Decode({9, 9, 9});
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace zumod::testing
