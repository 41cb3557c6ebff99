// Live-object statistics, for a developer who looks for a leak: how many objects of a class were constructed
// and how many destroyed, a registry of the classes that are counted, and the registry as text.
//
// Thread rule: counters and reports are [any thread]. A class is registered while the module is loaded;
// afterwards the registry is only read, until the module is unloaded. A report takes no lock, so a line may
// combine counts of two moments.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

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

inline constexpr int64_t kObjectRegistryCapacity = 1024;

// Constant-initialised static storage: usable before any constructor of the module has run.
struct ObjectRegistry {
    struct Entry {
        ICObjectMonitor* monitor;
        const char* name;
    };

    // How many registrations were requested; may exceed the capacity.
    std::atomic<int64_t> count;
    Entry entries[kObjectRegistryCapacity];
};

extern ObjectRegistry g_ObjectRegistry;

// Stores the monitor under the next id. When the registry is full only the count grows. An entry is never
// removed.
void RegisterObjectMonitor(ObjectRegistry& registry, ICObjectMonitor* monitor, const char* name);

// The monitor of class T. To be counted, a class has one static object of this type and calls CountNew in its
// constructors and CountDelete in its destructor.
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
    // Written by any thread that constructs or destroys a T, read by any thread that reports; they only grow.
    static inline std::atomic<int64_t> s_new{0};
    static inline std::atomic<int64_t> s_delete{0};
};

// Replaces `out` with a table: a header, then one line per class, marked " !" while objects of it are alive.
// Must not be called once the module is being unloaded.
void DumpObjectTable(std::string& out, const ObjectRegistry& registry = g_ObjectRegistry);

// Replaces `out` with two lines per class: how many objects were constructed, and how many are alive.
// Otherwise like DumpObjectTable.
void DumpObjectCounts(std::string& out, const ObjectRegistry& registry = g_ObjectRegistry);

}  // namespace zumod
