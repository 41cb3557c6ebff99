#include "src/capture/read_set.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "src/capture/device_calls.h"

namespace zumod {
namespace {

TEST(ReadSetTest, ASetOfADescriptorBelowFdSetsizeHasTheBytesOfAnFdSet) {
    for (const int descriptor : {0, 1, 63, 64, 65, 1023}) {
        ReadSet set(descriptor);
        set.Reset();
        EXPECT_TRUE(set.HoldsDescriptor());
        fd_set plain;
        FD_ZERO(&plain);
        FD_SET(descriptor, &plain);
        EXPECT_EQ(std::memcmp(set.Get(), &plain, sizeof(plain)), 0) << descriptor;
    }
}

// Waits with the real select().
void ExpectWaitWorks(int descriptor, int writer) {
    ReadSet set(descriptor);
    set.Reset();
    timeval timeout{0, 1000};
    EXPECT_EQ(device::Select(descriptor + 1, set.Get(), &timeout), 0);
    EXPECT_FALSE(set.HoldsDescriptor());

    ASSERT_EQ(write(writer, "a", 1), 1);
    set.Reset();
    timeout = {10, 0};
    EXPECT_EQ(device::Select(descriptor + 1, set.Get(), &timeout), 1);
    EXPECT_TRUE(set.HoldsDescriptor());
}

TEST(ReadSetTest, SelectAcceptsADescriptorPastTheEndOfAnFdSet) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < 4097) {
        GTEST_SKIP() << "this machine allows " << limit.rlim_max << " open files";
    }
    const rlimit wider{4097, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, limit.rlim_cur < 4097 ? &wider : &limit), 0);
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    for (const int descriptor : {1024, 1500, 4096}) {
        ASSERT_EQ(dup2(ends[0], descriptor), descriptor);
        ExpectWaitWorks(descriptor, ends[1]);
        char byte = 0;
        ASSERT_EQ(read(ends[0], &byte, 1), 1);
        device::Close(descriptor);
    }
    device::Close(ends[0]);
    device::Close(ends[1]);
}

}  // namespace
}  // namespace zumod
