#include "host/controls.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <map>

#include "vcam/testing/preloaded_cameras.h"

namespace zumod::host {
namespace {

constexpr int32_t kBrightness = 1;
constexpr int32_t kWhiteBalance = 9;
constexpr int32_t kExposure = 10;
constexpr int32_t kFocus = 11;
constexpr int32_t kPan = 13;

// Camera 0 is /dev/video0. /dev/video1 has no size that the module tries, so camera 1 is /dev/video2.
class ControlsTest : public ::testing::Test {
protected:
    static std::map<int32_t, ControlRecord> Report(uint32_t camera) {
        const auto message = Perform({DeviceTask::Kind::kReportControls, camera, ""}).message;
        const auto header = ReadHeader(message.data());
        EXPECT_EQ(header.type, 130);
        EXPECT_EQ(header.length, message.size() - 8);
        const auto controls = ReadRecord<ControlsHeader>(message.data() + 8);
        EXPECT_EQ(controls.id, camera);
        std::map<int32_t, ControlRecord> records;
        for (size_t at = 16; at < message.size(); at += 28) {
            const auto record = ReadRecord<ControlRecord>(message.data() + at);
            records[record.property] = record;
        }
        EXPECT_EQ(controls.status, records.empty() ? 1U : 0U);
        return records;
    }
    static std::string Set(uint32_t camera, int32_t property, int32_t value, int32_t automatic = 0) {
        return Perform({DeviceTask::Kind::kSetControl, camera, "", {camera, property, value, automatic}})
            .change;
    }

    vcam::PreloadedCameras cameras{"formats=NV12,sizes=640x480", "formats=NV12,sizes=642x482",
                                   "formats=YUYV,sizes=320x240"};
};

TEST_F(ControlsTest, TheDeviceOfAnIdIsTheOneThatTheModuleLists) {
    EXPECT_EQ(FindCameraDevice(0), "/dev/video0");
    EXPECT_EQ(FindCameraDevice(1), "/dev/video2");
    EXPECT_EQ(FindCameraDevice(2), "");
    EXPECT_EQ(Perform({DeviceTask::Kind::kFindDevice, 1, ""}).device, "/dev/video2");
    EXPECT_EQ(Perform({DeviceTask::Kind::kFindDevice, 1, "/dev/video7"}).device, "/dev/video7")
        << "a file that is known is not looked for";
}

TEST_F(ControlsTest, EachControlIsReportedWithItsRange) {
    const auto controls = Report(0);
    ASSERT_EQ(controls.size(), 14U);
    const ControlRecord& brightness = controls.at(kBrightness);
    EXPECT_EQ(brightness.value, 128);
    EXPECT_EQ(brightness.minimum, 0);
    EXPECT_EQ(brightness.maximum, 255);
    EXPECT_EQ(brightness.step, 1);
    EXPECT_EQ(brightness.default_value, 128);
    EXPECT_EQ(brightness.flags, 0U);
    const ControlRecord& pan = controls.at(kPan);
    EXPECT_EQ(pan.minimum, -36000);
    EXPECT_EQ(pan.step, 3600);
    EXPECT_EQ(controls.at(kExposure).flags, uint32_t{kHasAutomatic | kIsAutomatic});
}

TEST_F(ControlsTest, AValueIsSetOnTheCameraThatIsNamed) {
    EXPECT_EQ(Set(1, kBrightness, 200), "camera 1: brightness is now 200");
    EXPECT_EQ(Report(1).at(kBrightness).value, 200);
    EXPECT_EQ(Report(0).at(kBrightness).value, 128);
}

TEST_F(ControlsTest, AValueSwitchesTheAutomaticOffAndAutomaticSwitchesItOn) {
    for (const int32_t property : {kWhiteBalance, kExposure, kFocus}) {
        const int32_t value = property == kWhiteBalance ? 3000 : 50;
        Set(0, property, value);
        EXPECT_EQ(Report(0).at(property).value, value) << property;
        EXPECT_EQ(Report(0).at(property).flags, uint32_t{kHasAutomatic}) << property;
        Set(0, property, 99999, 1);
        EXPECT_EQ(Report(0).at(property).flags, uint32_t{kHasAutomatic | kIsAutomatic}) << property;
    }
    // Automatic is not in the range of this camera's menu, but the priority of the aperture is.
    EXPECT_EQ(Set(0, kExposure, 0, 7), "camera 0: exposure is now automatic");
}

TEST_F(ControlsTest, WhatIsOutsideTheRangeOrNotInTheTableIsNotWritten) {
    EXPECT_EQ(Set(0, kBrightness, 256), "camera 0: brightness cannot be set: 256 is not in 0 to 255");
    EXPECT_EQ(Set(0, kBrightness, -1), "camera 0: brightness cannot be set: -1 is not in 0 to 255");
    EXPECT_EQ(Set(0, kBrightness, 0, 1), "camera 0: brightness cannot be set: it has no automatic");
    EXPECT_EQ(Set(2, kBrightness, 1),
              "camera 2: brightness cannot be set: the camera cannot be opened: No such file or directory");
    for (const int32_t property : {0, 15, -1, static_cast<int32_t>(V4L2_CID_BRIGHTNESS)}) {
        EXPECT_EQ(Set(0, property, 1), "");
    }
    EXPECT_EQ(Report(0).at(kBrightness).value, 128);
}

TEST_F(ControlsTest, ACameraThatIsNotThereHasNoControls) {
    EXPECT_TRUE(Report(2).empty());
}

TEST_F(ControlsTest, TheIdsFollowTheCamerasThatAreThere) {
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    EXPECT_EQ(FindCameraDevice(0), "/dev/video2");
}

}  // namespace
}  // namespace zumod::host
