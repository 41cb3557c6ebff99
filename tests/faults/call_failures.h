// Which call of another process fails: in memory that a test shares with the library failing_calls.so, which
// that process preloads. The file's name is in the variable ZU_CALL_FAILURES.
//
// Thread rule: the test writes before it arms and reads at any time; the threads of the process only use
// atomics.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace zumod::testing {

enum class FailingCall : uint32_t { kNone, kAllocation, kThread, kEventDescriptor };

struct CallFailures {
    static constexpr const char* kVariable = "ZU_CALL_FAILURES";

    std::atomic<FailingCall> kind;
    std::atomic<int64_t> remaining;  // calls of this kind up to and including the one that fails
    std::atomic<uint64_t> failed;

    // From this file, which is created if it does not exist. Null if it cannot be mapped.
    static CallFailures* Map(const char* path) {
        const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (file < 0 || ftruncate(file, sizeof(CallFailures)) != 0) {
            return nullptr;
        }
        void* memory = mmap(nullptr, sizeof(CallFailures), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        return memory == MAP_FAILED ? nullptr : static_cast<CallFailures*>(memory);
    }

    // The call after `others` more of its kind fails.
    void Arm(FailingCall which, int64_t others) {
        kind = FailingCall::kNone;
        failed = 0;
        remaining = others + 1;
        kind = which;
    }
    void Disarm() { kind = FailingCall::kNone; }
};

}  // namespace zumod::testing
