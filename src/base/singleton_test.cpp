#include "src/base/singleton.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallWatch;

TEST(Singleton, IsConstructedOnFirstUseAndOnlyOnce) {
    static int made = 0;
    struct Lazy : CSingleton_T<Lazy> {
        Lazy() { ++made; }
    };
    EXPECT_EQ(made, 0);
    Lazy* first = Lazy::GetInstance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(made, 1);
    EXPECT_EQ(Lazy::GetInstance(), first);
    EXPECT_EQ(made, 1);
}

TEST(Singleton, FirstUsedByEightThreadsAtOnceIsConstructedOnceBeforeAnySeesIt) {
    static std::atomic<int> made{0};
    struct Contended : CSingleton_T<Contended> {
        Contended() {
            std::this_thread::yield();
            value = 42;
            ++made;
        }
        int value = 0;
    };
    std::barrier together(8);
    std::vector<Contended*> seen(8);
    std::vector<int> values(8);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            together.arrive_and_wait();
            seen[i] = Contended::GetInstance();
            values[i] = seen[i]->value;
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(made, 1);
    EXPECT_EQ(seen, std::vector<Contended*>(8, Contended::GetInstance()));
    EXPECT_EQ(values, std::vector<int>(8, 42));
}

TEST(Singleton, HoldsItsLockWhileItIsConstructedAndNeverAgain) {
    static const CallWatch* current = nullptr;
    static int locked = 0;
    struct Watched : CSingleton_T<Watched> {
        Watched() { locked = current->LockedMutexes(); }
    };
    const CallWatch watch;
    current = &watch;
    Watched* const first = Watched::GetInstance();
    EXPECT_EQ(locked, 1);
    EXPECT_EQ(watch.LockedMutexes(), 0);
    const int locks = watch.Count(CallWatch::pthread_mutex_lock);
    EXPECT_EQ(Watched::GetInstance(), first);
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock), locks) << "read without the lock";
}

TEST(Singleton, IsOneObjectPerType) {
    struct One : CSingleton_T<One> {};
    struct Other : CSingleton_T<Other> {};
    EXPECT_NE(static_cast<void*>(One::GetInstance()), static_cast<void*>(Other::GetInstance()));
}

TEST(Singleton, OfATypeWithoutAConstructorIsAStaticObject) {
    struct Plain : CSingleton_T<Plain> {
        int words[4];
    };
    Plain* object = Plain::GetInstance();
    for (const int word : object->words) {
        EXPECT_EQ(word, 0);
    }
    EXPECT_EQ(Plain::GetInstance(), object);
}

TEST(Singleton, AConstructorThatThrowsReleasesTheLockAndIsRetried) {
    static int attempts = 0;
    struct Reluctant : CSingleton_T<Reluctant> {
        Reluctant() {
            if (++attempts == 1) {
                throw std::runtime_error("not yet");
            }
        }
    };
    EXPECT_THROW(Reluctant::GetInstance(), std::runtime_error);
    Reluctant* object = nullptr;
    std::thread([&] { object = Reluctant::GetInstance(); }).join();
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(attempts, 2);
}

struct Farewell : CSingleton_T<Farewell> {
    ~Farewell() { std::fputs("destroyed by the exit handlers\n", stderr); }
};

TEST(SingletonDeathTest, IsDestroyedByTheExitHandlersIfItWasConstructed) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT((Farewell::GetInstance(), std::exit(7)), ::testing::ExitedWithCode(7),
                "destroyed by the exit handlers");
}

}  // namespace
}  // namespace zumod
