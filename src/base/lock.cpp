#include "src/base/lock.h"

#include <cstdint>
#include <ctime>

namespace zumod {
namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

// The thread sanitizer recognises only the timed lock that uses the wall clock.
#if defined(__SANITIZE_THREAD__)
constexpr clockid_t kDeadlineClock = CLOCK_REALTIME;
int LockUntil(pthread_mutex_t* mutex, const timespec* deadline) {
    return pthread_mutex_timedlock(mutex, deadline);
}
#else
constexpr clockid_t kDeadlineClock = CLOCK_MONOTONIC;
int LockUntil(pthread_mutex_t* mutex, const timespec* deadline) {
    return pthread_mutex_clocklock(mutex, kDeadlineClock, deadline);
}
#endif

}  // namespace

CMutexLock::CMutexLock() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attributes);
    // Required by the contract: the attribute object is not destroyed. It owns nothing on this platform.
}

CMutexLock::~CMutexLock() {
    pthread_mutex_destroy(&m_mutex);
}

bool CMutexLock::Lock() ZU_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&m_mutex);
    return true;
}

bool CMutexLock::TryLockFor(std::chrono::milliseconds time) ZU_NO_THREAD_SAFETY_ANALYSIS {
    timespec deadline{};
    clock_gettime(kDeadlineClock, &deadline);
    const int64_t nanoseconds = deadline.tv_nsec + std::chrono::nanoseconds(time).count();
    deadline.tv_sec += nanoseconds / kNanosecondsPerSecond;
    deadline.tv_nsec = nanoseconds % kNanosecondsPerSecond;
    return LockUntil(&m_mutex, &deadline) == 0;
}

bool CMutexLock::Unlock() ZU_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&m_mutex);
    return true;
}

}  // namespace zumod
