// The one lock of the module: a recursive mutex.
#pragma once

#include <pthread.h>

#include <chrono>

#include "src/base/lock_item.h"

namespace zumod {

// A thread that holds the lock may take it again; it is free after as many Unlock calls.
class ZU_CAPABILITY("mutex") CMutexLock final : public ILockItem {
public:
    CMutexLock();
    ~CMutexLock() override;

    bool Lock() override ZU_ACQUIRE();
    bool Unlock() override ZU_RELEASE();
    // Waits no longer than this for the lock; whether it was taken.
    bool TryLockFor(std::chrono::milliseconds time) ZU_TRY_ACQUIRE(true);

private:
    pthread_mutex_t m_mutex;
};

}  // namespace zumod
