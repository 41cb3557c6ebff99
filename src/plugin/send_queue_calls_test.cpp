// The queue's calls on its semaphores, one by one: their order, their failures, and what a close in the
// middle of them does.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "src/base/create_buffer.h"
#include "src/plugin/send_queue.h"
#include "tests/support/doubles/buffer_references.h"
#include "tests/support/watch/semaphore_watch.h"
#include "tests/support/watch/wait_until.h"

namespace zumod {
namespace {

using testing::OtherReferences;
using testing::SemaphoreWatch;
using testing::WaitUntil;
using Calls = std::vector<std::string>;

const Calls kOpenCalls = {"sem_init(free, 0, 1073741823)", "sem_init(items, 0, 0)", "sem_trywait(items)"};
const Calls kCloseCalls = {"sem_post(items)", "sem_post(free)", "sem_destroy(free)",
                           "sem_post(items)", "usleep(100000)", "sem_destroy(items)"};

class SendQueueCalls : public ::testing::Test {
protected:
    // The calls from here on are those of the operations under test.
    SendQueueCalls() { creation = watch.TakeCalls(); }

    // Resets the queue on another thread and returns once that is waiting for the calling thread's use to
    // end.
    void ResetMeanwhile() {
        resetter = std::thread([this] { queue.Reset(); });
        EXPECT_TRUE(WaitUntil([this] { return watch.Has("usleep(100)"); }));
        EXPECT_FALSE(watch.Has("sem_destroy(free)"));
        EXPECT_FALSE(watch.Has("sem_destroy(items)"));
    }

    SemaphoreWatch watch;
    CSendQueue queue;
    Calls creation;
    std::thread resetter;
    const CRefPtr_T<IBuffer> message = CreateBuffer("abc", 3);
};

TEST_F(SendQueueCalls, CreationMakesTheFreeSlotsThenTheItemsAndDrainsThem) {
    EXPECT_EQ(creation, kOpenCalls);
}

TEST_F(SendQueueCalls, EnqueueWaitsForASlotThenPostsAnItem) {
    queue.Enqueue(message);
    EXPECT_EQ(watch.TakeCalls(), (Calls{"sem_wait(free)", "sem_post(items)"}));
}

TEST_F(SendQueueCalls, TakeWaitsForAnItemThenPostsASlot) {
    queue.Enqueue(message);
    watch.TakeCalls();
    watch.SetClock(10, 0);
    EXPECT_EQ(queue.Take(), message);
    EXPECT_EQ(watch.TakeCalls(), (Calls{"sem_timedwait(items, 10.500000000)", "sem_post(free)"}));
}

TEST_F(SendQueueCalls, TheDeadlineIsHalfASecondAwayAndCarriesOneSecond) {
    const auto deadline = [&](long microseconds) {
        watch.SetClock(10, microseconds);
        EXPECT_EQ(queue.Take(), nullptr);  // long past
        return watch.TakeCalls();
    };
    EXPECT_EQ(deadline(1), (Calls{"sem_timedwait(items, 10.500001000)"}));
    EXPECT_EQ(deadline(499'999), (Calls{"sem_timedwait(items, 10.999999000)"}));
    EXPECT_EQ(deadline(500'000), (Calls{"sem_timedwait(items, 11.000000000)"}));
    EXPECT_EQ(deadline(999'999), (Calls{"sem_timedwait(items, 11.499999000)"}));
}

TEST_F(SendQueueCalls, CloseWakesWhoWaitsThenDestroys) {
    queue.Enqueue(message);
    watch.TakeCalls();
    queue.Close();
    EXPECT_EQ(watch.TakeCalls(), kCloseCalls);
}

TEST_F(SendQueueCalls, AClosedQueueMakesNoCall) {
    queue.Close();
    watch.TakeCalls();
    queue.Close();
    queue.Enqueue(message);
    EXPECT_EQ(queue.Take(), nullptr);
    EXPECT_EQ(watch.TakeCalls(), Calls{});
}

TEST_F(SendQueueCalls, ResetClosesThenOpens) {
    Calls expected = kCloseCalls;
    expected.insert(expected.end(), kOpenCalls.begin(), kOpenCalls.end());
    queue.Reset();
    EXPECT_EQ(watch.TakeCalls(), expected);
}

TEST_F(SendQueueCalls, InterruptedCallsAreRepeated) {
    for (const char* call : {"sem_wait(free", "sem_post(items", "sem_timedwait(items", "sem_post(free"}) {
        watch.Fail(call, {EINTR, EAGAIN, EINTR});
    }
    watch.SetClock(10, 0);
    queue.Enqueue(message);
    EXPECT_EQ(watch.TakeCalls(),
              (Calls{"sem_wait(free)", "sem_wait(free)", "sem_wait(free)", "sem_wait(free)",
                     "sem_post(items)", "sem_post(items)", "sem_post(items)", "sem_post(items)"}));
    EXPECT_EQ(queue.Take(), message);
    const std::string wait = "sem_timedwait(items, 10.500000000)";
    EXPECT_EQ(watch.TakeCalls(), (Calls{wait, wait, wait, wait, "sem_post(free)", "sem_post(free)",
                                        "sem_post(free)", "sem_post(free)"}));
}

TEST_F(SendQueueCalls, AQueueWithoutItsSemaphoresIsClosedUntilAResetMakesThem) {
    const Calls close_calls = kCloseCalls;
    for (const char* call : {"sem_init(free", "sem_init(items"}) {
        watch.Fail(call, {ENOSPC});
        queue.Reset();
        Calls expected = close_calls;
        expected.emplace_back("sem_init(free, 0, 1073741823)");
        if (call == std::string("sem_init(items")) {
            expected.emplace_back("sem_init(items, 0, 0)");
            expected.emplace_back("sem_destroy(free)");
        }
        EXPECT_EQ(watch.TakeCalls(), expected);
        queue.Enqueue(message);
        EXPECT_EQ(queue.Take(), nullptr);
        EXPECT_EQ(watch.TakeCalls(), Calls{});
        queue.Reset();
        EXPECT_EQ(watch.TakeCalls(), kOpenCalls);
        queue.Enqueue(message);
        EXPECT_EQ(queue.Take(), message);
        watch.TakeCalls();
    }
}

TEST_F(SendQueueCalls, AFailedWaitForASlotDropsTheMessage) {
    watch.Fail("sem_wait(free", {EINVAL});
    queue.Enqueue(message);
    EXPECT_EQ(watch.TakeCalls(), (Calls{"sem_wait(free)"}));
    EXPECT_EQ(OtherReferences(*message), 0);
}

TEST_F(SendQueueCalls, AFailedWaitForAnItemLeavesTheMessageQueued) {
    queue.Enqueue(message);
    watch.TakeCalls();
    watch.SetClock(10, 0);
    watch.Fail("sem_timedwait(items", {EINVAL});
    EXPECT_EQ(queue.Take(), nullptr);
    EXPECT_EQ(watch.TakeCalls(), (Calls{"sem_timedwait(items, 10.500000000)"}));
    EXPECT_EQ(queue.Take(), message);
}

TEST_F(SendQueueCalls, AResetDuringTheWaitForASlotDropsTheMessage) {
    watch.OnNext("sem_wait(free", [this] { ResetMeanwhile(); });
    queue.Enqueue(message);
    resetter.join();
    EXPECT_EQ(OtherReferences(*message), 0);
    watch.SetClock(10, 0);
    EXPECT_EQ(queue.Take(), nullptr);
}

TEST_F(SendQueueCalls, AResetDuringTheWaitForAnItemGivesNothing) {
    queue.Enqueue(message);
    watch.OnNext("sem_timedwait(items", [this] { ResetMeanwhile(); });
    EXPECT_EQ(queue.Take(), nullptr);
    resetter.join();
    EXPECT_EQ(OtherReferences(*message), 0);
    queue.Enqueue(message);
    EXPECT_EQ(queue.Take(), message);
}

TEST_F(SendQueueCalls, ACloseUnderWayHoldsNobodyUp) {
    std::atomic<bool> back{false};
    std::thread user;
    watch.OnNext("usleep(100000", [&] {
        user = std::thread([&] {
            queue.Enqueue(message);
            EXPECT_EQ(queue.Take(), nullptr);
            back = true;
        });
        EXPECT_TRUE(WaitUntil([&] { return back.load(); }));
    });
    queue.Close();
    user.join();
    EXPECT_EQ(OtherReferences(*message), 0);
}

TEST_F(SendQueueCalls, AResetWaitsForThePostOfAnItem) {
    watch.OnNext("sem_post(items", [this] {
        EXPECT_EQ(OtherReferences(*message), 1);
        ResetMeanwhile();
    });
    queue.Enqueue(message);
    resetter.join();
    EXPECT_EQ(OtherReferences(*message), 0);
    watch.SetClock(10, 0);
    EXPECT_EQ(queue.Take(), nullptr);
}

TEST_F(SendQueueCalls, AResetWaitsForThePostOfASlotAndTheMessageIsTaken) {
    queue.Enqueue(message);
    watch.OnNext("sem_post(free", [this] { ResetMeanwhile(); });
    EXPECT_EQ(queue.Take(), message);
    resetter.join();
    EXPECT_EQ(OtherReferences(*message), 0);
}

}  // namespace
}  // namespace zumod
