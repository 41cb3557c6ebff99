#include "src/plugin/send_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "src/base/create_buffer.h"
#include "tests/support/doubles/buffer_references.h"
#include "tests/support/watch/wait_until.h"

namespace zumod {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::OtherReferences;
using testing::WaitUntil;

CRefPtr_T<IBuffer> Message(uint32_t number) {
    return CreateBuffer(&number, sizeof number);
}

uint32_t NumberOf(IBuffer& message) {
    uint32_t number = 0;
    std::memcpy(&number, message.GetData(), sizeof number);
    return number;
}

TEST(SendQueue, TakeReturnsMessagesInTheOrderOfEnqueue) {
    CSendQueue queue;
    for (uint32_t number = 0; number < 100; ++number) {
        queue.Enqueue(Message(number));
    }
    for (uint32_t number = 0; number < 100; ++number) {
        const auto message = queue.Take();
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(NumberOf(*message), number);
    }
}

TEST(SendQueue, TakeReturnsTheSameBufferThatWasQueued) {
    CSendQueue queue;
    const auto message = Message(1);
    queue.Enqueue(message);
    EXPECT_EQ(OtherReferences(*message), 1);
    EXPECT_EQ(queue.Take().Get(), message.Get());
    EXPECT_EQ(OtherReferences(*message), 0);
}

TEST(SendQueue, IsBusyFromTheSixthMessageUntilOneIsTaken) {
    CSendQueue queue;
    for (int i = 0; i < 5; ++i) {
        queue.Enqueue(Message(0));
        EXPECT_FALSE(queue.IsBusy());
    }
    queue.Enqueue(Message(0));
    EXPECT_TRUE(queue.IsBusy());
    EXPECT_NE(queue.Take(), nullptr);
    EXPECT_FALSE(queue.IsBusy());
}

TEST(SendQueue, TakeWaitsHalfASecondOnAnEmptyQueue) {
    CSendQueue queue;
    const auto start = steady_clock::now();
    EXPECT_EQ(queue.Take(), nullptr);
    EXPECT_GE(steady_clock::now() - start, milliseconds(490));
}

TEST(SendQueue, AMessageEndsTheWait) {
    CSendQueue queue;
    std::atomic<bool> got{false};
    std::thread taker([&] {
        while (!got) {
            got = queue.Take() != nullptr;
        }
    });
    queue.Enqueue(Message(0));
    EXPECT_TRUE(WaitUntil([&] { return got.load(); }));
    taker.join();
}

TEST(SendQueue, AClosedQueueDropsMessagesAndReturnsNone) {
    CSendQueue queue;
    queue.Close();
    const auto message = Message(0);
    queue.Enqueue(message);
    EXPECT_EQ(OtherReferences(*message), 0);
    EXPECT_EQ(queue.Take(), nullptr);
    EXPECT_FALSE(queue.IsBusy());
}

TEST(SendQueue, CloseReleasesWaitingMessages) {
    CSendQueue queue;
    const auto message = Message(0);
    for (int i = 0; i < 7; ++i) {
        queue.Enqueue(message);
    }
    EXPECT_EQ(OtherReferences(*message), 7);
    queue.Close();
    EXPECT_EQ(OtherReferences(*message), 0);
    EXPECT_FALSE(queue.IsBusy());
    queue.Close();
}

TEST(SendQueue, ResetReleasesWaitingMessagesAndOpensEmpty) {
    CSendQueue queue;
    const auto old_message = Message(1);
    for (int i = 0; i < 7; ++i) {
        queue.Enqueue(old_message);
    }
    queue.Reset();
    EXPECT_EQ(OtherReferences(*old_message), 0);
    EXPECT_FALSE(queue.IsBusy());
    queue.Enqueue(Message(2));
    const auto message = queue.Take();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(NumberOf(*message), 2u);
}

TEST(SendQueue, ResetOpensAClosedQueue) {
    CSendQueue queue;
    queue.Close();
    queue.Reset();
    queue.Enqueue(Message(3));
    EXPECT_NE(queue.Take(), nullptr);
}

TEST(SendQueue, CloseWakesAWaitingThread) {
    CSendQueue queue;
    std::atomic<bool> stop{false};
    std::atomic<int> passes{0};
    std::thread taker([&] {
        while (!stop) {
            queue.Take();
            ++passes;
        }
    });
    queue.Close();
    const int before = passes;
    // On a closed queue Take returns at once.
    EXPECT_TRUE(WaitUntil([&] { return passes > before + 1000; }));
    stop = true;
    taker.join();
}

// A reset wakes the waiting thread by posting a token that stands for no message. That token must not survive
// the reset.
TEST(SendQueue, AThreadThatWaitedThroughAResetWaitsAgain) {
    CSendQueue queue;
    std::atomic<bool> stop{false};
    std::atomic<int> passes{0};
    std::thread taker([&] {
        while (!stop) {
            EXPECT_EQ(queue.Take(), nullptr);
            ++passes;
        }
    });
    EXPECT_TRUE(WaitUntil([&] { return passes > 0; }));
    queue.Reset();
    EXPECT_TRUE(WaitUntil([&, before = passes.load()] { return passes > before; }));
    const auto start = steady_clock::now();
    EXPECT_TRUE(WaitUntil([&, before = passes.load()] { return passes >= before + 3; }));
    EXPECT_GE(steady_clock::now() - start, milliseconds(900));
    stop = true;
    taker.join();
}

TEST(SendQueue, NoMessageIsLostOrDuplicatedWithManyProducers) {
    CSendQueue queue;
    constexpr uint32_t kProducers = 4;
    constexpr uint32_t kMessages = 2000;
    std::vector<std::thread> producers;
    for (uint32_t producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([&queue, producer] {
            for (uint32_t i = 0; i < kMessages; ++i) {
                queue.Enqueue(Message(producer << 16 | i));
            }
        });
    }
    std::vector<uint32_t> next(kProducers, 0);
    for (uint32_t i = 0; i < kProducers * kMessages; ++i) {
        CRefPtr_T<IBuffer> message;
        ASSERT_TRUE(WaitUntil([&] {
            message = queue.Take();
            return message != nullptr;
        }));
        const uint32_t number = NumberOf(*message);
        EXPECT_EQ(number & 0xFFFF, next[number >> 16]++);
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    EXPECT_FALSE(queue.IsBusy());
}

TEST(SendQueue, SurvivesResetsUnderLoad) {
    CSendQueue queue;
    std::atomic<bool> stop{false};
    std::thread producer([&] {
        while (!stop) {
            queue.Enqueue(Message(0));
            std::this_thread::yield();
        }
    });
    std::thread taker([&] {
        while (!stop) {
            queue.Take();
        }
    });
    for (int i = 0; i < 10; ++i) {
        queue.Reset();
    }
    stop = true;
    producer.join();
    taker.join();
    queue.Reset();
    const auto last = Message(9);
    queue.Enqueue(last);
    EXPECT_EQ(queue.Take().Get(), last.Get());
}

}  // namespace
}  // namespace zumod
