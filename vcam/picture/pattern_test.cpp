#include "vcam/picture/pattern.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

#include "vcam/picture/jpeg_pattern.h"
#include "vcam/picture/pattern_reader.h"
#include "vcam/picture/y4m_source.h"
#include "vcam/testing/decode_luma.h"

namespace zumod::vcam {
namespace {

std::vector<uint8_t> Paint(const FrameSource& source, const PictureLayout& layout, const Stamp& stamp) {
    std::vector<uint8_t> picture(layout.sizeimage, 0xa5);
    picture.resize(source.Paint(picture.data(), stamp));
    return picture;
}

class EveryFormat : public ::testing::TestWithParam<uint32_t> {};

TEST_P(EveryFormat, CarriesTheStamp) {
    const PictureLayout layout = LayOut(GetParam(), 642, 480);
    const Pattern pattern(layout, "TEST");
    const Stamp stamp{77, 123456789};
    EXPECT_EQ(ReadStamp(Paint(pattern, layout, stamp).data(), layout), stamp);
}

TEST_P(EveryFormat, IsPaintedAnewOverAnythingInTheBuffer) {
    const PictureLayout layout = LayOut(GetParam(), 320, 240, 2000);
    const Pattern pattern(layout, "TEST");
    std::vector<uint8_t> first(layout.sizeimage, 0x00);
    std::vector<uint8_t> second(layout.sizeimage, 0xff);
    EXPECT_EQ(pattern.Paint(first.data(), {1, 2}), layout.sizeimage);
    EXPECT_EQ(pattern.Paint(second.data(), {1, 2}), layout.sizeimage);
    EXPECT_EQ(first, second);
}

TEST_P(EveryFormat, MovesFromFrameToFrame) {
    const PictureLayout layout = LayOut(GetParam(), 320, 240);
    const Pattern pattern(layout, "TEST");
    const std::vector<uint8_t> first = Paint(pattern, layout, {1, 0});
    const std::vector<uint8_t> second = Paint(pattern, layout, {2, 0});
    // Below the stamp and the letters.
    const auto row = static_cast<std::ptrdiff_t>(layout.bytesperline) * 64;
    EXPECT_FALSE(std::equal(first.begin() + row, first.end(), second.begin() + row));
}

TEST_P(EveryFormat, DrawsTheLabel) {
    const PictureLayout layout = LayOut(GetParam(), 640, 480);
    EXPECT_NE(Paint(Pattern(layout, "FRONT"), layout, {1, 2}),
              Paint(Pattern(layout, "BACK"), layout, {1, 2}));
}

std::vector<uint32_t> UncompressedFormats() {
    std::vector<uint32_t> codes;
    for (const PixelFormat& format : PixelFormats()) {
        if (!format.compressed) {
            codes.push_back(format.fourcc);
        }
    }
    return codes;
}

INSTANTIATE_TEST_SUITE_P(Pattern, EveryFormat, ::testing::ValuesIn(UncompressedFormats()),
                         [](const auto& test) { return FourccText(test.param); });

// Every format holds the same picture: each sample is where the format puts it.
TEST(Pattern, IsTheSamePictureInEveryLayout) {
    constexpr unsigned kWidth = 322;
    constexpr unsigned kHeight = 242;
    const Stamp stamp{12345, 678};
    const auto paint = [&](uint32_t fourcc) {
        const PictureLayout layout = LayOut(fourcc, kWidth, kHeight);
        return Paint(Pattern(layout, "SAME"), layout, stamp);
    };
    const auto nv12 = paint(V4L2_PIX_FMT_NV12);
    const auto nv21 = paint(V4L2_PIX_FMT_NV21);
    const auto yu12 = paint(V4L2_PIX_FMT_YUV420);
    const auto yv12 = paint(V4L2_PIX_FMT_YVU420);
    const auto yuyv = paint(V4L2_PIX_FMT_YUYV);
    const auto bgr4 = paint(V4L2_PIX_FMT_BGR32);
    constexpr size_t kLuma = size_t{kWidth} * kHeight;
    constexpr size_t kChroma = kLuma / 4;
    for (unsigned y = 0; y < kHeight; ++y) {
        for (unsigned x = 0; x < kWidth; ++x) {
            const size_t at = size_t{y} * kWidth + x;
            const size_t chroma = size_t{y / 2} * (kWidth / 2) + x / 2;
            const uint8_t u = yu12[kLuma + chroma];
            const uint8_t v = yu12[kLuma + kChroma + chroma];
            ASSERT_EQ(nv12[at], yu12[at]);
            ASSERT_EQ(nv21[at], yu12[at]);
            ASSERT_EQ(yv12[at], yu12[at]);
            ASSERT_EQ(yuyv[at * 2], yu12[at]);
            ASSERT_EQ(nv12[kLuma + chroma * 2], u);
            ASSERT_EQ(nv12[kLuma + chroma * 2 + 1], v);
            ASSERT_EQ(nv21[kLuma + chroma * 2], v);
            ASSERT_EQ(nv21[kLuma + chroma * 2 + 1], u);
            ASSERT_EQ(yv12[kLuma + chroma], v);
            ASSERT_EQ(yv12[kLuma + kChroma + chroma], u);
            ASSERT_EQ(yuyv[at * 2 + 1], x % 2 == 0 ? u : v);
            const Bgr bgr = ToBgr({yu12[at], u, v});
            ASSERT_EQ(bgr4[at * 4], bgr.b);
            ASSERT_EQ(bgr4[at * 4 + 1], bgr.g);
            ASSERT_EQ(bgr4[at * 4 + 2], bgr.r);
        }
    }
}

TEST(ToBgr, ConvertsBlackWhiteAndRedOfStudioVideo) {
    const auto equals = [](Bgr colour, int b, int g, int r) {
        return colour.b == b && colour.g == g && colour.r == r;
    };
    EXPECT_TRUE(equals(ToBgr({16, 128, 128}), 0, 0, 0));
    EXPECT_TRUE(equals(ToBgr({235, 128, 128}), 255, 255, 255));
    EXPECT_TRUE(equals(ToBgr({81, 90, 240}), 0, 0, 255));
}

TEST(JpegPattern, DecodesWithoutAWarningAndCarriesTheStamp) {
    for (const auto& [width, height] : {std::pair{640U, 480U},
                                        {642U, 482U},
                                        {160U, 120U},
                                        {128U, 96U},
                                        {64U, 64U},
                                        {1280U, 720U},
                                        {1920U, 1080U}}) {
        const PictureLayout layout = LayOut(V4L2_PIX_FMT_MJPEG, width, height);
        const JpegPattern pattern(layout, "TEST");
        const Stamp stamp{4000000001U, 987654321012};
        const std::vector<uint8_t> luma = DecodeLuma(Paint(pattern, layout, stamp), width, height);
        ASSERT_EQ(luma.size(), size_t{width} * height);
        EXPECT_EQ(ReadStamp(luma.data(), width, width, height), stamp) << width << "x" << height;
    }
}

TEST(JpegPattern, IsCloseToTheUncompressedPicture) {
    constexpr unsigned kWidth = 640;
    constexpr unsigned kHeight = 480;
    const Stamp stamp{31, 4711};
    const PictureLayout jpeg_layout = LayOut(V4L2_PIX_FMT_MJPEG, kWidth, kHeight);
    const PictureLayout raw_layout = LayOut(V4L2_PIX_FMT_YUV420, kWidth, kHeight);
    const auto luma =
        DecodeLuma(Paint(JpegPattern(jpeg_layout, "TEST"), jpeg_layout, stamp), kWidth, kHeight);
    const auto raw = Paint(Pattern(raw_layout, "TEST"), raw_layout, stamp);
    ASSERT_EQ(luma.size(), size_t{kWidth} * kHeight);
    uint64_t difference = 0;
    for (size_t i = 0; i < luma.size(); ++i) {
        difference += static_cast<uint64_t>(std::abs(int{luma[i]} - int{raw[i]}));
    }
    EXPECT_LT(difference, 2 * luma.size());
}

class Y4m : public ::testing::Test {
protected:
    static constexpr unsigned kWidth = 32;
    static constexpr unsigned kHeight = 16;

    Y4m()
        : m_path(::testing::TempDir() + "m_zu_vcam" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".y4m") {}
    ~Y4m() override { std::remove(m_path.c_str()); }

    void Write(const std::string& header, unsigned frames, size_t missing = 0) {
        std::ofstream out(m_path, std::ios::binary);
        out << header << "\n";
        for (unsigned frame = 0; frame < frames; ++frame) {
            std::string body(kWidth * kHeight * 3 / 2, static_cast<char>(100 + frame));
            if (frame + 1 == frames) {
                body.resize(body.size() - missing);
            }
            out << "FRAME\n" << body;
        }
    }

    std::string Error() const {
        const auto file = Y4mFile::Read(m_path);
        return file ? "no error" : file.error().text;
    }

    std::string m_path;
};

TEST_F(Y4m, ShowsItsFramesInALoop) {
    Write("YUV4MPEG2 W32 H16 F30:1 C420jpeg", 3);
    const Y4mFile file = Y4mFile::Read(m_path).value();
    const PictureLayout layout = LayOut(V4L2_PIX_FMT_NV12, kWidth, kHeight);
    const Y4mSource source(layout, file);
    for (uint32_t counter = 0; counter < 7; ++counter) {
        const auto picture = Paint(source, layout, {counter, 0});
        EXPECT_EQ(picture, std::vector<uint8_t>(layout.sizeimage, static_cast<uint8_t>(100 + counter % 3)));
    }
}

TEST_F(Y4m, IsCompressedForMotionJpeg) {
    Write("YUV4MPEG2 W32 H16 F30:1", 1);
    const Y4mFile file = Y4mFile::Read(m_path).value();
    const PictureLayout layout = LayOut(V4L2_PIX_FMT_MJPEG, kWidth, kHeight);
    const auto luma = DecodeLuma(Paint(Y4mSource(layout, file), layout, {}), kWidth, kHeight);
    ASSERT_EQ(luma.size(), size_t{kWidth} * kHeight);
    EXPECT_NEAR(luma[0], 100, 2);
}

TEST_F(Y4m, IsRefusedWhenItEndsWithinAFrame) {
    Write("YUV4MPEG2 W32 H16 F30:1", 2, 1);
    EXPECT_EQ(Error(), "ends within a frame");
}

TEST_F(Y4m, IsRefusedInAnotherChromaFormat) {
    Write("YUV4MPEG2 W32 H16 F30:1 C444", 1);
    EXPECT_EQ(Error(), "only 8-bit 4:2:0 pictures are supported, this is 444");
}

TEST_F(Y4m, IsRefusedWithoutASize) {
    Write("YUV4MPEG2 F30:1", 1);
    EXPECT_EQ(Error(), "no size, or one that is not even");
}

TEST_F(Y4m, IsRefusedIfItIsAnotherKindOfFile) {
    Write("RIFF", 0);
    EXPECT_EQ(Error(), "not a Y4M file");
}

}  // namespace
}  // namespace zumod::vcam
