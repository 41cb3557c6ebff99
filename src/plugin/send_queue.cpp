#include "src/plugin/send_queue.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "src/base/own_memory.h"

namespace zumod {
namespace {

// In effect without a limit. Close relies on that: its one post of m_free_slots could not wake two producers
// that wait for a slot (verify/send_queue.pml).
constexpr unsigned int kFreeSlots = 0x3FFFFFFF;
static_assert(kFreeSlots >= 1U << 20);
constexpr long kTakeWaitNanoseconds = 500'000'000;
constexpr long kNanosecondsPerSecond = 1'000'000'000;
constexpr useconds_t kCloseWaitMicroseconds = 100'000;

// Repeats a semaphore call while it fails with EINTR or EAGAIN. Returns whether it succeeded.
template <class Operation>
bool RetryOnInterrupt(Operation operation) {
    while (operation() != 0) {
        if (errno != EINTR && errno != EAGAIN) {
            return false;
        }
    }
    return true;
}

// Not of the wall clock: while a thread waits for a time of that clock, setting it back makes the wait
// longer.
timespec TakeDeadline() {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += kTakeWaitNanoseconds;
    if (deadline.tv_nsec >= kNanosecondsPerSecond) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNanosecondsPerSecond;
    }
    return deadline;
}

}  // namespace

CSendQueue::CSendQueue() {
    const LockGuard guard(m_lock);
    OpenLocked();
}

CSendQueue::~CSendQueue() {
    Close();
}

void CSendQueue::Enqueue(CRefPtr_T<IBuffer> message) {
    // Everything that may throw comes before a slot is taken.
    std::list<CRefPtr_T<IBuffer>> link;
    Allocate([&] { link.push_back(std::move(message)); });
    const std::optional<uint64_t> generation =
        WaitInUse([this] { return RetryOnInterrupt([this] { return sem_wait(&m_free_slots); }); });
    if (!generation) {
        return;
    }
    std::optional<SemaphoreUse> use;
    {
        const LockGuard guard(m_lock);
        if (m_generation != *generation) {
            return;
        }
        m_list.splice(m_list.end(), link);
        m_count.fetch_add(1, std::memory_order_relaxed);
        use.emplace(*this);
    }
    RetryOnInterrupt([this] { return sem_post(&m_items); });
}

CRefPtr_T<IBuffer> CSendQueue::Take() {
    if (m_stopped.load(std::memory_order_relaxed)) {
        return {};
    }
    const std::optional<uint64_t> generation = WaitInUse([this] {
        const timespec deadline = TakeDeadline();
        return RetryOnInterrupt([&] { return sem_clockwait(&m_items, CLOCK_MONOTONIC, &deadline); });
    });
    if (!generation) {
        return {};
    }
    CRefPtr_T<IBuffer> message;
    std::optional<SemaphoreUse> use;
    {
        const LockGuard guard(m_lock);
        if (m_generation != *generation) {
            return {};
        }
        message = std::move(m_list.front());
        m_list.pop_front();
        m_count.fetch_sub(1, std::memory_order_relaxed);
        use.emplace(*this);
    }
    RetryOnInterrupt([this] { return sem_post(&m_free_slots); });
    return message;
}

void CSendQueue::Close() {
    const LockGuard guard(m_lock);
    CloseLocked();
}

void CSendQueue::Reset() {
    const LockGuard guard(m_lock);
    CloseLocked();
    OpenLocked();
}

CSendQueue::SemaphoreUse CSendQueue::BeginUse() {
    const LockGuard guard(m_lock);
    return SemaphoreUse(*this);
}

template <class Wait>
std::optional<uint64_t> CSendQueue::WaitInUse(Wait wait) {
    // Checked without the lock first, because a Close in progress holds the lock for more than 100 ms.
    if (!m_running.load(std::memory_order_relaxed)) {
        return std::nullopt;
    }
    const SemaphoreUse use = BeginUse();
    if (!use || !wait()) {
        return std::nullopt;
    }
    return use.Generation();
}

void CSendQueue::OpenLocked() {
    m_list.clear();
    // Without both semaphores the queue stays closed.
    if (sem_init(&m_free_slots, 0, kFreeSlots) != 0) {
        return;
    }
    if (sem_init(&m_items, 0, 0) != 0) {
        sem_destroy(&m_free_slots);
        return;
    }
    while (sem_trywait(&m_items) == 0) {
    }
    m_running.store(true, std::memory_order_relaxed);
    m_stopped.store(false, std::memory_order_relaxed);
}

void CSendQueue::CloseLocked() {
    if (!m_running.load(std::memory_order_relaxed)) {
        return;
    }
    m_running.store(false, std::memory_order_relaxed);
    ++m_generation;
    sem_post(&m_items);
    sem_post(&m_free_slots);
    // No new use can begin, and none needs the lock to end: this waits only until the woken threads have left
    // their semaphore calls.
    while (m_uses.load(std::memory_order_acquire) != 0) {
        usleep(100);
    }
    sem_destroy(&m_free_slots);
    // Required by the contract: this post and the pause, although no thread waits any more.
    sem_post(&m_items);
    usleep(kCloseWaitMicroseconds);
    sem_destroy(&m_items);
    m_count.store(0, std::memory_order_relaxed);
    m_list.clear();
}

}  // namespace zumod
