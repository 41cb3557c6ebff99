// Live-instance statistics of a class: how many objects were made and how many destroyed.
//
// Thread rule: everything here is [any thread].
#pragma once

#include <atomic>
#include <cstdint>

#include "src/base/object_registry.h"

namespace zumod {

// Binary table: slot 0 GetNewCount, 1 GetDeleteCount, 2 and 3 the destructor pair.
class ICObjectMonitor {
public:
    // Objects constructed so far.
    virtual int64_t GetNewCount() = 0;
    // Objects destroyed so far.
    virtual int64_t GetDeleteCount() = 0;
    virtual ~ICObjectMonitor() = default;

    ICObjectMonitor(const ICObjectMonitor&) = delete;
    ICObjectMonitor& operator=(const ICObjectMonitor&) = delete;

protected:
    ICObjectMonitor() = default;
};

// A class takes part by having one static object of this type, and by counting in its constructors and its
// destructor.
template <class T>
class ADD_TO_MONITORING_LIST final : public ICObjectMonitor {
public:
    // `name` must live as long as the module.
    explicit ADD_TO_MONITORING_LIST(const char* name) { RegisterObjectMonitor(g_ObjectRegistry, this, name); }

    int64_t GetNewCount() override { return s_new.load(); }
    int64_t GetDeleteCount() override { return s_delete.load(); }

    static void CountNew() { s_new.fetch_add(1); }
    static void CountDelete() { s_delete.fetch_add(1); }

private:
    // Written by any thread that makes or destroys a T, read by any thread that reports; they only grow.
    static inline std::atomic<int64_t> s_new{0};
    static inline std::atomic<int64_t> s_delete{0};
};

}  // namespace zumod
