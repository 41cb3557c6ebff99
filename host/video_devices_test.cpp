#include "host/video_devices.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace zumod::host {
namespace {

using Texts = std::vector<std::string>;

VideoDevice Closed(const std::string& file, int error) {
    VideoDevice device;
    device.file = file;
    device.error = error;
    return device;
}

TEST(DeviceProblems, NameTheFilesThatDoNotOpenByTheirReason) {
    EXPECT_EQ(DeviceProblems({Closed("/dev/video0", EACCES), Closed("/dev/video1", EBUSY),
                              Closed("/dev/video2", EACCES), Closed("/dev/video10", EACCES)}),
              (Texts{"/dev/video0, /dev/video2 and /dev/video10 cannot be opened: Permission denied (is this "
                     "user in the group video?)",
                     "/dev/video1 cannot be opened: Device or resource busy"}));
}

TEST(DeviceProblems, NameACameraWithoutAUsableFormatAndItsFormats) {
    EXPECT_EQ(DeviceProblems({{"/dev/video0", 0, "Good", "usb-1", {"MJPG", "YUYV"}, true},
                              {"/dev/video1", 0, "Good", "usb-1", {}, false},  // no pictures: not a camera
                              {"/dev/video2", 0, "Old \x1b", "usb-2", {"MJPG", "H264"}, false}}),
              Texts{"/dev/video2 (Old \\x1b) cannot be used: it delivers only MJPG and H264"});
}

TEST(DeviceProblems, AreAtMostEight) {
    std::vector<VideoDevice> devices;
    for (int i = 0; i < 64; ++i) {
        devices.push_back({"/dev/video" + std::to_string(i), 0, "Old", "usb-1", {"MJPG"}, false});
    }
    EXPECT_EQ(DeviceProblems(devices).size(), 8U);
}

TEST(LookAtDevice, SaysWhyAFileDoesNotOpen) {
    EXPECT_EQ(LookAtDevice("/nonexistent/video0").error, ENOENT);
    EXPECT_EQ(LookAtDevice("").error, ENOENT);
    EXPECT_EQ(LookAtDevice("/dev/null").error, ENOTTY);
}

TEST(CameraFiles, AreThoseOfTheLastListThatTheModuleLogged) {
    CameraFiles files;
    EXPECT_EQ(files.Camera(0).file, "");
    files.OnLogLine("[CameraEnumerator]  id: 0 name: A bus:  usb-1 file: /dev/video0 res:  640x480 1280x720");
    files.OnLogLine("[CameraEnumerator] invalid device, dev index 1, device /dev/video1");
    files.OnLogLine("[CameraEnumerator]  id: 1 name: B bus:  usb-2 file: /dev/video2 res: ");
    EXPECT_EQ(files.Camera(0).file, "/dev/video0");
    EXPECT_EQ(files.Camera(1).file, "/dev/video2");
    EXPECT_EQ(files.Camera(1).name, "B");
    EXPECT_EQ(files.Camera(2).file, "");
    files.OnLogLine("[CameraEnumerator]  id: 0 name: B bus:  usb-2 file: /dev/video2 res: ");
    EXPECT_EQ(files.Camera(0).file, "/dev/video2");
    EXPECT_EQ(files.Camera(1).file, "");
}

TEST(CameraFiles, ANameCannotPretendToBeAnotherFileOrCamera) {
    CameraFiles files;
    files.OnLogLine(
        "[CameraEnumerator]  id: 0 name: x file: /dev/video9 res:  id: 5 bus:  y file: /dev/video8 res:  "
        "file: "
        "/dev/video0 res:  640x480");
    EXPECT_EQ(files.Camera(0).file, "/dev/video0");
    files.OnLogLine("[Other]  id: 0 name: A bus:  usb-1 file: /dev/video7 res: ");
    files.OnLogLine("[CameraEnumerator]  id: x name: A bus:  usb-1 file: /dev/video7 res: ");
    files.OnLogLine("[CameraEnumerator]  id: 0");
    files.OnLogLine("[CameraEnumerator]  id: ");
    EXPECT_EQ(files.Camera(0).file, "/dev/video0");
}

}  // namespace
}  // namespace zumod::host
