// The messages that wait for the send thread, first in, first out, in effect without a limit.
//
// Thread rule: Enqueue and IsBusy are [any thread]; Take is [send thread]; Reset and Close are
// [run thread, destructor], one at a time.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <list>

#include "src/base/buffer.h"
#include "src/base/mutex_lock.h"
#include "zumod/ref_ptr.h"

namespace zumod {

class CSendQueue {
public:
    // Open from the start.
    CSendQueue();
    ~CSendQueue();

    CSendQueue(const CSendQueue&) = delete;
    CSendQueue& operator=(const CSendQueue&) = delete;

    // Appends a complete framed message; drops it when the queue is closed.
    void Enqueue(CRefPtr_T<IBuffer> message);

    // Waits up to 500 ms for a message and takes it out. Empty when none came, and at once while the queue is
    // closed: a thread left running over a closed queue spins, which is kept as simple as that.
    CRefPtr_T<IBuffer> Take();

    // True while more than 5 messages wait. Read without the lock: a stale answer shifts pacing by one frame.
    bool IsBusy() const { return m_count.load(std::memory_order_relaxed) > kBusyAbove; }

    // Releases every waiting message and closes the queue.
    void Close();

    // Close, and open again empty.
    void Reset();

private:
    static constexpr uint64_t kBusyAbove = 5;

    // One thread's use of a semaphore outside the lock, begun under the lock while the queue runs. The queue
    // destroys its semaphores only when no use is left: nobody ever waits on, or posts, one that is gone.
    // BeginUse is false when the queue is closed.
    bool BeginUse(uint64_t& generation);
    void EndUse() { m_uses.fetch_sub(1, std::memory_order_release); }
    void OpenLocked() ZU_REQUIRES(m_lock);
    void CloseLocked() ZU_REQUIRES(m_lock);

    CMutexLock m_lock;
    // Written under m_lock, read without it by IsBusy; relaxed: the answer may be stale.
    std::atomic<uint64_t> m_count{0};
    std::list<CRefPtr_T<IBuffer>> m_list ZU_GUARDED_BY(m_lock);
    sem_t m_free_slots;
    sem_t m_items;
    // Written under m_lock; read without it as a first look only, and again under it before anything depends
    // on it.
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_stopped{false};
    // How often the queue was closed. A thread that finds it changed after a wait took its token from a
    // semaphore that is gone: it leaves without a message and posts nothing back. Unchanged, the queue still
    // runs, and a token of m_items always stands for a message in the list.
    uint64_t m_generation ZU_GUARDED_BY(m_lock) = 0;
    // Raised under m_lock, lowered without it; the release of the last user is what CloseLocked's acquire
    // load waits for before it destroys the semaphores.
    std::atomic<uint32_t> m_uses{0};
};

static_assert(sizeof(std::atomic<uint64_t>) == 8 && std::atomic<uint64_t>::is_always_lock_free);
static_assert(sizeof(std::atomic<bool>) == 1 && std::atomic<bool>::is_always_lock_free);

}  // namespace zumod
