// Queue of the messages that wait for the send thread: first in, first out, in effect without a limit.
//
// The contract requires two counting semaphores. A producer takes a token from m_free_slots before it appends
// a message; the consumer takes one from m_items before it removes a message. Threads wait on them without
// the lock. The contract also requires that Close destroys both semaphores and Reset creates them again,
// while other threads may still use them. POSIX leaves that undefined. Two counters make it safe:
//
// - m_uses counts the threads that are in a semaphore call, or about to make one. A use (SemaphoreUse) begins
//   under m_lock while the queue runs, and ends without the lock. Close first clears m_running, so that no
//   use can begin, then posts both semaphores to wake the waiters. It destroys them when m_uses is 0.
// - m_generation counts the closes. A thread that has taken a token must lock the queue to change the list.
//   Before it has the lock, Close and even Reset may have run. If the generation has changed since its use
//   began, its token came from Close's wake-up or from a destroyed semaphore: it does not touch the list and
//   posts nothing. If not, the queue still runs, and a token of m_items stands for a message in the list.
//
// A thread must not hold a use while it waits for m_lock, because Close holds the lock while it waits for the
// uses to end. So Enqueue and Take each have two uses: one around the wait, and one around the post of the
// other semaphore, which begins in the locked section that changes the list.
//
// Each call costs one locked section and four atomic operations more than a queue that is never closed.
//
// Thread rule: Enqueue and IsBusy are [any thread]; Take is [send thread]; Reset and Close are [run thread,
// destructor], one at a time.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <optional>

#include "src/base/buffer.h"
#include "src/base/lock.h"
#include "zumod/ref_ptr.h"

namespace zumod {

class CSendQueue {
public:
    // The queue is open from the start.
    CSendQueue();
    ~CSendQueue();

    CSendQueue(const CSendQueue&) = delete;
    CSendQueue& operator=(const CSendQueue&) = delete;

    // Appends a complete framed message, or drops it if the queue is closed.
    void Enqueue(CRefPtr_T<IBuffer> message);

    // Waits up to 500 ms for a message, also while the wall clock is set, and removes it from the queue.
    // Returns null if there was none. A stop of the send thread takes as long as this wait. On a closed queue
    // Take returns at once, so a running consumer busy-loops. Required by the contract.
    CRefPtr_T<IBuffer> Take();

    // True while more than 5 messages wait. Takes no lock: a stale answer shifts pacing by one frame.
    bool IsBusy() const { return m_count.load(std::memory_order_relaxed) > kBusyAbove; }

    // Releases every waiting message and closes the queue.
    void Close();

    // Closes the queue and opens it again, empty.
    void Reset();

private:
    static constexpr uint64_t kBusyAbove = 5;

    // One thread's use of a semaphore, from construction to destruction.
    class SemaphoreUse {
    public:
        // Begins no use if the queue is closed.
        explicit SemaphoreUse(CSendQueue& queue) ZU_REQUIRES(queue.m_lock)
            : m_uses(queue.m_running.load(std::memory_order_relaxed) ? &queue.m_uses : nullptr),
              m_generation(queue.m_generation) {
            if (m_uses != nullptr) {
                m_uses->fetch_add(1, std::memory_order_relaxed);
            }
        }
        // Pairs with the acquire load in CloseLocked: the semaphore call happens before the destruction.
        ~SemaphoreUse() {
            if (m_uses != nullptr) {
                m_uses->fetch_sub(1, std::memory_order_release);
            }
        }
        SemaphoreUse(const SemaphoreUse&) = delete;
        SemaphoreUse& operator=(const SemaphoreUse&) = delete;

        explicit operator bool() const { return m_uses != nullptr; }
        uint64_t Generation() const { return m_generation; }

    private:
        std::atomic<uint32_t>* const m_uses;
        const uint64_t m_generation;
    };

    SemaphoreUse BeginUse();
    // Calls `wait` within a use and returns the use's generation. Returns nullopt if the queue is closed or
    // `wait` returns false.
    template <class Wait>
    std::optional<uint64_t> WaitInUse(Wait wait);
    void OpenLocked() ZU_REQUIRES(m_lock);
    void CloseLocked() ZU_REQUIRES(m_lock);

    CMutexLock m_lock;
    // Written under m_lock, read without it by IsBusy. Relaxed: the answer may be stale.
    std::atomic<uint64_t> m_count{0};
    std::list<CRefPtr_T<IBuffer>> m_list ZU_GUARDED_BY(m_lock);
    // Created and destroyed under m_lock, used within a SemaphoreUse.
    sem_t m_free_slots;
    sem_t m_items;
    // Written under m_lock. A read without the lock is only a first check; it is repeated under the lock.
    std::atomic<bool> m_running{false};
    // Required by the contract: Take checks it, although nothing sets it to true.
    std::atomic<bool> m_stopped{false};
    uint64_t m_generation ZU_GUARDED_BY(m_lock) = 0;
    // Incremented under m_lock, decremented without it.
    std::atomic<uint32_t> m_uses{0};
};

static_assert(sizeof(std::atomic<uint64_t>) == 8 && std::atomic<uint64_t>::is_always_lock_free);
static_assert(sizeof(std::atomic<bool>) == 1 && std::atomic<bool>::is_always_lock_free);

}  // namespace zumod
