// What a loaded module asks of the C library, seen from the program that loads it: heap blocks kept book
// over, and any one call, or all from one on, made to fail. A program that links zu_module_calls stands
// before the C library for whatever is loaded later; the calls of the module are told from all others by the
// thread that makes them.
//
// Thread rule: FailFrom, StopFailing and the figures are the test's, while no session runs or from its
// thread; the calls that are watched come from [any thread]. No function here allocates.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zumod::testing {

enum class ModuleCall {
    kHostAllocation,    // on a thread of the host's that is inside the module
    kThreadAllocation,  // on a thread that the module made
    kThreadCreation,
    kSemaphore,
    kLibrary,
    kMapping,
};
inline constexpr size_t kModuleCallKinds = 6;

// From the nth call of this kind on, counted from now and from 1, so many calls fail.
void FailFrom(ModuleCall kind, uint64_t nth, uint64_t times);
void StopFailing();
// Whether a call has failed since FailFrom.
bool HasFailed();
// Calls of this kind since FailFrom or StopFailing.
uint64_t CallsOf(ModuleCall kind);

// A block that the module has on the heap.
struct ModuleBlock {
    const void* address;
    size_t size;
};
struct ModuleHeap {
    size_t blocks = 0;
    size_t bytes = 0;

    bool operator==(const ModuleHeap&) const = default;
};
ModuleHeap HeapOfModule();
// The first so many of its blocks; returns how many it has.
size_t ListHeapOfModule(ModuleBlock* blocks, size_t room);
// What it has mapped, in mappings.
int64_t MappingsOfModule();
// The block that malloc gave to the thread of the failed call just before it; null when no call failed.
const void* LastBlockBeforeFailure();
// What was asked for in the first call that failed.
size_t SizeOfFailure();

// While it lives, this thread of the host's is inside the module.
class InModule {
public:
    InModule();
    ~InModule();
    InModule(const InModule&) = delete;
    InModule& operator=(const InModule&) = delete;

private:
    const int m_outer;
};

// While it lives, the module has called the host on this thread: what is done is the host's.
class InHost {
public:
    InHost();
    ~InHost();
    InHost(const InHost&) = delete;
    InHost& operator=(const InHost&) = delete;

private:
    const int m_outer;
};

}  // namespace zumod::testing
