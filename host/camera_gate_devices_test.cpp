// What the gate finds out about virtual cameras.
#include <gtest/gtest.h>

#include <future>
#include <string>

#include "host/camera_gate.h"
#include "host/plugin_stream.h"
#include "tests/support/wire/camera_messages.h"
#include "vcam/model/faults.h"
#include "vcam/testing/preloaded_cameras.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {
namespace {

using testing::CloseBytes;
using testing::FrameBytes;
using testing::kEmptyListBytes;
using testing::kGetListBytes;
using testing::NoticeBytes;
using testing::OpenBytes;
using testing::StateBytes;
using testing::operator+;

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
    EXPECT_EQ(allowed.identity, "/dev/video1\nDesk\nusb-2\n" + NodeOf("/dev/video1"));
    EXPECT_NE(NodeOf("/dev/video1"), NodeOf("/dev/video0"));
    EXPECT_EQ(NodeOf("/nonexistent"), "");
    EXPECT_EQ(Check(0, {{"Desk"}, {}, false}).refusal, "this host lends no camera 0");
    EXPECT_EQ(Check(1, {{}, {"usb-2"}, false}).refusal, "this host lends no camera 1");
    EXPECT_EQ(Check(1, {{"Shown"}, {}, false}).refusal, "this host lends no camera 1");
}

TEST_F(CameraGateDevices, ACameraThatIsGoneIsNotLent) {
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    EXPECT_EQ(Check(0, {{"*"}, {}, false}).refusal, "this host lends no camera 0");
    EXPECT_EQ(Check(1, {{"*"}, {}, false}).refusal, "");
}

TEST_F(CameraGateDevices, ADeviceIsTheSameIfFileNameBusAndNodeAre) {
    const std::string identity = Check(1, {{"*"}, {}, false}).identity;
    EXPECT_TRUE(CameraGate::IsDevice("/dev/video1", identity));
    const std::string node = "\n" + NodeOf("/dev/video1");
    for (const std::string& other : {"/dev/video0\nDesk\nusb-2" + node, "/dev/video1\nDoor\nusb-2" + node,
                                     "/dev/video1\nDesk\nusb-1" + node, identity + "1", std::string()}) {
        EXPECT_FALSE(CameraGate::IsDevice("/dev/video1", other)) << other;
    }
    EXPECT_FALSE(CameraGate::IsDevice("/dev/video0", identity));
    // A driver that permits one program at a time.
    cameras.At(1).Inject(vcam::ParseFault("open-busy/0").value());
    EXPECT_TRUE(CameraGate::IsDevice("/dev/video1", identity));
    EXPECT_FALSE(CameraGate::IsDevice("/dev/video1", identity + "1"));
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    EXPECT_FALSE(CameraGate::IsDevice("/dev/video0", Check(0, {{"*"}, {}, false}).identity));
}

// The plugin is this test.
class StreamOfADevice : public CameraGateDevices {
protected:
    StreamOfADevice() {
        stream->Call([](Broker& broker) { broker.AddPeer(1, Clock::now()); });
    }
    // At the end the frame must not wait.
    ~StreamOfADevice() override { stream->End(); }

    void ExpectRequest(const Bytes& request) {
        Bytes bytes(request.size());
        unsigned long done = 0;
        ASSERT_EQ(stream->Read(bytes.data(), bytes.size(), &done), 0);
        ASSERT_EQ(done, request.size());
        EXPECT_EQ(bytes, request);
    }
    bool Write(const Bytes& bytes) const {
        unsigned long done = 0;
        return stream->Write(bytes.data(), bytes.size(), &done) == 0;
    }
    // The plugin has the request to open camera 0, which the gate has allowed.
    void BeginOpen() {
        stream->Call([](Broker& broker) { broker.OnInput(1, OpenBytes(0)); });
        ExpectRequest(kGetListBytes);
        EXPECT_TRUE(Write(kEmptyListBytes));
        ExpectRequest(OpenBytes(0));
    }
    Bytes Taken() const {
        return stream->Call([](Broker& broker) {
            Bytes taken;
            for (auto output = broker.NextOutput(1); !output.rest.empty(); output = broker.NextOutput(1)) {
                taken.insert(taken.end(), output.rest.begin(), output.rest.end());
                broker.OnSent(1, output.rest.size(), Clock::now());
            }
            return taken;
        });
    }

    const Bytes frame = FrameBytes(0, {0, 0, 0, 1, 0x67, 1, 0, 0, 1, 0x65});
    CameraGate gate{{{"*"}, {}, false}, files, [](const std::string&) {}};
    const CRefPtr_T<PluginStream> stream{new PluginStream({}, &gate)};
};

TEST_F(StreamOfADevice, AFrameWaitsUntilTheDeviceIsCheckedOnceMore) {
    BeginOpen();
    auto sent = std::async(std::launch::async, [this] { return Write(frame); });
    EXPECT_TRUE(Write(StateBytes(2, 0)));
    EXPECT_TRUE(sent.get());
    EXPECT_EQ(Taken(), StateBytes(2, 0) + frame);
}

TEST_F(StreamOfADevice, ADeviceThatIsAnotherOneAfterTheOpenIsRefused) {
    BeginOpen();
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    auto sent = std::async(std::launch::async, [this] { return Write(frame); });
    EXPECT_TRUE(Write(StateBytes(2, 0)));
    ExpectRequest(CloseBytes(0));
    EXPECT_TRUE(sent.get());
    EXPECT_EQ(Taken(), NoticeBytes("the cameras of the host have changed") + StateBytes(1, 0));
}

}  // namespace
}  // namespace zumod::host
