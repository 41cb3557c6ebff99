#include "tests/support/watch/scheduler.h"

#include <cxxabi.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

#define ZU_CALL(result, name, parameters, call, arguments) \
    extern "C" result __real_##name parameters;            \
    extern "C" result __wrap_##name parameters;
#include "tests/support/watch/scheduled_calls.def"
#undef ZU_CALL

namespace zumod::testing {
namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int64_t kNever = INT64_MAX;
constexpr int64_t kStartTime = 1000 * kNanosecondsPerSecond;
// More than a schedule needs, see Scheduler: beyond them it counts as a livelock.
constexpr uint64_t kMostSteps = 500'000;
constexpr int64_t kLongestTime = 600 * kNanosecondsPerSecond;
constexpr int64_t kSlowWakeTime = 1'000'000;
constexpr size_t kStackSize = size_t{512} * 1024;
constexpr size_t kKeptSteps = 48;

int64_t TimeOf(const timespec* time) {
    return time->tv_sec * kNanosecondsPerSecond + time->tv_nsec;
}

struct Stack {
    void* bottom = nullptr;
    size_t size = 0;
};

// Stacks that no thread uses. They are mapped once: a fresh one costs page faults.
std::vector<Stack>& FreeStacks() {
    static auto& stacks = *new std::vector<Stack>;
    return stacks;
}

Stack TakeStack() {
    if (FreeStacks().empty()) {
        // The lowest page stays without access: an overflow ends the test.
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        void* const memory = mmap(nullptr, kStackSize + page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        void* const bottom = static_cast<char*>(memory) + page;
        if (memory == MAP_FAILED || mprotect(bottom, kStackSize, PROT_READ | PROT_WRITE) != 0) {
            std::abort();
        }
        return {bottom, kStackSize};
    }
    const Stack stack = FreeStacks().back();
    FreeStacks().pop_back();
    return stack;
}

struct Thread {
    int number = -1;  // the thread that calls Run; the schedule's threads count from 0
    ucontext_t context{};
    Stack stack;
    void* (*entry)(void*) = nullptr;
    void* argument = nullptr;
    void* result = nullptr;
    bool ended = false;

    // While it waits: for what call, on which object, until when.
    bool ready = true;
    const char* call = "";
    const void* object = nullptr;
    int64_t deadline = kNever;
    bool woken = false;

    // What the system keeps per thread, while another thread runs. The second holds __cxa_eh_globals: the
    // exceptions that are being handled, and their number.
    int error = 0;
    std::array<char, 2 * sizeof(void*)> exceptions{};
    [[maybe_unused]] void* fake_stack = nullptr;
};

struct Mutex {
    Thread* owner = nullptr;
    int depth = 0;
};

struct Semaphore {
    unsigned value;
    int inside = 0;  // threads in a call on it
};

struct Step {
    int64_t time;
    int thread;
    const char* call;
    const void* object;
};

class Session {
public:
    Session(uint64_t seed, const std::function<void()>& body, Scheduler::TimedLocks timed_locks)
        : m_random(seed), m_body(body), m_timed_locks(timed_locks) {
        // Some seeds change threads at every point, others rarely.
        m_switch_one_in = uint64_t{1} << Draw(5);
        m_wake_time = Draw(2) == 0 ? 0 : kSlowWakeTime;
    }

    std::string Go(uint64_t seed) {
        pthread_t first = 0;
        Create(
            &first, [](void* self) -> void* { return static_cast<Session*>(self)->m_body(), nullptr; }, this);
        SwitchTo(*m_live.front());
        if (m_failure.empty()) {
            for (const auto& thread : m_threads) {
                FreeStacks().push_back(thread->stack);
            }
            return "";
        }
        return "schedule " + std::to_string(seed) + ": " + m_failure + "\n" + Describe();
    }

    uint64_t Draw(uint64_t limit) {
        // The generator splitmix64.
        uint64_t number = m_random += 0x9E3779B97F4A7C15;
        number = (number ^ (number >> 30)) * 0xBF58476D1CE4E5B9;
        number = (number ^ (number >> 27)) * 0x94D049BB133111EB;
        return (number ^ (number >> 31)) % limit;
    }
    int64_t Now() const { return m_now; }
    uint64_t Steps() const { return m_steps; }
    size_t LiveThreads() const { return m_live.size(); }

    // Never returns: the failed schedule's threads do not run again.
    void Fail(std::string failure) {
        m_failure = std::move(failure);
        SwitchTo(m_caller);
    }

    // ---- Threads

    int Create(pthread_t* thread, void* (*entry)(void*), void* argument) {
        auto created = std::make_unique<Thread>();
        created->number = static_cast<int>(m_threads.size());
        created->stack = TakeStack();
        created->entry = entry;
        created->argument = argument;
        getcontext(&created->context);
        created->context.uc_stack.ss_sp = created->stack.bottom;
        created->context.uc_stack.ss_size = created->stack.size;
        makecontext(&created->context, &Session::ThreadMain, 0);
        m_live.push_back(created.get());
        m_threads.push_back(std::move(created));
        *thread = m_threads.size();
        if (m_running != &m_caller) {
            Point("pthread_create", m_live.back());
        }
        return 0;
    }

    int Join(pthread_t handle, void** result) {
        Thread& thread = *m_threads[handle - 1];
        Point("join", &thread);
        while (!thread.ended) {
            Block("join", &thread, kNever);
        }
        if (result != nullptr) {
            *result = thread.result;
        }
        return 0;
    }

    pid_t ThreadId() const { return 1'000'000 + m_running->number; }

    // ---- Mutexes and conditions

    int Lock(pthread_mutex_t& lock, int64_t deadline, const char* call) {
        if (m_timed_locks == Scheduler::TimedLocks::kWaitForever) {
            deadline = kNever;
        }
        const bool recursive = IsRecursive(lock);
        if (recursive) {
            Point(call, &lock);
        }
        Mutex& mutex = m_mutexes[&lock];
        while (mutex.owner != nullptr && (mutex.owner != m_running || !recursive)) {
            if (!Block(call, &lock, deadline)) {
                return ETIMEDOUT;
            }
        }
        mutex.owner = m_running;
        ++mutex.depth;
        return 0;
    }

    int Unlock(pthread_mutex_t& lock) {
        Mutex& mutex = m_mutexes[&lock];
        if (mutex.owner != m_running) {
            Fail("a mutex is unlocked by a thread that has not locked it");
        }
        if (--mutex.depth == 0) {
            mutex.owner = nullptr;
            for (Thread* thread : m_live) {
                if (!thread->ready && thread->object == &lock) {
                    thread->woken = true;
                    thread->ready = m_wake_time == 0;
                    thread->deadline = std::min(thread->deadline, m_now + m_wake_time);
                }
            }
        }
        if (IsRecursive(lock)) {
            Point("unlock", &lock);
        }
        return 0;
    }

    int DestroyMutex(pthread_mutex_t& lock) {
        if (m_mutexes[&lock].owner != nullptr) {
            Fail("a locked mutex is destroyed");
        }
        m_mutexes.erase(&lock);
        return __real_pthread_mutex_destroy(&lock);
    }

    int WaitForChange(const void* condition, pthread_mutex_t& mutex, int64_t deadline) {
        Unlock(mutex);
        const bool woken = Block("wait for a condition", condition, deadline);
        Lock(mutex, kNever, "lock");
        return woken ? 0 : ETIMEDOUT;
    }

    void WakeAll(const void* object) {
        for (Thread* thread : m_live) {
            if (!thread->ready && thread->object == object) {
                thread->ready = thread->woken = true;
            }
        }
    }

    // ---- Semaphores

    int InitSemaphore(const sem_t* semaphore, unsigned initial) {
        Point("sem_init", semaphore);
        if (!m_semaphores.try_emplace(semaphore, Semaphore{initial}).second) {
            Fail("a semaphore is initialised twice");
        }
        return 0;
    }

    int DestroySemaphore(const sem_t* semaphore) {
        Point("sem_destroy", semaphore);
        if (Find(semaphore).inside != 0) {
            Fail("a semaphore is destroyed while a thread is in a call on it");
        }
        m_semaphores.erase(semaphore);
        return 0;
    }

    int WaitSemaphore(const sem_t* semaphore, int64_t deadline) {
        Point("sem_wait", semaphore);
        Semaphore& found = Find(semaphore);
        ++found.inside;
        int error = Draw(32) == 0 ? EINTR : 0;
        while (error == 0 && found.value == 0) {
            error = Block("sem_wait", semaphore, deadline) ? 0 : ETIMEDOUT;
        }
        --found.inside;
        return error == 0 ? (--found.value, 0) : (errno = error, -1);
    }

    int TrySemaphore(const sem_t* semaphore) {
        Point("sem_trywait", semaphore);
        Semaphore& found = Find(semaphore);
        return found.value != 0 ? (--found.value, 0) : (errno = EAGAIN, -1);
    }

    int PostSemaphore(const sem_t* semaphore) {
        Point("sem_post", semaphore);
        Semaphore& found = Find(semaphore);
        ++found.value;
        WakeAll(semaphore);
        // A real sem_post may still touch the semaphore after the thread that it wakes goes on.
        ++found.inside;
        Point("return from sem_post", semaphore);
        --found.inside;
        return 0;
    }

    // ---- Time

    int TellTime(timespec& now) const {
        now.tv_sec = m_now / kNanosecondsPerSecond;
        now.tv_nsec = m_now % kNanosecondsPerSecond;
        return 0;
    }

    int SleepFor(int64_t time) {
        if (time == 0) {
            Point("sleep", nullptr);
        } else {
            Block("sleep", nullptr, m_now + time);
        }
        return 0;
    }

    int SleepInSelect(int count, const timeval& timeout) {
        if (count != 0) {
            Fail("a real select() in a schedule");
        }
        return SleepFor(timeout.tv_sec * kNanosecondsPerSecond + timeout.tv_usec * 1000L);
    }

private:
    static void ThreadMain();

    static bool IsRecursive(const pthread_mutex_t& mutex) {
        return (mutex.__data.__kind & 3) == PTHREAD_MUTEX_RECURSIVE_NP;
    }

    Semaphore& Find(const sem_t* semaphore) {
        const auto found = m_semaphores.find(semaphore);
        if (found == m_semaphores.end()) {
            Fail("a semaphore is used while it does not exist");
        }
        return found->second;
    }

    void Record(const char* call, const void* object) {
        m_last_steps[m_steps % kKeptSteps] = {m_now, m_running->number, call, object};
        if (++m_steps > kMostSteps || m_now - kStartTime > kLongestTime) {
            Fail("livelock: " + std::to_string(m_steps) + " steps");
        }
    }

    // A scheduling point of a thread that can go on.
    void Point(const char* call, const void* object) {
        Record(call, object);
        if (Draw(m_switch_one_in) == 0) {
            SwitchTo(DrawThread());
        }
    }

    // Waits until another thread wakes the object's waiters. Returns false at the deadline.
    bool Block(const char* call, const void* object, int64_t deadline) {
        Thread& self = *m_running;
        Record(call, object);
        self.ready = self.woken = false;
        self.call = call;
        self.object = object;
        self.deadline = deadline;
        int length = 0;
        for (const Thread* next = WaitsFor(self); next != nullptr; next = WaitsFor(*next)) {
            ++length;
            if (next == &self) {
                Fail("deadlock: " + std::to_string(length) + " threads wait for each other");
            }
        }
        SwitchTo(DrawThread());
        return self.woken;
    }

    // The thread without which this one cannot go on; null if there is no such single thread.
    const Thread* WaitsFor(const Thread& thread) const {
        if (thread.ready || thread.deadline != kNever) {
            return nullptr;
        }
        for (const Thread* other : m_live) {
            if (thread.object == other) {
                return other;
            }
        }
        const auto mutex = m_mutexes.find(thread.object);
        return mutex != m_mutexes.end() ? mutex->second.owner : nullptr;
    }

    // The thread that runs next. Lets time pass if all wait.
    Thread& DrawThread() {
        for (;;) {
            uint64_t count = 0;
            int64_t earliest = kNever;
            for (const Thread* thread : m_live) {
                count += thread->ready ? 1 : 0;
                earliest = thread->ready ? earliest : std::min(earliest, thread->deadline);
            }
            if (count != 0) {
                uint64_t place = Draw(count);
                for (Thread* thread : m_live) {
                    if (thread->ready && place-- == 0) {
                        return *thread;
                    }
                }
            }
            if (earliest == kNever) {
                Fail("deadlock: no thread can go on");
            }
            m_now = std::max(m_now, earliest);
            for (Thread* thread : m_live) {
                thread->ready = thread->ready || thread->deadline <= m_now;
            }
        }
    }

    void SwitchTo(Thread& next) {
        Thread& self = *m_running;
        if (&next == &self) {
            return;
        }
        self.error = errno;
        std::memcpy(self.exceptions.data(), abi::__cxa_get_globals(), self.exceptions.size());
        m_previous = &self;
        m_running = &next;
#if defined(__SANITIZE_ADDRESS__)
        __sanitizer_start_switch_fiber(self.ended ? nullptr : &self.fake_stack, next.stack.bottom,
                                       next.stack.size);
#endif
        swapcontext(&self.context, &next.context);
        AfterSwitch();
        std::memcpy(abi::__cxa_get_globals(), self.exceptions.data(), self.exceptions.size());
        errno = self.error;
    }

    void AfterSwitch() {
#if defined(__SANITIZE_ADDRESS__)
        const void* bottom = nullptr;
        size_t size = 0;
        __sanitizer_finish_switch_fiber(m_running->fake_stack, &bottom, &size);
        if (m_previous == &m_caller) {
            m_caller.stack = {const_cast<void*>(bottom), size};
        }
#endif
    }

    void RunThread() {
        AfterSwitch();
        std::memset(abi::__cxa_get_globals(), 0, m_running->exceptions.size());
        Thread& self = *m_running;
        self.result = self.entry(self.argument);
        self.ended = true;
        std::erase(m_live, &self);
        Record("end of the thread", &self);
        WakeAll(&self);
        if (self.number != 0) {
            SwitchTo(DrawThread());
        } else if (!m_live.empty()) {
            Fail("a thread outlives the first one");
        }
        SwitchTo(m_caller);
    }

    std::string Describe() const {
        // Addresses differ from run to run. Objects are numbered in the order of their appearance.
        std::map<const void*, size_t> numbers;
        const auto name = [&](const void* object) {
            return object == nullptr
                       ? ""
                       : " #" + std::to_string(numbers.try_emplace(object, numbers.size()).first->second);
        };
        std::string steps = "last steps (seconds, thread, call, object):\n";
        for (uint64_t at = m_steps - std::min<uint64_t>(m_steps, kKeptSteps); at < m_steps; ++at) {
            const Step& step = m_last_steps[at % kKeptSteps];
            char line[96];
            std::snprintf(line, sizeof line, "  %12.6f  %d  %s",
                          static_cast<double>(step.time - kStartTime) / 1e9, step.thread, step.call);
            steps += line + name(step.object) + "\n";
        }
        std::string threads;
        for (const Thread* thread : m_live) {
            threads += "  thread " + std::to_string(thread->number) +
                       (thread->ready ? std::string(" can go on")
                                      : " waits: " + std::string(thread->call) + name(thread->object)) +
                       (!thread->ready && thread->deadline != kNever ? ", with a deadline\n" : "\n");
        }
        return threads + steps;
    }

    uint64_t m_random;
    const std::function<void()>& m_body;
    const Scheduler::TimedLocks m_timed_locks;
    uint64_t m_switch_one_in = 1;
    int64_t m_wake_time = 0;  // from an unlock until a waiting thread goes on
    int64_t m_now = kStartTime;
    uint64_t m_steps = 0;
    std::string m_failure;
    Thread m_caller;
    Thread* m_running = &m_caller;
    Thread* m_previous = nullptr;
    std::vector<std::unique_ptr<Thread>> m_threads;
    std::vector<Thread*> m_live;
    std::unordered_map<const void*, Mutex> m_mutexes;
    std::unordered_map<const sem_t*, Semaphore> m_semaphores;
    std::array<Step, kKeptSteps> m_last_steps{};
};

// Null outside a schedule. There is one thread of the system, so it needs no lock.
Session* g_session = nullptr;
uint64_t g_seed = 0;
uint64_t g_steps = 0;

void TellSeed() {
    if (g_session != nullptr) {
        std::fprintf(stderr, "crash in schedule %llu\n", static_cast<unsigned long long>(g_seed));
    }
}

// A crash names the schedule too.
void WatchForCrashes() {
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_set_death_callback(&TellSeed);
#else
    for (const int each : {SIGSEGV, SIGBUS, SIGABRT}) {
        std::signal(each, [](int received) {
            TellSeed();
            std::signal(received, SIG_DFL);
            std::raise(received);
        });
    }
#endif
}

void Session::ThreadMain() {
    g_session->RunThread();
}

}  // namespace

std::string Scheduler::Run(uint64_t seed, const std::function<void()>& body, TimedLocks timed_locks) {
    auto session = std::make_unique<Session>(seed, body, timed_locks);
    g_session = session.get();
    g_seed = seed;
    static const bool watches = (WatchForCrashes(), true);
    static_cast<void>(watches);
    std::string failure = session->Go(seed);
    g_session = nullptr;
    g_steps = session->Steps();
    return failure;
}

uint64_t Scheduler::Draw(uint64_t limit) {
    return g_session->Draw(limit);
}

std::chrono::nanoseconds Scheduler::Now() {
    return std::chrono::nanoseconds(g_session->Now());
}

void Scheduler::Sleep(std::chrono::nanoseconds time) {
    g_session->SleepFor(time.count());
}

size_t Scheduler::LiveThreads() {
    return g_session->LiveThreads();
}

void Scheduler::Check(bool condition, const char* failure) {
    if (!condition) {
        g_session->Fail(failure);
    }
}

uint64_t Scheduler::Steps() {
    return g_steps;
}

}  // namespace zumod::testing

using zumod::testing::g_session;
using zumod::testing::kNever;
using zumod::testing::TimeOf;

#define ZU_CALL(result, name, parameters, call, arguments)                       \
    result __wrap_##name parameters {                                            \
        return g_session != nullptr ? g_session->call : __real_##name arguments; \
    }
#include "tests/support/watch/scheduled_calls.def"
#undef ZU_CALL
