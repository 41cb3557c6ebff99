#include "src/base/object_monitor.h"

#include <cinttypes>
#include <cstdio>

namespace zumod {
namespace {

template <class Visit>
void ForEachClass(const ObjectRegistry& registry, Visit visit) {
    for (int64_t id = 0; id < registry.count.load() && id < kObjectRegistryCapacity; ++id) {
        const ObjectRegistry::Entry& entry = registry.entries[id];
        if (entry.monitor == nullptr) {
            continue;
        }
        // Required by the contract: the new count is read first, and both before the name is looked at.
        const int64_t created = entry.monitor->GetNewCount();
        const int64_t destroyed = entry.monitor->GetDeleteCount();
        if (entry.name != nullptr) {
            visit(id, entry.name, created, destroyed);
        }
    }
}

}  // namespace

constinit ObjectRegistry g_ObjectRegistry{};

void RegisterObjectMonitor(ObjectRegistry& registry, ICObjectMonitor* monitor, const char* name) {
    const int64_t id = registry.count.fetch_add(1);
    if (id < kObjectRegistryCapacity) {
        registry.entries[id] = {monitor, name};
    }
}

void DumpObjectTable(std::string& out, const ObjectRegistry& registry) {
    out = " id     alive|     new|  delete| name\r\n";
    ForEachClass(registry, [&out](int64_t id, const char* name, int64_t created, int64_t destroyed) {
        char numbers[128];
        std::snprintf(numbers, sizeof numbers, "%3" PRId64 "%s%8" PRId64 "|%8" PRId64 "|%8" PRId64 "| ", id,
                      created > destroyed ? " !" : "  ", created - destroyed, created, destroyed);
        out.append(numbers).append(name).append("\r\n");
    });
}

void DumpObjectCounts(std::string& out, const ObjectRegistry& registry) {
    out.clear();
    ForEachClass(registry, [&out](int64_t, const char* name, int64_t created, int64_t destroyed) {
        out.append(name).append("_count: ").append(std::to_string(created)).append("\r\n");
        out.append(name).append("_alive: ").append(std::to_string(created - destroyed)).append("\r\n");
    });
}

}  // namespace zumod
