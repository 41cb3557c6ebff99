// Whether the picture that arrives is the picture that the camera showed: through the driver's buffers, the
// encoder, the stream and a decoder. Byte counts do not see a wrong stride, swapped chroma or a torn buffer;
// this does.
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

using namespace zumod::testing::raw;
using zumod::VideoDecodedPicture;

struct Case {
    const char* name;
    const char* format;  // of the camera, as the capture ends up with it
    unsigned width;
    unsigned height;
};

void PrintTo(const Case& test, std::ostream* out) {
    *out << test.name;
}

// The planes of the model's picture of that moment, at half the chroma resolution.
struct Planes {
    std::vector<uint8_t> plane[3];
};

Planes Shown(const Case& test, const zumod::Stamp& stamp) {
    // What every format is laid out from; BGR and YUYV carry the same colours.
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
    // The next frame's encoded bytes; notices are passed over.
    static std::vector<uint8_t> NextFrame(const Peer& peer) {
        for (;;) {
            const Bytes header = peer.Receive(8);
            uint32_t length = 0;
            std::memcpy(&length, header.data(), sizeof length);
            const Bytes body = peer.Receive(length);
            if (header[4] == 7) {
                return {body.begin() + 8, body.end()};
            }
            EXPECT_EQ(body[0], 2) << "the camera did not open";
        }
    }

    static void PutNumber(Bytes& message, size_t at, uint32_t number) {
        std::memcpy(message.data() + at, &number, sizeof number);
    }
};

TEST_P(PictureArrives, AsTheCameraShowedItAndInOrder) {
    const Case& test = GetParam();
    // BGR is never chosen, only kept: when the device refuses to change from it.
    const bool keeps = std::strcmp(test.format, "BGR4") == 0;
    const std::string camera = "card=Front,fps=30,formats=" + std::string(keeps ? "BGR4:NV12" : test.format) +
                               ",sizes=" + std::to_string(test.width) + "x" + std::to_string(test.height) +
                               (keeps ? ",fault=errno/S_FMT/EBUSY/1/1000" : "");
    const zumod::vcam::PreloadedCameras cameras{camera.c_str()};
    zumod::testing::ReferenceLedger ledger;
    const zumod::testing::CodecModule codec(ZU_MODULE_DIR "/zu-codec.so");
    Start(ZU_MODULE_DIR);
    {
        const Peer peer(PeerEnd());
        const auto policy = zumod::testing::DecoderPolicyFor(ledger, zumod::kVideoTargetI420);
        const auto decoder = codec.Create<zumod::IVDecoder>(*policy);
        ASSERT_NE(decoder, nullptr);
        Bytes open = {16, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 30, 0, 0, 0};
        PutNumber(open, 12, test.width);
        PutNumber(open, 16, test.height);
        peer.Send(open);

        constexpr int kPictures = 8;
        int64_t last_counter = -1;
        for (int pictures = 0; pictures < kPictures; ++pictures) {
            const std::vector<uint8_t> encoded = NextFrame(peer);
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
        Finish(peer);
    }
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
