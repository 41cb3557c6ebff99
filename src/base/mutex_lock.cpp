#include "base/mutex_lock.h"

namespace zumod {

CMutexLock::CMutexLock() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attributes);
    // The attribute object is not destroyed; it owns nothing on this platform.
}

CMutexLock::~CMutexLock() {
    pthread_mutex_destroy(&m_mutex);
}

bool CMutexLock::Lock() ZU_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&m_mutex);
    return true;
}

bool CMutexLock::Unlock() ZU_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&m_mutex);
    return true;
}

}  // namespace zumod
