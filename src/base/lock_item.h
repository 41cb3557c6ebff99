// The lock as an interface.
#pragma once

#include "src/base/thread_annotations.h"

namespace zumod {

// Binary table: slot 0 Lock, 1 Unlock, 2 and 3 the destructor pair.
class ZU_CAPABILITY("mutex") ILockItem {
public:
    // Waits until the lock is free and takes it. Returns true.
    virtual bool Lock() ZU_ACQUIRE() = 0;
    // Gives the lock back. Returns true.
    virtual bool Unlock() ZU_RELEASE() = 0;
    virtual ~ILockItem() = default;

    ILockItem(const ILockItem&) = delete;
    ILockItem& operator=(const ILockItem&) = delete;

protected:
    ILockItem() = default;
};

// Holds a lock for the length of a block, also when the block is left by an exception.
class ZU_SCOPED_CAPABILITY LockGuard {
public:
    explicit LockGuard(ILockItem& lock) ZU_ACQUIRE(lock) : m_lock(lock) { m_lock.Lock(); }
    ~LockGuard() ZU_RELEASE() { m_lock.Unlock(); }

    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    ILockItem& m_lock;
};

}  // namespace zumod
