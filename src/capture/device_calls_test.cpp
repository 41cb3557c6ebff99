#include "src/capture/device_calls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>

namespace zumod {
namespace {

TEST(DeviceCallsTest, OpeningAMissingFileFailsWithEnoent) {
    EXPECT_EQ(device::Open("/nowhere/video0", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(DeviceCallsTest, AFileIsOpenedWithTheGivenFlags) {
    const int descriptor = device::Open("/dev/null", O_RDWR | O_NONBLOCK);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
    EXPECT_EQ(device::Close(descriptor), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), -1);
}

TEST(DeviceCallsTest, ClosingAnUnknownDescriptorFails) {
    EXPECT_EQ(device::Close(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(DeviceCallsTest, ARequestReachesTheDriver) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    ASSERT_EQ(write(ends[1], "abc", 3), 3);
    int readable = 0;
    EXPECT_EQ(device::Ioctl(ends[0], FIONREAD, &readable), 0);
    EXPECT_EQ(readable, 3);
    v4l2_capability capability{};
    EXPECT_EQ(device::Ioctl(ends[0], VIDIOC_QUERYCAP, &capability), -1);
    EXPECT_EQ(errno, ENOTTY);
    device::Close(ends[0]);
    device::Close(ends[1]);
}

TEST(DeviceCallsTest, AMappingIsSharedWithTheFile) {
    std::string path = ::testing::TempDir() + "device_calls_XXXXXX";
    const int descriptor = mkstemp(path.data());
    ASSERT_GE(descriptor, 0);
    unlink(path.c_str());
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    ASSERT_EQ(ftruncate(descriptor, static_cast<off_t>(2 * page)), 0);

    void* address =
        device::Map(page, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, static_cast<off_t>(page));
    ASSERT_NE(address, MAP_FAILED);
    static_cast<char*>(address)[0] = 'x';
    char byte = 0;
    EXPECT_EQ(pread(descriptor, &byte, 1, static_cast<off_t>(page)), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(device::Unmap(address, page), 0);
    device::Close(descriptor);
}

TEST(DeviceCallsTest, UnmappedMemoryIsNoLongerMapped) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* address = device::Map(page, PROT_READ, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(address, MAP_FAILED);
    EXPECT_EQ(msync(address, page, MS_ASYNC), 0);
    EXPECT_EQ(device::Unmap(address, page), 0);
    EXPECT_EQ(msync(address, page, MS_ASYNC), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(device::Unmap(address, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(DeviceCallsTest, AFailedMappingReturnsMapFailed) {
    EXPECT_EQ(device::Map(4096, PROT_READ, MAP_SHARED, -1, 0), MAP_FAILED);
    EXPECT_EQ(errno, EBADF);
}

TEST(DeviceCallsTest, AWaitEndsOnTimeoutOrWhenTheDescriptorIsReadable) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(ends[0], &readable);
    timeval timeout{0, 1000};
    EXPECT_EQ(device::Select(ends[0] + 1, &readable, &timeout), 0);
    EXPECT_FALSE(FD_ISSET(ends[0], &readable));

    ASSERT_EQ(write(ends[1], "a", 1), 1);
    FD_SET(ends[0], &readable);
    timeout = {10, 0};
    EXPECT_EQ(device::Select(ends[0] + 1, &readable, &timeout), 1);
    EXPECT_TRUE(FD_ISSET(ends[0], &readable));
    device::Close(ends[0]);
    device::Close(ends[1]);
}

}  // namespace
}  // namespace zumod
