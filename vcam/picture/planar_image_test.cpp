#include "vcam/picture/planar_image.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include "vcam/picture/live_picture.h"

namespace zumod::vcam {
namespace {

using Bytes = std::vector<uint8_t>;

// Every sample differs from its neighbours. Chroma is the same in both rows that share it.
PlanarImage Colourful(unsigned width, unsigned height) {
    PlanarImage image(width, height);
    uint8_t next = 1;
    for (Bytes* plane : {&image.y, &image.u, &image.v}) {
        for (uint8_t& sample : *plane) {
            sample = next;
            next = static_cast<uint8_t>(next + 7);
        }
    }
    return image;
}

TEST(PlanarImage, ReadsWhatItWritesInEveryFormatWithLuma) {
    const PlanarImage image = Colourful(20, 18);
    for (const PixelFormat& format : PixelFormats()) {
        if (format.pixel.find('Y') == std::string_view::npos) {
            continue;
        }
        const PictureLayout layout = LayOut(format.fourcc, 20, 18, 64);
        Bytes bytes(layout.sizeimage);
        image.WriteTo(layout, bytes.data());
        const PlanarImage read = PlanarImage::ReadFrom(layout, bytes.data());
        EXPECT_EQ(read.y, image.y) << FourccText(format.fourcc);
        EXPECT_EQ(read.u, image.u) << FourccText(format.fourcc);
        EXPECT_EQ(read.v, image.v) << FourccText(format.fourcc);
    }
}

TEST(PlanarImage, WritesYuyvAsItsPixelsAre) {
    PlanarImage image(4, 2);
    image.y = {1, 2, 3, 4, 5, 6, 7, 8};
    image.u = {11, 12};
    image.v = {21, 22};
    Bytes bytes(16);
    image.WriteTo(LayOut(V4L2_PIX_FMT_YUYV, 4, 2), bytes.data());
    EXPECT_EQ(bytes, (Bytes{1, 11, 2, 21, 3, 12, 4, 22, 5, 11, 6, 21, 7, 12, 8, 22}));
}

TEST(PlanarImage, FitsAWidePictureBetweenBlackBars) {
    PlanarImage image(4, 2);
    image.y = {1, 2, 3, 4, 5, 6, 7, 8};
    image.u = {11, 12};
    image.v = {21, 22};
    const PlanarImage fitted = image.FitInto(4, 6);
    EXPECT_EQ(fitted.y, (Bytes{16, 16, 16, 16, 16, 16, 16, 16, 1,  2,  3,  4,  //
                               5,  6,  7,  8,  16, 16, 16, 16, 16, 16, 16, 16}));
    EXPECT_EQ(fitted.u, (Bytes{128, 128, 11, 12, 128, 128}));
    EXPECT_EQ(fitted.v, (Bytes{128, 128, 21, 22, 128, 128}));
}

TEST(PlanarImage, EnlargesAPictureToTheWholeSize) {
    PlanarImage image(2, 2);
    image.y = {1, 2, 3, 4};
    image.u = {5};
    image.v = {6};
    const PlanarImage fitted = image.FitInto(4, 4);
    EXPECT_EQ(fitted.y, (Bytes{1, 1, 2, 2, 1, 1, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4}));
    EXPECT_EQ(fitted.u, (Bytes{5, 5, 5, 5}));
}

TEST(PlanarImage, StaysInsideForAnyPairOfSizes) {
    // Extreme ratios: what the sanitizer builds would notice.
    for (const auto& [width, height] : {std::pair{2U, 512U}, {512U, 2U}, {16U, 16U}, {514U, 2U}}) {
        for (const auto& [to_width, to_height] : {std::pair{16U, 16U}, {16U, 514U}, {514U, 16U}}) {
            const PlanarImage fitted = PlanarImage(width, height).FitInto(to_width, to_height);
            EXPECT_EQ(fitted.y, Bytes(size_t{to_width} * to_height, 16));
        }
    }
}

TEST(LivePicture, IsBlackWithoutAPictureAndScaledToTheLayout) {
    const PictureLayout layout = LayOut(V4L2_PIX_FMT_NV12, 4, 4);
    Bytes bytes(layout.sizeimage);
    EXPECT_EQ(LivePicture(layout, nullptr).Paint(bytes.data(), {}), 24U);
    EXPECT_EQ(bytes[0], 16);
    EXPECT_EQ(bytes[16], 128);
    auto image = std::make_shared<PlanarImage>(2, 2);
    image->y = {1, 2, 3, 4};
    LivePicture(layout, image).Paint(bytes.data(), {});
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(bytes[15], 4);
}

TEST(LivePicture, IsCompressedForAFormatThatIs) {
    const PictureLayout layout = LayOut(V4L2_PIX_FMT_MJPEG, 64, 64);
    Bytes bytes(layout.sizeimage);
    const size_t used = LivePicture(layout, nullptr).Paint(bytes.data(), {});
    ASSERT_GT(used, 4U);
    ASSERT_LT(used, bytes.size());
    EXPECT_EQ(bytes[0], 0xff);
    EXPECT_EQ(bytes[1], 0xd8);
    EXPECT_EQ(bytes[used - 1], 0xd9);
}

}  // namespace
}  // namespace zumod::vcam
