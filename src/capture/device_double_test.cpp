// The device double detects misuse and fails calls as it is told to.
#include "tests/support/doubles/device_double.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <cerrno>
#include <thread>

#include "src/capture/device_calls.h"
#include "src/capture/read_set.h"

namespace zumod::testing {
namespace {

using Texts = std::vector<std::string>;

class DeviceDoubleTest : public ::testing::Test {
protected:
    DeviceDoubleTest() { devices.SetCamera(0, {.formats = {{V4L2_PIX_FMT_NV12, {{640, 480}}}}}); }

    int OpenCamera() { return device::Open("/dev/video0", O_RDWR | O_NONBLOCK); }
    static int Wait(int descriptor, timeval timeout) {
        ReadSet set(descriptor);
        set.Reset();
        const int ready = device::Select(descriptor + 1, set.Get(), &timeout);
        EXPECT_EQ(set.HoldsDescriptor(), ready == 1);
        return ready;
    }

    DeviceDouble devices;
};

TEST_F(DeviceDoubleTest, AnOpenDescriptorIsCounted) {
    const int descriptor = OpenCamera();
    EXPECT_EQ(devices.OpenDescriptors(), 1);
    EXPECT_EQ(device::Close(descriptor), 0);
    EXPECT_EQ(devices.OpenDescriptors(), 0);
    EXPECT_EQ(devices.Misuse(), Texts{});
}

TEST_F(DeviceDoubleTest, ASecondCloseIsMisuse) {
    const int descriptor = OpenCamera();
    device::Close(descriptor);
    EXPECT_EQ(device::Close(descriptor), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(devices.Misuse(), Texts{"close of unknown descriptor " + std::to_string(descriptor)});
}

TEST_F(DeviceDoubleTest, ARequestAfterTheCloseIsMisuse) {
    const int descriptor = OpenCamera();
    device::Close(descriptor);
    v4l2_capability capability{};
    EXPECT_EQ(device::Ioctl(descriptor, VIDIOC_QUERYCAP, &capability), -1);
    EXPECT_EQ(devices.Misuse(), Texts{"QUERYCAP on unknown descriptor " + std::to_string(descriptor)});
}

TEST_F(DeviceDoubleTest, AMappingIsCountedUntilItIsUnmappedAndAWrongUnmapIsMisuse) {
    const int descriptor = OpenCamera();
    v4l2_requestbuffers request{};
    request.count = 1;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(device::Ioctl(descriptor, VIDIOC_REQBUFS, &request), 0);
    void* address = device::Map(4096, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    ASSERT_NE(address, MAP_FAILED);
    device::Close(descriptor);
    EXPECT_EQ(devices.Mappings(), 1);
    EXPECT_EQ(device::Unmap(address, 4095), -1);
    EXPECT_EQ(device::Unmap(address, 4096), 0);
    EXPECT_EQ(device::Unmap(address, 4096), -1);
    EXPECT_EQ(devices.Mappings(), 0);
    EXPECT_EQ(devices.Misuse(), (Texts{"munmap of what is not mapped, length 4095",
                                       "munmap of what is not mapped, length 4096"}));
}

TEST_F(DeviceDoubleTest, ASetOfTwoDescriptorsIsMisuse) {
    const int first = OpenCamera();
    const int second = OpenCamera();
    fd_set set;
    FD_ZERO(&set);
    FD_SET(first, &set);
    FD_SET(second, &set);
    timeval timeout{0, 1};
    device::Select(second + 1, &set, &timeout);
    EXPECT_EQ(devices.Misuse(), Texts{"select on something else than one descriptor"});
    device::Close(first);
    device::Close(second);
}

TEST_F(DeviceDoubleTest, TheNthCallAndTheGivenNumberAfterItFail) {
    devices.Fail(DeviceCall::kOpen, EBUSY, 2, 2);
    Texts results;
    for (int call = 0; call < 4; ++call) {
        const int descriptor = OpenCamera();
        results.push_back(descriptor >= 0 ? "opened" : std::to_string(errno));
        if (descriptor >= 0) {
            device::Close(descriptor);
        }
    }
    EXPECT_EQ(results, (Texts{"opened", "16", "16", "opened"}));
}

TEST_F(DeviceDoubleTest, ASuccessfulCallDoesNotChangeErrno) {
    errno = ERANGE;
    const int descriptor = OpenCamera();
    EXPECT_EQ(Wait(descriptor, {0, 1000}), 0);
    v4l2_capability capability{};
    EXPECT_EQ(device::Ioctl(descriptor, VIDIOC_QUERYCAP, &capability), 0);
    EXPECT_EQ(device::Close(descriptor), 0);
    EXPECT_EQ(errno, ERANGE);
}

TEST_F(DeviceDoubleTest, HooksRunAroundTheCall) {
    Texts order;
    devices.Before(DeviceCall::kOpen, [&] { order.push_back(std::to_string(devices.OpenDescriptors())); });
    devices.After(DeviceCall::kOpen, [&] { order.push_back(std::to_string(devices.OpenDescriptors())); });
    device::Close(OpenCamera());
    EXPECT_EQ(order, (Texts{"0", "1"}));
}

TEST_F(DeviceDoubleTest, WithoutRecordingCallsAreOnlyCounted) {
    devices.SetRecording(false);
    device::Close(OpenCamera());
    EXPECT_EQ(devices.Calls(), Texts{});
    EXPECT_EQ(devices.CallCount(DeviceCall::kOpen), 1);
}

TEST_F(DeviceDoubleTest, RepeatedWaitsAreRecordedOnce) {
    const int descriptor = OpenCamera();
    devices.TakeCalls();
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(Wait(descriptor, {1, 0}), 0);
    }
    EXPECT_EQ(Wait(descriptor, {0, 500000}), 0);
    EXPECT_EQ(devices.Calls(), (Texts{"select video0 timeout=1.000000", "select video0 timeout=0.500000"}));
    EXPECT_EQ(devices.CallCount(DeviceCall::kSelect), 4);
    device::Close(descriptor);
}

TEST_F(DeviceDoubleTest, WithoutADoubleOpenFails) {
    DeviceDouble* hidden = DeviceDouble::Current();
    EXPECT_EQ(hidden, &devices);
    { const DeviceDouble other; }
    EXPECT_EQ(DeviceDouble::Current(), nullptr);
    EXPECT_EQ(OpenCamera(), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace zumod::testing
