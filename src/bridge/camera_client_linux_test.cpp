#include "src/bridge/camera_client_linux.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "src/base/create_buffer.h"
#include "src/bridge/venc_args.h"
#include "tests/support/doubles/device_double.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/process/test_modules.h"
#include "tests/support/watch/call_watch.h"
#include "tests/support/watch/process_state.h"
#include "tests/support/watch/wait_until.h"
#include "zumod/values.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CallWatch;
using testing::CodecProbe;
using testing::DeviceCall;
using testing::DeviceDouble;
using testing::IsAsleep;
using testing::LogLine;
using testing::RecordingHost;
using testing::WaitUntil;

// Two public interfaces and one reference count, which is reached only through them.
static_assert(std::is_convertible_v<CCameraClientLinux*, IClientCamera*>);
static_assert(std::is_convertible_v<CCameraClientLinux*, sigslot::has_slots<sigslot::single_threaded>*>);
static_assert(std::is_base_of_v<CReference, CCameraClientLinux> &&
              !std::is_convertible_v<CCameraClientLinux*, CReference*>);

int Code(const char* text) {
    int code = 0;
    std::memcpy(&code, text, sizeof code);
    return code;
}

struct Packet {
    uint32_t camera_id;
    std::string bytes;

    bool operator==(const Packet&) const = default;
};

class Listener final : public IClientCameraListenter {
public:
    // Borrowed by the cameras, which therefore never call AddRef.
    uint64_t AddRef() override {
        ADD_FAILURE() << "the listener is borrowed";
        return 1;
    }
    int64_t Release() override { return 1; }

    void OnVideoPacket(uint32_t camera_id, const void* data, unsigned long length) override {
        packet_thread = gettid();
        if (during_packet) {
            during_packet();
        }
        const std::lock_guard guard(m_mutex);
        m_packets.push_back({camera_id, std::string(static_cast<const char*>(data), length)});
    }
    void OnAudioPacket(uint32_t, const void*, unsigned long) override { ADD_FAILURE(); }
    bool IsBusy(uint32_t camera_id) override {
        last_asked_id = camera_id;
        work_thread = gettid();
        ++asked;
        if (during) {
            during();
        }
        return busy;
    }

    std::vector<Packet> Packets() const {
        const std::lock_guard guard(m_mutex);
        return m_packets;
    }

    std::atomic<bool> busy{false};
    std::atomic<int> asked{0};
    std::atomic<uint32_t> last_asked_id{0};
    std::atomic<pid_t> work_thread{0};
    std::atomic<pid_t> packet_thread{0};
    // Called on the capture thread with the client's lock held. Set before the camera is opened.
    std::function<void()> during;
    std::function<void()> during_packet;

private:
    mutable std::mutex m_mutex;
    std::vector<Packet> m_packets;
};

class CameraClientLinux : public ::testing::Test {
protected:
    CameraClientLinux() {
        codec.Record().encode_result = true;
        codec.Record().prepares_output = true;
        codec.Record().set_format_result = 0;
        host.SetProperty("zu.env.modules.dir",
                         CZUModData::FromText(testing::TestModuleDir("recording").c_str()));
        AttachRuntime(&host);
        devices.SetCamera(0, Camera());
        devices.SetCamera(1, Camera());
        devices.SetRecording(false);
    }
    ~CameraClientLinux() override {
        client = nullptr;
        EXPECT_EQ(devices.OpenDescriptors(), 0);
        EXPECT_EQ(devices.Mappings(), 0);
        EXPECT_EQ(devices.Misuse(), std::vector<std::string>{});
        EXPECT_EQ(codec.Record().objects, 0);
        EXPECT_EQ(codec.Record().references, 0);
        DetachRuntime();
    }

    static testing::CameraModel Camera() {
        return {.formats = {{V4L2_PIX_FMT_NV12, {{640, 480}, {1280, 720}}}}};
    }

    // The calls of the plugin, in its order.
    bool OpenCamera(uint32_t id, int32_t width = 640, int32_t height = 480, int32_t fps = 15) {
        client->SetListener(&listener);
        client->SetCameraId(id);
        client->SetFormat(width, height, fps);
        return client->Open();
    }

    void Frame(int width = 640, int height = 480, const char* fourcc = "NV12") {
        const unsigned char picture[6] = {};
        client->OnCaptureFrame(picture, sizeof picture, width, height, Code(fourcc));
    }

    // The log lines that begin with `start`, in order.
    std::vector<std::string> Lines(const std::string& start) {
        std::vector<std::string> found;
        for (const LogLine& line : host.Lines()) {
            if (line.text.rfind(start, 0) == 0) {
                found.push_back(line.text);
            }
        }
        return found;
    }

    // The operations of the capture from its log, in order: "setDevId", "setFormat", "resetCapture",
    // "stopCapture", "startCapture success".
    std::vector<std::string> CaptureSteps() {
        std::vector<std::string> steps;
        for (const std::string& line : Lines("[LinuxV4L2CameraCapture] ")) {
            const std::string text = line.substr(std::strlen("[LinuxV4L2CameraCapture] "));
            const std::string step = text.substr(0, text.find(','));
            // Only the last line of a start and the first line of a stop count.
            const bool within = step == "startCapture" ||
                                (step == "stopCapture" && std::count(text.begin(), text.end(), ' ') > 2);
            const bool own = step.find("Capture") != std::string::npos || step.rfind("set", 0) == 0;
            if (own && !within && step.rfind("set ", 0) != 0) {
                steps.push_back(step);
            }
        }
        return steps;
    }

    RecordingHost host;
    DeviceDouble devices;
    Listener listener;
    CodecProbe codec{"recording"};
    CRefPtr_T<CCameraClientLinux> client{new CCameraClientLinux};
};

TEST_F(CameraClientLinux, IsWhatThePlatformCreates) {
    const CRefPtr_T<IClientCamera> camera = CreateClientCamera();
    EXPECT_NE(dynamic_cast<CCameraClientLinux*>(camera.Get()), nullptr);
    EXPECT_EQ(camera->AddRef(), 2u) << "only the caller's reference";
    EXPECT_EQ(camera->Release(), 1);
}

TEST_F(CameraClientLinux, ThePlatformListsTheDevicesThatArePresentNow) {
    std::vector<CameraDeviceInfo> cameras = ListCameras();
    ASSERT_EQ(cameras.size(), 2u);
    EXPECT_EQ(cameras[1].id, 1u);
    EXPECT_EQ(cameras[1].file, "/dev/video1");
    EXPECT_EQ(cameras[1].resolutions, (std::vector<CameraResolution>{{640, 480}, {1280, 720}}));
    devices.Unplug(0);
    cameras = ListCameras();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras[0].file, "/dev/video1");
}

TEST_F(CameraClientLinux, ItsConstructorOpensNothing) {
    EXPECT_EQ(host.Lines(), std::vector<LogLine>{});
    EXPECT_EQ(devices.CallCount(DeviceCall::kOpen), 0);
    client = nullptr;
    EXPECT_EQ(host.Lines(), (std::vector<LogLine>{{1, "[LinuxV4L2CameraCapture] stopCapture, devid 0"}}));
}

TEST_F(CameraClientLinux, TheSlotsOfIClientCamera) {
    void* camera = static_cast<IClientCamera*>(client.Get());
    EXPECT_EQ(CallSlot<uint64_t>(camera, 2), 2u);
    EXPECT_EQ(CallSlot<int64_t>(camera, 3), 1);
    CallSlot<void>(camera, 4, static_cast<IClientCameraListenter*>(&listener));
    CallSlot<void>(camera, 5, 1u);
    CallSlot<void>(camera, 6, 1280, 720, 30);
    EXPECT_EQ(Lines("[LinuxV4L2CameraCapture] setFormat, ").size(), 1u);
    CallSlot<void>(camera, 7, 1, 2, 3);
    EXPECT_EQ(CallSlot<uint8_t>(camera, 9), 0);
    CallSlot<void>(camera, 8, uint8_t{0xA5});
    EXPECT_EQ(CallSlot<uint8_t>(camera, 9), 0xA5);
    EXPECT_TRUE(CallSlot<bool>(camera, 10));
    const uint32_t id = 1;
    EXPECT_EQ(CallSlot<int32_t>(camera, 11, &id), 0);
    EXPECT_EQ(devices.OpenDescriptors(), 0);
}

TEST_F(CameraClientLinux, FramesOfAnOpenCameraReachTheListenerEncodedWithTheCamerasId) {
    ASSERT_TRUE(OpenCamera(1));
    devices.PushFrame(1, {.bytes = {1, 2, 3}});
    EXPECT_TRUE(WaitUntil([&] { return listener.Packets().size() == 1; }));
    EXPECT_EQ(listener.Packets(), (std::vector<Packet>{{1, "code"}}));
    EXPECT_EQ(listener.last_asked_id, 1u);
    EXPECT_EQ(client->Close(nullptr), 0);
    EXPECT_EQ(devices.OpenDescriptors(), 0);
}

TEST_F(CameraClientLinux, TheFirstFrameCreatesTheEncoderAndAllFramesAreEncodedInOrder) {
    client->SetListener(&listener);
    Frame();
    Frame();
    EXPECT_EQ(host.Lines(),
              (std::vector<LogLine>{{8, "[CCameraClientLinux] detect encode size change, 0x0 -> 640x480"},
                                    {1, "[codec] attach"},
                                    {1, "[codec] policy zu.module.interface.name 4 IVEncoder"},
                                    {1, "[codec] policy zu.module.version 2 281474976710658"},
                                    {1, "[codec] policy zu.codec.policy.imagetype 2 9"},
                                    {1, "[codec] policy zu.codec.policy.enc.rapid.sub 1 false"},
                                    {1, "[codec] policy zu.codec.policy.enc.no.stream.header 1 false"},
                                    {1, "[codec] policy zu.codec.policy.enc.file.record 1 false"},
                                    {1, "[codec] policy zu.codec.policy.enc.source.rgb 1 true"},
                                    {1, "[codec] policy zu.codec.policy.dec.screenbuffer null"},
                                    {1, "[codec] policy zu.codec.policy.dec.target.avformat null"},
                                    {1, "[codec] create IVEncoder"},
                                    {1, "[codec] SetProperty zu.codec.property.hardware 1 true"},
                                    {1, "[codec] SetInputFormat 640x480 stride 640 bits 8"},
                                    {1, "[codec] Encode 6 bytes"},
                                    {1, "[codec] SetInputFormat 640x480 stride 640 bits 8"},
                                    {1, "[codec] Encode 6 bytes"}}));
    EXPECT_EQ(listener.Packets(), (std::vector<Packet>{{0, "code"}, {0, "code"}}));
    EXPECT_EQ(codec.Record().objects, 1);
    EXPECT_EQ(codec.Record().references, 1);
}

TEST_F(CameraClientLinux, TheEncoderGetsTheFramesSizeAndIsNotReplacedForIt) {
    client->SetListener(&listener);
    Frame(641, 479, "YUYV");
    Frame(1280, 720, "BGR4");
    EXPECT_EQ(Lines("[codec] SetInputFormat"),
              (std::vector<std::string>{"[codec] SetInputFormat 641x479 stride 1284 bits 16",
                                        "[codec] SetInputFormat 1280x720 stride 5120 bits 32"}));
    EXPECT_EQ(Lines("[codec] create").size(), 1u);
}

TEST_F(CameraClientLinux, TheEncoderGetsTheFormatsNameAndItsResultIsIgnored) {
    client->SetListener(&listener);
    codec.Record().set_format_result = -1;
    Frame(640, 480, "YU12");
    EXPECT_EQ(codec.Record().last_format, static_cast<uint32_t>(Code("I420")));
    Frame(640, 480, "BGR4");
    EXPECT_EQ(codec.Record().last_format, 0u);
    EXPECT_EQ(listener.Packets().size(), 2u);
}

TEST_F(CameraClientLinux, TheEncoderGetsThePictureUncopiedInArgumentsWithOneReference) {
    client->SetListener(&listener);
    const unsigned char picture[9] = {};
    client->OnCaptureFrame(picture, 5, 640, 480, Code("NV12"));
    EXPECT_EQ(codec.Record().last_input, picture);
    EXPECT_EQ(Lines("[codec] Encode"), (std::vector<std::string>{"[codec] Encode 5 bytes"}));
    EXPECT_EQ(codec.Record().argument_references, 1u);
}

TEST_F(CameraClientLinux, AFramesOutputIsFromTheDefaultAllocatorAndReleasedAfterTheFrame) {
    client->SetListener(&listener);
    const uint64_t before = g_pDefaultAlloctor->AddRef();
    uint64_t during = 0;
    listener.during_packet = [&] {
        during = g_pDefaultAlloctor->AddRef() - 1;
        g_pDefaultAlloctor->Release();
    };
    Frame();
    EXPECT_EQ(during, before + 1);
    codec.Record().encode_result = false;
    Frame();
    EXPECT_EQ(listener.Packets().size(), 1u);
    EXPECT_EQ(g_pDefaultAlloctor->Release(), static_cast<int64_t>(before) - 1);
}

TEST_F(CameraClientLinux, PacketsArriveOnTheCaptureThread) {
    ASSERT_TRUE(OpenCamera(0));
    devices.PushFrame(0, {.bytes = {1}});
    ASSERT_TRUE(WaitUntil([&] { return listener.Packets().size() == 1; }));
    EXPECT_EQ(listener.packet_thread, listener.work_thread);
    EXPECT_NE(listener.packet_thread, gettid());
}

TEST_F(CameraClientLinux, WithoutAListenerAFrameIsDroppedWithoutALogLine) {
    Frame();
    EXPECT_EQ(host.Lines(), std::vector<LogLine>{});
    client->SetListener(&listener);
    Frame();
    client->SetListener(nullptr);
    client->SetFormat(1280, 720, 15);
    host.TakeLines();
    Frame(640, 480, "MJPG");
    // The set-format started camera 0, whose work thread may log its start as late as here.
    EXPECT_EQ(host.OwnerLines(), std::vector<LogLine>{});
    EXPECT_EQ(listener.asked, 1);
}

TEST_F(CameraClientLinux, AListenerMayCallBackFromItsOwnThread) {
    client->SetListener(&listener);
    listener.during = [&] { client->SetCameraId(5); };
    Frame();
    EXPECT_EQ(listener.last_asked_id, 0u);
    EXPECT_EQ(listener.Packets(), (std::vector<Packet>{{5, "code"}}));
}

TEST_F(CameraClientLinux, WhileTheListenerIsBusyFramesAreDroppedAndNoEncoderIsCreated) {
    listener.busy = true;
    client->SetListener(&listener);
    client->SetCameraId(7);
    Frame();
    Frame(640, 480, "MJPG");
    EXPECT_EQ(host.Lines(),
              (std::vector<LogLine>{{8, "[CCameraClientLinux] detect encode size change, 0x0 -> 640x480"}}));
    EXPECT_EQ(listener.asked, 2);
    EXPECT_EQ(listener.last_asked_id, 7u);
    listener.busy = false;
    Frame();
    EXPECT_EQ(listener.Packets().size(), 1u);
}

TEST_F(CameraClientLinux, EveryFrameOfAnUnsupportedFormatLogsOneLine) {
    client->SetListener(&listener);
    Frame(640, 480, "MJPG");
    Frame(640, 480, "MJPG");
    Frame(640, 480, "H264");
    EXPECT_EQ(host.Lines(),
              (std::vector<LogLine>{{8, "[CCameraClientLinux] detect encode size change, 0x0 -> 640x480"},
                                    {4, "[CCameraClientLinux] video format not support, MJPG"},
                                    {4, "[CCameraClientLinux] video format not support, MJPG"},
                                    {4, "[CCameraClientLinux] video format not support, H264"}}));
    EXPECT_EQ(listener.Packets(), std::vector<Packet>{});
}

TEST_F(CameraClientLinux, AFrameOfAnUnsupportedFormatKeepsTheEncoder) {
    client->SetListener(&listener);
    Frame();
    Frame(640, 480, "MJPG");
    EXPECT_EQ(codec.Record().objects, 1);
    Frame();
    EXPECT_EQ(Lines("[codec] create").size(), 1u);
    EXPECT_EQ(listener.Packets().size(), 2u);
}

TEST_F(CameraClientLinux, AFrameThatTheEncoderRefusesLogsOneLineAndTheEncoderIsKept) {
    client->SetListener(&listener);
    codec.Record().encode_result = false;
    Frame();
    EXPECT_EQ(host.Lines().back(), (LogLine{2, "[CCameraClientLinux] video encode fail"}));
    codec.Record().encode_result = true;
    Frame();
    EXPECT_EQ(listener.Packets().size(), 1u);
    EXPECT_EQ(Lines("[codec] create").size(), 1u);
}

TEST_F(CameraClientLinux, AnEncoderThatPreparedNoOutputYieldsAnEmptyFrame) {
    client->SetListener(&listener);
    codec.Record().prepares_output = false;
    Frame();
    EXPECT_EQ(listener.Packets(), (std::vector<Packet>{{0, ""}}));
}

TEST_F(CameraClientLinux, AFrameWithoutMemoryIsDropped) {
    client->SetListener(&listener);
    for (const size_t size : {sizeof(CZUModData), sizeof(CVEncArgs)}) {
        CallWatch watch;
        watch.Fail(CallWatch::_Znwm, size);
        Frame();
        EXPECT_TRUE(listener.Packets().empty()) << size;
    }
    Frame();
    EXPECT_EQ(listener.Packets(), (std::vector<Packet>{{0, "code"}}));
}

// The capture thread has no caller for it, and a frame that is dropped in silence would hide the fault.
TEST_F(CameraClientLinux, WhatTheSinkThrowsDuringAFrameIsNotCaught) {
    client->SetListener(&listener);
    const auto frame_with_a_failing_sink = [&] {
        host.OnLineWith("detect encode size change", [] { throw std::bad_alloc(); });
        std::thread([&] { Frame(); }).join();
    };
    EXPECT_EXIT(frame_with_a_failing_sink(), ::testing::KilledBySignal(SIGABRT), "bad_alloc");
}

TEST_F(CameraClientLinux, WithoutACodecModuleAFrameIsDroppedAndTheNextOneTriesAgain) {
    host.SetProperty("zu.env.modules.dir", CZUModData::FromText("/nowhere"));
    client->SetListener(&listener);
    Frame();
    EXPECT_EQ(host.Lines(),
              (std::vector<LogLine>{{8, "[CCameraClientLinux] detect encode size change, 0x0 -> 640x480"},
                                    {4, "[zumod] module file is not exist"},
                                    {4, "[client_plugin] load module(zu-codec) fail"}}));
    host.SetProperty("zu.env.modules.dir", CZUModData::FromText(testing::TestModuleDir("recording").c_str()));
    Frame();
    EXPECT_EQ(listener.Packets().size(), 1u);
}

TEST_F(CameraClientLinux, SetFormatWithTheCurrentValuesDoesNothingAtAll) {
    client->SetFormat(640, 480, 15);
    EXPECT_EQ(host.Lines(), std::vector<LogLine>{});
    EXPECT_EQ(devices.CallCount(DeviceCall::kOpen), 0);
}

TEST_F(CameraClientLinux, SetFormatWithTheCurrentValuesDoesNotRestartAStartedCamera) {
    ASSERT_TRUE(OpenCamera(0, 1280, 720, 30));
    host.TakeLines();
    client->SetFormat(1280, 720, 30);
    EXPECT_EQ(CaptureSteps(), std::vector<std::string>{});
    EXPECT_EQ(devices.CallCount(DeviceCall::kStreamOn), 1);
}

TEST_F(CameraClientLinux, SetFormatWithAnyOtherValueIsPassedToTheCapture) {
    client->SetFormat(640, 480, 16);
    client->SetFormat(640, 720, 16);
    client->SetFormat(1280, 720, 16);
    EXPECT_EQ(
        Lines("[LinuxV4L2CameraCapture] setFormat, "),
        (std::vector<std::string>{"[LinuxV4L2CameraCapture] setFormat, devid 0, size 640x480 fps 16",
                                  "[LinuxV4L2CameraCapture] setFormat, devid 0, size 640x720 fps 16",
                                  "[LinuxV4L2CameraCapture] setFormat, devid 0, size 1280x720 fps 16"}));
    EXPECT_EQ(Lines("[LinuxV4L2CameraCapture] resetCapture").size(), 3u)
        << "only the restarts by the capture";
}

TEST_F(CameraClientLinux, SetFormatOfAStartedCameraRestartsTwiceAndTheNextFrameGetsANewEncoder) {
    ASSERT_TRUE(OpenCamera(0));
    devices.PushFrame(0, {.bytes = {1}});
    ASSERT_TRUE(WaitUntil([&] { return listener.Packets().size() == 1; }));
    host.TakeLines();
    client->SetFormat(1280, 720, 30);
    EXPECT_EQ(CaptureSteps(),
              (std::vector<std::string>{"setFormat", "resetCapture", "stopCapture", "startCapture success",
                                        "resetCapture", "stopCapture", "startCapture success"}));
    EXPECT_EQ(codec.Record().objects, 1) << "replaced only by the next frame";
    host.TakeLines();
    devices.PushFrame(0, {.bytes = {1}});
    ASSERT_TRUE(WaitUntil([&] { return listener.Packets().size() == 2; }));
    EXPECT_EQ(
        Lines("[CCameraClientLinux]"),
        (std::vector<std::string>{"[CCameraClientLinux] detect encode size change, 640x480 -> 1280x720"}));
    EXPECT_EQ(Lines("[codec] destroy").size(), 1u);
    EXPECT_EQ(Lines("[codec] create").size(), 1u);
    EXPECT_EQ(codec.Record().objects, 1);
}

TEST_F(CameraClientLinux, ANewWidthOrANewHeightCreatesANewEncoder) {
    client->SetListener(&listener);
    Frame();
    client->SetFormat(640, 720, 15);
    Frame();
    client->SetFormat(1280, 720, 15);
    Frame();
    EXPECT_EQ(
        Lines("[CCameraClientLinux]"),
        (std::vector<std::string>{"[CCameraClientLinux] detect encode size change, 0x0 -> 640x480",
                                  "[CCameraClientLinux] detect encode size change, 640x480 -> 640x720",
                                  "[CCameraClientLinux] detect encode size change, 640x720 -> 1280x720"}));
    EXPECT_EQ(Lines("[codec] create").size(), 3u);
    EXPECT_EQ(codec.Record().objects, 1);
}

TEST_F(CameraClientLinux, ANewSizeReleasesTheEncoderEvenIfTheFrameIsDropped) {
    client->SetListener(&listener);
    Frame();
    client->SetFormat(1280, 720, 15);
    listener.busy = true;
    Frame();
    EXPECT_EQ(codec.Record().objects, 0);
}

TEST_F(CameraClientLinux, ANewRateKeepsTheEncoder) {
    client->SetListener(&listener);
    Frame();
    client->SetFormat(640, 480, 30);
    Frame();
    EXPECT_EQ(Lines("[CCameraClientLinux] detect").size(), 1u);
    EXPECT_EQ(Lines("[codec] create").size(), 1u);
}

TEST_F(CameraClientLinux, OpenSetsTheDeviceThenTheFormatThenStarts) {
    client->SetCameraId(1);
    EXPECT_TRUE(client->Open());
    // The change of device has already started the capture; the start that follows finds it running.
    EXPECT_EQ(Lines("[LinuxV4L2CameraCapture] setDevId"),
              (std::vector<std::string>{"[LinuxV4L2CameraCapture] setDevId, from 0 to 1"}));
    EXPECT_EQ(
        Lines("[LinuxV4L2CameraCapture] startCapture success"),
        (std::vector<std::string>{
            "[LinuxV4L2CameraCapture] startCapture success, devid 1, width 640 height 480 format NV12 fps "
            "15 setfps 1"}));
}

TEST_F(CameraClientLinux, OpeningTheSecondCameraAtAnotherSizeStartsTheFirstForAMoment) {
    ASSERT_TRUE(OpenCamera(1, 1280, 720, 30));
    std::vector<std::string> started;
    for (const std::string& line : Lines("[LinuxV4L2CameraCapture] startCapture success, devid ")) {
        started.push_back(line.substr(0, line.find(" format")));
    }
    EXPECT_EQ(started, (std::vector<std::string>{
                           "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 1280 height 720",
                           "[LinuxV4L2CameraCapture] startCapture success, devid 1, width 1280 height 720"}));
}

// The host's log throws, so the client has stored a format that the capture has not.
class CameraClientLinuxWithUnappliedFormat : public CameraClientLinux {
protected:
    void SetUp() override {
        host.OnLineWith("[LinuxV4L2CameraCapture] setFormat, devid 0",
                        [] { throw std::runtime_error("log"); });
        EXPECT_THROW(client->SetFormat(1280, 720, 30), std::runtime_error);
        host.TakeLines();
    }
};

TEST_F(CameraClientLinuxWithUnappliedFormat, OpenSetsTheFormatBeforeItStarts) {
    EXPECT_TRUE(client->Open());
    EXPECT_EQ(CaptureSteps(),
              (std::vector<std::string>{"setFormat", "resetCapture", "stopCapture", "startCapture success"}));
}

TEST_F(CameraClientLinuxWithUnappliedFormat, OpenSetsTheDeviceBeforeTheFormat) {
    client->SetCameraId(1);
    bool opened = false;
    std::thread([&] { opened = client->Open(); }).join();  // the lock is free
    EXPECT_TRUE(opened);
    EXPECT_EQ(CaptureSteps(),
              (std::vector<std::string>{"setDevId", "resetCapture", "stopCapture", "startCapture success",
                                        "setFormat", "resetCapture", "stopCapture", "startCapture success"}));
    EXPECT_EQ(
        Lines("[LinuxV4L2CameraCapture] setFormat, "),
        (std::vector<std::string>{"[LinuxV4L2CameraCapture] setFormat, devid 1, size 1280x720 fps 30"}));
}

TEST_F(CameraClientLinux, OpenTwiceStartsOnce) {
    EXPECT_TRUE(OpenCamera(0));
    EXPECT_TRUE(WaitUntil([&] {
        return host.Has({1, "[LinuxV4L2CameraCapture] work thread start, devid 0"});
    }));
    host.TakeLines();
    EXPECT_TRUE(client->Open());
    EXPECT_EQ(host.Lines(), std::vector<LogLine>{});
    EXPECT_EQ(devices.CallCount(DeviceCall::kStreamOn), 1);
}

TEST_F(CameraClientLinux, AFailedOpenMayBeRepeated) {
    devices.Fail(DeviceCall::kStreamOn, EBUSY);
    EXPECT_FALSE(OpenCamera(0));
    EXPECT_EQ(client->Close(nullptr), 0);
    EXPECT_TRUE(client->Open());
}

TEST_F(CameraClientLinux, OpenFailsForAnUnknownId) {
    EXPECT_FALSE(OpenCamera(2));
    EXPECT_FALSE(OpenCamera(0xFFFFFFFF));
}

TEST_F(CameraClientLinux, OpenAfterCloseReturnsTrueWithoutStarting) {
    ASSERT_TRUE(OpenCamera(0));
    client->Close(nullptr);
    host.TakeLines();
    EXPECT_TRUE(client->Open());
    EXPECT_EQ(host.Lines(), std::vector<LogLine>{});
    EXPECT_EQ(devices.OpenDescriptors(), 0);
}

TEST_F(CameraClientLinux, CloseKeepsTheEncoderAndTheDestructorReleasesIt) {
    client->SetListener(&listener);
    Frame();
    client->Close(nullptr);
    EXPECT_EQ(codec.Record().objects, 1);
    client = nullptr;
    EXPECT_EQ(codec.Record().objects, 0);
}

TEST_F(CameraClientLinux, SetPropertyDoesNothing) {
    client->SetProperty(1, 2, 3);
    EXPECT_EQ(host.Lines(), std::vector<LogLine>{});
}

TEST_F(CameraClientLinux, TheDestructorStopsARunningCamera) {
    ASSERT_TRUE(OpenCamera(0));
    devices.SetFramePeriod(0, std::chrono::milliseconds(1));
    EXPECT_TRUE(WaitUntil([&] { return listener.Packets().size() > 3; }));
    client = nullptr;
    EXPECT_EQ(devices.OpenDescriptors(), 0);
    EXPECT_EQ(codec.Record().objects, 0);
}

TEST_F(CameraClientLinux, TheDestructorStillDeliversFramesUntilTheThreadHasEnded) {
    ASSERT_TRUE(OpenCamera(0));
    devices.PushFrame(0, {.bytes = {1}});
    ASSERT_TRUE(WaitUntil([&] { return listener.Packets().size() == 1; }));
    host.OnLineWith("[LinuxV4L2CameraCapture] stopCapture, devid 0", [&] {
        devices.PushFrame(0, {.bytes = {2}});
        EXPECT_TRUE(WaitUntil([&] { return listener.asked == 2; }));
    });
    client = nullptr;
    EXPECT_EQ(listener.asked, 2);
}

TEST_F(CameraClientLinux, TheDestructorSwallowsAnExceptionOfTheLog) {
    ASSERT_TRUE(OpenCamera(0));
    devices.PushFrame(0, {.bytes = {1}});
    ASSERT_TRUE(WaitUntil([&] { return listener.Packets().size() == 1; }));
    bool thrown = false;
    host.OnLineWith("[LinuxV4L2CameraCapture] stopCapture, devid 0", [&] {
        thrown = true;
        throw std::runtime_error("log");
    });
    client = nullptr;
    EXPECT_TRUE(thrown);
    EXPECT_EQ(devices.OpenDescriptors(), 0);
    EXPECT_EQ(codec.Record().objects, 0);
}

// ---- The client's lock

struct Operation {
    const char* name;
    std::function<void(CCameraClientLinux&)> call;
};

class CameraClientLinuxLock : public CameraClientLinux {
protected:
    // Blocks a frame in the listener and expects the operation, on another thread, to wait for it.
    void ExpectToWaitForAFrame(std::function<void()>& hook, const Operation& operation) {
        std::atomic<bool> in_frame{false};
        std::atomic<bool> may_leave{false};
        std::atomic<bool> left{false};
        client->SetListener(&listener);
        hook = [&] {
            in_frame = true;
            WaitUntil([&] { return may_leave.load(); });
            left = true;
        };
        std::thread frame([&] { Frame(); });
        EXPECT_TRUE(WaitUntil([&] { return in_frame.load(); }));

        client->SetProperty(1, 2, 3);
        client->GetCameraFlag();
        EXPECT_FALSE(left) << "these two do not wait";

        std::atomic<pid_t> caller{0};
        std::atomic<bool> returned{false};
        std::thread thread([&] {
            caller = gettid();
            operation.call(*client);
            returned = true;
        });
        int asleep = 0;
        EXPECT_TRUE(WaitUntil([&] {
            asleep = caller != 0 && IsAsleep(caller) ? asleep + 1 : 0;
            return returned || asleep == 20;
        }));
        EXPECT_FALSE(returned) << operation.name;
        may_leave = true;
        frame.join();
        thread.join();
        hook = nullptr;
    }

    const std::vector<Operation> operations = {
        {"SetListener", [this](CCameraClientLinux& camera) { camera.SetListener(&listener); }},
        {"SetCameraId", [](CCameraClientLinux& camera) { camera.SetCameraId(0); }},
        {"SetFormat", [](CCameraClientLinux& camera) { camera.SetFormat(640, 480, 15); }},
        {"SetCameraFlag", [](CCameraClientLinux& camera) { camera.SetCameraFlag(1); }},
        {"Close", [](CCameraClientLinux& camera) { camera.Close(nullptr); }},
        {"Open", [](CCameraClientLinux& camera) { camera.Open(); }},
    };
};

TEST_F(CameraClientLinuxLock, AllOperationsExceptTwoWaitForTheFrameInProgress) {
    for (const Operation& operation : operations) {
        ExpectToWaitForAFrame(listener.during, operation);
    }
}

// A stop that begins during the wait is noticed when it ends.
TEST_F(CameraClientLinuxLock, AFrameWaitsForTheLockForAtMostTenMillisecondsAtATime) {
    CallWatch watch;
    std::atomic<bool> in_frame{false};
    std::atomic<bool> may_leave{false};
    listener.during = [&] {
        in_frame = true;
        EXPECT_TRUE(WaitUntil([&] { return may_leave.load(); }));
    };
    client->SetListener(&listener);
    std::thread frame([&] { Frame(); });
    EXPECT_TRUE(WaitUntil([&] { return in_frame.load(); }));
    const auto waits = [&] {
        return watch.Count(CallWatch::pthread_mutex_clocklock) +
               watch.Count(CallWatch::pthread_mutex_timedlock);
    };
    const int before = waits();
    std::thread second([&] { Frame(); });
    EXPECT_TRUE(WaitUntil([&] { return waits() > before + 1; })) << "it waits again and again";
    may_leave = true;
    frame.join();
    second.join();
    // Only one of the two functions is used.
    const uintptr_t longest = std::max(watch.LastValue(CallWatch::pthread_mutex_clocklock),
                                       watch.LastValue(CallWatch::pthread_mutex_timedlock));
    EXPECT_LE(longest, 10'000'000U);
}

TEST_F(CameraClientLinuxLock, AFrameIsInProgressUntilItsPacketIsDelivered) {
    ExpectToWaitForAFrame(listener.during_packet, operations[1]);
}

TEST_F(CameraClientLinuxLock, EveryPathOfAFrameReleasesTheLock) {
    const auto expect_free_after_a_frame = [&](const char* fourcc) {
        std::thread([&] { Frame(640, 480, fourcc); }).join();
        client->SetCameraFlag(1);  // would block if the lock were still held
    };
    expect_free_after_a_frame("NV12");  // without a listener
    client->SetListener(&listener);
    listener.busy = true;
    expect_free_after_a_frame("NV12");
    listener.busy = false;
    expect_free_after_a_frame("MJPG");
    expect_free_after_a_frame("NV12");
    codec.Record().encode_result = false;
    expect_free_after_a_frame("NV12");
    EXPECT_EQ(listener.Packets().size(), 1u);
    EXPECT_EQ(client->GetCameraFlag(), 1);
}

// Frames follow each other without a pause, as from a camera that is faster than the encoder.
class CameraClientLinuxFairness : public CameraClientLinux {
protected:
    // Calls `operation`, which logs a line with this text as soon as it has the lock, `times` times. Each
    // time a frame holds the lock until the operation waits for it. No other frame may get the lock before
    // it.
    void ExpectTheLockAtTheNextRelease(int times, const char* text,
                                       const std::function<void(int)>& operation) {
        enum class Step { kFramesPass, kHoldOne, kHeld, kCalled };
        const pid_t caller = gettid();
        std::atomic<Step> step{Step::kFramesPass};
        std::atomic<bool> ended{false};
        int asked_at_release = 0;
        listener.busy = true;
        listener.during = [&] {
            if (step != Step::kHoldOne) {
                return;
            }
            step = Step::kHeld;
            int asleep = 0;
            EXPECT_TRUE(WaitUntil([&] {
                asleep = step == Step::kCalled && IsAsleep(caller) ? asleep + 1 : 0;
                return asleep == 3;
            }));
            asked_at_release = listener.asked;
            step = Step::kFramesPass;
        };
        client->SetListener(&listener);
        std::thread frames([&] {
            while (!ended) {
                Frame();
            }
        });
        int late = 0;
        for (int time = 0; time < times && !HasFailure(); ++time) {
            step = Step::kHoldOne;
            EXPECT_TRUE(WaitUntil([&] { return step == Step::kHeld; }));
            bool logged = false;
            host.OnLineWith(text, [&] {
                late += listener.asked - asked_at_release;
                logged = true;
            });
            step = Step::kCalled;
            operation(time);
            EXPECT_TRUE(logged);
            host.TakeLines();
        }
        ended = true;
        frames.join();
        EXPECT_EQ(late, 0) << "frames that got the lock before a waiting operation";
    }
};

TEST_F(CameraClientLinuxFairness, CloseGetsTheLockAtTheNextRelease) {
    ExpectTheLockAtTheNextRelease(1000, "stopCapture, devid", [&](int) { client->Close(nullptr); });
}

TEST_F(CameraClientLinuxFairness, SetFormatGetsTheLockAtTheNextRelease) {
    ExpectTheLockAtTheNextRelease(200, "setFormat, devid",
                                  [&](int time) { client->SetFormat(640, 480, 16 + time % 2); });
}

TEST_F(CameraClientLinuxFairness, OpenGetsTheLockAtTheNextRelease) {
    client->SetCameraId(2);  // not present, so that every Open tries to start the capture
    ExpectTheLockAtTheNextRelease(200, "startCapture, devid", [&](int) { client->Open(); });
}

// ---- The lock order: a thread that stops the camera holds the client's lock and joins the work thread,
// which may be waiting for that lock.

class CameraClientLinuxLockOrder : public CameraClientLinux {
protected:
    void SetUp() override {
        devices.After(DeviceCall::kDequeueBuf, [this] { holds_a_frame = true; });
        devices.Before(DeviceCall::kQueueBuf, [this] { holds_a_frame = false; });
        devices.Before(DeviceCall::kSelect, [this] { holds_a_frame = false; });
        ASSERT_TRUE(OpenCamera(0));
        devices.SetFramePeriod(0, std::chrono::milliseconds(1));
        ASSERT_TRUE(WaitUntil([&] { return listener.Packets().size() > 3; }));
    }

    // Calls `stop`, which logs "stopCapture" while it holds the client's lock and has not yet requested the
    // stop. Blocks it in that line until the work thread has dequeued a frame, passed its stop check and
    // sleeps waiting for the lock.
    void StopWithAFrameInFlight(const std::function<void()>& stop) {
        bool waiting = false;
        int asked_before = -1;
        host.OnLineWith("[LinuxV4L2CameraCapture] stopCapture, devid", [&] {
            int asleep = 0;
            waiting = WaitUntil([&] {
                asleep = holds_a_frame && IsAsleep(listener.work_thread) ? asleep + 1 : 0;
                return asleep == 20;
            });
            devices.SetFramePeriod(0, std::chrono::milliseconds(0));
            asked_before = listener.asked;
        });
        stop();
        EXPECT_TRUE(waiting);
        EXPECT_EQ(listener.asked, asked_before) << "the frame in flight must be dropped";
    }

    std::atomic<bool> holds_a_frame{false};
};

TEST_F(CameraClientLinuxLockOrder, CloseFinishesWithAFrameInFlight) {
    StopWithAFrameInFlight([&] { client->Close(nullptr); });
    EXPECT_EQ(devices.OpenDescriptors(), 0);
}

TEST_F(CameraClientLinuxLockOrder, SetFormatFinishesWithAFrameInFlight) {
    StopWithAFrameInFlight([&] { client->SetFormat(1280, 720, 30); });
    EXPECT_EQ(devices.OpenDescriptors(), 1);
}

TEST_F(CameraClientLinux, TheDestructorWaitsForTheFrameThatIsBeingEncoded) {
    std::atomic<bool> stopping{false};
    listener.during = [&] { EXPECT_TRUE(WaitUntil([&] { return stopping.load(); })); };
    ASSERT_TRUE(OpenCamera(0));
    devices.PushFrame(0, {.bytes = {1}});
    ASSERT_TRUE(WaitUntil([&] { return listener.asked == 1; }));
    host.OnLineWith("begin stop work thread", [&] { stopping = true; });
    client = nullptr;
    EXPECT_EQ(listener.Packets().size(), 1u);
}

// Opens, changes and closes in a loop while the camera delivers a thousand frames per second.
TEST_F(CameraClientLinux, NeitherOpenAndCloseNorSetFormatEverHangs) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr int kCycles = 1000;
#else
    constexpr int kCycles = 10000;
#endif
    devices.SetFramePeriod(0, std::chrono::milliseconds(1));
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        ASSERT_TRUE(OpenCamera(0, 640, 480, 15 + cycle % 2)) << cycle;
        if (cycle % 2 == 0) {
            ASSERT_TRUE(WaitUntil([&, before = listener.asked.load()] { return listener.asked > before; }));
        }
        client->SetFormat(1280, 720, 30);
        client->Close(nullptr);
        client = CRefPtr_T<CCameraClientLinux>(new CCameraClientLinux);
        host.TakeLines();
    }
    EXPECT_EQ(devices.OpenDescriptors(), 0);
}

}  // namespace
}  // namespace zumod
