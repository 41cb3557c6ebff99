#include "src/capture/camera_enumerator.h"

#include <linux/videodev2.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <thread>

#include "src/base/own_memory.h"
#include "tests/support/doubles/device_double.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CameraModel;
using testing::DeviceCall;
using testing::DeviceDouble;
using testing::LogLine;
using Lines = std::vector<LogLine>;
using Resolutions = std::vector<CameraResolution>;

class CameraEnumeratorTest : public testing::LoggingTest {
protected:
    ~CameraEnumeratorTest() override {
        EXPECT_EQ(devices.OpenDescriptors(), 0);
        EXPECT_EQ(devices.Misuse(), std::vector<std::string>{});
    }

    static std::vector<CameraDeviceInfo> List() { return CameraEnumerator::GetInstance()->getCameraList(); }
    static CameraModel Vga(const std::string& card) {
        return {.card = card, .formats = {{V4L2_PIX_FMT_YUYV, {{640, 480}}}}};
    }

    DeviceDouble devices;
};

TEST_F(CameraEnumeratorTest, WithoutDevicesTheListIsEmptyAndNothingIsLogged) {
    EXPECT_TRUE(List().empty());
    EXPECT_EQ(host.Lines(), Lines{});
}

TEST_F(CameraEnumeratorTest, TheFiles0To63AreOpenedForReadingAndNoOthers) {
    devices.SetCamera(64, Vga("not scanned"));
    EXPECT_TRUE(List().empty());

    std::vector<std::string> expected;
    for (int index = 0; index < 64; ++index) {
        expected.push_back("open /dev/video" + std::to_string(index) + " O_RDONLY");
    }
    EXPECT_EQ(devices.Calls(), expected);
    EXPECT_EQ(host.Lines(), Lines{});
}

TEST_F(CameraEnumeratorTest, ACameraIsProbedInOneFixedSequence) {
    devices.SetCamera(63, Vga("Last"));
    ASSERT_EQ(List().size(), 1u);

    std::vector<std::string> calls = devices.Calls();
    ASSERT_EQ(calls.size(), 63u + 1 + 2 + 16 + 2);
    calls.erase(calls.begin(), calls.begin() + 63);
    EXPECT_EQ(calls, (std::vector<std::string>{
                         "open /dev/video63 O_RDONLY",
                         "ENUM_FMT video63 type=1 index=0 0",
                         "ENUM_FMT video63 type=1 index=1 YUYV flags=2",
                         "TRY_FMT video63 type=1 128x96 YUYV",
                         "TRY_FMT video63 type=1 160x120 YUYV",
                         "TRY_FMT video63 type=1 176x144 YUYV",
                         "TRY_FMT video63 type=1 320x240 YUYV",
                         "TRY_FMT video63 type=1 352x288 YUYV",
                         "TRY_FMT video63 type=1 640x480 YUYV",
                         "TRY_FMT video63 type=1 704x576 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "TRY_FMT video63 type=1 800x600 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "TRY_FMT video63 type=1 960x720 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "TRY_FMT video63 type=1 1024x768 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "TRY_FMT video63 type=1 1152x864 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "TRY_FMT video63 type=1 1280x600 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "TRY_FMT video63 type=1 1280x720 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "TRY_FMT video63 type=1 1440x900 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "TRY_FMT video63 type=1 1440x1080 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "TRY_FMT video63 type=1 1920x1080 YUYV field=1 stride=1280 size=614400 colorspace=8",
                         "QUERYCAP video63",
                         "close video63",
                     }));
}

TEST_F(CameraEnumeratorTest, AMissingDeviceConsumesNoId) {
    devices.SetCamera(0, Vga("First"));
    devices.SetCamera(2, Vga("Third"));

    const std::vector<CameraDeviceInfo> cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    EXPECT_EQ(cameras[0].id, 0u);
    EXPECT_EQ(cameras[0].file, "/dev/video0");
    EXPECT_EQ(cameras[1].id, 1u);
    EXPECT_EQ(cameras[1].file, "/dev/video2");
}

TEST_F(CameraEnumeratorTest, ARecordHoldsTheCardTwiceAndZeroedReservedFields) {
    devices.SetCamera(5, Vga("Camera \"front\" 100%s"));

    const std::vector<CameraDeviceInfo> cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras[0].id, 0u);
    EXPECT_FALSE(cameras[0].inUse);
    EXPECT_EQ(cameras[0].name, "Camera \"front\" 100%s");
    EXPECT_EQ(cameras[0].displayName, "Camera \"front\" 100%s");
    EXPECT_EQ(cameras[0].file, "/dev/video5");
    EXPECT_EQ(cameras[0].reserved_block, (std::array<uint8_t, 248>{}));
    EXPECT_EQ(cameras[0].reserved_word, 0u);
    EXPECT_EQ(cameras[0].resolutions, (Resolutions{{640, 480}}));
}

TEST_F(CameraEnumeratorTest, EachCameraIsLoggedWithItsDistinctSizes) {
    devices.SetCamera(
        1, {.card = "Web cam",
            .bus_info = "usb-0000:00:14.0-1",
            .formats = {{V4L2_PIX_FMT_YUYV, {{640, 480}}}, {V4L2_PIX_FMT_MJPEG, {{640, 480}, {1280, 720}}}}});
    devices.SetCamera(3, Vga("Other"));
    List();
    EXPECT_EQ(
        host.Lines(),
        (Lines{{1,
                "[CameraEnumerator]  id: 0 name: Web cam bus:  usb-0000:00:14.0-1 file: /dev/video1 "
                "res:  640x480 1280x720"},
               {1, "[CameraEnumerator]  id: 1 name: Other bus:  usb-1 file: /dev/video3 res:  640x480"}}));
}

TEST_F(CameraEnumeratorTest, ADeviceWithoutUsableSizesIsLoggedAndTakesNoId) {
    devices.SetCamera(0, {.formats = {}});
    devices.SetCamera(1, {.formats = {{V4L2_PIX_FMT_NV12, {{31, 17}}}}});
    devices.SetCamera(2, Vga("Real"));

    const std::vector<CameraDeviceInfo> cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras[0].id, 0u);
    EXPECT_EQ(cameras[0].file, "/dev/video2");
    EXPECT_EQ(
        host.Lines(),
        (Lines{{2, "[CameraEnumerator] invalid device, dev index 0, device /dev/video0"},
               {2, "[CameraEnumerator] invalid device, dev index 1, device /dev/video1"},
               {1, "[CameraEnumerator]  id: 0 name: Real bus:  usb-1 file: /dev/video2 res:  640x480"}}));
    // Only the usable device is asked for its name.
    EXPECT_EQ(devices.CallCount(DeviceCall::kQueryCap), 1);
    EXPECT_EQ(devices.CallCount(DeviceCall::kClose), 3);
}

TEST_F(CameraEnumeratorTest, ADeviceThatRefusesQuerycapIsLoggedAndTakesNoId) {
    devices.SetCamera(0, Vga("Silent"));
    devices.SetCamera(9, Vga("Talking"));
    devices.Fail(DeviceCall::kQueryCap, EIO);

    const std::vector<CameraDeviceInfo> cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras[0].id, 0u);
    EXPECT_EQ(cameras[0].name, "Talking");
    EXPECT_EQ(
        host.Lines(),
        (Lines{{2, "[CameraEnumerator] dev index 0, query cap fail, /dev/video0"},
               {1, "[CameraEnumerator]  id: 0 name: Talking bus:  usb-1 file: /dev/video9 res:  640x480"}}));
}

TEST_F(CameraEnumeratorTest, EveryDeviceIsClosedBeforeTheNextIsOpened) {
    devices.SetCamera(0, Vga("Good"));
    devices.SetCamera(1, {.formats = {}});
    devices.SetCamera(2, Vga("Silent"));
    devices.SetCamera(3, Vga("Good"));
    devices.Fail(DeviceCall::kQueryCap, EIO, 2);
    std::vector<int> open_before;
    devices.Before(DeviceCall::kOpen, [&] { open_before.push_back(devices.OpenDescriptors()); });
    List();
    EXPECT_EQ(open_before, std::vector<int>(64, 0));
    EXPECT_EQ(devices.CallCount(DeviceCall::kClose), 4);
}

TEST_F(CameraEnumeratorTest, ASizeOfTwoFormatsIsListedOnce) {
    devices.SetCamera(0,
                      {.formats = {{V4L2_PIX_FMT_YUYV, {{640, 480}}}, {V4L2_PIX_FMT_MJPEG, {{640, 480}}}}});
    EXPECT_EQ(List().at(0).resolutions, (Resolutions{{640, 480}}));
}

TEST_F(CameraEnumeratorTest, ASizeTheDriverRoundedIsListedAsTheDriverAnswered) {
    devices.SetCamera(0, {.formats = {{V4L2_PIX_FMT_NV12, {}, {{{1920, 1080}, {1920, 1088}}}}}});
    EXPECT_EQ(List().at(0).resolutions, (Resolutions{{1920, 1088}}));
}

TEST_F(CameraEnumeratorTest, ASizeAnsweredTwiceKeepsItsFirstPosition) {
    devices.SetCamera(0, {.formats = {{V4L2_PIX_FMT_NV12,
                                       {{128, 96}, {1280, 720}, {1440, 900}},
                                       {{{1280, 600}, {1280, 720}}, {{1440, 1080}, {1440, 900}}}}}});
    EXPECT_EQ(List().at(0).resolutions, (Resolutions{{128, 96}, {1280, 720}, {1440, 900}}));
    EXPECT_EQ(host.Lines(),
              (Lines{{1,
                      "[CameraEnumerator]  id: 0 name: Test camera bus:  usb-1 file: /dev/video0 "
                      "res:  128x96 1280x720 1440x900"}}));
}

TEST_F(CameraEnumeratorTest, ANameThatFillsItsFieldEndsWithTheField) {
    devices.SetCamera(0, {.card = "0123456789abcdef0123456789ABCDEF, cut",
                          .bus_info = "fedcba9876543210FEDCBA9876543210, cut",
                          .formats = {{V4L2_PIX_FMT_NV12, {{640, 480}}}}});
    EXPECT_EQ(List().at(0).name, "0123456789abcdef0123456789ABCDEF");
    EXPECT_EQ(host.Lines(), (Lines{{1,
                                    "[CameraEnumerator]  id: 0 name: 0123456789abcdef0123456789ABCDEF bus:  "
                                    "fedcba9876543210FEDCBA9876543210 file: /dev/video0 res:  640x480"}}));
}

TEST_F(CameraEnumeratorTest, AnEmptyNameIsAccepted) {
    devices.SetCamera(0, {.card = "", .bus_info = "", .formats = {{V4L2_PIX_FMT_NV12, {{640, 480}}}}});
    EXPECT_EQ(List().at(0).name, "");
    EXPECT_EQ(host.Lines(),
              (Lines{{1, "[CameraEnumerator]  id: 0 name:  bus:   file: /dev/video0 res:  640x480"}}));
}

TEST_F(CameraEnumeratorTest, SixtyFourCamerasGetTheIds0To63) {
    for (int index = 0; index < 64; ++index) {
        devices.SetCamera(index, Vga("Camera " + std::to_string(index)));
    }
    const std::vector<CameraDeviceInfo> cameras = List();
    ASSERT_EQ(cameras.size(), 64u);
    for (uint32_t index = 0; index < 64; ++index) {
        EXPECT_EQ(cameras[index].id, index);
        EXPECT_EQ(cameras[index].name, "Camera " + std::to_string(index));
    }
}

TEST_F(CameraEnumeratorTest, ARemovedCameraIsGoneFromTheNextList) {
    devices.SetCamera(0, Vga("First"));
    devices.SetCamera(1, Vga("Second"));
    ASSERT_EQ(List().size(), 2u);
    devices.Unplug(0);
    const std::vector<CameraDeviceInfo> cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras[0].id, 0u);
    EXPECT_EQ(cameras[0].name, "Second");
}

TEST_F(CameraEnumeratorTest, InfoOfAnIdIsTheWholeRecord) {
    devices.SetCamera(0, Vga("First"));
    devices.SetCamera(7, {.card = "Second", .formats = {{V4L2_PIX_FMT_NV12, {{320, 240}, {640, 480}}}}});
    CameraDeviceInfo info;
    info.id = 99;
    info.inUse = true;
    info.reserved_block.fill(1);
    info.reserved_word = 1;
    info.resolutions = {{1, 1}};

    ASSERT_TRUE(CameraEnumerator::GetInstance()->getCameraInfo(1, info));
    EXPECT_EQ(info.id, 1u);
    EXPECT_FALSE(info.inUse);
    EXPECT_EQ(info.name, "Second");
    EXPECT_EQ(info.displayName, "Second");
    EXPECT_EQ(info.file, "/dev/video7");
    EXPECT_EQ(info.reserved_block, (std::array<uint8_t, 248>{}));
    EXPECT_EQ(info.reserved_word, 0u);
    EXPECT_EQ(info.resolutions, (Resolutions{{320, 240}, {640, 480}}));
}

TEST_F(CameraEnumeratorTest, InfoOfAnIdEqualToTheNumberOfCamerasIsRefused) {
    devices.SetCamera(0, Vga("First"));
    devices.SetCamera(1, Vga("Second"));
    CameraDeviceInfo info;
    info.name = "unchanged";
    EXPECT_FALSE(CameraEnumerator::GetInstance()->getCameraInfo(2, info));
    EXPECT_FALSE(CameraEnumerator::GetInstance()->getCameraInfo(0xFFFFFFFF, info));
    EXPECT_EQ(info.name, "unchanged");
}

TEST_F(CameraEnumeratorTest, InfoScansAllDevicesEachTime) {
    devices.SetCamera(0, Vga("First"));
    CameraDeviceInfo info;
    ASSERT_TRUE(CameraEnumerator::GetInstance()->getCameraInfo(0, info));
    ASSERT_TRUE(CameraEnumerator::GetInstance()->getCameraInfo(0, info));
    EXPECT_EQ(devices.CallCount(DeviceCall::kOpen), 128);
}

TEST_F(CameraEnumeratorTest, SeveralThreadsMayScanConcurrently) {
    for (int index = 0; index < 4; ++index) {
        devices.SetCamera(index, Vga("Camera"));
    }
    std::array<size_t, 4> sizes{};
    std::vector<std::thread> threads;
    for (size_t& size : sizes) {
        threads.emplace_back([&size] { size = List().size(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sizes, (std::array<size_t, 4>{4, 4, 4, 4}));
}

TEST_F(CameraEnumeratorTest, AScanOutOfMemoryThrowsOutOfMemoryAndLeavesNoDeviceOpen) {
    devices.SetCamera(0, Vga("First"));
    devices.SetCamera(1, Vga("Second"));
    for (const size_t size : {2 * sizeof(CameraDeviceInfo), sizeof(CameraDeviceInfo)}) {
        // The vector of cameras grows from a capacity of one to two.
        testing::CallWatch watch;
        watch.Fail(testing::CallWatch::_Znwm, size, 1);
        EXPECT_THROW(List(), OutOfMemory) << size;
        EXPECT_EQ(devices.OpenDescriptors(), 0);
    }
    EXPECT_EQ(List().size(), 2U);
}

TEST_F(CameraEnumeratorTest, AThrowingSinkLeavesNoDeviceOpen) {
    devices.SetCamera(0, Vga("Good"));
    // Not OutOfMemory, which is the module's own.
    struct SinkFailure : std::bad_alloc {};
    host.OnLine([](uint32_t, const char*) { throw SinkFailure(); });
    EXPECT_THROW(List(), SinkFailure);
    host.OnLine(nullptr);
    EXPECT_EQ(devices.OpenDescriptors(), 0);
}

}  // namespace
}  // namespace zumod
