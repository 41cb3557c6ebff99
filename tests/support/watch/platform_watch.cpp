#include "tests/support/watch/platform_watch.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

extern "C" {
// The linker sends each call of f to __wrap_f, and __real_f to f.
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);
void* __real__Znwm(size_t size);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __real_pthread_join(pthread_t thread, void** result);
int __real_pthread_detach(pthread_t thread);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);

void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* block, size_t size);
void __wrap_free(void* block);
void* __wrap__Znwm(size_t size);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __wrap_pthread_join(pthread_t thread, void** result);
int __wrap_pthread_detach(pthread_t thread);
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex);
}

namespace {

// A log of the sizes or blocks seen while a watch lives; a test makes few calls, so the oldest never has to
// go in practice.
class CallLog {
public:
    void Clear() { m_count = 0; }
    void Add(uintptr_t value) { m_values[m_count.fetch_add(1) % m_values.size()] = value; }
    int CountOf(uintptr_t value) const {
        int found = 0;
        for (size_t i = 0; i < m_count && i < m_values.size(); ++i) {
            found += m_values[i] == value ? 1 : 0;
        }
        return found;
    }

private:
    std::atomic<size_t> m_count{0};
    std::array<std::atomic<uintptr_t>, 16384> m_values{};
};

// How often requests of one size are still to fail.
class Failure {
public:
    void Set(size_t size, int times) {
        m_size = size;
        m_times = times;
    }
    bool Strikes(size_t size) { return size == m_size && m_times > 0 && m_times.fetch_sub(1) > 0; }

private:
    std::atomic<size_t> m_size{0};
    std::atomic<int> m_times{0};
};

std::atomic<bool> watching{false};
CallLog mallocs;
CallLog callocs;
CallLog frees;
Failure malloc_failure;
Failure calloc_failure;
Failure realloc_failure;
Failure new_failure;
Failure thread_failure;
std::atomic<void*> first_malloc{nullptr};
std::atomic<int> threads_created{0};
std::atomic<int> joins{0};
std::atomic<int> detaches{0};
std::atomic<int> mutexes_destroyed{0};

}  // namespace

void* __wrap_malloc(size_t size) {
    if (!watching) {
        return __real_malloc(size);
    }
    mallocs.Add(size);
    if (malloc_failure.Strikes(size)) {
        return nullptr;
    }
    void* block = __real_malloc(size);
    void* none = nullptr;
    first_malloc.compare_exchange_strong(none, block);
    return block;
}

void* __wrap_calloc(size_t count, size_t size) {
    if (watching) {
        callocs.Add(count * size);
        if (calloc_failure.Strikes(count * size)) {
            return nullptr;
        }
    }
    return __real_calloc(count, size);
}

void* __wrap_realloc(void* block, size_t size) {
    if (watching && realloc_failure.Strikes(size)) {
        return nullptr;
    }
    return __real_realloc(block, size);
}

void __wrap_free(void* block) {
    if (watching && block != nullptr) {
        frees.Add(reinterpret_cast<uintptr_t>(block));
    }
    __real_free(block);
}

void* __wrap__Znwm(size_t size) {
    if (watching && new_failure.Strikes(size)) {
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
    if (watching && thread_failure.Strikes(0)) {
        return EAGAIN;
    }
    threads_created += watching ? 1 : 0;
    return __real_pthread_create(thread, attributes, entry, argument);
}

int __wrap_pthread_join(pthread_t thread, void** result) {
    joins += watching ? 1 : 0;
    return __real_pthread_join(thread, result);
}

int __wrap_pthread_detach(pthread_t thread) {
    detaches += watching ? 1 : 0;
    return __real_pthread_detach(thread);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    mutexes_destroyed += watching ? 1 : 0;
    return __real_pthread_mutex_destroy(mutex);
}

namespace zumod::testing {

PlatformWatch::PlatformWatch() {
    mallocs.Clear();
    callocs.Clear();
    frees.Clear();
    first_malloc = nullptr;
    threads_created = 0;
    joins = 0;
    detaches = 0;
    mutexes_destroyed = 0;
    watching = true;
}

PlatformWatch::~PlatformWatch() {
    watching = false;
    for (Failure* each :
         {&malloc_failure, &calloc_failure, &realloc_failure, &new_failure, &thread_failure}) {
        each->Set(0, 0);
    }
}

void PlatformWatch::FailMalloc(size_t size, int times) {
    malloc_failure.Set(size, times);
}
void PlatformWatch::FailCalloc(size_t size, int times) {
    calloc_failure.Set(size, times);
}
void PlatformWatch::FailRealloc(size_t size, int times) {
    realloc_failure.Set(size, times);
}
void PlatformWatch::FailNew(size_t size, int times) {
    new_failure.Set(size, times);
}
void PlatformWatch::FailThreadCreation(int times) {
    thread_failure.Set(0, times);
}

int PlatformWatch::Mallocs(size_t size) const {
    return mallocs.CountOf(size);
}
int PlatformWatch::Callocs(size_t size) const {
    return callocs.CountOf(size);
}
void* PlatformWatch::FirstMalloc() const {
    return first_malloc;
}
int PlatformWatch::Frees(const void* block) const {
    return frees.CountOf(reinterpret_cast<uintptr_t>(block));
}
int PlatformWatch::ThreadsCreated() const {
    return threads_created;
}
int PlatformWatch::Joins() const {
    return joins;
}
int PlatformWatch::Detaches() const {
    return detaches;
}
int PlatformWatch::MutexesDestroyed() const {
    return mutexes_destroyed;
}

}  // namespace zumod::testing
