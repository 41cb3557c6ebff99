// The module's lock, and the annotations through which Clang checks at compile time which fields and
// functions need it. A field says ZU_GUARDED_BY(m_lock), a function that must be called with the lock held
// says ZU_REQUIRES(m_lock). Other compilers ignore the annotations.
//
// Thread rule: everything here is [any thread].
#pragma once

#include <pthread.h>

#include <chrono>

#if defined(__clang__)
#define ZU_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZU_THREAD_ANNOTATION(x)
#endif

#define ZU_CAPABILITY(name) ZU_THREAD_ANNOTATION(capability(name))
#define ZU_SCOPED_CAPABILITY ZU_THREAD_ANNOTATION(scoped_lockable)
#define ZU_GUARDED_BY(lock) ZU_THREAD_ANNOTATION(guarded_by(lock))
#define ZU_ACQUIRE(...) ZU_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZU_TRY_ACQUIRE(...) ZU_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZU_RELEASE(...) ZU_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZU_REQUIRES(...) ZU_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZU_NO_THREAD_SAFETY_ANALYSIS ZU_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace zumod {

// The lock as an interface.
//
// Binary table: slot 0 Lock, 1 Unlock, 2 and 3 the destructor pair.
class ZU_CAPABILITY("mutex") ILockItem {
public:
    // Waits until the lock is free and acquires it. Returns true.
    virtual bool Lock() ZU_ACQUIRE() = 0;
    // Releases the lock. Returns true.
    virtual bool Unlock() ZU_RELEASE() = 0;
    virtual ~ILockItem() = default;

    ILockItem(const ILockItem&) = delete;
    ILockItem& operator=(const ILockItem&) = delete;

protected:
    ILockItem() = default;
};

// A recursive mutex: the thread that holds it may lock it again; it is free after as many Unlock calls.
class ZU_CAPABILITY("mutex") CMutexLock final : public ILockItem {
public:
    CMutexLock();
    ~CMutexLock() override;

    bool Lock() override ZU_ACQUIRE();
    bool Unlock() override ZU_RELEASE();
    // Waits for the lock for at most `time`; returns whether it was acquired.
    bool TryLockFor(std::chrono::milliseconds time) ZU_TRY_ACQUIRE(true);

private:
    pthread_mutex_t m_mutex;
};

// Holds a lock until the end of the block, also when an exception ends it.
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
