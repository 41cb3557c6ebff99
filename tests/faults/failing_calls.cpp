// A library that a program preloads, so that a test can let one of its calls fail: an allocation by C++ code
// off the main thread, the creation of a thread, or of a descriptor to wake a thread. The preload library of
// the virtual cameras stands for a driver: its own allocations do not fail.
//
// Thread rule: any thread.
#include <dlfcn.h>
#include <execinfo.h>
#include <pthread.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tests/faults/call_failures.h"

namespace {

using zumod::testing::CallFailures;
using zumod::testing::FailingCall;

CallFailures* g_failures = nullptr;
thread_local bool t_looks = false;  // a look at the stack may allocate

[[gnu::constructor]] void Begin() {
    std::array<void*, 1> stack{};
    backtrace(stack.data(), stack.size());  // loads what it needs
    if (const char* path = std::getenv(CallFailures::kVariable)) {
        g_failures = CallFailures::Map(path);
    }
}

bool IsCalledByACamera() {
    std::array<void*, 32> stack{};
    t_looks = true;
    const int count = backtrace(stack.data(), stack.size());
    bool found = false;
    for (int i = 0; i < count; ++i) {
        Dl_info info{};
        found |= dladdr(stack[static_cast<size_t>(i)], &info) != 0 && info.dli_fname != nullptr &&
                 std::strstr(info.dli_fname, "libzu-vcam-preload") != nullptr;
    }
    t_looks = false;
    return found;
}

bool MustFail(FailingCall kind) {
    if (g_failures == nullptr || t_looks || g_failures->kind != kind || --g_failures->remaining > 0) {
        return false;
    }
    if (kind == FailingCall::kAllocation && IsCalledByACamera()) {
        g_failures->remaining = 1;  // the next one
        return false;
    }
    FailingCall expected = kind;
    if (!g_failures->kind.compare_exchange_strong(expected, FailingCall::kNone)) {
        return false;
    }
    ++g_failures->failed;
    return true;
}

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define ZU_EXPORT __attribute__((visibility("default")))

ZU_EXPORT void* operator new(size_t size) {
    void* const block = gettid() != getpid() && MustFail(FailingCall::kAllocation)
                            ? nullptr
                            : std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
ZU_EXPORT void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return gettid() != getpid() && MustFail(FailingCall::kAllocation) ? nullptr
                                                                      : std::malloc(size == 0 ? 1 : size);
}
ZU_EXPORT void operator delete(void* block) noexcept {
    std::free(block);
}
ZU_EXPORT void operator delete(void* block, size_t) noexcept {
    std::free(block);
}

extern "C" {

ZU_EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                             void* argument) {
    static const auto next = Next<decltype(pthread_create)>("pthread_create");
    return MustFail(FailingCall::kThread) ? EAGAIN : next(thread, attributes, start, argument);
}

ZU_EXPORT int eventfd(unsigned count, int flags) {
    static const auto next = Next<decltype(eventfd)>("eventfd");
    if (MustFail(FailingCall::kEventDescriptor)) {
        errno = EMFILE;
        return -1;
    }
    return next(count, flags);
}
}
