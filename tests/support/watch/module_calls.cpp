#include "tests/support/watch/module_calls.h"

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <new>

// Never built with a sanitizer: its run time is not ready when the first of these calls is made.

// The heap behind these functions: the C library's, or the sanitizer's where there is one. Not looked up with
// dlsym, which would call the heap itself.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
[[gnu::weak]] void* __interceptor_malloc(size_t size);
[[gnu::weak]] void* __interceptor_calloc(size_t count, size_t size);
[[gnu::weak]] void* __interceptor_realloc(void* block, size_t size);
[[gnu::weak]] void __interceptor_free(void* block);
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);
int __cxa_atexit(void (*handler)(void*), void* argument, void* library) noexcept;
// NOLINTEND(bugprone-reserved-identifier)
}
#define ZU_HEAP(name) (__interceptor_##name != nullptr ? __interceptor_##name : __libc_##name)

namespace {

using zumod::testing::kModuleCallKinds;
using zumod::testing::ModuleBlock;
using zumod::testing::ModuleCall;
using zumod::testing::ModuleHeap;

enum Place : int { kOutside, kHostInside, kModuleThread, kLoading };
thread_local int t_place = kOutside;
thread_local const void* t_last_block = nullptr;

class SpinGuard {
public:
    explicit SpinGuard(std::atomic_flag& flag) : m_flag(flag) {
        while (m_flag.test_and_set(std::memory_order_acquire)) {
            sched_yield();
        }
    }
    ~SpinGuard() { m_flag.clear(std::memory_order_release); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

private:
    std::atomic_flag& m_flag;
};

// Address to size, without an allocation: a hash table with open addressing; a removal moves later entries
// back.
class BlockTable {
public:
    void Add(const void* block, size_t size) {
        const SpinGuard guard(m_lock);
        size_t at = Home(block);
        while (m_slots[at].address != nullptr) {
            at = Next(at);
        }
        m_slots[at] = {block, size};
        m_heap.blocks += 1;
        m_heap.bytes += size;
        if (m_heap.blocks > kSlots / 2) {
            __builtin_trap();
        }
    }

    void Remove(const void* block) {
        const SpinGuard guard(m_lock);
        size_t at = Home(block);
        while (m_slots[at].address != block) {
            if (m_slots[at].address == nullptr) {
                return;
            }
            at = Next(at);
        }
        m_heap.blocks -= 1;
        m_heap.bytes -= m_slots[at].size;
        for (size_t next = Next(at); m_slots[next].address != nullptr; next = Next(next)) {
            const size_t home = Home(m_slots[next].address);
            if (((next - home) & (kSlots - 1)) >= ((next - at) & (kSlots - 1))) {
                m_slots[at] = m_slots[next];
                at = next;
            }
        }
        m_slots[at] = {};
    }

    ModuleHeap Heap() {
        const SpinGuard guard(m_lock);
        return m_heap;
    }

    size_t List(ModuleBlock* blocks, size_t capacity) {
        const SpinGuard guard(m_lock);
        size_t found = 0;
        for (const ModuleBlock& slot : m_slots) {
            if (slot.address != nullptr && found++ < capacity) {
                blocks[found - 1] = slot;
            }
        }
        return found;
    }

private:
    static constexpr int kBits = 18;
    static constexpr size_t kSlots = size_t{1} << kBits;
    static size_t Home(const void* block) {
        return (reinterpret_cast<uintptr_t>(block) * 0x9E3779B97F4A7C15U) >> (64 - kBits);
    }
    static size_t Next(size_t at) { return (at + 1) & (kSlots - 1); }

    std::atomic_flag m_lock;
    ModuleHeap m_heap;
    std::array<ModuleBlock, kSlots> m_slots{};
};

constinit BlockTable g_blocks;
constinit BlockTable g_locks;
constinit std::atomic<int64_t> g_mappings{0};
constinit std::array<std::atomic<uint64_t>, kModuleCallKinds> g_calls{};
constinit std::atomic<int> g_failing_kind{-1};
constinit std::atomic<uint64_t> g_fail_from{0};
constinit std::atomic<uint64_t> g_fail_before{0};
constinit std::atomic<bool> g_failed{false};
constinit std::atomic<const void*> g_last_block_before{nullptr};
constinit std::atomic<size_t> g_failed_size{0};

template <class Function>
Function* Real(std::atomic<void*>& cache, const char* name) {
    void* real = cache.load(std::memory_order_relaxed);
    if (real == nullptr) {
        real = dlsym(RTLD_NEXT, name);
        cache.store(real, std::memory_order_relaxed);
    }
    return reinterpret_cast<Function*>(real);
}
#define ZU_REAL(name)                                       \
    ([] {                                                   \
        constinit static std::atomic<void*> cache{nullptr}; \
        return Real<decltype(::name)>(cache, #name);        \
    }())

// Counts the call. Returns true if it must fail.
bool ShouldFail(ModuleCall kind, size_t size = 0) {
    const auto index = static_cast<size_t>(kind);
    const uint64_t number = g_calls[index].fetch_add(1) + 1;
    if (g_failing_kind != static_cast<int>(kind) || number < g_fail_from || number >= g_fail_before) {
        return false;
    }
    if (!g_failed.exchange(true)) {
        g_last_block_before = t_last_block;
        g_failed_size = size;
    }
    return true;
}

bool ShouldFailAllocation(size_t size) {
    switch (t_place) {
        case kHostInside:
        case kLoading:
            return ShouldFail(ModuleCall::kHostAllocation, size);
        case kModuleThread:
            return ShouldFail(ModuleCall::kThreadAllocation, size);
        default:
            return false;
    }
}

bool IsInside() {
    return t_place == kHostInside || t_place == kModuleThread;
}

void Record(const void* block, size_t size) {
    if (block != nullptr) {
        t_last_block = block;
        g_blocks.Add(block, size);
    }
}

// What a new thread runs. Taken from an array, so that nothing is allocated for it.
struct Start {
    std::atomic<bool> taken;
    void* (*entry)(void*);
    void* argument;
};
constinit std::array<Start, 64> g_starts{};

void* RunModuleThread(void* free_after_read) {
    Start& start = *static_cast<Start*>(free_after_read);
    const auto entry = start.entry;
    void* const argument = start.argument;
    start.taken = false;
    t_place = kModuleThread;
    return entry(argument);
}

Start& TakeStart(void* (*entry)(void*), void* argument) {
    for (;;) {
        for (Start& start : g_starts) {
            if (!start.taken.exchange(true)) {
                start.entry = entry;
                start.argument = argument;
                return start;
            }
        }
    }
}

class PlaceScope {
public:
    explicit PlaceScope(int place) : m_outer(t_place) { t_place = place; }
    ~PlaceScope() { t_place = m_outer; }
    PlaceScope(const PlaceScope&) = delete;
    PlaceScope& operator=(const PlaceScope&) = delete;

private:
    const int m_outer;
};

}  // namespace

#pragma GCC visibility push(default)

extern "C" {

void* malloc(size_t size) noexcept {
    if (!IsInside()) {
        return ZU_HEAP(malloc)(size);
    }
    if (ShouldFailAllocation(size)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* block = ZU_HEAP(malloc)(size);
    Record(block, size);
    return block;
}

void* calloc(size_t count, size_t size) noexcept {
    if (!IsInside()) {
        return ZU_HEAP(calloc)(count, size);
    }
    if (ShouldFailAllocation(count * size)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* block = ZU_HEAP(calloc)(count, size);
    Record(block, count * size);
    return block;
}

void* realloc(void* old, size_t size) noexcept {
    if (!IsInside()) {
        if (old != nullptr) {
            g_blocks.Remove(old);
        }
        return ZU_HEAP(realloc)(old, size);
    }
    if (ShouldFailAllocation(size)) {
        errno = ENOMEM;
        return nullptr;
    }
    // Before the call: another thread may get the old address before realloc returns.
    if (old != nullptr) {
        g_blocks.Remove(old);
    }
    void* block = ZU_HEAP(realloc)(old, size);
    Record(block, size);
    return block;
}

void free(void* block) noexcept {
    if (block != nullptr) {
        g_blocks.Remove(block);
    }
    ZU_HEAP(free)(block);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept {
    if (!IsInside()) {
        return ZU_REAL(pthread_create)(thread, attributes, entry, argument);
    }
    if (ShouldFail(ModuleCall::kThreadCreation)) {
        return EAGAIN;
    }
    // Blocks that the C library allocates for a thread are not the module's.
    const PlaceScope outside(kOutside);
    Start& start = TakeStart(entry, argument);
    const int error = ZU_REAL(pthread_create)(thread, attributes, &RunModuleThread, &start);
    if (error != 0) {
        start.taken = false;
    }
    return error;
}

int sem_init(sem_t* semaphore, int shared, unsigned int value) noexcept {
    if (IsInside() && ShouldFail(ModuleCall::kSemaphore)) {
        errno = ENOSPC;
        return -1;
    }
    return ZU_REAL(sem_init)(semaphore, shared, value);
}

void* dlopen(const char* path, int flags) noexcept {
    const bool inside = IsInside();
    const bool fails = inside && ShouldFail(ModuleCall::kLibrary);
    // Blocks of the dynamic loader are not the module's. During a load only operator new is called for the
    // module.
    const PlaceScope loading(inside && !fails ? kLoading : kOutside);
    return ZU_REAL(dlopen)(fails ? "/nonexistent/library.so" : path, flags);
}

int dlclose(void* library) noexcept {
    const PlaceScope outside(kOutside);
    return ZU_REAL(dlclose)(library);
}

// The C library keeps exit handlers in blocks of 32 that it never releases. They are not the module's.
int __cxa_atexit(void (*handler)(void*), void* argument,
                 void* library) noexcept {  // NOLINT(*-reserved-identifier)
    const PlaceScope outside(kOutside);
    return ZU_REAL(__cxa_atexit)(handler, argument, library);
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
    if (t_place != kOutside) {
        if (ShouldFail(ModuleCall::kLock)) {
            return ENOMEM;
        }
        g_locks.Add(mutex, sizeof *mutex);
    }
    return ZU_REAL(pthread_mutex_init)(mutex, attributes);
}

int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
    g_locks.Remove(mutex);
    return ZU_REAL(pthread_mutex_destroy)(mutex);
}

void* mmap(void* address, size_t length, int protection, int flags, int descriptor, off_t offset) noexcept {
    if (IsInside() && ShouldFail(ModuleCall::kMapping)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    void* const start = ZU_REAL(mmap)(address, length, protection, flags, descriptor, offset);
    g_mappings += IsInside() && start != MAP_FAILED ? 1 : 0;
    return start;
}

int munmap(void* address, size_t length) noexcept {
    const int result = ZU_REAL(munmap)(address, length);
    g_mappings -= IsInside() && result == 0 ? 1 : 0;
    return result;
}

// Shortens long waits of the module. Nothing that it waits for depends on their length.
int usleep(useconds_t microseconds) {
    constexpr useconds_t kLong = 10'000;
    return ZU_REAL(usleep)(IsInside() && microseconds > kLong ? 1000 : microseconds);
}

int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* deadline) {
    if (!IsInside()) {
        return ZU_REAL(sem_clockwait)(semaphore, clock, deadline);
    }
    constexpr long kShort = 20'000'000;
    timespec soon{};
    clock_gettime(clock, &soon);
    soon.tv_nsec += kShort;
    if (soon.tv_nsec >= 1'000'000'000) {
        soon.tv_sec += 1;
        soon.tv_nsec -= 1'000'000'000;
    }
    return ZU_REAL(sem_clockwait)(semaphore, clock, &soon);
}

}  // extern "C"

void* operator new(size_t size) {
    void* block = nullptr;
    if (t_place == kOutside) {
        block = malloc(size);
    } else if (!ShouldFailAllocation(size)) {
        const PlaceScope outside(kOutside);
        block = malloc(size);
        g_blocks.Add(block, size);
    }
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void operator delete(void* block) noexcept {
    free(block);
}
void operator delete(void* block, size_t) noexcept {
    free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    free(block);
}

#pragma GCC visibility pop

namespace zumod::testing {

void FailFrom(ModuleCall kind, uint64_t nth, uint64_t times) {
    StopFailing();
    g_fail_from = nth;
    g_fail_before = times > UINT64_MAX - nth ? UINT64_MAX : nth + times;
    g_failing_kind = static_cast<int>(kind);
}

void StopFailing() {
    g_failing_kind = -1;
    g_failed = false;
    g_last_block_before = nullptr;
    g_failed_size = 0;
    for (auto& calls : g_calls) {
        calls = 0;
    }
}

bool HasFailed() {
    return g_failed;
}
uint64_t CallsOf(ModuleCall kind) {
    return g_calls[static_cast<size_t>(kind)];
}
ModuleHeap HeapOfModule() {
    return g_blocks.Heap();
}
size_t LocksOfModule() {
    return g_locks.Heap().blocks;
}
int64_t MappingsOfModule() {
    return g_mappings;
}
size_t ListHeapOfModule(ModuleBlock* blocks, size_t capacity) {
    return g_blocks.List(blocks, capacity);
}
const void* LastBlockBeforeFailure() {
    return g_last_block_before;
}
size_t SizeOfFailure() {
    return g_failed_size;
}

InModule::InModule() : m_outer(t_place) {
    t_place = kHostInside;
}
InModule::~InModule() {
    t_place = m_outer;
}
InHost::InHost() : m_outer(t_place) {
    t_place = kOutside;
}
InHost::~InHost() {
    t_place = m_outer;
}

}  // namespace zumod::testing
