// The registry of monitored classes as text, for a developer who looks for a leak.
#pragma once

#include <string>

#include "src/base/object_registry.h"

namespace zumod {

// A table: a header, then a line for each class, marked " !" while objects of it are alive. Replaces what
// `out` held. Must not be called once the module is being unloaded.
void DumpObjectTable(std::string& out, const ObjectRegistry& registry = g_ObjectRegistry);

// Two lines a class: how many objects were made, and how many are alive. Otherwise as above.
void DumpObjectCounts(std::string& out, const ObjectRegistry& registry = g_ObjectRegistry);

}  // namespace zumod
