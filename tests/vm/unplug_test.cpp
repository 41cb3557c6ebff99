// A camera that is removed while it streams, and returns: by the driver's control, and by detaching the
// driver from its device.
#include <gtest/gtest.h>

#include "tests/support/watch/process_state.h"
#include "tests/vm/device_requests.h"
#include "tests/vm/driver_session.h"
#include "tests/vm/vivid_cameras.h"
#include "tests/vm/work_thread.h"

namespace zumod::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class Unplug : public DriverSession {
protected:
    // The pictures stop. The work thread keeps polling, because a descriptor without a device is readable
    // and only the dequeue fails.
    void ExpectTheLastPicture(const char* how) {
        while (FrameComes(0, seconds(1))) {
            NextFrame(0);
        }
        const auto threads = CaptureThreads();
        ASSERT_EQ(threads.size(), 1U) << "the work thread has ended";
        PrintCostOf(threads[0], milliseconds(2500), how);
        EXPECT_EQ(CaptureThreads(), threads);
        EXPECT_EQ(CountLines("[LinuxV4L2CameraCapture] work thread finish"), 0U);
        EXPECT_EQ(Complaints(0), std::vector<std::string>{});
    }

    void ExpectAPlainClose() {
        EXPECT_EQ(Close(0), uint32_t{kCameraClosed});
        EXPECT_EQ(CountLines("[LinuxV4L2CameraCapture] work thread finish"), 1U);
        // This request fails too.
        EXPECT_EQ(
            Complaints(0),
            (std::vector<std::string>{"[LinuxV4L2CameraCapture] dealloc buffer pool fail, devid 0, err 19"}));
        EXPECT_TRUE(CaptureThreadsLeft(0));
    }
};

TEST_F(Unplug, ADisconnectedCameraStopsAndCanBeReopened) {
    const auto descriptors = CountDescriptors();
    ASSERT_EQ(Open(kDefaultRequest), uint32_t{kCameraOpen});
    ASSERT_TRUE(FramesCome(0, 2));
    SetControls(kWebcam, "disconnect=1");
    ExpectTheLastPicture("disconnected");
    // The other cameras are still there and move to the front of the list.
    EXPECT_EQ(List().size(), 2U);
    ExpectAPlainClose();
    EXPECT_EQ(CountDescriptors(), descriptors);

    // After its last user has closed it, the driver shows the camera again.
    EXPECT_EQ(List().size(), 3U);
    EXPECT_EQ(Open(kDefaultRequest), uint32_t{kCameraOpen});
    EXPECT_TRUE(FramesCome(0, 3));
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});
}

TEST_F(Unplug, ACameraWhoseDriverIsUnboundStopsAndReturnsWithTheDriver) {
    const auto descriptors = CountDescriptors();
    ASSERT_EQ(Open(kDefaultRequest), uint32_t{kCameraOpen});
    ASSERT_TRUE(FramesCome(0, 2));
    UnbindDriver();
    ExpectTheLastPicture("unbound");
    EXPECT_EQ(List().size(), 0U);
    ExpectAPlainClose();
    EXPECT_EQ(CountDescriptors(), descriptors);

    EXPECT_EQ(Open(kDefaultRequest), uint32_t{kCameraFailed});
    EXPECT_EQ(Complaints(0).back(), "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0");
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});

    BindDriver();
    EXPECT_EQ(List().size(), 3U);
    EXPECT_EQ(Open(kDefaultRequest), uint32_t{kCameraOpen});
    EXPECT_TRUE(FramesCome(0, 3));
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});
}

TEST_F(Unplug, ASessionThatEndsWithoutClosingAMissingCameraReleasesEverything) {
    ASSERT_EQ(Open(kDefaultRequest), uint32_t{kCameraOpen});
    ASSERT_TRUE(FramesCome(0, 2));
    UnbindDriver();
    while (FrameComes(0, seconds(1))) {
        NextFrame(0);
    }
    // Finish checks the rest at the end of every test.
    TearDown();
    EXPECT_TRUE(CaptureThreadsLeft(0));
    BindDriver();
    SetUp();
    EXPECT_EQ(Open(kDefaultRequest), uint32_t{kCameraOpen});
    EXPECT_TRUE(FramesCome(0, 3));
}

}  // namespace
}  // namespace zumod::testing
