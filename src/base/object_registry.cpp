#include "src/base/object_registry.h"

namespace zumod {

constinit ObjectRegistry g_ObjectRegistry{};

void RegisterObjectMonitor(ObjectRegistry& registry, ICObjectMonitor* monitor, const char* name) {
    const int64_t id = registry.count.fetch_add(1);
    if (id < kObjectRegistryCapacity) {
        registry.entries[id] = {monitor, name};
    }
}

}  // namespace zumod
