// What the gate finds out about virtual cameras.
#include <gtest/gtest.h>

#include <algorithm>

#include "host/camera_gate.h"
#include "vcam/model/faults.h"
#include "vcam/testing/preloaded_cameras.h"

namespace zumod::host {
namespace {

class CameraGateDevices : public ::testing::Test {
protected:
    CameraGateDevices() {
        files.OnLogLine("[CameraEnumerator]  id: 0 name: Shown bus:  usb-1 file: /dev/video0 res: ");
        files.OnLogLine("[CameraEnumerator]  id: 1 name: Shown bus:  usb-2 file: /dev/video1 res: ");
    }

    CameraGate::Verdict Check(uint32_t camera, const LendingRules& rules) const {
        return CameraGate(rules, files, [](const std::string&) {}).CheckOpen(camera);
    }

    vcam::PreloadedCameras cameras{"card=Front,bus=usb-1,formats=NV12,sizes=640x480",
                                   "card=Desk,bus=usb-2,formats=NV12,sizes=640x480"};
    CameraFiles files;
};

TEST_F(CameraGateDevices, TheDeviceSaysItsNameAndBusNotTheLineOfTheModule) {
    const auto allowed = Check(1, {{"Desk"}, {}, false});
    EXPECT_EQ(allowed.refusal, "");
    EXPECT_EQ(allowed.camera.file, "/dev/video1");
    EXPECT_EQ(allowed.camera.name, "Desk");
    EXPECT_EQ(allowed.identity, "/dev/video1\nDesk\nusb-2");
    EXPECT_EQ(Check(0, {{"Desk"}, {}, false}).refusal, "this host lends no camera 0");
    EXPECT_EQ(Check(1, {{}, {"usb-2"}, false}).refusal, "this host lends no camera 1");
    EXPECT_EQ(Check(1, {{"Shown"}, {}, false}).refusal, "this host lends no camera 1");
}

TEST_F(CameraGateDevices, ACameraThatIsGoneIsNotLent) {
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    EXPECT_EQ(Check(0, {{"*"}, {}, false}).refusal, "this host lends no camera 0");
    EXPECT_EQ(Check(1, {{"*"}, {}, false}).refusal, "");
}

}  // namespace
}  // namespace zumod::host
