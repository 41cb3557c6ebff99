// Two and three of the driver's cameras in one session at the same time.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/watch/wait_until.h"
#include "tests/vm/device_requests.h"
#include "tests/vm/driver_session.h"
#include "tests/vm/vivid_cameras.h"
#include "tests/vm/work_thread.h"

namespace zumod::testing {
namespace {

class ManyCameras : public DriverSession {
protected:
    // Reads the camera's pictures until `count` of this width show a later time than the picture before.
    void ExpectRunning(uint32_t id, PictureReader& reader, int width, int count) {
        std::optional<int> before;
        for (int later = 0, all = 0; later < count; ++all) {
            ASSERT_LT(all, 60) << "camera " << id << " stands still";
            const auto picture = reader.Decode(NextFrame(id));
            if (!picture || picture->width != width) {
                continue;
            }
            const auto time = BurntInTime(*picture);
            ASSERT_TRUE(time);
            later += before && *time > *before ? 1 : 0;
            before = time;
        }
    }
};

TEST_F(ManyCameras, TwoDeliverAtOnceEachInItsSize) {
    ASSERT_EQ(Open({0, 640, 480, 15}), uint32_t{kCameraOpen});
    ASSERT_EQ(Open({2, 320, 180, 15}), uint32_t{kCameraOpen});
    PictureReader first;
    PictureReader second;
    for (int turn = 0; turn < 3; ++turn) {
        ExpectRunning(0, first, 640, 2);
        ExpectRunning(2, second, 320, 2);
    }
    EXPECT_EQ(CaptureThreads().size(), 2U);
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});
    EXPECT_EQ(Close(2), uint32_t{kCameraClosed});
}

TEST_F(ManyCameras, ThreeDeliverAndClosingOneDoesNotStopTheOthers) {
    // The default size and rate, for which the first camera need not be started.
    std::vector<PictureReader> readers(3);
    for (const uint32_t id : {0U, 1U, 2U}) {
        ASSERT_EQ(Open({id, 640, 480, 15}), uint32_t{kCameraOpen}) << id;
    }
    for (const uint32_t id : {0U, 1U, 2U}) {
        ExpectRunning(id, readers.at(id), 640, 3);
    }
    EXPECT_EQ(CaptureThreads().size(), 3U);
    EXPECT_EQ(Close(1), uint32_t{kCameraClosed});
    EXPECT_TRUE(CaptureThreadsLeft(2));
    ExpectRunning(0, readers[0], 640, 3);
    ExpectRunning(2, readers[2], 640, 3);
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});
    ExpectRunning(2, readers[2], 640, 3);
    EXPECT_EQ(Close(2), uint32_t{kCameraClosed});
    EXPECT_TRUE(CaptureThreadsLeft(0));
    for (const uint32_t id : {0U, 1U, 2U}) {
        EXPECT_EQ(Complaints(id), std::vector<std::string>{});
    }
}

TEST_F(ManyCameras, ABusyCameraCannotBeOpenedAndTheOthersCan) {
    // The shell ends with the program.
    OutputOf(
        "v4l2-ctl -d /dev/video2 --set-fmt-video=width=1280,height=720,pixelformat=NV12 --stream-mmap=4 "
        "--stream-to=/dev/shm/others >/dev/null 2>&1 & echo $! >/dev/shm/pid");
    ASSERT_TRUE(
        WaitUntil([] { return OutputOf("stat -c %s /dev/shm/others 2>/dev/null || echo 0") != "0\n"; }));
    EXPECT_EQ(Open({2, 640, 480, 15}), uint32_t{kCameraFailed});
    const auto complaints = Complaints(2);
    EXPECT_EQ(std::count(complaints.begin(), complaints.end(),
                         "[LinuxV4L2CameraCapture] set capture format fail, devid 2, err: 16"),
              2);
    EXPECT_EQ(Open({0, 640, 480, 15}), uint32_t{kCameraOpen});
    EXPECT_TRUE(FramesCome(0, 3));
    EXPECT_EQ(Close(0), uint32_t{kCameraClosed});

    OutputOf(
        "kill $(cat /dev/shm/pid); while kill -0 $(cat /dev/shm/pid) 2>/dev/null; do sleep 0.02; done; "
        "rm /dev/shm/others");
    EXPECT_EQ(Close(2), uint32_t{kCameraClosed});
    EXPECT_EQ(Open({2, 640, 480, 15}), uint32_t{kCameraOpen});
    EXPECT_TRUE(FramesCome(2, 3));
    EXPECT_EQ(Close(2), uint32_t{kCameraClosed});
}

}  // namespace
}  // namespace zumod::testing
