// Compares the decoded picture with the one that the driver shows, at every size and in every format that
// the module accepts from it.
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <ostream>

#include "tests/vm/device_requests.h"
#include "tests/vm/driver_session.h"
#include "tests/vm/vivid_cameras.h"

namespace zumod::testing {
namespace {

// The encoder has a limited bit rate and approaches a still picture with each frame. The smallest pictures
// get the fewest bytes.
int EnoughPictures(int width) {
    return width < 320 ? 20 : 5;
}
// In decibels. A picture with swapped colours or sheared rows has less than 15.
constexpr double kAlike = 30;

struct Case {
    int camera;
    std::string format;
    int width;
    int height;

    std::string Size() const { return std::to_string(width) + "x" + std::to_string(height); }
};

void PrintTo(const Case& test, std::ostream* out) {
    *out << test.camera << " " << test.format << " " << test.Size();
}

uint32_t FourCc(const std::string& format) {
    return v4l2_fourcc(static_cast<uint32_t>(format.at(0)), static_cast<uint32_t>(format.at(1)),
                       static_cast<uint32_t>(format.at(2)), static_cast<uint32_t>(format.at(3)));
}

std::string SetFormatOption(const Case& test) {
    return " --set-fmt-video=width=" + std::to_string(test.width) + ",height=" + std::to_string(test.height) +
           ",pixelformat=" + test.format;
}

// One picture that v4l2-ctl reads from the driver.
Picture Shown(const Case& test) {
    const std::string file = "/dev/shm/picture";
    OutputOf("v4l2-ctl -d " + DeviceFile(test.camera) + SetFormatOption(test) +
             " --stream-mmap=4 --stream-count=1 --stream-to=" + file + " 2>&1");
    std::ifstream stream(file, std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(stream), {}};
    const size_t bits = test.format == "YUYV" ? 16 : test.format == "BGR4" ? 32 : 12;
    EXPECT_EQ(bytes.size(), static_cast<size_t>(test.width) * static_cast<size_t>(test.height) * bits / 8);
    return FromBytes(test.format, test.width, test.height, bytes);
}

class Pictures : public DriverSession, public ::testing::WithParamInterface<Case> {
protected:
    // Opens the camera, decodes pictures until enough of this size have arrived, and closes it. Returns
    // the last picture.
    Picture LastPicture(const Case& test) {
        const auto id = static_cast<uint32_t>(test.camera);
        EXPECT_EQ(Open({id, test.width, test.height, 30}), uint32_t{kCameraOpen});
        EXPECT_EQ(CountLines("[LinuxV4L2CameraCapture] startCapture success, devid " + std::to_string(id) +
                             ", width " + std::to_string(test.width) + " height " +
                             std::to_string(test.height) + " format " + test.format + " fps 30 setfps 1"),
                  1U);
        PictureReader reader;
        std::optional<Picture> picture;
        std::optional<int> first;
        std::optional<int> last;
        for (int good = 0, all = 0; good < EnoughPictures(test.width) && all < 60; ++all) {
            picture = reader.Decode(NextFrame(id));
            // The first pictures may be the default camera's or of the default size.
            if (!picture || picture->width != test.width || picture->height != test.height) {
                good = 0;
                first = last = std::nullopt;
                continue;
            }
            const auto time = BurntInTime(*picture);
            EXPECT_TRUE(time) << "no time in the picture";
            EXPECT_GE(time, last);
            first = first ? first : time;
            last = time;
            ++good;
        }
        EXPECT_GT(last, first) << "the picture stands still";
        EXPECT_EQ(Close(id), uint32_t{kCameraClosed});
        EXPECT_EQ(Complaints(id), std::vector<std::string>{});
        return picture.value_or(Picture{});
    }
};

TEST_P(Pictures, ArriveAsTheDriverShowedThem) {
    const Case& test = GetParam();
    Picture arrived;
    if (test.format == "BGR4") {
        // The module never chooses this format. It keeps it if the device refuses another.
        OutputOf("v4l2-ctl -d " + DeviceFile(test.camera) + SetFormatOption(test));
        const FormatFilter filter = FormatFilter::KeepsItsFormat();
        arrived = LastPicture(test);
    } else if (test.format == "YU12") {
        // The driver's first format.
        arrived = LastPicture(test);
    } else {
        const FormatFilter filter = FormatFilter::Only(FourCc(test.format));
        arrived = LastPicture(test);
    }
    const Picture shown = Shown(test);
    const double likeness = Likeness(shown, arrived);
    std::printf("%d %s %s: %.1f dB\n", test.camera, test.format.c_str(), test.Size().c_str(), likeness);
    EXPECT_GE(likeness, kAlike);
}

std::string NameOf(const ::testing::TestParamInfo<Case>& test) {
    return (test.param.camera == kHdmi ? "Hdmi_" : "Webcam_") + test.param.format + "_" + test.param.Size();
}

const std::vector<Case> kUsual = {
    {kWebcam, "YU12", 1920, 1080}, {kWebcam, "YU12", 1280, 720}, {kWebcam, "YU12", 640, 480},
    {kWebcam, "YU12", 320, 180},   {kWebcam, "NV12", 640, 480},  {kWebcam, "NV21", 640, 480},
    {kWebcam, "YV12", 640, 480},   {kWebcam, "YUYV", 640, 480},  {kWebcam, "BGR4", 640, 480},
    {kHdmi, "YU12", 1152, 864},    {kHdmi, "NV12", 176, 144},    {kHdmi, "YUYV", 128, 96},
};

// Every other size, from large to small, so that some rows keep the length of a larger picture.
std::vector<Case> TheOthers() {
    const std::vector<std::pair<int, int>> webcam = {{1920, 1080}, {1280, 720}, {640, 480}, {320, 180}};
    const std::vector<std::pair<int, int>> hdmi = {{1920, 1080}, {1440, 1080}, {1440, 900}, {1280, 720},
                                                   {1280, 600},  {1152, 864},  {1024, 768}, {960, 720},
                                                   {800, 600},   {704, 576},   {640, 480},  {352, 288},
                                                   {320, 240},   {176, 144},   {160, 120},  {128, 96}};
    std::vector<Case> cases;
    for (const char* format : {"YU12", "NV12", "NV21", "YV12", "YUYV", "BGR4"}) {
        for (const int camera : {kWebcam, kHdmi}) {
            for (const auto& [width, height] : camera == kHdmi ? hdmi : webcam) {
                const Case test{camera, format, width, height};
                const bool usual = std::any_of(kUsual.begin(), kUsual.end(), [&](const Case& each) {
                    return each.camera == test.camera && each.format == test.format &&
                           each.Size() == test.Size();
                });
                if (!usual) {
                    cases.push_back(test);
                }
            }
        }
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Usual, Pictures, ::testing::ValuesIn(kUsual), NameOf);
INSTANTIATE_TEST_SUITE_P(Full, Pictures, ::testing::ValuesIn(TheOthers()), NameOf);

using RefusedPictures = Pictures;

TEST_P(RefusedPictures, AreOfSizesThatTheDriverOffersAndTheListDoesNot) {
    const Case& test = GetParam();
    const auto id = static_cast<uint32_t>(test.camera);
    EXPECT_EQ(Open({id, test.width, test.height, 30}), uint32_t{kCameraFailed});
    EXPECT_GE(CountLines("[LinuxV4L2CameraCapture] query supported format fail, devid " + std::to_string(id)),
              1U);
    EXPECT_EQ(Close(id), uint32_t{kCameraClosed});
}

INSTANTIATE_TEST_SUITE_P(Usual, RefusedPictures,
                         ::testing::Values(Case{kWebcam, "any", 640, 360}, Case{kWebcam, "any", 3840, 2160},
                                           Case{kHdmi, "any", 642, 480}),
                         NameOf);

using PaddedRows = Pictures;

TEST_P(PaddedRows, OfASizeAfterALargerOneDoNotShearThePicture) {
    const Case& test = GetParam();
    const Picture shown = Shown(test);
    // The driver keeps the row length of the larger picture, because a request for a format keeps its
    // other fields.
    const Case larger{test.camera, test.format, 1920, 1080};
    OutputOf("v4l2-ctl -d " + DeviceFile(test.camera) + SetFormatOption(larger));
    const FormatFilter filter = FormatFilter::Only(FourCc(test.format));
    const auto id = static_cast<uint32_t>(test.camera);
    ASSERT_EQ(Open({id, test.width, test.height, 30}), uint32_t{kCameraOpen});
    const std::string format = OutputOf("v4l2-ctl -d " + DeviceFile(test.camera) + " --get-fmt-video");
    EXPECT_NE(format.find("Width/Height      : 320/180\n"), std::string::npos) << format;
    EXPECT_NE(
        format.find(test.format == "YUYV" ? "Bytes per Line    : 3840\n" : "Bytes per Line    : 1920\n"),
        std::string::npos)
        << format;
    PictureReader reader;
    std::optional<Picture> picture;
    for (int good = 0, all = 0; good < EnoughPictures(test.width) && all < 60; ++all) {
        picture = reader.Decode(NextFrame(id));
        good += picture && picture->width == test.width ? 1 : 0;
    }
    EXPECT_EQ(Close(id), uint32_t{kCameraClosed});
    ASSERT_TRUE(picture);
    EXPECT_GE(Likeness(shown, *picture), kAlike);
}

INSTANTIATE_TEST_SUITE_P(Usual, PaddedRows,
                         ::testing::Values(Case{kWebcam, "YU12", 320, 180}, Case{kWebcam, "NV12", 320, 180},
                                           Case{kWebcam, "YUYV", 320, 180}),
                         NameOf);

}  // namespace
}  // namespace zumod::testing
