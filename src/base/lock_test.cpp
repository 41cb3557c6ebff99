#include "src/base/lock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <thread>

#include "tests/support/doubles/raw_slots.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CallWatch;

// Whether another thread could acquire the lock now. The mutex follows the table pointer.
bool IsFree(CMutexLock& lock) {
    bool free = false;
    std::thread([&] {
        auto* mutex = reinterpret_cast<pthread_mutex_t*>(reinterpret_cast<char*>(&lock) + 8);
        const int result = pthread_mutex_trylock(mutex);
        EXPECT_TRUE(result == 0 || result == EBUSY);
        if (result == 0) {
            free = true;
            pthread_mutex_unlock(mutex);
        }
    }).join();
    return free;
}

TEST(MutexLock, IsATablePointerAndAMutex) {
    EXPECT_EQ(sizeof(CMutexLock), 8 + sizeof(pthread_mutex_t));
}

// Leaves bytes of 0xFF where KindOfANewLock and the constructor it calls have their variables.
[[gnu::noinline]] void FillStack() {
    volatile unsigned char bytes[4096];
    for (volatile unsigned char& byte : bytes) {
        byte = 0xFF;
    }
}

[[gnu::noinline]] int KindOfANewLock() {
    volatile int space[256];
    space[0] = 0;
    const CMutexLock lock;
    const char* const mutex = reinterpret_cast<const char*>(&lock) + 8;
    return reinterpret_cast<const pthread_mutex_t*>(mutex)->__data.__kind + space[0];
}

TEST(MutexLock, IsRecursiveForAnyContentOfTheStack) {
    FillStack();
    EXPECT_EQ(KindOfANewLock(), PTHREAD_MUTEX_RECURSIVE);
}

TEST(MutexLock, LockedTwiceByOneThreadIsFreeAfterTheSecondUnlock) {
    CMutexLock lock;
    [&]() ZU_NO_THREAD_SAFETY_ANALYSIS {
        EXPECT_TRUE(IsFree(lock));
        EXPECT_TRUE(lock.Lock());
        EXPECT_TRUE(lock.Lock());
        EXPECT_FALSE(IsFree(lock));
        EXPECT_TRUE(lock.Unlock());
        EXPECT_FALSE(IsFree(lock));
        EXPECT_TRUE(lock.Unlock());
        EXPECT_TRUE(IsFree(lock));
    }();
}

TEST(MutexLock, ATimedWaitAcquiresAFreeLockAndGivesUpOnAHeldOne) {
    CMutexLock lock;
    [&]() ZU_NO_THREAD_SAFETY_ANALYSIS {
        EXPECT_TRUE(lock.TryLockFor(std::chrono::milliseconds(0)));
        EXPECT_FALSE(IsFree(lock));
        EXPECT_TRUE(lock.TryLockFor(std::chrono::milliseconds(0))) << "the same thread again";
        std::thread([&]() ZU_NO_THREAD_SAFETY_ANALYSIS {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_FALSE(lock.TryLockFor(std::chrono::milliseconds(1200)));
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));
        }).join();
        lock.Unlock();
        lock.Unlock();
        EXPECT_TRUE(IsFree(lock));
    }();
}

TEST(MutexLock, IgnoresTheResultOfTheSystemsLock) {
    CMutexLock lock;
    CallWatch watch;
    const uintptr_t mutex = reinterpret_cast<uintptr_t>(&lock) + 8;
    watch.Fail(CallWatch::pthread_mutex_lock, mutex);
    EXPECT_TRUE((CallSlot<bool>(&lock, 0)));
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock, mutex), 1);
    EXPECT_TRUE(IsFree(lock));
}

TEST(MutexLock, IgnoresTheResultOfTheSystemsUnlock) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer reports the misuse that this test provokes";
#endif
    CMutexLock lock;
    [&]() ZU_NO_THREAD_SAFETY_ANALYSIS {
        EXPECT_TRUE(lock.Lock());
        std::thread([&]() ZU_NO_THREAD_SAFETY_ANALYSIS {
            EXPECT_TRUE(CallSlot<bool>(&lock, 1)) << "a recursive mutex refuses an unlock by another thread";
        }).join();
        EXPECT_FALSE(IsFree(lock));
        EXPECT_TRUE(lock.Unlock());
    }();
}

TEST(MutexLock, KeepsOtherThreadsOut) {
    CMutexLock lock;
    int shared = 0;
    auto work = [&] {
        for (int i = 0; i < 5000; ++i) {
            const LockGuard outer(lock);
            [&]() ZU_NO_THREAD_SAFETY_ANALYSIS {
                const LockGuard inner(lock);
                ++shared;
            }();
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    EXPECT_EQ(shared, 10000);
}

TEST(MutexLock, AGuardReleasesTheLockWhenItsBlockThrows) {
    CMutexLock lock;
    try {
        const LockGuard guard(lock);
        EXPECT_FALSE(IsFree(lock));
        throw std::runtime_error("out of the block");
    } catch (const std::runtime_error&) {
        EXPECT_TRUE(IsFree(lock));
    }
}

TEST(MutexLock, HasTheDestructorPairAfterItsOperationsInItsTable) {
    alignas(CMutexLock) unsigned char storage[sizeof(CMutexLock)];
    auto* lock = new (storage) CMutexLock;
    EXPECT_TRUE((CallSlot<bool>(lock, 0)));  // Lock
    EXPECT_FALSE(IsFree(*lock));
    EXPECT_TRUE((CallSlot<bool>(lock, 1)));  // Unlock
    EXPECT_TRUE(IsFree(*lock));
    const CallWatch watch;
    CallSlot<>(lock, 2);  // the complete destructor
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_destroy), 1);
    CallSlot<>(new CMutexLock, 3);  // the deleting one
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_destroy), 2);
}

}  // namespace
}  // namespace zumod
