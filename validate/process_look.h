// What the running process has: threads, descriptors, mappings, memory in use.
//
// Thread rule: any thread; each call looks again.
#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace zumod::validate {

size_t ThreadCount();

// "NUMBER -> TARGET" for each open descriptor.
std::set<std::string> OpenDescriptors();

// Whether code may be executed at this address.
bool IsExecutable(const void* address);

// Bytes that the program holds from malloc.
size_t HeapInUse();

}  // namespace zumod::validate
