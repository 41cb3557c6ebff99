#include "vcam/picture/picture_stream.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

namespace zumod::vcam {
namespace {

// A stream, the pictures that it completed, and its last error.
struct Reader {
    explicit Reader(std::optional<PictureLayout> raw = {}) : stream(raw) {}

    void Feed(const std::string& text) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
        const auto fed =
            stream.Feed(std::span(bytes, text.size()), [this](PlanarImage image, uint64_t count) {
                pictures.push_back(std::move(image));
                counts.push_back(count);
            });
        if (!fed) {
            errors.push_back(fed.error().text);
        }
    }

    PictureStream stream;
    std::vector<PlanarImage> pictures;
    std::vector<uint64_t> counts;
    std::vector<std::string> errors;
};

// 4x2: eight bytes of luma, two of each chroma.
constexpr char kHeader[] = "YUV4MPEG2 W4 H2 F30:1 C420jpeg\n";
constexpr char kFrame[] = "FRAME\nabcdefghUVuv";

TEST(PictureStream, ReadsTheFramesOfAY4mStream) {
    Reader reader;
    reader.Feed(std::string(kHeader) + kFrame);
    reader.Feed("FRAME Ip\nABCDEFGHMNmn");
    ASSERT_EQ(reader.pictures.size(), 2U);
    EXPECT_EQ(reader.pictures[0].width, 4U);
    EXPECT_EQ(reader.pictures[0].height, 2U);
    EXPECT_EQ(reader.pictures[0].y, (std::vector<uint8_t>{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}));
    EXPECT_EQ(reader.pictures[0].u, (std::vector<uint8_t>{'U', 'V'}));
    EXPECT_EQ(reader.pictures[0].v, (std::vector<uint8_t>{'u', 'v'}));
    EXPECT_EQ(reader.pictures[1].u, (std::vector<uint8_t>{'M', 'N'}));
    EXPECT_TRUE(reader.errors.empty());
}

TEST(PictureStream, ReadsTheSameFromPiecesOfAnySize) {
    Reader reader;
    for (const char byte : std::string(kHeader) + kFrame + kFrame) {
        reader.Feed(std::string(1, byte));
    }
    ASSERT_EQ(reader.pictures.size(), 2U);
    EXPECT_EQ(reader.pictures[1].v, (std::vector<uint8_t>{'u', 'v'}));
}

TEST(PictureStream, ReportsTheNewestOfSeveralPicturesAndTheirNumber) {
    Reader reader;
    reader.Feed(std::string(kHeader) + kFrame + "FRAME\nABCDEFGHMNmn" + "YUV4MPEG2 W2 H2\nFRAME\nwxyzUv" +
                "FRAME\na");
    ASSERT_EQ(reader.pictures.size(), 1U);
    EXPECT_EQ(reader.counts[0], 3U);
    EXPECT_EQ(reader.pictures[0].y, (std::vector<uint8_t>{'w', 'x', 'y', 'z'}));
    reader.Feed("bcdUv");
    ASSERT_EQ(reader.pictures.size(), 2U);
    EXPECT_EQ(reader.counts[1], 1U);
    EXPECT_EQ(reader.pictures[1].y, (std::vector<uint8_t>{'a', 'b', 'c', 'd'}));
}

TEST(PictureStream, ReadsRawPicturesOfAFormat) {
    Reader nv12(LayOut(V4L2_PIX_FMT_NV12, 4, 2));
    nv12.Feed("abcdefghUuVvABCD");
    ASSERT_EQ(nv12.pictures.size(), 1U);
    EXPECT_EQ(nv12.pictures[0].y, (std::vector<uint8_t>{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}));
    EXPECT_EQ(nv12.pictures[0].u, (std::vector<uint8_t>{'U', 'V'}));
    EXPECT_EQ(nv12.pictures[0].v, (std::vector<uint8_t>{'u', 'v'}));
    Reader yuyv(LayOut(V4L2_PIX_FMT_YUYV, 4, 2));
    yuyv.Feed(
        "aUbucVdv"
        "e.f.g.h.");
    ASSERT_EQ(yuyv.pictures.size(), 1U);
    EXPECT_EQ(yuyv.pictures[0].y, (std::vector<uint8_t>{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}));
    EXPECT_EQ(yuyv.pictures[0].u, (std::vector<uint8_t>{'U', 'V'}));
    EXPECT_EQ(yuyv.pictures[0].v, (std::vector<uint8_t>{'u', 'v'}));
}

TEST(PictureStream, AcceptsAnotherHeaderWhereAFrameWouldBegin) {
    Reader reader;
    reader.Feed(std::string(kHeader) + kFrame);
    reader.Feed("YUV4MPEG2 W2 H2\nFRAME\nabcdUv");
    ASSERT_EQ(reader.pictures.size(), 2U);
    EXPECT_EQ(reader.pictures[1].width, 2U);
}

TEST(PictureStream, ForgetsAnIncompletePictureOfAWriterThatLeft) {
    Reader reader;
    reader.Feed(std::string(kHeader) + "FRAME\nabcd");
    reader.stream.Restart();
    reader.Feed(std::string(kHeader) + kFrame);
    ASSERT_EQ(reader.pictures.size(), 1U);
    EXPECT_EQ(reader.pictures[0].y[4], 'e');
    Reader raw(LayOut(V4L2_PIX_FMT_NV12, 4, 2));
    raw.Feed("xxx");
    raw.stream.Restart();
    raw.Feed("abcdefghUuVv");
    ASSERT_EQ(raw.pictures.size(), 1U);
    EXPECT_EQ(raw.pictures[0].y[0], 'a');
}

TEST(PictureStream, RefusesAMalformedStreamOnceUntilTheNextWriter) {
    const std::pair<std::string, std::string> cases[] = {
        {"RIFF\n", "not a Y4M file"},
        {"YUV4MPEG2 W4 H3\n", "no size, or one that is not even"},
        {"YUV4MPEG2 W4 H2 C444\n", "only 8-bit 4:2:0 pictures are supported, this is 444"},
        {"YUV4MPEG2 W8192 H8192\n", "a picture of 8192x8192 is too large"},
        {std::string(kHeader) + "FRAMED\n", "no frame where one should begin"},
        {std::string(kHeader) + kFrame + "abcd\n", "no frame where one should begin"},
        {std::string(1000, 'x'), "a line has no end"},
    };
    for (const auto& [bytes, error] : cases) {
        Reader reader;
        reader.Feed(bytes);
        reader.Feed(std::string(kHeader) + kFrame);
        EXPECT_EQ(reader.errors, std::vector<std::string>{error});
        const size_t before = reader.pictures.size();
        reader.stream.Restart();
        reader.Feed(std::string(kHeader) + kFrame);
        EXPECT_EQ(reader.pictures.size(), before + 1) << error;
    }
}

}  // namespace
}  // namespace zumod::vcam
