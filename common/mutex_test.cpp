#include "common/mutex.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>

namespace zumod {
namespace {

class Counter {
public:
    void Add() {
        const MutexLock lock(m_mutex);
        ++m_count;
        m_changed.notify_one();
    }
    int WaitFor(int count) {
        const MutexLock lock(m_mutex);
        while (m_count < count) {
            m_changed.wait(m_mutex);
        }
        return m_count;
    }

private:
    Mutex m_mutex;
    std::condition_variable_any m_changed;
    int m_count ZU_GUARDED_BY(m_mutex) = 0;
};

TEST(Mutex, ProtectsAFieldAndWakesAWaiter) {
    constexpr int kEach = 10'000;
    Counter counter;
    const auto add = [&counter] {
        for (int i = 0; i < kEach; ++i) {
            counter.Add();
        }
    };
    std::thread first(add);
    std::thread second(add);
    EXPECT_EQ(counter.WaitFor(2 * kEach), 2 * kEach);
    first.join();
    second.join();
}

}  // namespace
}  // namespace zumod
