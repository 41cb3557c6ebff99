// The base of a class that has one object in the module, constructed on first use.
//
// Thread rule: GetInstance is [any thread]; the instance has its own rule.
#pragma once

#include <atomic>

#include "src/base/lock.h"

namespace zumod {

// Derive as `class X : public CSingleton_T<X>` and write `template class CSingleton_T<X>;` in X's source
// file. The static members are then defined there, and the lock is constructed when the module is loaded.
template <class T>
class CSingleton_T {
public:
    // Never null. The instance is destroyed by the exit handlers when the module is unloaded.
    static T* GetInstance() {
        T* instance = s_instance.load(std::memory_order_acquire);
        if (instance == nullptr) [[unlikely]] {
            return CreateInstance();
        }
        return instance;
    }

protected:
    CSingleton_T() = default;
    ~CSingleton_T() = default;

private:
    [[gnu::noinline, gnu::cold]] static T* CreateInstance() {
        const LockGuard guard(s_lock);
        static T object;
        s_instance.store(&object, std::memory_order_release);
        return &object;
    }

    static CMutexLock s_lock;
    // Written under s_lock, read without it: the release store publishes the finished object to the acquire
    // load.
    static std::atomic<T*> s_instance;
};

template <class T>
CMutexLock CSingleton_T<T>::s_lock;
template <class T>
std::atomic<T*> CSingleton_T<T>::s_instance{nullptr};

}  // namespace zumod
