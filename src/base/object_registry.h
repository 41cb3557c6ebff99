// The list of all monitored classes.
//
// Thread rule: entries are written while the module is loaded and only read afterwards; the count is atomic.
#pragma once

#include <atomic>
#include <cstdint>

namespace zumod {

class ICObjectMonitor;

inline constexpr int64_t kObjectRegistryCapacity = 1024;

// Static storage without a constructor: usable before any other initialisation has run.
struct ObjectRegistry {
    struct Entry {
        ICObjectMonitor* monitor;
        const char* name;
    };

    // How many registrations were asked for; may exceed the capacity.
    std::atomic<int64_t> count;
    Entry entries[kObjectRegistryCapacity];
};

extern ObjectRegistry g_ObjectRegistry;

// Gives the monitor the next id and stores it under that id. Past the last slot nothing is stored, but the
// count still grows. Nothing ever removes an entry.
void RegisterObjectMonitor(ObjectRegistry& registry, ICObjectMonitor* monitor, const char* name);

}  // namespace zumod
