// Which instructions of an operation change a number: found by single-stepping the calling thread through it.
//
// A test of an atomic counter with several threads passes by luck if no two increments meet. This one does
// not need a meeting: the processor's trap flag raises SIGTRAP after each instruction, and the handler
// compares the number with its value before that instruction. A counter is atomic if each instruction that
// changed it has the LOCK prefix.
//
// Thread rule: one thread of the program at a time.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <utility>

#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#include <ucontext.h>
#define ZU_CAN_SINGLE_STEP 1
#else
// Other processors have no trap flag; the thread sanitizer delays the handler, and finds an unlocked counter
// itself.
#define ZU_CAN_SINGLE_STEP 0
#endif

namespace zumod::testing {

struct NumberChanges {
    int locked = 0;
    int unlocked = 0;

    bool operator==(const NumberChanges&) const = default;
};

#if ZU_CAN_SINGLE_STEP
namespace single_step {

struct Steps {
    std::function<int64_t()> number;
    int64_t value = 0;
    uint8_t first_byte = 0;  // of the instruction that runs next
    NumberChanges changes;
};

inline Steps g_steps;

inline void OnTrap(int, siginfo_t*, void* context) {
    constexpr uint8_t kLockPrefix = 0xF0;
    if (const int64_t value = g_steps.number(); value != g_steps.value) {
        g_steps.value = value;
        ++(g_steps.first_byte == kLockPrefix ? g_steps.changes.locked : g_steps.changes.unlocked);
    }
    const auto next = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP];
    g_steps.first_byte = *reinterpret_cast<const uint8_t*>(next);
}

// Skips the red zone, because the instructions push onto the stack.
inline void SetTrapFlag() {
    asm volatile("lea -128(%%rsp), %%rsp; pushfq; orl $0x100, (%%rsp); popfq; lea 128(%%rsp), %%rsp" ::
                     : "memory", "cc");
}
inline void ClearTrapFlag() {
    asm volatile("lea -128(%%rsp), %%rsp; pushfq; andl $~0x100, (%%rsp); popfq; lea 128(%%rsp), %%rsp" ::
                     : "memory", "cc");
}

}  // namespace single_step

// Runs the operation and counts the instructions that changed the number, which a function reads.
template <class Operation>
NumberChanges ChangesOf(std::function<int64_t()> number, Operation operation) {
    using single_step::g_steps;
    g_steps = {std::move(number), 0, 0, {}};
    g_steps.value = g_steps.number();
    struct sigaction action {};
    struct sigaction before {};
    action.sa_sigaction = &single_step::OnTrap;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, &before);
    single_step::SetTrapFlag();
    operation();
    single_step::ClearTrapFlag();
    sigaction(SIGTRAP, &before, nullptr);
    return g_steps.changes;
}
#endif

}  // namespace zumod::testing
