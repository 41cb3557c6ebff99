// A mutex whose rules the compiler checks (Clang; see src/base/lock.h).
//
// Thread rule: any thread. A field says ZU_GUARDED_BY(m_mutex), a function that its caller calls with the
// mutex held says ZU_REQUIRES(m_mutex). A std::condition_variable_any waits with a Mutex.
#pragma once

#include <mutex>

#include "src/base/lock.h"

namespace zumod {

class ZU_CAPABILITY("mutex") Mutex {
public:
    void lock() ZU_ACQUIRE() { m_mutex.lock(); }
    void unlock() ZU_RELEASE() { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

// Holds a mutex until the end of the block.
class ZU_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ZU_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLock() ZU_RELEASE() { m_mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_mutex;
};

}  // namespace zumod
