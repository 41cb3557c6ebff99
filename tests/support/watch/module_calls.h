// What a loaded module takes from the C library, recorded by the program that loads it: heap blocks, locks,
// threads, mappings. The nth of these calls, or all from the nth on, can be made to fail. A program that
// links zu_module_calls defines these functions itself, so that the dynamic linker finds them before the C
// library's. The module's calls are told from all others by the thread that makes them: see InModule.
//
// Thread rule: FailFrom, StopFailing and the figures belong to the test's thread, while no session runs. The
// recorded calls may come from any thread. No function here allocates.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zumod::testing {

enum class ModuleCall {
    kHostAllocation,    // on a thread of the host that is inside the module
    kThreadAllocation,  // on a thread that the module created
    kThreadCreation,
    kSemaphore,
    kLibrary,
    kMapping,
    kLock,
};
inline constexpr size_t kModuleCallKinds = 7;

// Makes `times` calls of this kind fail, beginning with the nth from now; the next call is the first.
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
// Fills in at most `capacity` of its blocks. Returns how many it has.
size_t ListHeapOfModule(ModuleBlock* blocks, size_t capacity);
// The number of its mutexes.
size_t LocksOfModule();
// The number of its mappings.
int64_t MappingsOfModule();
// The last block that malloc returned to the thread of the failed call before it failed; null if no call
// failed.
const void* LastBlockBeforeFailure();
// The size that the first failed call asked for.
size_t SizeOfFailure();

// While it lives, calls on this thread are the module's.
class InModule {
public:
    InModule();
    ~InModule();
    InModule(const InModule&) = delete;
    InModule& operator=(const InModule&) = delete;

private:
    const int m_outer;
};

// While it lives, the module has called the host on this thread: calls are the host's.
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
