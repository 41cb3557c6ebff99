#include "src/base/object_reports.h"

#include <cinttypes>
#include <cstdio>

#include "src/base/object_monitor.h"

namespace zumod {
namespace {

template <class Visit>
void ForEachClass(const ObjectRegistry& registry, Visit visit) {
    for (int64_t id = 0; id < registry.count.load() && id < kObjectRegistryCapacity; ++id) {
        const ObjectRegistry::Entry& entry = registry.entries[id];
        if (entry.monitor == nullptr) {
            continue;
        }
        // The new count first: a line may mix two moments.
        const int64_t created = entry.monitor->GetNewCount();
        const int64_t destroyed = entry.monitor->GetDeleteCount();
        if (entry.name != nullptr) {
            visit(id, entry.name, created, destroyed);
        }
    }
}

}  // namespace

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
