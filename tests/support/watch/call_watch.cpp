#include "tests/support/watch/call_watch.h"

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <utility>

// The linker sends each call of f to __wrap_f, and __real_f to f.
#define ZU_CALL(result, name, parameters, value, call, failure, ...) \
    extern "C" result __real_##name parameters;                      \
    extern "C" result __wrap_##name parameters;
#include "tests/support/watch/watched_calls.def"
#undef ZU_CALL

namespace {

using zumod::testing::CallWatch;

const char* const kNames[] = {
#define ZU_CALL(result, name, parameters, value, call, failure, ...) #name,
#include "tests/support/watch/watched_calls.def"
#undef ZU_CALL
};

struct Event {
    CallWatch::Call call;
    uintptr_t value;
    long first = 0;   // sem_init: shared; a timed wait: seconds
    long second = 0;  // sem_init: the initial count; a timed wait: nanoseconds
    clockid_t clock = CLOCK_REALTIME;

    bool Is(CallWatch::Call wanted_call, uintptr_t wanted_value) const {
        return call == wanted_call && (wanted_value == CallWatch::kAny || value == wanted_value);
    }
};

struct Failure {
    CallWatch::Call call;
    uintptr_t value;
    int error;
    int times;
};

struct Hook {
    CallWatch::Call call;
    uintptr_t value;
    std::function<void()> run;
};

struct State {
    std::vector<Event> events;
    size_t taken = 0;  // events before this one were returned by TakeSemaphoreCalls
    std::vector<Failure> failures;
    std::vector<Hook> hooks;
    std::map<const void*, uintptr_t> roles;
    std::function<void()> thread_start;
    void* (*thread_entry)(void*) = nullptr;
    std::map<clockid_t, timespec> clocks;
    std::optional<uint32_t> random;
    void* first_malloc = nullptr;
};

std::atomic<bool> g_watching{false};
std::mutex g_mutex;
// The watch's own calls are not watched.
thread_local bool t_in_watch = false;

// Never destroyed: calls come until the process ends.
State& TheState() {
    static State& state = *new State;
    return state;
}

class Access {
public:
    Access() : m_guard(g_mutex) {}
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;
    State* operator->() const { return &TheState(); }

private:
    struct InWatch {
        ~InWatch() { t_in_watch = outer; }
        const bool outer = std::exchange(t_in_watch, true);
    };

    // Outlives the guard: locking and unlocking g_mutex are calls of the watch's own.
    const InWatch m_in_watch;
    const std::lock_guard<std::mutex> m_guard;
};

bool IsWatched() {
    return g_watching && !t_in_watch;
}

// Records the call and runs its hook; returns the error that it fails with, or 0.
int Enter(const Event& event) {
    std::function<void()> hook;
    int error = 0;
    {
        const Access state;
        state->events.push_back(event);
        const auto matches = [&](const auto& each) { return event.Is(each.call, each.value); };
        const auto found = std::find_if(state->hooks.begin(), state->hooks.end(), matches);
        if (found != state->hooks.end()) {
            hook = std::move(found->run);
            state->hooks.erase(found);
        }
        const auto failure = std::find_if(state->failures.begin(), state->failures.end(), matches);
        if (failure != state->failures.end()) {
            error = failure->error;
            if (--failure->times == 0) {
                state->failures.erase(failure);
            }
        }
    }
    if (hook) {
        hook();
    }
    return error;
}

template <class Pointer>
uintptr_t Number(Pointer pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

uintptr_t RoleOf(const sem_t* semaphore) {
    const Access state;
    return state->roles[semaphore];
}

uintptr_t NewRole(const sem_t* semaphore, unsigned initial) {
    const Access state;
    return state->roles[semaphore] = initial == 0 ? CallWatch::kItems : CallWatch::kFreeSlots;
}

void* FirstBlock(void* block) {
    if (!IsWatched()) {
        return block;
    }
    const Access state;
    if (state->first_malloc == nullptr) {
        state->first_malloc = block;
    }
    return block;
}

[[noreturn]] void* ThrowBadAlloc() {
    throw std::bad_alloc();
}

void* RunHookThenThread(void* argument) {
    std::function<void()> hook;
    void* (*entry)(void*) = nullptr;
    {
        const Access state;
        hook = state->thread_start;
        entry = state->thread_entry;
    }
    hook();
    return entry(argument);
}

// What a new thread begins with.
auto FirstRunHook(void* (*entry)(void*)) -> void* (*)(void*) {
    if (!IsWatched()) {
        return entry;
    }
    const Access state;
    state->thread_entry = entry;
    return state->thread_start ? &RunHookThenThread : entry;
}

// The time that a test has set, if it has.
std::optional<timespec> TimeSet(clockid_t clock) {
    if (!IsWatched()) {
        return std::nullopt;
    }
    const Access state;
    const auto found = state->clocks.find(clock);
    return found != state->clocks.end() ? std::optional(found->second) : std::nullopt;
}

// In nanoseconds; 0 if the deadline has passed.
uintptr_t TimeUntil(clockid_t clock, const timespec* deadline) {
    timespec now{};
    __real_clock_gettime(clock, &now);
    const long left = (deadline->tv_sec - now.tv_sec) * 1'000'000'000 + deadline->tv_nsec - now.tv_nsec;
    return static_cast<uintptr_t>(std::max(left, 0L));
}

int TimeOfDay(timeval* now, void* zone) {
    if (const auto set = TimeSet(CLOCK_REALTIME)) {
        *now = {set->tv_sec, set->tv_nsec / 1000};
        return 0;
    }
    return __real_gettimeofday(now, zone);
}

int ClockTime(clockid_t clock, timespec* now) {
    if (const auto set = TimeSet(clock)) {
        *now = *set;
        return 0;
    }
    return __real_clock_gettime(clock, now);
}

std::optional<uint32_t> FixedRandom() {
    if (!IsWatched()) {
        return std::nullopt;
    }
    const Access state;
    return state->random;
}

ssize_t ReadOrDraw(int descriptor, void* bytes, size_t size) {
    if (const std::optional<uint32_t> number = FixedRandom()) {
        size = std::min(size, sizeof *number);
        std::memcpy(bytes, &*number, size);
        return static_cast<ssize_t>(size);
    }
    return __real_read(descriptor, bytes, size);
}

unsigned Draw(void* device) {
    const std::optional<uint32_t> number = FixedRandom();
    return number ? *number : __real__ZNSt13random_device9_M_getvalEv(device);
}

std::string TextOf(const Event& event) {
    const std::string begin = std::string(kNames[event.call]) + '(';
    if (event.call == CallWatch::usleep) {
        return begin + std::to_string(event.value) + ')';
    }
    const std::string name = event.value == CallWatch::kItems ? "items" : "free";
    if (event.call == CallWatch::sem_init) {
        return begin + name + ", " + std::to_string(event.first) + ", " + std::to_string(event.second) + ')';
    }
    char deadline[64] = "";
    if (event.call == CallWatch::sem_timedwait || event.call == CallWatch::sem_clockwait) {
        std::snprintf(deadline, sizeof deadline, ", %s %ld.%09ld",
                      event.clock == CLOCK_MONOTONIC ? "monotonic" : "wall", event.first, event.second);
    }
    return begin + name + deadline + ')';
}

}  // namespace

#define ZU_CALL(result, name, parameters, value, call, failure, ...)                                        \
    result __wrap_##name parameters {                                                                       \
        if (IsWatched()) {                                                                                  \
            if (const int error = Enter({CallWatch::name, value __VA_OPT__(, ) __VA_ARGS__}); error != 0) { \
                return failure;                                                                             \
            }                                                                                               \
        }                                                                                                   \
        return call;                                                                                        \
    }
#include "tests/support/watch/watched_calls.def"
#undef ZU_CALL

namespace zumod::testing {

CallWatch::CallWatch() {
    const Access state;
    TheState() = {};
    g_watching = true;
}

CallWatch::~CallWatch() {
    const Access state;
    TheState() = {};
    g_watching = false;
}

void CallWatch::Fail(Call call, uintptr_t value, int times) {
    const Access state;
    state->failures.push_back({call, value, call == pthread_create ? EAGAIN : ENOMEM, times});
}

void CallWatch::FailWith(Call call, uintptr_t value, const std::vector<int>& errors) {
    const Access state;
    for (const int error : errors) {
        state->failures.push_back({call, value, error, 1});
    }
}

void CallWatch::OnNext(Call call, uintptr_t value, std::function<void()> hook) {
    const Access state;
    state->hooks.push_back({call, value, std::move(hook)});
}

void CallWatch::OnThreadStart(std::function<void()> hook) {
    const Access state;
    state->thread_start = std::move(hook);
}

void CallWatch::SetClock(clockid_t clock, long seconds, long nanoseconds) {
    const Access state;
    state->clocks[clock] = timespec{seconds, nanoseconds};
}

void CallWatch::SetRandom(uint32_t number) {
    const Access state;
    state->random = number;
}

int CallWatch::Count(Call call, uintptr_t value) const {
    const Access state;
    return static_cast<int>(std::count_if(state->events.begin(), state->events.end(),
                                          [&](const Event& event) { return event.Is(call, value); }));
}

uintptr_t CallWatch::LastValue(Call call) const {
    const Access state;
    const auto found = std::find_if(state->events.rbegin(), state->events.rend(),
                                    [&](const Event& event) { return event.call == call; });
    return found != state->events.rend() ? found->value : 0;
}

void* CallWatch::FirstMalloc() const {
    const Access state;
    return state->first_malloc;
}

std::vector<std::string> CallWatch::TakeSemaphoreCalls() {
    std::vector<std::string> calls;
    const Access state;
    for (; state->taken < state->events.size(); ++state->taken) {
        const Event& event = state->events[state->taken];
        if (event.call >= sem_init && event.call <= usleep) {
            calls.push_back(TextOf(event));
        }
    }
    return calls;
}

}  // namespace zumod::testing
