// A camera that goes away while it streams, and comes back: by the driver's control, and by taking the driver
// from its device.
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
    // The pictures stop; the work thread goes on asking, because a descriptor without a device is readable
    // and only the dequeueing fails.
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
        // The camera is gone for this request, too.
        EXPECT_EQ(
            Complaints(0),
            (std::vector<std::string>{"[LinuxV4L2CameraCapture] dealloc buffer pool fail, devid 0, err 19"}));
        EXPECT_EQ(CaptureThreads().size(), 0U);
    }
};

TEST_F(Unplug, ADisconnectedCameraStopsIsClosedAndCanBeOpenedAgain) {
    const auto descriptors = CountDescriptors();
    ASSERT_EQ(Open(kAsItIs), uint32_t{kCameraOpen});
    ASSERT_TRUE(FramesCome(0, 2));
    SetControls(kWebcam, "disconnect=1");
    ExpectTheLastPicture("disconnected");
    // The others are still there, and become the first ones.
    EXPECT_EQ(List().size(), 2U);
    ExpectAPlainClose();
    EXPECT_EQ(CountDescriptors(), descriptors);

    // With its last user gone the driver shows it again.
    EXPECT_EQ(List().size(), 3U);
    EXPECT_EQ(Open(kAsItIs), uint32_t{kCameraOpen});
    EXPECT_TRUE(FramesCome(0, 3));
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});
}

TEST_F(Unplug, ACameraWithoutItsDriverStopsIsClosedAndComesBackWithIt) {
    const auto descriptors = CountDescriptors();
    ASSERT_EQ(Open(kAsItIs), uint32_t{kCameraOpen});
    ASSERT_TRUE(FramesCome(0, 2));
    UnbindDriver();
    ExpectTheLastPicture("unbound");
    EXPECT_EQ(List().size(), 0U);
    ExpectAPlainClose();
    EXPECT_EQ(CountDescriptors(), descriptors);

    EXPECT_EQ(Open(kAsItIs), uint32_t{kCameraFailed});
    EXPECT_EQ(Complaints(0).back(), "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0");
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});

    BindDriver();
    EXPECT_EQ(List().size(), 3U);
    EXPECT_EQ(Open(kAsItIs), uint32_t{kCameraOpen});
    EXPECT_TRUE(FramesCome(0, 3));
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});
}

TEST_F(Unplug, ASessionThatEndsWithoutClosingAMissingCameraGivesEverythingBack) {
    ASSERT_EQ(Open(kAsItIs), uint32_t{kCameraOpen});
    ASSERT_TRUE(FramesCome(0, 2));
    UnbindDriver();
    while (FrameComes(0, seconds(1))) {
        NextFrame(0);
    }
    // Finish, which every test of a session ends with, looks at the rest.
    TearDown();
    EXPECT_EQ(CaptureThreads().size(), 0U);
    BindDriver();
    SetUp();
    EXPECT_EQ(Open(kAsItIs), uint32_t{kCameraOpen});
    EXPECT_TRUE(FramesCome(0, 3));
}

}  // namespace
}  // namespace zumod::testing
