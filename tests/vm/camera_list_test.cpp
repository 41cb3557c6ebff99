// Compares the camera list that a peer receives with what v4l2-ctl reports for the same cameras.
#include <gtest/gtest.h>

#include <regex>

#include "tests/vm/driver_session.h"
#include "tests/vm/vivid_cameras.h"

namespace zumod::testing {
namespace {

// The value that v4l2-ctl prints on the line with this name.
std::string Told(int camera, const std::string& name) {
    const std::string info = OutputOf("v4l2-ctl -d " + DeviceFile(camera) + " --info");
    std::smatch found;
    std::regex_search(info, found, std::regex(name + " *: (.*)"));
    return found[1];
}

// The size that the driver sets for a request.
std::string Adjusted(int camera, const std::string& size) {
    const std::string width = size.substr(0, size.find('x'));
    const std::string height = size.substr(size.find('x') + 1);
    const std::string told =
        OutputOf("v4l2-ctl -d " + DeviceFile(camera) + " --try-fmt-video=width=" + width +
                 ",height=" + height + ",pixelformat=YU12");
    std::smatch found;
    std::regex_search(told, found, std::regex("Width/Height *: ([0-9]+)/([0-9]+)"));
    return found[1].str() + "x" + found[2].str();
}

class CameraList : public DriverSession {};

TEST_F(CameraList, NamesTheCamerasThatV4l2CtlFindsInTheirOrder) {
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), size_t{kCameras});
    for (uint32_t id = 0; id < cameras.size(); ++id) {
        const int camera = static_cast<int>(id);
        EXPECT_EQ(cameras[id].id, id);
        EXPECT_EQ(cameras[id].name, Told(camera, "Card type"));
        EXPECT_EQ(cameras[id].display_name, "vivid");
        // The bus is only in the log.
        EXPECT_EQ(CountLines("[CameraEnumerator]  id: " + std::to_string(id) + " name: vivid bus:  " +
                             Told(camera, "Bus info") + " file: " + DeviceFile(camera) + " res:  "),
                  1U);
    }
}

TEST_F(CameraList, HoldsASizeOfTheWebcamForEachCandidateWithOneMatchingSide) {
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), size_t{kCameras});
    EXPECT_EQ(cameras[kWebcam].sizes,
              (std::vector<std::string>{"320x180", "640x480", "1280x720", "1920x1080"}));
    EXPECT_EQ(cameras[kSecondWebcam].sizes, cameras[kWebcam].sizes);

    const std::string offered = OutputOf("v4l2-ctl -d " + DeviceFile(kWebcam) + " --list-framesizes YU12");
    for (const std::string& size : cameras[kWebcam].sizes) {
        EXPECT_NE(offered.find("Discrete " + size + "\n"), std::string::npos) << offered;
    }
    // 320x240 and 1280x600 have one side in common with the driver's sizes.
    EXPECT_EQ(Adjusted(kWebcam, "320x240"), "320x180");
    EXPECT_EQ(Adjusted(kWebcam, "1280x600"), "1280x720");
    // These have none.
    EXPECT_EQ(Adjusted(kWebcam, "128x96"), "320x180");
    EXPECT_EQ(Adjusted(kWebcam, "800x600"), "640x480");
}

TEST_F(CameraList, HoldsEveryCandidateSizeIfTheDriverAcceptsAnySize) {
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), size_t{kCameras});
    EXPECT_EQ(cameras[kHdmi].sizes,
              (std::vector<std::string>{"128x96", "160x120", "176x144", "320x240", "352x288", "640x480",
                                        "704x576", "800x600", "960x720", "1024x768", "1152x864", "1280x600",
                                        "1280x720", "1440x900", "1440x1080", "1920x1080"}));
    for (const std::string& size : cameras[kHdmi].sizes) {
        EXPECT_EQ(Adjusted(kHdmi, size), size);
    }
}

}  // namespace
}  // namespace zumod::testing
