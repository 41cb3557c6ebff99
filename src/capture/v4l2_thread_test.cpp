#include "src/capture/v4l2_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "tests/support/doubles/raw_slots.h"
#include "tests/support/watch/wait_until.h"

namespace zumod {
namespace {

using testing::WaitUntil;

TEST(V4l2ThreadTest, TheWorkRunsOnceEvenIfItReturnsTrue) {
    std::atomic<int> runs{0};
    CV4L2Thread thread;
    thread.SetWork([&runs] {
        ++runs;
        return true;
    });
    ASSERT_TRUE(thread.Start());
    ASSERT_TRUE(WaitUntil([&thread] { return !thread.IsRunning(); }));
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(runs, 1);
}

TEST(V4l2ThreadTest, WithoutWorkTheThreadEndsAtOnce) {
    CV4L2Thread thread;
    ASSERT_TRUE(thread.Start());
    ASSERT_TRUE(WaitUntil([&thread] { return !thread.IsRunning(); }));
    EXPECT_TRUE(thread.Stop());
}

TEST(V4l2ThreadTest, ThePassIsSlotSixAndReturnsFalse) {
    int runs = 0;
    CV4L2Thread thread;
    EXPECT_FALSE(testing::CallSlot<bool>(&thread, 6));
    thread.SetWork([&runs] {
        ++runs;
        return true;
    });
    EXPECT_FALSE(testing::CallSlot<bool>(&thread, 6));
    EXPECT_EQ(runs, 1);
}

TEST(V4l2ThreadTest, TheWorkIsDestroyedWithTheThreadObject) {
    auto held = std::make_shared<int>(1);
    {
        CV4L2Thread thread;
        thread.SetWork([held] { return *held == 1; });
        EXPECT_EQ(held.use_count(), 2);
    }
    EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace zumod
