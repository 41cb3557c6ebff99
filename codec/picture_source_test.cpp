#include "codec/picture_source.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tests/support/doubles/picture_pattern.h"

namespace zumod::testing {
namespace {

PictureLayout LayoutOf(const TestPicture& picture) {
    PictureLayout layout{};
    EXPECT_EQ(LayOutPicture(picture.record, picture.bytes.size(), layout), PictureError::kNone);
    return layout;
}

class PictureSourceTest : public ::testing::Test {
protected:
    AVFrame* Take(const TestPicture& picture, AVPixelFormat format) {
        return source.Take(LayoutOf(picture), picture.bytes.data(), format, false);
    }

    PictureSource source;
};

TEST_F(PictureSourceTest, APlanarPictureIsNotCopied) {
    for (const uint32_t format : {kNv12, kNv21, kI420, kYv12}) {
        const TestPicture picture = Paint(format, {64, 48});
        const PictureLayout layout = LayoutOf(picture);
        const AVFrame* frame = Take(picture, layout.format->encode_as);
        ASSERT_NE(frame, nullptr);
        for (int i = 0; i < layout.format->plane_count; ++i) {
            EXPECT_EQ(frame->data[i], picture.bytes.data() + layout.planes[i].offset) << format << ' ' << i;
            EXPECT_EQ(frame->linesize[i], layout.planes[i].stride) << format << ' ' << i;
        }
        EXPECT_TRUE(source.Release());
    }
}

TEST_F(PictureSourceTest, APictureWithPaddedRowsIsNotCopiedAndKeepsItsStride) {
    const TestPicture picture = PaintWithStride(kNv12, {64, 48}, 128);
    const AVFrame* frame = Take(picture, AV_PIX_FMT_NV12);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->data[0], picture.bytes.data());
    EXPECT_EQ(frame->linesize[0], 128);
    EXPECT_EQ(frame->data[1], picture.bytes.data() + 128 * 48);
}

TEST_F(PictureSourceTest, AReferenceThatOutlivesTheCallIsNoticed) {
    const TestPicture picture = Paint(kNv12, {64, 48});
    AvOwner<AVFrame> keeper(av_frame_alloc());
    ASSERT_EQ(av_frame_ref(keeper.get(), Take(picture, AV_PIX_FMT_NV12)), 0);
    EXPECT_EQ(keeper->data[0], picture.bytes.data()) << "a reference, not a copy";
    EXPECT_FALSE(source.Release());
    EXPECT_TRUE(source.Release()) << "no bytes are in use any more";
}

TEST_F(PictureSourceTest, TakingAPictureReleasesTheOneBefore) {
    const TestPicture first = Paint(kNv12, {64, 48});
    const TestPicture second = Paint(kNv12, {64, 48, 8});
    Take(first, AV_PIX_FMT_NV12);
    EXPECT_EQ(Take(second, AV_PIX_FMT_NV12)->data[0], second.bytes.data());
    EXPECT_TRUE(source.Release());
}

TEST_F(PictureSourceTest, AnOddPictureRepeatsItsLastColumnAndRow) {
    const TestPicture picture = Paint(kI420, {5, 3});
    const AVFrame* frame = Take(picture, AV_PIX_FMT_YUV420P);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->width, 6);
    EXPECT_EQ(frame->height, 4);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 6; ++x) {
            const int stride = picture.record.stride;
            EXPECT_EQ(frame->data[0][y * frame->linesize[0] + x],
                      picture.bytes.at(static_cast<size_t>(std::min(y, 2) * stride + std::min(x, 4))))
                << x << ' ' << y;
        }
    }
}

TEST_F(PictureSourceTest, AnOddYuy2PictureRepeatsItsLastLuma) {
    const TestPicture picture = Paint(kYuy2, {3, 1});
    const AVFrame* frame = Take(picture, AV_PIX_FMT_YUYV422);
    ASSERT_NE(frame, nullptr);
    for (const int row : {0, frame->linesize[0]}) {
        EXPECT_EQ(frame->data[0][row + 4], picture.bytes.at(4));
        EXPECT_EQ(frame->data[0][row + 5], picture.bytes.at(5));
        EXPECT_EQ(frame->data[0][row + 6], picture.bytes.at(4));
        EXPECT_EQ(frame->data[0][row + 7], picture.bytes.at(7));
    }
}

TEST_F(PictureSourceTest, AnOddBgrPictureRepeatsItsLastPixel) {
    const TestPicture picture = Paint(0, {3, 1});
    const AVFrame* frame = Take(picture, AV_PIX_FMT_BGR0);
    ASSERT_NE(frame, nullptr);
    for (const int row : {0, frame->linesize[0]}) {
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(frame->data[0][row + 12 + i], picture.bytes.at(static_cast<size_t>(8 + i)));
        }
    }
}

TEST_F(PictureSourceTest, AConversionInPlaceEqualsAConversionOfACopy) {
    for (const uint32_t format : {kYuy2, kBgr32}) {
        for (const bool fast : {false, true}) {
            const TestPicture picture = Paint(format, {320, 98});
            const PictureLayout layout = LayoutOf(picture);
            std::vector<uint8_t> storage(picture.bytes.size() + 32);
            const auto past = reinterpret_cast<uintptr_t>(storage.data()) % 16;
            uint8_t* const aligned = storage.data() + (16 - past) % 16;
            std::copy(picture.bytes.begin(), picture.bytes.end(), aligned);
            const AVFrame* in_place = source.Take(layout, aligned, AV_PIX_FMT_YUV420P, fast);
            std::copy(picture.bytes.begin(), picture.bytes.end(), aligned + 1);
            PictureSource other;
            const AVFrame* copied = other.Take(layout, aligned + 1, AV_PIX_FMT_YUV420P, fast);
            ASSERT_TRUE(in_place != nullptr && copied != nullptr);
            for (int plane = 0; plane < 3; ++plane) {
                const int width = plane == 0 ? 320 : 160;
                for (int y = 0; y < (plane == 0 ? 98 : 49); ++y) {
                    const auto row = [&](const AVFrame& frame) {
                        const uint8_t* first = frame.data[plane] + y * frame.linesize[plane];
                        return std::vector<uint8_t>(first, first + width);
                    };
                    EXPECT_EQ(row(*in_place), row(*copied)) << format << fast << plane << ' ' << y;
                }
            }
        }
    }
}

TEST_F(PictureSourceTest, BgrBecomesLimitedRangeBt601) {
    // Blue, green, red, white, black, each 16 pixels wide so that no chroma sample covers two of them.
    constexpr int kColours[5][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}, {0, 0, 0}};
    constexpr int kExpected[5][3] = {
        {41, 240, 110}, {145, 54, 34}, {81, 90, 240}, {235, 128, 128}, {16, 128, 128}};
    TestPicture picture{RecordFor(0, 80, 2), std::vector<uint8_t>(80 * 2 * 4)};
    for (size_t i = 0; i < 160; ++i) {
        for (size_t c = 0; c < 3; ++c) {
            picture.bytes.at(4 * i + c) = static_cast<uint8_t>(kColours[i % 80 / 16][c]);
        }
    }
    const AVFrame* frame = Take(picture, AV_PIX_FMT_YUV420P);
    ASSERT_NE(frame, nullptr);
    for (int i = 0; i < 5; ++i) {
        EXPECT_NEAR(frame->data[0][16 * i + 8], kExpected[i][0], 2) << i;
        EXPECT_NEAR(frame->data[1][8 * i + 4], kExpected[i][1], 2) << i;
        EXPECT_NEAR(frame->data[2][8 * i + 4], kExpected[i][2], 2) << i;
    }
}

}  // namespace
}  // namespace zumod::testing
