// The queue's semaphore calls: their order, their failures, and a close between any two of them.
#include <gtest/gtest.h>

#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "src/base/create_buffer.h"
#include "src/plugin/send_queue.h"
#include "tests/support/doubles/buffer_references.h"
#include "tests/support/watch/call_watch.h"
#include "tests/support/watch/wait_until.h"

namespace zumod {
namespace {

using testing::CallWatch;
using testing::OtherReferences;
using testing::WaitUntil;
using Calls = std::vector<std::string>;

const Calls kOpenCalls = {"sem_init(free, 0, 1073741823)", "sem_init(items, 0, 0)", "sem_trywait(items)"};
const Calls kCloseCalls = {"sem_post(items)", "sem_post(free)", "sem_destroy(free)",
                           "sem_post(items)", "usleep(100000)", "sem_destroy(items)"};

class SendQueueCalls : public ::testing::Test {
protected:
    // Separates the constructor's calls from those of the operations under test.
    SendQueueCalls() { creation = watch.TakeSemaphoreCalls(); }

    // Resets the queue on another thread. Returns once that thread is waiting for this thread's use to end.
    void ResetMeanwhile() {
        resetter = std::thread([this] { queue.Reset(); });
        EXPECT_TRUE(WaitUntil([this] { return watch.Count(CallWatch::usleep, 100) > 0; }));
        EXPECT_EQ(watch.Count(CallWatch::sem_destroy), 0);
    }

    CallWatch watch;
    CSendQueue queue;
    Calls creation;
    std::thread resetter;
    const CRefPtr_T<IBuffer> message = CreateBuffer("abc", 3);
};

// The queue's fields by their place.
class Fields {
public:
    using Messages = std::list<CRefPtr_T<IBuffer>>;

    explicit Fields(CSendQueue& queue) : m_start(reinterpret_cast<char*>(&queue)) {}

    std::atomic<uint64_t>& Count() { return At<std::atomic<uint64_t>>(kCount); }
    Messages& List() { return At<Messages>(kList); }
    int FreeSlots() { return ValueOf(kFreeSlots); }
    int Items() { return ValueOf(kItems); }
    std::atomic<bool>& Running() { return At<std::atomic<bool>>(kRunning); }
    std::atomic<bool>& Stopped() { return At<std::atomic<bool>>(kRunning + 1); }

private:
    static constexpr size_t kCount = sizeof(CMutexLock);
    static constexpr size_t kList = kCount + sizeof(uint64_t);
    static constexpr size_t kFreeSlots = kList + sizeof(Messages);
    static constexpr size_t kItems = kFreeSlots + sizeof(sem_t);
    static constexpr size_t kRunning = kItems + sizeof(sem_t);

    template <class Field>
    Field& At(size_t offset) {
        return *reinterpret_cast<Field*>(m_start + offset);
    }
    int ValueOf(size_t offset) {
        int value = -1;
        EXPECT_EQ(sem_getvalue(&At<sem_t>(offset), &value), 0);
        return value;
    }

    char* const m_start;
};

TEST_F(SendQueueCalls, TheFieldsAreInTheirOrder) {
    Fields fields(queue);
    queue.Enqueue(message);
    queue.Enqueue(CreateBuffer("d", 1));
    EXPECT_EQ(fields.Count(), 2u);
    EXPECT_EQ(fields.List().size(), 2u);
    EXPECT_EQ(fields.List().front(), message);
    EXPECT_EQ(fields.FreeSlots(), 0x3FFFFFFF - 2);
    EXPECT_EQ(fields.Items(), 2);
    EXPECT_TRUE(fields.Running());
    EXPECT_FALSE(fields.Stopped());
    queue.Close();
    EXPECT_EQ(fields.Count(), 0u);
    EXPECT_TRUE(fields.List().empty());
    EXPECT_FALSE(fields.Running());
}

TEST_F(SendQueueCalls, TakeReturnsAtOnceWhileTheStoppedFlagIsSetAndAResetClearsIt) {
    Fields fields(queue);
    queue.Enqueue(message);
    watch.TakeSemaphoreCalls();
    fields.Stopped() = true;
    EXPECT_EQ(queue.Take(), nullptr);
    EXPECT_EQ(watch.TakeSemaphoreCalls(), Calls{});
    queue.Reset();
    EXPECT_FALSE(fields.Stopped());
    queue.Enqueue(message);
    EXPECT_EQ(queue.Take(), message);
}

TEST_F(SendQueueCalls, TheConstructorCreatesBothSemaphoresAndDrainsTheItems) {
    EXPECT_EQ(creation, kOpenCalls);
}

TEST_F(SendQueueCalls, EnqueueWaitsForASlotThenPostsAnItem) {
    queue.Enqueue(message);
    EXPECT_EQ(watch.TakeSemaphoreCalls(), (Calls{"sem_wait(free)", "sem_post(items)"}));
}

TEST_F(SendQueueCalls, TakeWaitsForAnItemThenPostsASlot) {
    queue.Enqueue(message);
    watch.TakeSemaphoreCalls();
    watch.SetClock(CLOCK_MONOTONIC, 10);
    EXPECT_EQ(queue.Take(), message);
    EXPECT_EQ(watch.TakeSemaphoreCalls(),
              (Calls{"sem_clockwait(items, monotonic 10.500000000)", "sem_post(free)"}));
}

TEST_F(SendQueueCalls, TheDeadlineIsHalfASecondAwayAndCarriesOneSecond) {
    const auto deadline = [&](long nanoseconds) {
        watch.SetClock(CLOCK_MONOTONIC, 10, nanoseconds);
        EXPECT_EQ(queue.Take(), nullptr);  // the deadline has long passed
        return watch.TakeSemaphoreCalls();
    };
    EXPECT_EQ(deadline(1), (Calls{"sem_clockwait(items, monotonic 10.500000001)"}));
    EXPECT_EQ(deadline(499'999'999), (Calls{"sem_clockwait(items, monotonic 10.999999999)"}));
    EXPECT_EQ(deadline(500'000'000), (Calls{"sem_clockwait(items, monotonic 11.000000000)"}));
    EXPECT_EQ(deadline(999'999'999), (Calls{"sem_clockwait(items, monotonic 11.499999999)"}));
}

// The clock shows a later time when the wait begins than while it lasts: it is set back during the wait.
TEST_F(SendQueueCalls, AWaitEndsAlthoughTheWallClockIsSetBack) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    watch.SetClock(CLOCK_REALTIME, now.tv_sec + 3600);
    std::atomic<bool> back{false};
    std::thread taker([&] {
        EXPECT_EQ(queue.Take(), nullptr);
        back = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return back.load(); }));
    queue.Close();
    taker.join();
}

TEST_F(SendQueueCalls, CloseWakesWaitingThreadsThenDestroys) {
    queue.Enqueue(message);
    watch.TakeSemaphoreCalls();
    queue.Close();
    EXPECT_EQ(watch.TakeSemaphoreCalls(), kCloseCalls);
}

TEST_F(SendQueueCalls, AClosedQueueMakesNoCall) {
    queue.Close();
    watch.TakeSemaphoreCalls();
    queue.Close();
    queue.Enqueue(message);
    EXPECT_EQ(queue.Take(), nullptr);
    EXPECT_EQ(watch.TakeSemaphoreCalls(), Calls{});
}

TEST_F(SendQueueCalls, CloseReleasesTheMessagesLastAndUnderTheLock) {
    queue.Enqueue(message);
    int64_t references = -1;
    int locked = -1;
    watch.OnNext(CallWatch::sem_destroy, CallWatch::kItems, [&] {
        references = OtherReferences(*message);
        locked = watch.LockedMutexes();
    });
    queue.Close();
    EXPECT_EQ(references, 1);
    EXPECT_EQ(locked, 1);
    EXPECT_EQ(OtherReferences(*message), 0);
}

// A use of a semaphore begins under the lock, so a close before it is noticed.
TEST_F(SendQueueCalls, AQueueThatIsClosedBeforeTheFirstCallGetsNone) {
    // The lock is the first field; its mutex follows the table pointer.
    const uintptr_t mutex = reinterpret_cast<uintptr_t>(&queue) + 8;
    watch.OnNext(CallWatch::pthread_mutex_lock, mutex, [this] { queue.Close(); });
    queue.Enqueue(message);
    EXPECT_EQ(watch.TakeSemaphoreCalls(), kCloseCalls);

    queue.Reset();
    watch.TakeSemaphoreCalls();
    watch.OnNext(CallWatch::pthread_mutex_lock, mutex, [this] { queue.Close(); });
    EXPECT_EQ(queue.Take(), nullptr);
    EXPECT_EQ(watch.TakeSemaphoreCalls(), kCloseCalls);
}

// The lock is acquired again after the wait, and a close before that is noticed too.
TEST_F(SendQueueCalls, AQueueThatIsClosedAfterTheWaitKeepsAndYieldsNoMessage) {
    const auto close_after = [&](CallWatch::Call wait, uintptr_t semaphore) {
        watch.OnNext(wait, semaphore, [this] {
            watch.OnNext(CallWatch::pthread_mutex_lock, reinterpret_cast<uintptr_t>(&queue) + 8,
                         [this] { queue.Close(); });
        });
    };
    close_after(CallWatch::sem_wait, CallWatch::kFreeSlots);
    queue.Enqueue(message);
    EXPECT_EQ(OtherReferences(*message), 0);

    queue.Reset();
    queue.Enqueue(message);
    close_after(CallWatch::sem_clockwait, CallWatch::kItems);
    EXPECT_EQ(queue.Take(), nullptr);
    EXPECT_EQ(OtherReferences(*message), 0);
}

TEST_F(SendQueueCalls, ResetClosesThenOpens) {
    Calls expected = kCloseCalls;
    expected.insert(expected.end(), kOpenCalls.begin(), kOpenCalls.end());
    queue.Reset();
    EXPECT_EQ(watch.TakeSemaphoreCalls(), expected);
}

TEST_F(SendQueueCalls, InterruptedCallsAreRepeated) {
    const std::vector<int> errors = {EINTR, EAGAIN, EINTR};
    watch.FailWith(CallWatch::sem_wait, CallWatch::kFreeSlots, errors);
    watch.FailWith(CallWatch::sem_post, CallWatch::kItems, errors);
    watch.FailWith(CallWatch::sem_clockwait, CallWatch::kItems, errors);
    watch.FailWith(CallWatch::sem_post, CallWatch::kFreeSlots, errors);
    watch.SetClock(CLOCK_MONOTONIC, 10);
    // Time passes during the wait: only a deadline that is kept stays the same.
    watch.OnNext(CallWatch::sem_clockwait, CallWatch::kItems,
                 [this] { watch.SetClock(CLOCK_MONOTONIC, 20); });
    queue.Enqueue(message);
    EXPECT_EQ(watch.TakeSemaphoreCalls(),
              (Calls{"sem_wait(free)", "sem_wait(free)", "sem_wait(free)", "sem_wait(free)",
                     "sem_post(items)", "sem_post(items)", "sem_post(items)", "sem_post(items)"}));
    EXPECT_EQ(queue.Take(), message);
    const std::string wait = "sem_clockwait(items, monotonic 10.500000000)";
    EXPECT_EQ(watch.TakeSemaphoreCalls(), (Calls{wait, wait, wait, wait, "sem_post(free)", "sem_post(free)",
                                                 "sem_post(free)", "sem_post(free)"}));
}

TEST_F(SendQueueCalls, AQueueWithoutItsSemaphoresIsClosedUntilAResetCreatesThem) {
    const Calls close_calls = kCloseCalls;
    for (const uintptr_t failing : {CallWatch::kFreeSlots, CallWatch::kItems}) {
        watch.FailWith(CallWatch::sem_init, failing, {ENOSPC});
        queue.Reset();
        Calls expected = close_calls;
        expected.emplace_back("sem_init(free, 0, 1073741823)");
        if (failing == CallWatch::kItems) {
            expected.emplace_back("sem_init(items, 0, 0)");
            expected.emplace_back("sem_destroy(free)");
        }
        EXPECT_EQ(watch.TakeSemaphoreCalls(), expected);
        queue.Enqueue(message);
        EXPECT_EQ(queue.Take(), nullptr);
        EXPECT_EQ(watch.TakeSemaphoreCalls(), Calls{});
        queue.Reset();
        EXPECT_EQ(watch.TakeSemaphoreCalls(), kOpenCalls);
        queue.Enqueue(message);
        EXPECT_EQ(queue.Take(), message);
        watch.TakeSemaphoreCalls();
    }
}

TEST_F(SendQueueCalls, AFailedWaitForASlotDropsTheMessage) {
    watch.FailWith(CallWatch::sem_wait, CallWatch::kFreeSlots, {EINVAL});
    queue.Enqueue(message);
    EXPECT_EQ(watch.TakeSemaphoreCalls(), (Calls{"sem_wait(free)"}));
    EXPECT_EQ(OtherReferences(*message), 0);
}

TEST_F(SendQueueCalls, AFailedWaitForAnItemLeavesTheMessageQueued) {
    queue.Enqueue(message);
    watch.TakeSemaphoreCalls();
    watch.SetClock(CLOCK_MONOTONIC, 10);
    watch.FailWith(CallWatch::sem_clockwait, CallWatch::kItems, {EINVAL});
    EXPECT_EQ(queue.Take(), nullptr);
    EXPECT_EQ(watch.TakeSemaphoreCalls(), (Calls{"sem_clockwait(items, monotonic 10.500000000)"}));
    EXPECT_EQ(queue.Take(), message);
}

TEST_F(SendQueueCalls, AResetDuringTheWaitForASlotDropsTheMessage) {
    watch.OnNext(CallWatch::sem_wait, CallWatch::kFreeSlots, [this] { ResetMeanwhile(); });
    queue.Enqueue(message);
    resetter.join();
    EXPECT_EQ(OtherReferences(*message), 0);
    watch.SetClock(CLOCK_MONOTONIC, 10);
    EXPECT_EQ(queue.Take(), nullptr);
}

TEST_F(SendQueueCalls, AResetDuringTheWaitForAnItemYieldsNoMessage) {
    queue.Enqueue(message);
    watch.OnNext(CallWatch::sem_clockwait, CallWatch::kItems, [this] { ResetMeanwhile(); });
    EXPECT_EQ(queue.Take(), nullptr);
    resetter.join();
    EXPECT_EQ(OtherReferences(*message), 0);
    queue.Enqueue(message);
    EXPECT_EQ(queue.Take(), message);
}

TEST_F(SendQueueCalls, ACloseInProgressBlocksNoOtherThread) {
    std::atomic<bool> back{false};
    std::thread user;
    watch.OnNext(CallWatch::usleep, 100000, [&] {
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

TEST_F(SendQueueCalls, IsBusyTakesNoLock) {
    const int locks = watch.Count(CallWatch::pthread_mutex_lock);
    EXPECT_FALSE(queue.IsBusy());
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock), locks);
}

TEST_F(SendQueueCalls, AResetWaitsForThePostOfAnItem) {
    watch.OnNext(CallWatch::sem_post, CallWatch::kItems, [this] {
        EXPECT_EQ(OtherReferences(*message), 1);
        ResetMeanwhile();
    });
    queue.Enqueue(message);
    resetter.join();
    EXPECT_EQ(OtherReferences(*message), 0);
    watch.SetClock(CLOCK_MONOTONIC, 10);
    EXPECT_EQ(queue.Take(), nullptr);
}

TEST_F(SendQueueCalls, AResetWaitsForThePostOfASlotAndTheMessageIsTaken) {
    queue.Enqueue(message);
    watch.OnNext(CallWatch::sem_post, CallWatch::kFreeSlots, [this] { ResetMeanwhile(); });
    EXPECT_EQ(queue.Take(), message);
    resetter.join();
    EXPECT_EQ(OtherReferences(*message), 0);
}

}  // namespace
}  // namespace zumod
