#include "src/base/base_thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/doubles/raw_slots.h"
#include "tests/support/watch/call_watch.h"
#include "tests/support/watch/wait_until.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CallWatch;
using testing::WaitUntil;
using Calls = std::vector<std::string>;

// The fields that follow the table pointer. Each is read atomically: the thread may be writing its neighbour.
struct Fields {
    uint64_t handle;
    uint8_t started;
    uint8_t stop_request;
    uint8_t finished;
    uint8_t detached;
    int32_t starter_id;
    int32_t own_id;

    bool operator==(const Fields&) const = default;
};

template <class Word>
Word ReadAt(const CBaseThread& thread, size_t offset) {
    return __atomic_load_n(reinterpret_cast<const Word*>(reinterpret_cast<const char*>(&thread) + offset),
                           __ATOMIC_RELAXED);
}

Fields FieldsOf(const CBaseThread& thread) {
    return {ReadAt<uint64_t>(thread, 8), ReadAt<uint8_t>(thread, 16), ReadAt<uint8_t>(thread, 17),
            ReadAt<uint8_t>(thread, 18), ReadAt<uint8_t>(thread, 19), ReadAt<int32_t>(thread, 20),
            ReadAt<int32_t>(thread, 24)};
}

// A thread that counts its passes and whose work is a callable, as in the module's threads.
class WorkThread : public CBaseThread {
public:
    explicit WorkThread(std::function<bool()> work) : m_work(std::move(work)) {}
    ~WorkThread() override { Stop(); }

    int Passes() const { return m_passes; }
    bool HasExited() const { return m_exited; }

private:
    bool Run() override {
        ++m_passes;
        return m_work();
    }
    void OnThreadExit() override { m_exited = true; }

    std::function<bool()> m_work;
    std::atomic<int> m_passes{0};
    std::atomic<bool> m_exited{false};
};

// A gate at which the work waits until the test opens it.
class Gate {
public:
    void Open() { m_open = true; }
    bool Wait() {
        EXPECT_TRUE(WaitUntil([this] { return m_open.load(); }));
        return true;
    }

private:
    std::atomic<bool> m_open{false};
};

TEST(BaseThread, StartsWithAllFieldsZeroAndNoName) {
    alignas(WorkThread) unsigned char storage[sizeof(WorkThread)];
    std::memset(storage, 0xFF, sizeof storage);
    auto* thread = new (storage) WorkThread([] { return false; });
    EXPECT_TRUE(FieldsOf(*thread) == Fields{});
    EXPECT_EQ(thread->GetName(), "");
    EXPECT_FALSE(thread->IsRunning());
    thread->~WorkThread();
}

TEST(BaseThread, RunsItsWorkRepeatedlyUntilAStopIsRequested) {
    WorkThread thread([] { return true; });
    EXPECT_TRUE(thread.Start());
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_TRUE(WaitUntil([&] { return thread.Passes() > 3; }));
    EXPECT_TRUE(thread.Stop());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.HasExited());
}

TEST(BaseThread, ASecondStartReturnsTrueAndCreatesNoThread) {
    const CallWatch watch;
    WorkThread thread([] { return true; });
    EXPECT_TRUE(thread.Start());
    EXPECT_TRUE(thread.Start());
    EXPECT_TRUE(thread.StartEx(true));
    EXPECT_EQ(watch.Count(CallWatch::pthread_create), 1);
    EXPECT_EQ(FieldsOf(thread).detached, 0) << "the second start changes nothing";
    thread.Stop();
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 1);
}

TEST(BaseThread, AStopOfANeverStartedObjectReturnsTrueAndDoesNothing) {
    const CallWatch watch;
    WorkThread thread([] { return true; });
    EXPECT_TRUE(thread.Stop());
    EXPECT_TRUE(thread.StopEx(5));
    EXPECT_TRUE(thread.WaitStop(5));
    EXPECT_TRUE(thread.Join());
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 0);
    EXPECT_EQ(FieldsOf(thread).stop_request, 0);
    EXPECT_EQ(thread.Passes(), 0);
}

TEST(BaseThread, AfterAStopTheSameObjectStartsANewThread) {
    const CallWatch watch;
    WorkThread thread([] { return true; });
    EXPECT_TRUE(thread.Start());
    EXPECT_TRUE(WaitUntil([&] { return thread.Passes() > 0; }));
    EXPECT_TRUE(thread.Stop());
    const int passes = thread.Passes();
    EXPECT_TRUE(thread.Start());
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_TRUE(WaitUntil([&] { return thread.Passes() > passes; }));
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(watch.Count(CallWatch::pthread_create), 2);
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 2);
}

TEST(BaseThread, FinishesByItselfWhenItsWorkReturnsFalseAndStaysStartedUntilStop) {
    WorkThread thread([] { return false; });
    EXPECT_TRUE(thread.Start());
    EXPECT_TRUE(WaitUntil([&] { return !thread.IsRunning(); }));
    EXPECT_EQ(thread.Passes(), 1);
    EXPECT_EQ(FieldsOf(thread).started, 1);
    EXPECT_EQ(FieldsOf(thread).stop_request, 0);
    EXPECT_TRUE(thread.Start()) << "still started: no new thread";
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(FieldsOf(thread).started, 0);
    EXPECT_EQ(thread.Passes(), 1);
}

TEST(BaseThread, StopClearsTheHandleAndTheStartedFlagAndLeavesTheOthers) {
    WorkThread thread([] { return true; });
    thread.Start();
    EXPECT_NE(FieldsOf(thread).handle, 0U);
    EXPECT_EQ(FieldsOf(thread).starter_id, gettid());
    EXPECT_TRUE(WaitUntil([&] { return thread.Passes() > 0; }));
    thread.Stop();
    const Fields fields = FieldsOf(thread);
    EXPECT_EQ(fields.handle, 0U);
    EXPECT_EQ(fields.started, 0);
    EXPECT_EQ(fields.stop_request, 1);
    EXPECT_EQ(fields.finished, 1);
    EXPECT_EQ(fields.detached, 0);
    EXPECT_EQ(fields.starter_id, gettid());
}

TEST(BaseThread, AStartResetsTheStopRequestAndTheFinishedFlag) {
    std::atomic<bool> held{false};
    WorkThread thread([&] { return WaitUntil([&] { return !held; }); });
    thread.Start();
    thread.Stop();
    EXPECT_EQ(FieldsOf(thread).stop_request, 1);
    EXPECT_EQ(FieldsOf(thread).finished, 1);
    held = true;
    const int passes = thread.Passes();
    thread.Start();
    EXPECT_EQ(FieldsOf(thread).started, 1);
    EXPECT_EQ(FieldsOf(thread).stop_request, 0);
    EXPECT_EQ(FieldsOf(thread).finished, 0);
    EXPECT_TRUE(WaitUntil([&] { return thread.Passes() > passes; }));
    held = false;
    thread.Stop();
    EXPECT_EQ(FieldsOf(thread).finished, 1);
}

TEST(BaseThread, ANormalStartAfterADetachedOneClearsTheDetachedFlagAndIsJoined) {
    const CallWatch watch;
    WorkThread thread([&] { return thread.Passes() != 3; });
    thread.StartEx(true);
    EXPECT_TRUE(WaitUntil([&] { return thread.HasExited(); }));
    thread.Stop();
    EXPECT_EQ(FieldsOf(thread).detached, 1);
    thread.Start();
    EXPECT_EQ(FieldsOf(thread).detached, 0);
    thread.Join();
    EXPECT_EQ(thread.Passes(), 3) << "one pass detached, and two more";
    thread.Stop();
    EXPECT_EQ(watch.Count(CallWatch::pthread_detach), 1);
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 1);
}

TEST(BaseThread, StoresTheKernelIdsOfItsStarterAndOfItselfAtEachStart) {
    class Passing : public CBaseThread {
    public:
        pid_t seen = 0;

    private:
        bool Run() override {
            seen = gettid();
            return false;
        }
    };
    Passing thread;
    const auto run = [&thread] {
        const pid_t starter = gettid();
        thread.Start();
        thread.Join();
        thread.Stop();
        EXPECT_EQ(FieldsOf(thread).starter_id, starter);
        EXPECT_EQ(FieldsOf(thread).own_id, thread.seen);
        EXPECT_NE(thread.seen, starter);
    };
    run();
    std::thread(run).join();
}

TEST(BaseThread, AStopRequestBeforeTheFirstPassPreventsIt) {
    class HeldAtStart : public CBaseThread {
    public:
        std::atomic<int> passes{0};

    private:
        void OnThreadStart() override {
            EXPECT_TRUE(WaitUntil([this] { return FieldsOf(*this).stop_request == 1; }));
        }
        bool Run() override {
            ++passes;
            return true;
        }
    };
    HeldAtStart thread;
    thread.Start();
    thread.Stop();
    EXPECT_EQ(thread.passes, 0);
}

TEST(BaseThread, ADetachedThreadRunsOnePassAndIsNeverJoined) {
    const CallWatch watch;
    Gate gate;
    WorkThread thread([&] { return gate.Wait(); });
    EXPECT_TRUE(thread.StartEx(true));
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_TRUE(WaitUntil([&] { return thread.Passes() == 1; }));
    EXPECT_TRUE(thread.WaitStop(-1)) << "returns while the pass is still under way";
    EXPECT_TRUE(thread.Join());
    EXPECT_TRUE(thread.IsRunning());
    gate.Open();
    EXPECT_TRUE(WaitUntil([&] { return thread.HasExited(); }));
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(thread.Passes(), 1);
    EXPECT_NE(FieldsOf(thread).handle, 0U);
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(FieldsOf(thread).handle, 0U);
    EXPECT_EQ(watch.Count(CallWatch::pthread_detach), 1);
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 0);
    EXPECT_EQ(FieldsOf(thread).detached, 1) << "kept until the next start";
}

TEST(BaseThread, ADetachedThreadThatIsNotStoppedStillRunsOnlyOnePass) {
    WorkThread thread([] { return true; });
    EXPECT_TRUE(thread.StartEx(true));
    EXPECT_TRUE(WaitUntil([&] { return thread.HasExited(); }));
    EXPECT_EQ(thread.Passes(), 1);
    EXPECT_FALSE(thread.IsRunning());
}

TEST(BaseThread, AFailedCreationLeavesTheObjectNotStarted) {
    CallWatch watch;
    watch.Fail(CallWatch::pthread_create, CallWatch::kAny, 2);
    WorkThread thread([] { return true; });
    EXPECT_FALSE(thread.Start());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(FieldsOf(thread).handle, 0U);
    EXPECT_EQ(FieldsOf(thread).started, 0);
    EXPECT_FALSE(thread.StartEx(true));
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 0);
    EXPECT_TRUE(thread.Start()) << "the third one works";
    EXPECT_TRUE(WaitUntil([&] { return thread.Passes() > 0; }));
}

TEST(BaseThread, WaitStopIgnoresItsTimeAndJoins) {
    Gate entered;
    Gate gate;
    WorkThread thread([&] {
        entered.Open();
        return gate.Wait();
    });
    thread.Start();
    entered.Wait();
    std::atomic<bool> waited{false};
    std::thread owner([&] {
        EXPECT_TRUE(thread.WaitStop(1));
        waited = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return FieldsOf(thread).stop_request == 1; }));
    EXPECT_FALSE(WaitUntil([&] { return waited.load(); }, std::chrono::milliseconds(50)));
    gate.Open();
    owner.join();
    EXPECT_TRUE(thread.HasExited());
    EXPECT_EQ(thread.Passes(), 1);
    EXPECT_EQ(FieldsOf(thread).started, 1) << "WaitStop does not clear it";
    EXPECT_TRUE(thread.Stop());
}

TEST(BaseThread, JoinWaitsForTheEndOfTheLoopWithoutRequestingAStop) {
    Gate gate;
    WorkThread thread([&] {
        gate.Wait();
        return thread.Passes() < 5;
    });
    thread.Start();
    gate.Open();
    EXPECT_TRUE(thread.Join());
    EXPECT_EQ(thread.Passes(), 5);
    EXPECT_TRUE(thread.HasExited());
    EXPECT_EQ(FieldsOf(thread).stop_request, 0);
}

TEST(BaseThread, AThreadIsJoinedOnceEvenIfItIsWaitedForRepeatedly) {
    const CallWatch watch;
    WorkThread thread([] { return false; });
    thread.Start();
    EXPECT_TRUE(thread.Join());
    EXPECT_TRUE(thread.Join());
    EXPECT_TRUE(thread.WaitStop(0));
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 1);
}

TEST(BaseThread, StopPassesMinusOneToWaitStopAndStopExItsTime) {
    class Recording : public CBaseThread {
    public:
        Calls calls;

        bool StopEx(int32_t time) override {
            calls.push_back("StopEx " + std::to_string(time));
            return CBaseThread::StopEx(time);
        }
        bool StartEx(bool detach) override {
            calls.emplace_back(detach ? "StartEx true" : "StartEx false");
            return CBaseThread::StartEx(detach);
        }
        bool WaitStop(int32_t time) override {
            calls.push_back("WaitStop " + std::to_string(time));
            return CBaseThread::WaitStop(time);
        }

    private:
        bool Run() override { return true; }
    };
    Recording thread;
    thread.Start();
    thread.Stop();
    thread.Start();
    thread.StopEx(250);
    EXPECT_EQ(thread.calls,
              (Calls{"StartEx false", "WaitStop -1", "StartEx false", "StopEx 250", "WaitStop 250"}));
}

TEST(BaseThread, CallsItsHooksOnTheThreadAroundTheLoopAndIsFinishedBeforeTheLast) {
    class Hooked : public CBaseThread {
    public:
        Calls calls;

    private:
        void OnThreadStart() override { Note("start"); }
        bool Run() override {
            Note("run");
            return calls.size() < 3;
        }
        void OnThreadExit() override { Note("exit"); }
        void Note(const std::string& what) {
            EXPECT_EQ(gettid(), FieldsOf(*this).own_id);
            calls.push_back(what + (IsRunning() ? " running" : " finished"));
        }
    };
    Hooked thread;
    thread.Start();
    thread.Join();
    EXPECT_EQ(thread.calls, (Calls{"start running", "run running", "run running", "exit finished"}));
    thread.Stop();
}

TEST(BaseThread, ADetachedThreadIsDetachedBeforeItsStartHookWhichPrecedesItsPass) {
    class Hooked : public CBaseThread {
    public:
        explicit Hooked(const CallWatch& watch) : m_watch(watch) {}
        Calls calls;
        std::atomic<bool> exited{false};

    private:
        void OnThreadStart() override {
            calls.push_back("start, detached " + std::to_string(m_watch.Count(CallWatch::pthread_detach)));
        }
        bool Run() override {
            calls.emplace_back("run");
            return true;
        }
        void OnThreadExit() override { exited = true; }

        const CallWatch& m_watch;
    };
    const CallWatch watch;
    Hooked thread(watch);
    thread.StartEx(true);
    EXPECT_TRUE(WaitUntil([&] { return thread.exited.load(); }));
    EXPECT_EQ(thread.calls, (Calls{"start, detached 1", "run"}));
}

// The attributes of the calling thread.
struct ThreadAttributes {
    int detach_state = -1;
    int policy = -1;
    int inherits = -1;
    int scope = -1;
    size_t stack = 0;
    size_t guard = 0;

    bool operator==(const ThreadAttributes&) const = default;

    void Read() {
        pthread_attr_t attributes;
        ASSERT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
        pthread_attr_getdetachstate(&attributes, &detach_state);
        pthread_attr_getschedpolicy(&attributes, &policy);
        pthread_attr_getinheritsched(&attributes, &inherits);
        pthread_attr_getscope(&attributes, &scope);
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_getguardsize(&attributes, &guard);
        pthread_attr_destroy(&attributes);
    }
};

TEST(BaseThread, IsCreatedWithTheDefaultAttributes) {
    ThreadAttributes expected;
    pthread_t plain;
    const auto read = [](void* out) -> void* {
        static_cast<ThreadAttributes*>(out)->Read();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&plain, nullptr, read, &expected), 0);
    pthread_join(plain, nullptr);
    ThreadAttributes attributes;
    WorkThread thread([&] {
        attributes.Read();
        return false;
    });
    thread.Start();
    thread.Join();
    EXPECT_EQ(attributes.detach_state, PTHREAD_CREATE_JOINABLE);
    EXPECT_TRUE(attributes == expected);
}

// A sleep of INT32_MAX milliseconds would exceed the time limit of the test.
TEST(BaseThread, SleepsOnlyWhileStarted) {
    using Clock = std::chrono::steady_clock;
    WorkThread thread([] { return true; });
    EXPECT_TRUE(thread.Sleep(INT32_MAX));
    thread.Start();
    const auto begin = Clock::now();
    EXPECT_TRUE(thread.Sleep(1020));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(1020));
    EXPECT_TRUE(thread.Sleep(0));
    thread.Stop();
    EXPECT_TRUE(thread.Sleep(INT32_MAX));
}

TEST(BaseThread, AStopRequestDoesNotEndASleep) {
    using Clock = std::chrono::steady_clock;
    std::atomic<bool> sleeping{false};
    std::atomic<Clock::duration> slept{Clock::duration::zero()};
    class Sleeper : public CBaseThread {
    public:
        std::atomic<bool>* sleeping;
        std::atomic<Clock::duration>* slept;

    private:
        bool Run() override {
            const auto begin = Clock::now();
            *sleeping = true;
            Sleep(150);
            *slept = Clock::now() - begin;
            return true;
        }
    };
    Sleeper thread;
    thread.sleeping = &sleeping;
    thread.slept = &slept;
    thread.Start();
    EXPECT_TRUE(WaitUntil([&] { return sleeping.load(); }));
    thread.Stop();
    EXPECT_GE(slept.load(), std::chrono::milliseconds(150));
}

TEST(BaseThread, CopiesItsNameAndIgnoresNull) {
    WorkThread thread([] { return false; });
    char name[] = "v4l2-cap";
    thread.SetName(name);
    name[0] = 'X';
    thread.SetName(nullptr);
    EXPECT_EQ(thread.GetName(), "v4l2-cap");
    thread.SetName("");
    EXPECT_EQ(thread.GetName(), "");
}

TEST(BaseThread, DoesNotNameTheSystemsThread) {
    char own[16] = {};
    pthread_getname_np(pthread_self(), own, sizeof own);
    char inside[16] = {};
    WorkThread thread([&] {
        pthread_getname_np(pthread_self(), inside, sizeof inside);
        return false;
    });
    thread.SetName("another-name");
    thread.Start();
    thread.Join();
    EXPECT_STREQ(inside, own);
}

TEST(BaseThread, ItsDestructorNeitherStopsNorJoins) {
    class Bare : public CBaseThread {
        bool Run() override { return false; }
    };
    const CallWatch watch;
    auto* thread = new Bare;
    thread->Start();
    EXPECT_TRUE(WaitUntil([&] { return !thread->IsRunning(); }));
    const pthread_t handle = FieldsOf(*thread).handle;
    // The thread may still be in its empty exit hook: join it directly, before the object is destroyed.
    EXPECT_EQ(pthread_join(handle, nullptr), 0);
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 1);
    delete thread;
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 1);
}

TEST(BaseThread, ItsDestructorRequestsNoStop) {
    class Bare : public CBaseThread {
        bool Run() override { return false; }
    };
    alignas(Bare) unsigned char storage[sizeof(Bare)];
    auto* thread = new (storage) Bare;
    thread->Start();
    thread->Join();
    EXPECT_EQ(FieldsOf(*thread).started, 1);
    thread->~Bare();
    // Where the fields were: a stop would have cleared the one and set the other.
    constexpr size_t kStarted = 16;
    constexpr size_t kStopRequest = 17;
    EXPECT_EQ(storage[kStarted], 1);
    EXPECT_EQ(storage[kStopRequest], 0);
}

TEST(BaseThread, ImplementsEverySlotOfItsTable) {
    static std::atomic<int> destroyed;
    static std::atomic<int> exits;
    destroyed = 0;
    exits = 0;
    class Raw : public CBaseThread {
    public:
        explicit Raw(Calls& calls) : m_calls(calls) {}
        ~Raw() override { ++destroyed; }

    private:
        bool Run() override {
            m_calls.emplace_back("Run");
            return true;
        }
        bool WaitStop(int32_t time) override {
            wait_stops.push_back(time);
            return CBaseThread::WaitStop(time);
        }
        void OnThreadExit() override {
            m_calls.emplace_back("OnThreadExit");
            ++exits;
        }
        void OnThreadStart() override { m_calls.emplace_back("OnThreadStart"); }

        Calls& m_calls;

    public:
        std::vector<int32_t> wait_stops;
    };
    Calls calls;
    const CallWatch watch;
    auto* raw = new Raw(calls);
    CBaseThread* thread = raw;
    EXPECT_TRUE((CallSlot<bool>(thread, 6)));               // Run
    CallSlot<>(thread, 8);                                  // OnThreadExit
    CallSlot<>(thread, 9);                                  // OnThreadStart
    EXPECT_TRUE((CallSlot<bool>(thread, 7, int32_t{42})));  // WaitStop
    EXPECT_EQ(calls, (Calls{"Run", "OnThreadExit", "OnThreadStart"}));
    EXPECT_EQ(raw->wait_stops, std::vector<int32_t>{42});
    EXPECT_TRUE((CallSlot<bool>(thread, 2)));  // Start
    EXPECT_EQ(watch.Count(CallWatch::pthread_create), 1);
    EXPECT_TRUE((CallSlot<bool>(thread, 3)));  // Stop
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 1);
    EXPECT_EQ(calls.back(), "OnThreadExit");
    EXPECT_TRUE((CallSlot<bool>(thread, 5, true)));  // StartEx
    EXPECT_EQ(FieldsOf(*thread).detached, 1);
    EXPECT_TRUE(WaitUntil([] { return exits == 3; }));
    EXPECT_TRUE((CallSlot<bool>(thread, 4, int32_t{7})));  // StopEx
    EXPECT_EQ(raw->wait_stops, (std::vector<int32_t>{42, -1, 7}));
    EXPECT_EQ(FieldsOf(*thread).started, 0);
    EXPECT_EQ(watch.Count(CallWatch::pthread_join), 1);
    CallSlot<>(thread, 1);  // the deleting destructor
    EXPECT_EQ(destroyed, 1);
    alignas(Raw) unsigned char storage[sizeof(Raw)];
    CallSlot<>(static_cast<CBaseThread*>(new (storage) Raw(calls)), 0);  // the complete one
    EXPECT_EQ(destroyed, 2);
}

TEST(BaseThread, StartsAndStopsManyTimesWhileOtherThreadsReadItsState) {
    WorkThread thread([] { return true; });
    std::atomic<bool> done{false};
    std::thread watcher([&] {
        while (!done) {
            static_cast<void>(thread.IsRunning());
        }
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(thread.Start());
        EXPECT_TRUE(thread.Stop());
    }
    done = true;
    watcher.join();
    EXPECT_FALSE(thread.IsRunning());
}

}  // namespace
}  // namespace zumod
