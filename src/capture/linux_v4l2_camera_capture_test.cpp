#include "src/capture/linux_v4l2_camera_capture.h"

#include <sys/select.h>

#include <new>
#include <tuple>
#include <type_traits>

#include "tests/support/doubles/capture_fixture.h"
#include "tests/support/watch/call_watch.h"

namespace zumod::testing {
namespace {

static_assert(!std::is_polymorphic_v<LinuxV4L2CameraCapture>);

constexpr char kSetFmt[] = "S_FMT video0 type=1 640x480 NV12 field=1 stride=1280 size=614400 colorspace=8";
const Calls kWait = {"select video0 timeout=1.000000"};

// The same calls with `format` in place of NV12.
Calls InFormat(Calls calls, const std::string& format) {
    for (std::string& call : calls) {
        const size_t position = call.find("NV12");
        if (position != std::string::npos) {
            call.replace(position, format.size(), format);
        }
    }
    return calls;
}

TEST_F(CaptureTest, AStartAndAStopMakeTheseCallsInThisOrder) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    capture.stopCapture();
    EXPECT_EQ(devices.Calls(), StartCalls() + Calls{"select video0 timeout=1.000000"} + StopCalls());
}

TEST_F(CaptureTest, ADeviceMayBeOpenedAsDescriptor0) {
    devices.SetCamera(0, Nv12Camera());
    devices.SetFirstDescriptor(0);
    devices.After(DeviceCall::kClose, [this] { devices.SetFirstDescriptor(0); });
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    capture.stopCapture();
    EXPECT_EQ(devices.Calls(), StartCalls() + kWait + StopCalls());
}

TEST_F(CaptureTest, AStartAndAStopLogTheseLines) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    EXPECT_EQ(host.OwnerLines(), StartLines());
    host.Clear();
    capture.stopCapture();
    EXPECT_EQ(host.OwnerLines(), StopLines());
    EXPECT_EQ(host.OtherLines(), (LogLines{{1, "[LinuxV4L2CameraCapture] work thread finish, devid 0"}}));
}

TEST_F(CaptureTest, ASecondStartReturnsTrueAtOnceAndLogsNothing) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    host.Clear();
    EXPECT_TRUE(capture.startCapture());
    EXPECT_EQ(host.OwnerLines(), LogLines{});
    EXPECT_EQ(devices.Calls(), StartCalls() + kWait);
}

TEST_F(CaptureTest, StoppingAnIdleCaptureOnlyLogs) {
    LinuxV4L2CameraCapture capture;
    capture.stopCapture();
    EXPECT_EQ(host.OwnerLines(), IdleStopLines());
    EXPECT_EQ(devices.Calls(), Calls{});
}

TEST_F(CaptureTest, ASecondStopOnlyLogs) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    capture.stopCapture();
    host.Clear();
    devices.TakeCalls();
    capture.stopCapture();
    EXPECT_EQ(host.OwnerLines(), IdleStopLines());
    EXPECT_EQ(devices.Calls(), Calls{});
}

TEST_F(CaptureTest, TheDestructorStops) {
    devices.SetCamera(0, Nv12Camera());
    {
        LinuxV4L2CameraCapture capture;
        ASSERT_TRUE(capture.startCapture());
        ASSERT_TRUE(WaitForSelect());
        host.Clear();
    }
    EXPECT_EQ(host.OwnerLines(), StopLines());
    EXPECT_EQ(devices.Calls(), StartCalls() + Calls{"select video0 timeout=1.000000"} + StopCalls());
}

TEST_F(CaptureTest, AResetLogsThenStopsThenStarts) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    host.Clear();
    capture.resetCapture();
    // The device kept its format, so it need not be set again.
    LogLines second_start = UpTo(StartLines(), "current size");
    Append(
        second_start,
        {{2,
          "[LinuxV4L2CameraCapture] current size 640x480 fmt 842094158, requresize 640x480 fmt 842094158 "
          "devid 0, need set device 0"},
         {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, set fps"},
         {8, "[LinuxV4L2CameraCapture] set capture fps success, devid 0"},
         {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, alloc buffer pool"},
         {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, start capture device "},
         {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, create work thread"},
         {1,
          "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 640 height 480 format NV12 fps 15 "
          "setfps 1"}});
    EXPECT_EQ(host.OwnerLines(),
              (LogLines{{1, "[LinuxV4L2CameraCapture] resetCapture, devId 0"}}) + StopLines() + second_start);
    EXPECT_EQ(devices.CallCount(DeviceCall::kSetFmt), 1);
}

TEST_F(CaptureTest, AResetOfAnIdleCaptureStartsIt) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    capture.resetCapture();
    EXPECT_EQ(host.OwnerLines(), (LogLines{{1, "[LinuxV4L2CameraCapture] resetCapture, devId 0"}}) +
                                     IdleStopLines() + StartLines());
    EXPECT_EQ(devices.OpenDescriptors(), 1);
}

TEST_F(CaptureTest, SettingTheCurrentFormatDoesNothing) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    capture.setFormat(640, 480, 15);
    EXPECT_EQ(host.OwnerLines(), LogLines{});
    EXPECT_EQ(devices.Calls(), Calls{});
}

TEST_F(CaptureTest, AnyChangeOfFormatRestarts) {
    devices.SetCamera(0, {.formats = {{V4L2_PIX_FMT_NV12, {{320, 480}, {640, 480}, {640, 240}, {352, 288}}},
                                      {V4L2_PIX_FMT_YUYV, {{800, 600}}}}});
    LinuxV4L2CameraCapture capture;
    capture.setFormat(640, 480, 30);
    EXPECT_EQ(UpTo(host.OwnerLines(), "startCapture"),
              (LogLines{{1, "[LinuxV4L2CameraCapture] setFormat, devid 0, size 640x480 fps 30"},
                        {1, "[LinuxV4L2CameraCapture] resetCapture, devId 0"},
                        {1, "[LinuxV4L2CameraCapture] stopCapture, devid 0"}}));
    EXPECT_EQ(host.OwnerLines().back(),
              (LogLine{1,
                       "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 640 height 480 format "
                       "NV12 fps 30 setfps 1"}));

    host.Clear();
    capture.setFormat(352, 288, 30);
    EXPECT_EQ(host.OwnerLines().back(),
              (LogLine{1,
                       "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 352 height 288 format "
                       "NV12 fps 30 setfps 1"}));

    // The pixel format is chosen again.
    host.Clear();
    capture.setFormat(800, 600, 30);
    EXPECT_EQ(host.OwnerLines().back(),
              (LogLine{1,
                       "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 800 height 600 format "
                       "YUYV fps 30 setfps 1"}));

    host.Clear();
    capture.setFormat(800, 600, 30);
    EXPECT_EQ(host.OwnerLines(), LogLines{});

    // Only the width, then only the height changes: the start fails here, but the capture is restarted.
    capture.setFormat(801, 600, 30);
    EXPECT_EQ(host.OwnerLines().front(),
              (LogLine{1, "[LinuxV4L2CameraCapture] setFormat, devid 0, size 801x600 fps 30"}));
    host.Clear();
    capture.setFormat(801, 601, 30);
    EXPECT_EQ(host.OwnerLines().front(),
              (LogLine{1, "[LinuxV4L2CameraCapture] setFormat, devid 0, size 801x601 fps 30"}));
}

TEST_F(CaptureTest, SettingTheCurrentIdDoesNothing) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    capture.setDevId(0);
    EXPECT_EQ(host.OwnerLines(), LogLines{});
    EXPECT_EQ(devices.Calls(), Calls{});
}

TEST_F(CaptureTest, SettingAnotherIdStartsTheOtherCamera) {
    devices.SetCamera(0, Nv12Camera());
    devices.SetCamera(7, Camera({V4L2_PIX_FMT_YUYV}));
    LinuxV4L2CameraCapture capture;
    capture.setDevId(1);

    const LogLines lines = host.OwnerLines();
    EXPECT_EQ(UpTo(lines, "startCapture"), (LogLines{{1, "[LinuxV4L2CameraCapture] setDevId, from 0 to 1"},
                                                     {1, "[LinuxV4L2CameraCapture] resetCapture, devId 1"},
                                                     {1, "[LinuxV4L2CameraCapture] stopCapture, devid 1"}}));
    EXPECT_EQ(LineWith(lines, "open device file"),
              (LogLine{8, "[LinuxV4L2CameraCapture] startCapture, devid 1, open device file /dev/video7"}));
    EXPECT_EQ(lines.back(),
              (LogLine{1,
                       "[LinuxV4L2CameraCapture] startCapture success, devid 1, width 640 height 480 format "
                       "YUYV fps 15 setfps 1"}));
}

TEST_F(CaptureTest, WithoutTheCameraNothingIsOpened) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    capture.setDevId(1);
    host.Clear();
    devices.TakeCalls();
    EXPECT_FALSE(capture.startCapture());
    EXPECT_EQ(
        host.OwnerLines(),
        (LogLines{
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 1, get device info"},
            {1, "[CameraEnumerator]  id: 0 name: Test camera bus:  usb-1 file: /dev/video0 res:  640x480"},
            {4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 1"}}));
    EXPECT_EQ(devices.Calls(), Scan());
}

TEST_F(CaptureTest, ANegativeIdIsNotFound) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    capture.setDevId(-1);
    EXPECT_EQ(host.OwnerLines().front(), (LogLine{1, "[LinuxV4L2CameraCapture] setDevId, from 0 to -1"}));
    EXPECT_EQ(host.OwnerLines().back(),
              (LogLine{4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid -1"}));
}

TEST_F(CaptureTest, EveryFormatEntryIsLoggedInOrder) {
    devices.SetCamera(
        0, {.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480}, {1280, 720}}}, {V4L2_PIX_FMT_NV21, {{640, 480}}}}});
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    const LogLines lines = host.OwnerLines();
    LogLines entries;
    for (size_t offset = 1; offset <= 4; ++offset) {
        entries.push_back(LineWith(lines, "enum capabilities", offset));
    }
    EXPECT_EQ(entries,
              (LogLines{{1, "[LinuxV4L2CameraCapture] startCapture, devid 0 support 640x480 fmt MJPG"},
                        {1, "[LinuxV4L2CameraCapture] startCapture, devid 0 support 640x480 fmt NV21"},
                        {1, "[LinuxV4L2CameraCapture] startCapture, devid 0 support 1280x720 fmt MJPG"},
                        {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, search mached format"}}));
}

struct ChoiceCase {
    std::vector<uint32_t> formats;
    std::string chosen;
};

TEST_F(CaptureTest, ThePixelFormatIsChosenFromTheDevicesOffer) {
    const std::vector<ChoiceCase> cases = {{{V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_NV12}, "NV12"},
                                           {{V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_YUV420}, "YU12"},
                                           {{V4L2_PIX_FMT_YUYV}, "YUYV"},
                                           {{V4L2_PIX_FMT_NV21, V4L2_PIX_FMT_NV12}, "NV21"},
                                           {{V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_YVU420}, "YV12"}};
    for (const ChoiceCase& each : cases) {
        CameraModel model;
        for (const uint32_t format : each.formats) {
            model.formats.push_back({format, {{640, 480}}});
        }
        devices.SetCamera(0, model);
        host.Clear();
        LinuxV4L2CameraCapture capture;
        EXPECT_TRUE(capture.startCapture());
        EXPECT_EQ(host.OwnerLines().back(),
                  (LogLine{1,
                           "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 640 height 480 "
                           "format " +
                               each.chosen + " fps 15 setfps 1"}));
        capture.stopCapture();
    }
}

// A start that finds no format logs an errno although no request failed: that of the probe's last request,
// the refused try of 1920x1080.
TEST_F(CaptureTest, AStartFailsIfOnlyMjpgHasTheSize) {
    devices.SetCamera(0, Camera({V4L2_PIX_FMT_MJPEG}));
    LinuxV4L2CameraCapture capture;
    EXPECT_FALSE(capture.startCapture());
    EXPECT_EQ(
        host.OwnerLines(),
        (LogLines{
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, get device info"},
            {1, "[CameraEnumerator]  id: 0 name: Test camera bus:  usb-1 file: /dev/video0 res:  640x480"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, open device file /dev/video0"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0 file /dev/video0, enum capabilities"},
            {1, "[LinuxV4L2CameraCapture] startCapture, devid 0 support 640x480 fmt MJPG"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, search mached format"},
            {4, "[LinuxV4L2CameraCapture] query supported format fail, devid 0, err: " +
                    std::to_string(EINVAL)}}));
    EXPECT_EQ(devices.Calls(),
              InFormat(UpTo(StartCalls(), "G_FMT video0 type=1 0x0 0"), "MJPG") + Calls{"close video0"});
}

TEST_F(CaptureTest, AStartFailsIfNoFormatHasTheSize) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    for (const FrameSize size : {FrameSize{640, 720}, FrameSize{1280, 480}}) {
        host.Clear();
        devices.TakeCalls();
        capture.setFormat(static_cast<int>(size.width), static_cast<int>(size.height), 15);
        LogLines expected = {
            {1, "[LinuxV4L2CameraCapture] setFormat, devid 0, size " + std::to_string(size.width) + "x" +
                    std::to_string(size.height) + " fps 15"},
            {1, "[LinuxV4L2CameraCapture] resetCapture, devId 0"},
            {1, "[LinuxV4L2CameraCapture] stopCapture, devid 0"}};
        Append(expected, UpTo(StartLines(), "set input format"));
        expected.push_back({4, "[LinuxV4L2CameraCapture] query supported format fail, devid 0, err: 22"});
        EXPECT_EQ(host.OwnerLines(), expected);
        EXPECT_EQ(devices.Calls(), UpTo(StartCalls(), "G_FMT video0 type=1 0x0 0") + Calls{"close video0"});
    }
}

TEST_F(CaptureTest, NoOtherSizeIsTried) {
    devices.SetCamera(0,
                      {.formats = {{V4L2_PIX_FMT_YUYV, {{640, 480}}}, {V4L2_PIX_FMT_MJPEG, {{1280, 720}}}}});
    LinuxV4L2CameraCapture capture;
    capture.setFormat(1280, 720, 30);
    EXPECT_EQ(host.OwnerLines().back(),
              (LogLine{4, "[LinuxV4L2CameraCapture] query supported format fail, devid 0, err: " +
                              std::to_string(EINVAL)}));
    EXPECT_EQ(devices.CallCount(DeviceCall::kGetFmt), 0);
    EXPECT_EQ(devices.CallCount(DeviceCall::kSetFmt), 0);
}

TEST_F(CaptureTest, AFormatThatIsSetAlreadyIsNotSetAgain) {
    CameraModel model = Nv12Camera();
    model.current_format = V4L2_PIX_FMT_NV12;
    devices.SetCamera(0, model);
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    EXPECT_EQ(devices.Calls(), StartCallsWith(kSetFmt, {}) + kWait);
    EXPECT_EQ(LineWith(host.OwnerLines(), "current size"),
              (LogLine{2,
                       "[LinuxV4L2CameraCapture] current size 640x480 fmt 842094158, requresize 640x480 fmt "
                       "842094158 devid 0, need set device 0"}));
    EXPECT_EQ(LineAfter(host.OwnerLines(), "current size"),
              (LogLine{8, "[LinuxV4L2CameraCapture] startCapture, devid 0, set fps"}));
}

TEST_F(CaptureTest, AnotherWidthOrHeightNeedsSetting) {
    for (const FrameSize size : {FrameSize{320, 480}, FrameSize{640, 240}}) {
        CameraModel model = Nv12Camera();
        model.current_format = V4L2_PIX_FMT_NV12;
        model.current_size = size;
        devices.SetCamera(0, model);
        host.Clear();
        LinuxV4L2CameraCapture capture;
        ASSERT_TRUE(capture.startCapture());
        EXPECT_EQ(LineWith(host.OwnerLines(), "current size"),
                  (LogLine{2, "[LinuxV4L2CameraCapture] current size " + std::to_string(size.width) + "x" +
                                  std::to_string(size.height) +
                                  " fmt 842094158, requresize 640x480 fmt 842094158 devid 0, need set device "
                                  "1"}));
    }
    EXPECT_EQ(devices.CallCount(DeviceCall::kSetFmt), 2);
}

TEST_F(CaptureTest, TheSizeThatTheDriverChoseIsLoggedAndNotAdopted) {
    CameraModel model = Nv12Camera();
    model.size_after_set = FrameSize{656, 496};
    devices.SetCamera(3, model);
    devices.SetCamera(1, Nv12Camera());
    FrameCollector collector;
    LinuxV4L2CameraCapture capture;
    capture.SignalCaptureFrame.connect(&collector, &FrameCollector::OnFrame);
    capture.setDevId(1);
    // The number after "devid" is the requested width.
    EXPECT_EQ(LineWith(host.OwnerLines(), "set success"),
              (LogLine{1, "[LinuxV4L2CameraCapture] set success 656x496 fmt 842094158 devid 640"}));
    EXPECT_EQ(host.OwnerLines().back(),
              (LogLine{1,
                       "[LinuxV4L2CameraCapture] startCapture success, devid 1, width 640 height 480 format "
                       "NV12 fps 15 setfps 1"}));
    devices.PushFrame(3, {{1, 2, 3}});
    ASSERT_TRUE(WaitForFrames(collector, 1));
    EXPECT_EQ(collector.Frames().at(0), (ReceivedFrame{{1, 2, 3}, 3, 640, 480, V4L2_PIX_FMT_NV12}));
}

struct FallbackCase {
    uint32_t current;
    std::string number;
    std::string text;
};

TEST_F(CaptureTest, AFormatTheDeviceKeepsIsAdoptedIfItCanBeCaptured) {
    const std::vector<FallbackCase> cases = {
        {V4L2_PIX_FMT_NV21, "825382478", "NV21"},   {V4L2_PIX_FMT_YUV420, "842093913", "YU12"},
        {V4L2_PIX_FMT_BGR32, "877807426", "BGR4"},  {V4L2_PIX_FMT_YUYV, "1448695129", "YUYV"},
        {V4L2_PIX_FMT_YVU420, "842094169", "YV12"},
    };
    for (const FallbackCase& each : cases) {
        CameraModel model = Nv12Camera();
        model.current_format = each.current;
        devices.SetCamera(0, model);
        devices.Fail(DeviceCall::kSetFmt, EBUSY);
        devices.TakeCalls();
        host.Clear();
        FrameCollector collector;
        LinuxV4L2CameraCapture capture;
        capture.SignalCaptureFrame.connect(&collector, &FrameCollector::OnFrame);
        ASSERT_TRUE(capture.startCapture());
        ASSERT_TRUE(
            WaitUntil([this] { return !devices.Calls().empty() && devices.Calls().back() == kWait[0]; }));
        EXPECT_EQ(devices.Calls(), StartCalls() + kWait);
        EXPECT_EQ(LineWith(host.OwnerLines(), "current size"),
                  (LogLine{2, "[LinuxV4L2CameraCapture] current size 640x480 fmt " + each.number +
                                  ", requresize 640x480 fmt 842094158 devid 0, need set device 1"}));
        EXPECT_EQ(LineAfter(host.OwnerLines(), "current size"),
                  (LogLine{2, "[LinuxV4L2CameraCapture] set capture format fail, use current fmt " +
                                  each.number + ", devid 0, err: " + std::to_string(EBUSY)}));
        EXPECT_EQ(host.OwnerLines().back(),
                  (LogLine{1,
                           "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 640 height 480 "
                           "format " +
                               each.text + " fps 15 setfps 1"}));
        devices.PushFrame(0, {{5}});
        ASSERT_TRUE(WaitForFrames(collector, 1));
        EXPECT_EQ(collector.Frames().at(0),
                  (ReceivedFrame{{5}, 1, 640, 480, static_cast<int>(each.current)}));
        capture.stopCapture();
    }
}

TEST_F(CaptureTest, AStartFailsIfTheFormatTheDeviceKeepsCannotBeCaptured) {
    CameraModel mjpg = Nv12Camera();
    mjpg.current_format = V4L2_PIX_FMT_MJPEG;
    CameraModel other_width = Nv12Camera();
    other_width.current_format = V4L2_PIX_FMT_YUYV;
    other_width.current_size = {320, 480};
    CameraModel other_height = Nv12Camera();
    other_height.current_format = V4L2_PIX_FMT_YUYV;
    other_height.current_size = {640, 240};
    const std::vector<std::tuple<CameraModel, std::string, std::string>> cases = {
        {mjpg, "640x480 fmt 1196444237", "stride=1280 size=614400"},
        {other_width, "320x480 fmt 1448695129", "stride=640 size=307200"},
        {other_height, "640x240 fmt 1448695129", "stride=1280 size=307200"}};
    for (const auto& [model, current, kept] : cases) {
        devices.SetCamera(0, model);
        devices.Fail(DeviceCall::kSetFmt, EBUSY);
        devices.TakeCalls();
        host.Clear();
        LinuxV4L2CameraCapture capture;
        EXPECT_FALSE(capture.startCapture());
        EXPECT_EQ(host.OwnerLines(),
                  UpTo(StartLines(), "current size") +
                      (LogLines{{2, "[LinuxV4L2CameraCapture] current size " + current +
                                        ", requresize 640x480 fmt 842094158 devid 0, need set device 1"},
                                {4, "[LinuxV4L2CameraCapture] set capture format fail, devid 0, err: 16"}}));
        EXPECT_EQ(devices.Calls(),
                  UpTo(StartCalls(), kSetFmt) +
                      (Calls{"S_FMT video0 type=1 640x480 NV12 field=1 " + kept + " colorspace=8",
                             "close video0"}));
    }
}

TEST_F(CaptureTest, AStartFailsIfTheFormatCanBeNeitherReadNorSet) {
    devices.SetCamera(0, Nv12Camera());
    devices.Fail(DeviceCall::kGetFmt, EIO);
    devices.Fail(DeviceCall::kSetFmt, EBUSY);
    LinuxV4L2CameraCapture capture;
    EXPECT_FALSE(capture.startCapture());
    EXPECT_EQ(host.OwnerLines(),
              UpTo(StartLines(), "current size") +
                  (LogLines{{2, "[LinuxV4L2CameraCapture] get capture format fail, devid 0, err: 5"},
                            {4, "[LinuxV4L2CameraCapture] set capture format fail, devid 0, err: 16"}}));
    EXPECT_EQ(devices.Calls(),
              UpTo(StartCalls(), kSetFmt) + (Calls{"S_FMT video0 type=1 640x480 NV12", "close video0"}));
}

TEST_F(CaptureTest, IfTheFormatCannotBeReadTheOtherFieldsOfTheRequestAreZero) {
    devices.SetCamera(0, Nv12Camera());
    devices.Fail(DeviceCall::kGetFmt, EIO);
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    const LogLines lines = host.OwnerLines();
    EXPECT_EQ(LineWith(lines, "get capture format fail"),
              (LogLine{2, "[LinuxV4L2CameraCapture] get capture format fail, devid 0, err: 5"}));
    EXPECT_EQ(LineAfter(lines, "get capture format fail"),
              (LogLine{1, "[LinuxV4L2CameraCapture] set success 640x480 fmt 842094158 devid 640"}));
    const Calls calls = devices.Calls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "S_FMT video0 type=1 640x480 NV12"), calls.end());
}

TEST_F(CaptureTest, ADeviceWithoutGetParmIsCapturedAtItsOwnRate) {
    devices.SetCamera(0, Nv12Camera());
    devices.Fail(DeviceCall::kGetParm, ENOTTY);
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    EXPECT_EQ(LineAfter(host.OwnerLines(), ", set fps"),
              (LogLine{8, "[LinuxV4L2CameraCapture] query support change fps fail, devid 0, err: 25"}));
    EXPECT_EQ(host.OwnerLines().back(),
              (LogLine{1,
                       "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 640 height 480 format "
                       "NV12 fps 15 setfps 0"}));
    EXPECT_EQ(devices.CallCount(DeviceCall::kSetParm), 0);
}

TEST_F(CaptureTest, ADeviceThatCannotChangeItsRateIsCapturedAtIt) {
    CameraModel model = Nv12Camera();
    model.parm_capability = V4L2_CAP_TIMEPERFRAME << 1;
    devices.SetCamera(0, model);
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    EXPECT_EQ(LineAfter(host.OwnerLines(), ", set fps"),
              (LogLine{8, "[LinuxV4L2CameraCapture] device not support change fps, devid 0"}));
    ASSERT_TRUE(WaitForSelect());
    EXPECT_EQ(devices.Calls(), StartCallsWith("S_PARM video0 type=1 timeperframe=1/15", {}) + kWait);
    EXPECT_EQ(host.OwnerLines().back(),
              (LogLine{1,
                       "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 640 height 480 format "
                       "NV12 fps 15 setfps 0"}));
    EXPECT_EQ(devices.CallCount(DeviceCall::kSetParm), 0);
}

TEST_F(CaptureTest, AStartSucceedsIfTheRateIsRefused) {
    devices.SetCamera(0, Nv12Camera());
    devices.Fail(DeviceCall::kSetParm, EINVAL);
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    EXPECT_EQ(LineAfter(host.OwnerLines(), ", set fps"),
              (LogLine{8, "[LinuxV4L2CameraCapture] set capture fps fail, devid 0, err: 22"}));
    EXPECT_EQ(host.OwnerLines().back(),
              (LogLine{1,
                       "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 640 height 480 format "
                       "NV12 fps 15 setfps 0"}));
}

TEST_F(CaptureTest, OfEightGrantedBuffersFourAreMappedAndQueued) {
    CameraModel model = Nv12Camera();
    model.granted_buffers = 8;
    devices.SetCamera(0, model);
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    EXPECT_EQ(devices.Mappings(), 4);
    ASSERT_TRUE(WaitForSelect());
    capture.stopCapture();
    EXPECT_EQ(devices.Calls(), StartCalls() + kWait + StopCalls());
}

TEST_F(CaptureTest, FewerGrantedBuffersAreAllMapped) {
    for (const uint32_t granted : {1U, 2U, 3U}) {
        CameraModel model = Nv12Camera();
        model.granted_buffers = granted;
        devices.SetCamera(0, model);
        devices.TakeCalls();
        LinuxV4L2CameraCapture capture;
        ASSERT_TRUE(capture.startCapture());
        ASSERT_TRUE(WaitUntil([this] { return devices.Calls().back() == kWait[0]; }));
        capture.stopCapture();
        const Calls unmapped = UnmapCalls();
        EXPECT_EQ(devices.Calls(),
                  UpTo(StartCalls(), "QUERYBUF video0 type=1 memory=1 index=" + std::to_string(granted)) +
                      Calls{"STREAMON video0 type=1"} + kWait +
                      Calls(unmapped.begin(), unmapped.begin() + granted) +
                      (Calls{"STREAMOFF video0 type=1", "close video0"}));
    }
}

TEST_F(CaptureTest, AStartSucceedsWithoutAnyGrantedBuffer) {
    CameraModel model = Nv12Camera();
    model.granted_buffers = 0;
    devices.SetCamera(0, model);
    LinuxV4L2CameraCapture capture;
    EXPECT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    capture.stopCapture();
    EXPECT_EQ(devices.Calls(), StartCallsThrough("REQBUFS video0 type=1 memory=1 count=4") +
                                   Calls{"STREAMON video0 type=1"} + kWait +
                                   (Calls{"STREAMOFF video0 type=1", "close video0"}));
}

TEST_F(CaptureTest, APoolLeftByAFailedStartIsForgottenByTheNext) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    devices.Fail(DeviceCall::kQueueBuf, EIO, 3);
    ASSERT_FALSE(capture.startCapture());
    EXPECT_EQ(devices.Mappings(), 3);
    // An idle stop does not touch them.
    capture.stopCapture();
    EXPECT_EQ(devices.Mappings(), 3);

    ASSERT_TRUE(capture.startCapture());
    EXPECT_EQ(devices.Mappings(), 3 + 4);
    capture.stopCapture();
    mappings_left = 3;
}

TEST_F(CaptureTest, AFailedStreamoffIsLoggedAndTheStopContinues) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    host.Clear();
    devices.Fail(DeviceCall::kStreamOff, EIO);
    capture.stopCapture();
    EXPECT_EQ(
        host.OwnerLines(),
        StopLines() + (LogLines{{4, "[LinuxV4L2CameraCapture] dealloc buffer pool fail, devid 0, err 5"}}));
    EXPECT_EQ(devices.OpenDescriptors(), 0);
    EXPECT_TRUE(capture.startCapture());
}

TEST_F(CaptureTest, AFailedStreamonWithAFailedStreamoffIsLoggedTwice) {
    devices.SetCamera(0, Nv12Camera());
    devices.Fail(DeviceCall::kStreamOn, EBUSY);
    devices.Fail(DeviceCall::kStreamOff, EIO);
    LinuxV4L2CameraCapture capture;
    EXPECT_FALSE(capture.startCapture());
    EXPECT_EQ(host.OwnerLines(),
              UpTo(StartLines(), "create work thread") +
                  (LogLines{{4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: 16"},
                            {4, "[LinuxV4L2CameraCapture] dealloc buffer pool fail, devid 0, err 5"}}));
    EXPECT_EQ(devices.Calls(), StartCalls() + StopCalls());
}

TEST_F(CaptureTest, AMapFailureUnmapsWhatWasMappedBeforeItIsLogged) {
    devices.SetCamera(0, Nv12Camera());
    devices.Fail(DeviceCall::kMap, ENOMEM, 3);
    // munmap() changes errno, too.
    devices.After(DeviceCall::kUnmap, [] { errno = EXDEV; });
    LinuxV4L2CameraCapture capture;
    EXPECT_FALSE(capture.startCapture());
    EXPECT_EQ(host.OwnerLines(),
              UpTo(StartLines(), "start capture device ") +
                  (LogLines{{4, "[LinuxV4L2CameraCapture] map buf fail, devid 0, err 12"},
                            {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: 12"}}));
    EXPECT_EQ(devices.Calls(), UpTo(StartCalls(),
                                    "QBUF video0 type=1 memory=1 index=2 length=4096 "
                                    "offset=131072") +
                                   (Calls{"munmap video0 buffer=0 length=4096",
                                          "munmap video0 buffer=1 length=4096", "close video0"}));
}

TEST_F(CaptureTest, IsStoppingIsTrueFromTheStopRequestToTheNextStart) {
    devices.SetCamera(0, Nv12Camera());
    LinuxV4L2CameraCapture capture;
    EXPECT_FALSE(capture.isStopping());
    ASSERT_TRUE(capture.startCapture());
    EXPECT_FALSE(capture.isStopping());
    capture.stopCapture();
    EXPECT_TRUE(capture.isStopping());
    ASSERT_TRUE(capture.startCapture());
    EXPECT_FALSE(capture.isStopping());
}

TEST_F(CaptureTest, ADestroyedCaptureIsDisconnectedFromItsSlotHolder) {
    devices.SetCamera(0, Nv12Camera());
    FrameCollector collector;
    {
        LinuxV4L2CameraCapture capture;
        capture.SignalCaptureFrame.connect(&collector, &FrameCollector::OnFrame);
        ASSERT_TRUE(capture.startCapture());
    }
    // Would use the destroyed signal if it were still connected.
    collector.disconnect_all();
    EXPECT_EQ(collector.Count(), 0u);
}

// ---- Exceptions of the log sink

// The capture's own lack of memory is a failed start; the sink's is not.
struct SinkFailure : std::bad_alloc {};

TEST_F(CaptureTest, AnExceptionAtAnyLineOfAStartLeavesTheCaptureIdleAndUnlocked) {
    devices.SetCamera(0, Nv12Camera());
    for (size_t failing = 1; failing <= StartLines().size(); ++failing) {
        LinuxV4L2CameraCapture capture;
        size_t lines = 0;
        host.OnLine([&](uint32_t, const char*) {
            if (host.IsOwnThread() && ++lines == failing) {
                throw SinkFailure();
            }
        });
        devices.SetCamera(0, Nv12Camera());
        EXPECT_THROW(capture.startCapture(), SinkFailure) << failing;
        host.OnLine(nullptr);
        EXPECT_EQ(devices.OpenDescriptors(), 0) << failing;
        EXPECT_EQ(devices.Mappings(), 0) << failing;

        std::thread([&capture] { EXPECT_TRUE(capture.startCapture()); }).join();
        capture.stopCapture();
    }
}

TEST_F(CaptureTest, AnExceptionAtAnyLineOfAStopLeavesTheCaptureIdleAndUnlocked) {
    devices.SetCamera(0, Nv12Camera());
    for (size_t failing = 1; failing <= StopLines().size(); ++failing) {
        LinuxV4L2CameraCapture capture;
        ASSERT_TRUE(capture.startCapture());
        size_t lines = 0;
        host.OnLine([&](uint32_t, const char*) {
            if (host.IsOwnThread() && ++lines == failing) {
                throw SinkFailure();
            }
        });
        EXPECT_THROW(capture.stopCapture(), SinkFailure) << failing;
        host.OnLine(nullptr);
        EXPECT_EQ(devices.OpenDescriptors(), 0) << failing;
        EXPECT_EQ(devices.Mappings(), 0) << failing;
        EXPECT_TRUE(capture.isStopping());
        std::thread([&capture] { EXPECT_TRUE(capture.startCapture()); }).join();
    }
}

TEST_F(CaptureTest, TheDestructorSwallowsAnExceptionOfTheSink) {
    devices.SetCamera(0, Nv12Camera());
    {
        LinuxV4L2CameraCapture capture;
        ASSERT_TRUE(capture.startCapture());
        host.OnLine([this](uint32_t, const char*) {
            if (host.IsOwnThread()) {
                throw SinkFailure();
            }
        });
    }
    host.OnLine(nullptr);
    EXPECT_EQ(devices.OpenDescriptors(), 0);
}

TEST_F(CaptureTest, AStartOutOfMemoryFailsAndLeavesNothingOpen) {
    devices.SetCamera(0, Nv12Camera());
    // In the scan, in the probe of the opened device.
    for (const int failing : {3, 19}) {
        int requests = 0;
        const auto run_short = [&requests, failing] {
            if (++requests == failing) {
                throw std::bad_alloc();
            }
        };
        for (const DeviceCall call : {DeviceCall::kEnumFmt, DeviceCall::kTryFmt}) {
            devices.Before(call, run_short);
        }
        LinuxV4L2CameraCapture capture;
        EXPECT_FALSE(capture.startCapture());
        EXPECT_EQ(requests, failing);
        EXPECT_EQ(devices.OpenDescriptors(), 0);
        EXPECT_EQ(devices.Mappings(), 0);
        EXPECT_TRUE(capture.startCapture());
    }
}

TEST_F(CaptureTest, AStartWithoutMemoryForItsPoolOrItsThreadFailsAndLeavesNothingOpen) {
    devices.SetCamera(0, Nv12Camera());
    devices.SetRecording(false);  // a record of a call may have the same size
    const struct {
        const char* line_before;
        size_t size;
    } cases[] = {{"alloc buffer pool", 4 * (sizeof(void*) + sizeof(size_t))},
                 {"create work thread", sizeof(CV4L2Thread)},
                 {"create work thread", sizeof(fd_set)}};
    for (const auto& [line_before, size] : cases) {
        LinuxV4L2CameraCapture capture;
        {
            CallWatch watch;
            host.OnLineWith(line_before, [&, size = size] { watch.Fail(CallWatch::_Znwm, size, 1); });
            EXPECT_FALSE(capture.startCapture()) << size;
        }
        EXPECT_EQ(devices.OpenDescriptors(), 0) << size;
        EXPECT_EQ(devices.Mappings(), 0) << size;
        EXPECT_TRUE(capture.startCapture()) << size;
    }
}

TEST_F(CaptureTest, SeveralThreadsMayControlOneCapture) {
    devices.SetRecording(false);
    devices.SetCamera(0, {.formats = {{V4L2_PIX_FMT_NV12, {{640, 480}, {320, 240}}}}});
    devices.SetFramePeriod(0, std::chrono::microseconds(200));
    FrameCollector collector;
    LinuxV4L2CameraCapture capture;
    capture.SignalCaptureFrame.connect(&collector, &FrameCollector::OnFrame);
    std::vector<std::thread> threads;
    for (int number = 0; number < 3; ++number) {
        threads.emplace_back([&capture, number] {
            for (int round = 0; round < 30; ++round) {
                capture.setFormat(round % 2 == 0 ? 640 : 320, round % 2 == 0 ? 480 : 240, number + round);
                capture.startCapture();
                capture.setDevId(round % 3 == 0 ? 1 : 0);
                if (number == 0) {
                    capture.stopCapture();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    capture.setDevId(1);
    capture.setDevId(0);
    EXPECT_TRUE(capture.startCapture());
}

}  // namespace
}  // namespace zumod::testing
