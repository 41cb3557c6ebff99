// What the running process has: threads, descriptors, mappings, memory in use.
//
// Thread rule: any thread; each call looks again.
#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace zumod::validate {

size_t ThreadCount();

// Waits up to ten seconds until there are no more threads than `most`. Returns how many there are.
size_t ThreadCountWhenAtMost(size_t most);

// "NUMBER -> TARGET" for each open descriptor.
std::set<std::string> OpenDescriptors();

// Whether a part of this file is mapped.
bool IsMapped(const std::string& path);

// Whether code may be executed at this address.
bool IsExecutable(const void* address);

// Bytes that the program holds from malloc.
size_t HeapInUse();

}  // namespace zumod::validate
