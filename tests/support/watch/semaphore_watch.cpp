#include "tests/support/watch/semaphore_watch.h"

#include <semaphore.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

extern "C" {
// The linker sends each call of f to __wrap_f, and __real_f to f.
int __real_sem_init(sem_t* semaphore, int shared, unsigned int value);
int __real_sem_destroy(sem_t* semaphore);
int __real_sem_wait(sem_t* semaphore);
int __real_sem_trywait(sem_t* semaphore);
int __real_sem_timedwait(sem_t* semaphore, const timespec* deadline);
int __real_sem_post(sem_t* semaphore);
int __real_usleep(useconds_t microseconds);
int __real_gettimeofday(timeval* now, void* zone);

int __wrap_sem_init(sem_t* semaphore, int shared, unsigned int value);
int __wrap_sem_destroy(sem_t* semaphore);
int __wrap_sem_wait(sem_t* semaphore);
int __wrap_sem_trywait(sem_t* semaphore);
int __wrap_sem_timedwait(sem_t* semaphore, const timespec* deadline);
int __wrap_sem_post(sem_t* semaphore);
int __wrap_usleep(useconds_t microseconds);
int __wrap_gettimeofday(timeval* now, void* zone);
}

namespace {

struct State {
    bool watching = false;
    std::vector<std::string> calls;
    std::map<const void*, std::string> names;
    std::map<std::string, std::vector<int>> errors;
    std::map<std::string, std::function<void()>> hooks;
    std::optional<timeval> clock;
};

std::mutex mutex;

State& TheState() {
    static State state;
    return state;
}

std::string NameOf(const sem_t* semaphore) {
    const std::lock_guard guard(mutex);
    return TheState().names[semaphore];
}

// Records the call and runs its hook; the error it is to fail with, or 0.
int Enter(const std::string& call, const std::string& arguments = "") {
    std::function<void()> hook;
    int error = 0;
    {
        const std::lock_guard guard(mutex);
        State& state = TheState();
        if (!state.watching) {
            return 0;
        }
        state.calls.push_back(call + arguments + ")");
        hook = std::exchange(state.hooks[call], nullptr);
        std::vector<int>& errors = state.errors[call];
        if (!errors.empty()) {
            error = errors.front();
            errors.erase(errors.begin());
        }
    }
    if (hook) {
        hook();
    }
    return error;
}

template <class Operation>
int EnterAndCall(const std::string& call, const std::string& arguments, Operation operation) {
    if (const int error = Enter(call, arguments); error != 0) {
        errno = error;
        return -1;
    }
    return operation();
}

}  // namespace

int __wrap_sem_init(sem_t* semaphore, int shared, unsigned int value) {
    {
        const std::lock_guard guard(mutex);
        TheState().names[semaphore] = value == 0 ? "items" : "free";
    }
    return EnterAndCall("sem_init(" + NameOf(semaphore),
                        ", " + std::to_string(shared) + ", " + std::to_string(value),
                        [&] { return __real_sem_init(semaphore, shared, value); });
}

int __wrap_sem_destroy(sem_t* semaphore) {
    return EnterAndCall("sem_destroy(" + NameOf(semaphore), "",
                        [&] { return __real_sem_destroy(semaphore); });
}

int __wrap_sem_wait(sem_t* semaphore) {
    return EnterAndCall("sem_wait(" + NameOf(semaphore), "", [&] { return __real_sem_wait(semaphore); });
}

int __wrap_sem_trywait(sem_t* semaphore) {
    return EnterAndCall("sem_trywait(" + NameOf(semaphore), "",
                        [&] { return __real_sem_trywait(semaphore); });
}

int __wrap_sem_timedwait(sem_t* semaphore, const timespec* deadline) {
    char text[64];
    std::snprintf(text, sizeof text, ", %ld.%09ld", deadline->tv_sec, deadline->tv_nsec);
    return EnterAndCall("sem_timedwait(" + NameOf(semaphore), text,
                        [&] { return __real_sem_timedwait(semaphore, deadline); });
}

int __wrap_sem_post(sem_t* semaphore) {
    return EnterAndCall("sem_post(" + NameOf(semaphore), "", [&] { return __real_sem_post(semaphore); });
}

int __wrap_usleep(useconds_t microseconds) {
    Enter("usleep(" + std::to_string(microseconds));
    return __real_usleep(microseconds);
}

int __wrap_gettimeofday(timeval* now, void* zone) {
    const std::lock_guard guard(mutex);
    if (TheState().clock) {
        *now = *TheState().clock;
        return 0;
    }
    return __real_gettimeofday(now, zone);
}

namespace zumod::testing {

SemaphoreWatch::SemaphoreWatch() {
    const std::lock_guard guard(mutex);
    TheState() = {};
    TheState().watching = true;
}

SemaphoreWatch::~SemaphoreWatch() {
    const std::lock_guard guard(mutex);
    TheState() = {};
}

std::vector<std::string> SemaphoreWatch::TakeCalls() {
    const std::lock_guard guard(mutex);
    return std::exchange(TheState().calls, {});
}

bool SemaphoreWatch::Has(const std::string& call) const {
    const std::lock_guard guard(mutex);
    const std::vector<std::string>& calls = TheState().calls;
    return std::find(calls.begin(), calls.end(), call) != calls.end();
}

void SemaphoreWatch::Fail(const std::string& call, std::vector<int> errors) {
    const std::lock_guard guard(mutex);
    TheState().errors[call] = std::move(errors);
}

void SemaphoreWatch::OnNext(const std::string& call, std::function<void()> hook) {
    const std::lock_guard guard(mutex);
    TheState().hooks[call] = std::move(hook);
}

void SemaphoreWatch::SetClock(long seconds, long microseconds) {
    const std::lock_guard guard(mutex);
    TheState().clock = timeval{seconds, microseconds};
}

}  // namespace zumod::testing
