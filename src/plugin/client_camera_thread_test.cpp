#include "src/plugin/client_camera_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "src/base/object_monitor.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/watch/wait_until.h"

namespace zumod {
namespace {

using testing::WaitUntil;

TEST(ClientCameraThread, RepeatsItsPassUntilItIsStopped) {
    std::atomic<int> passes{0};
    CClientCameraThread thread([&] {
        ++passes;
        return true;
    });
    EXPECT_TRUE(thread.Start());
    EXPECT_TRUE(WaitUntil([&] { return passes > 100; }));
    EXPECT_TRUE(thread.Stop());
    const int after = passes;
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(passes, after);
}

TEST(ClientCameraThread, EndsWhenAPassReturnsFalse) {
    std::atomic<int> passes{0};
    CClientCameraThread thread([&] { return ++passes < 3; });
    EXPECT_TRUE(thread.Start());
    EXPECT_TRUE(WaitUntil([&] { return !thread.IsRunning(); }));
    thread.Stop();
    EXPECT_EQ(passes, 3);
}

TEST(ClientCameraThread, EndsAtOnceWithoutACallable) {
    CClientCameraThread thread(nullptr);
    EXPECT_TRUE(thread.Start());
    EXPECT_TRUE(WaitUntil([&] { return !thread.IsRunning(); }));
    thread.Stop();
}

TEST(ClientCameraThread, ItsCallableIsDestroyedBeforeItsBase) {
    // The module's second class in the registry is CBaseThread.
    ICObjectMonitor* const threads = g_ObjectRegistry.entries[1].monitor;
    ASSERT_STREQ(g_ObjectRegistry.entries[1].name, "CBaseThread");
    const int64_t before = threads->GetDeleteCount();
    int64_t at_end_of_callable = -1;
    {
        int held = 0;
        const auto record = [&](int*) { at_end_of_callable = threads->GetDeleteCount(); };
        const CClientCameraThread thread(
            [owner = std::shared_ptr<int>(&held, record)] { return *owner == 0; });
    }
    EXPECT_EQ(at_end_of_callable, before);
    EXPECT_EQ(threads->GetDeleteCount(), before + 1);
}

TEST(ClientCameraThread, ThePassIsSlotSix) {
    int passes = 0;
    CClientCameraThread thread([&] { return ++passes < 2; });
    EXPECT_TRUE(testing::CallSlot<bool>(&thread, 6));
    EXPECT_FALSE(testing::CallSlot<bool>(&thread, 6));
    CClientCameraThread empty(nullptr);
    EXPECT_FALSE(testing::CallSlot<bool>(&empty, 6));
}

}  // namespace
}  // namespace zumod
