// Compares the picture that the peer decodes with the picture that the camera showed. Byte counts do not
// reveal a wrong stride, swapped chroma or a torn buffer; this does.
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cmath>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "tests/e2e/whole_system.h"
#include "tests/support/doubles/codec_calls.h"
#include "vcam/picture/pattern.h"
#include "vcam/picture/pattern_reader.h"
#include "vcam/testing/preloaded_cameras.h"

namespace {

using zumod::VideoDecodedPicture;
using zumod::testing::Bytes;
using zumod::testing::OpenBytes;
using zumod::testing::raw::WholeSystem;

struct Case {
    const char* name;
    const char* format;  // that the capture uses
    unsigned width;
    unsigned height;
};

void PrintTo(const Case& test, std::ostream* out) {
    *out << test.name;
}

// The planes of the picture that the camera model painted with this stamp, at half the chroma resolution.
struct Planes {
    std::vector<uint8_t> plane[3];
};

Planes Shown(const Case& test, const zumod::Stamp& stamp) {
    // Every format is painted from these planes; BGR and YUYV carry the same colours.
    const auto layout = zumod::vcam::LayOut(V4L2_PIX_FMT_YUV420, test.width, test.height);
    std::vector<uint8_t> bytes(layout.sizeimage);
    // The camera burns its name, its format and its rate into the picture.
    zumod::vcam::Pattern(layout, "Front " + std::string(test.format) + " 30").Paint(bytes.data(), stamp);
    const size_t luma = size_t{test.width} * test.height;
    Planes planes;
    planes.plane[0].assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(luma));
    planes.plane[1].assign(bytes.begin() + static_cast<std::ptrdiff_t>(luma),
                           bytes.begin() + static_cast<std::ptrdiff_t>(luma + luma / 4));
    planes.plane[2].assign(bytes.begin() + static_cast<std::ptrdiff_t>(luma + luma / 4),
                           bytes.begin() + static_cast<std::ptrdiff_t>(luma + luma / 2));
    return planes;
}

double Psnr(const std::vector<uint8_t>& shown, const uint8_t* decoded, int stride, unsigned width,
            unsigned height) {
    double sum = 0;
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            const double difference = static_cast<double>(decoded[y * static_cast<unsigned>(stride) + x]) -
                                      static_cast<double>(shown[y * width + x]);
            sum += difference * difference;
        }
    }
    const double mean = sum / (static_cast<double>(width) * height);
    return mean == 0 ? 100 : 10 * std::log10(255 * 255 / mean);
}

class PictureArrives : public WholeSystem, public ::testing::WithParamInterface<Case> {
protected:
    // The next frame's encoded bytes. Skips notices.
    Bytes NextFrame() const {
        for (;;) {
            const auto message = peer->Receive();
            if (!message) {
                ADD_FAILURE() << "the channel was closed";
                return {};
            }
            if (message->type == 7) {
                return {message->body.begin() + 8, message->body.end()};
            }
            EXPECT_EQ(message->body, (Bytes{2, 0, 0, 0, 0, 0, 0, 0})) << "the camera did not open";
        }
    }
};

TEST_P(PictureArrives, AsTheCameraShowedItAndInOrder) {
    const Case& test = GetParam();
    // The module never chooses BGR. It keeps it if the device refuses another format.
    const bool keeps = std::strcmp(test.format, "BGR4") == 0;
    const std::string camera = "card=Front,fps=30,formats=" + std::string(keeps ? "BGR4:NV12" : test.format) +
                               ",sizes=" + std::to_string(test.width) + "x" + std::to_string(test.height) +
                               (keeps ? ",fault=errno/S_FMT/EBUSY/1/1000" : "");
    const zumod::vcam::PreloadedCameras cameras{camera.c_str()};
    zumod::testing::ReferenceLedger ledger;
    const zumod::testing::CodecModule codec(ZU_MODULE_DIR "/zu-codec.so");
    Start(ZU_MODULE_DIR);
    const auto policy = zumod::testing::DecoderPolicyFor(ledger, zumod::kVideoTargetI420);
    const auto decoder = codec.Create<zumod::IVDecoder>(*policy);
    ASSERT_NE(decoder, nullptr);
    EXPECT_TRUE(peer->Send(OpenBytes(0, test.width, test.height)));

    constexpr int kPictures = 8;
    int64_t last_counter = -1;
    for (int pictures = 0; pictures < kPictures; ++pictures) {
        const Bytes encoded = NextFrame();
        zumod::testing::DecodeCall call(encoded, [&](const VideoDecodedPicture& picture) {
            ASSERT_EQ(picture.width, static_cast<int32_t>(test.width));
            ASSERT_EQ(picture.height, static_cast<int32_t>(test.height));
            const auto stamp = zumod::vcam::ReadStamp(
                picture.planes[0], static_cast<size_t>(picture.strides[0]), test.width, test.height);
            ASSERT_TRUE(stamp);
            EXPECT_GT(static_cast<int64_t>(stamp->counter), last_counter);
            last_counter = static_cast<int64_t>(stamp->counter);
            const Planes shown = Shown(test, *stamp);
            for (int i = 0; i < 3; ++i) {
                const unsigned shift = i == 0 ? 0 : 1;
                EXPECT_GE(Psnr(shown.plane[i], picture.planes[i], picture.strides[i], test.width >> shift,
                               test.height >> shift),
                          36.0)
                    << "plane " << i << " of picture " << pictures;
            }
        });
        ASSERT_TRUE(decoder->Decode(&call));
        EXPECT_EQ(call.pictures, 1);
    }
    EXPECT_TRUE(runtime.Has("[LinuxV4L2CameraCapture] startCapture success, devid 0, width " +
                            std::to_string(test.width) + " height " + std::to_string(test.height) +
                            " format " + test.format + " fps 30 setfps 1"));
    Finish();
}

INSTANTIATE_TEST_SUITE_P(
    Formats, PictureArrives,
    ::testing::Values(Case{"NV12_640x480", "NV12", 640, 480}, Case{"NV12_1280x720", "NV12", 1280, 720},
                      Case{"NV12_642x480", "NV12", 642, 480}, Case{"NV21_640x480", "NV21", 640, 480},
                      Case{"NV21_1280x720", "NV21", 1280, 720}, Case{"NV21_642x480", "NV21", 642, 480},
                      Case{"YU12_640x480", "YU12", 640, 480}, Case{"YU12_1280x720", "YU12", 1280, 720},
                      Case{"YU12_642x480", "YU12", 642, 480}, Case{"YV12_640x480", "YV12", 640, 480},
                      Case{"YV12_1280x720", "YV12", 1280, 720}, Case{"YV12_642x480", "YV12", 642, 480},
                      Case{"YUYV_640x480", "YUYV", 640, 480}, Case{"YUYV_1280x720", "YUYV", 1280, 720},
                      Case{"YUYV_642x480", "YUYV", 642, 480}, Case{"BGR4_640x480", "BGR4", 640, 480},
                      Case{"BGR4_1280x720", "BGR4", 1280, 720}, Case{"BGR4_642x480", "BGR4", 642, 480}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
