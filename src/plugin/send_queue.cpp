#include "src/plugin/send_queue.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace zumod {
namespace {

constexpr unsigned int kFreeSlots = 0x3FFFFFFF;  // in effect no limit
constexpr long kTakeWaitNanoseconds = 500'000'000;
constexpr long kNanosecondsPerSecond = 1'000'000'000;
constexpr useconds_t kCloseWaitMicroseconds = 100'000;

// Repeats a semaphore operation that was interrupted or told to try again; whether it then succeeded.
template <class Operation>
bool Persistently(Operation operation) {
    while (operation() != 0) {
        if (errno != EINTR && errno != EAGAIN) {
            return false;
        }
    }
    return true;
}

timespec TakeDeadline() {
    timeval now{};
    gettimeofday(&now, nullptr);
    timespec deadline{now.tv_sec, now.tv_usec * 1000 + kTakeWaitNanoseconds};
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
    // Whatever may throw comes before a slot is taken.
    std::list<CRefPtr_T<IBuffer>> link;
    link.push_back(std::move(message));
    uint64_t generation = 0;
    if (!m_running.load(std::memory_order_relaxed) || !BeginUse(generation)) {
        return;
    }
    const bool has_slot = Persistently([this] { return sem_wait(&m_free_slots); });
    EndUse();
    if (!has_slot) {
        return;
    }
    {
        const LockGuard guard(m_lock);
        if (m_generation != generation) {
            return;
        }
        m_list.splice(m_list.end(), link);
        m_count.fetch_add(1, std::memory_order_relaxed);
        m_uses.fetch_add(1, std::memory_order_relaxed);
    }
    Persistently([this] { return sem_post(&m_items); });
    EndUse();
}

CRefPtr_T<IBuffer> CSendQueue::Take() {
    uint64_t generation = 0;
    if (!m_running.load(std::memory_order_relaxed) || m_stopped.load(std::memory_order_relaxed) ||
        !BeginUse(generation)) {
        return {};
    }
    const timespec deadline = TakeDeadline();
    const bool has_item = Persistently([&] { return sem_timedwait(&m_items, &deadline); });
    EndUse();
    if (!has_item) {
        return {};
    }
    CRefPtr_T<IBuffer> message;
    {
        const LockGuard guard(m_lock);
        if (m_generation != generation) {
            return {};
        }
        message = std::move(m_list.front());
        m_list.pop_front();
        m_count.fetch_sub(1, std::memory_order_relaxed);
        m_uses.fetch_add(1, std::memory_order_relaxed);
    }
    Persistently([this] { return sem_post(&m_free_slots); });
    EndUse();
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

bool CSendQueue::BeginUse(uint64_t& generation) {
    const LockGuard guard(m_lock);
    if (!m_running.load(std::memory_order_relaxed)) {
        return false;
    }
    generation = m_generation;
    m_uses.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void CSendQueue::OpenLocked() {
    m_list.clear();
    // A queue without its semaphores stays closed: nobody may wait on what was never made.
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
    // No new use can begin, and none needs the lock to end: this waits for a wake-up, or for a post to
    // return.
    while (m_uses.load(std::memory_order_acquire) != 0) {
        usleep(100);
    }
    sem_destroy(&m_free_slots);
    sem_post(&m_items);
    usleep(kCloseWaitMicroseconds);
    sem_destroy(&m_items);
    m_count.store(0, std::memory_order_relaxed);
    m_list.clear();
}

}  // namespace zumod
