#include "src/module/runtime.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "src/module/attach_runtime.h"
#include "src/module/log.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/process/captured_stdout.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CallWatch;
using testing::CapturedStdout;
using testing::RecordingHost;

// A host as another compiler would build it: a table of four functions, and an object that points at it. The
// flag is received as a whole register, to see the bits above its low byte.
struct RawHost {
    struct Table {
        int (*write_log)(RawHost*, uint32_t, const char*);
        int32_t (*service2)(RawHost*, uint32_t, uint64_t, uint64_t, uint64_t, uint64_t);
        int32_t (*service3)(RawHost*, uint32_t, uint64_t, uint64_t, uint64_t);
        void* (*get_env_property)(RawHost*, const char*);
    };
    static const Table kTable;

    const Table* table = &kTable;
    std::vector<std::string> calls;

    IZUModRuntime* AsRuntime() { return reinterpret_cast<IZUModRuntime*>(this); }
};

const RawHost::Table RawHost::kTable = {
    [](RawHost* self, uint32_t level, const char* text) {
        self->calls.push_back("log " + std::to_string(level) + " " + text);
        return 11;
    },
    [](RawHost* self, uint32_t flag, uint64_t a, uint64_t b, uint64_t c, uint64_t d) -> int32_t {
        self->calls.push_back("2: " + std::to_string(flag) + " " + std::to_string(a) + " " +
                              std::to_string(b) + " " + std::to_string(c) + " " + std::to_string(d));
        return -22;
    },
    [](RawHost* self, uint32_t flag, uint64_t a, uint64_t b, uint64_t c) -> int32_t {
        self->calls.push_back("3: " + std::to_string(flag) + " " + std::to_string(a) + " " +
                              std::to_string(b) + " " + std::to_string(c));
        return -33;
    },
    [](RawHost* self, const char* key) -> void* {
        self->calls.push_back(std::string("get ") + key);
        return self;
    },
};

class Runtime : public ::testing::Test {
protected:
    ~Runtime() override { DetachRuntime(); }

    // Whether another thread can call the runtime, which it cannot while this thread holds the lock.
    static void ExpectAnotherThreadCanLog() {
        RecordingHost host;
        std::thread([&] {
            AttachRuntime(&host);
            ZuModLog(kLogEvent, "from another thread");
        }).join();
        EXPECT_EQ(host.Lines().size(), 1U);
    }

    CZUModRuntime* runtime = CZUModRuntime::GetInstance();
};

constexpr uint64_t kBig = 0x8877665544332211;

TEST_F(Runtime, ForwardsEachOperationToTheSameSlotAndReturnsItsResult) {
    RawHost host;
    AttachRuntime(host.AsRuntime());
    IZUModRuntime* own = runtime;
    EXPECT_EQ(own->WriteLog(0x80000001, "text"), 11);
    EXPECT_EQ(own->Service2(0xEF, kBig, 2, 3, 4), -22);
    EXPECT_EQ(own->Service3(0xEF, 5, 6, kBig), -33);
    EXPECT_EQ(static_cast<void*>(own->GetEnvProperty("key")), static_cast<void*>(&host));
    EXPECT_EQ(host.calls, (std::vector<std::string>{"log 2147483649 text", "2: 239 9833440827789222417 2 3 4",
                                                    "3: 239 5 6 9833440827789222417", "get key"}));
}

TEST_F(Runtime, PassesOnOnlyTheLowByteOfAFlag) {
    RawHost host;
    AttachRuntime(host.AsRuntime());
    const IZUModRuntime* own = runtime;
    // The caller's register has other bits set.
    EXPECT_EQ(
        (CallSlot<int32_t>(own, 1, uint32_t{0x01020312}, uint64_t{1}, uint64_t{2}, uint64_t{3}, uint64_t{4})),
        -22);
    EXPECT_EQ((CallSlot<int32_t>(own, 2, uint32_t{0xFFFFFF00}, uint64_t{5}, uint64_t{6}, uint64_t{7})), -33);
    EXPECT_EQ(host.calls, (std::vector<std::string>{"2: 18 1 2 3 4", "3: 0 5 6 7"}));
}

TEST_F(Runtime, HasFourSlotsAndNoDestructor) {
    RawHost host;
    AttachRuntime(host.AsRuntime());
    const IZUModRuntime* own = runtime;
    EXPECT_EQ((CallSlot<int>(own, 0, uint32_t{4}, "raw")), 11);
    EXPECT_EQ((CallSlot<int32_t>(own, 1, uint8_t{1}, kBig, uint64_t{2}, uint64_t{3}, uint64_t{4})), -22);
    EXPECT_EQ((CallSlot<int32_t>(own, 2, uint8_t{0}, uint64_t{5}, uint64_t{6}, uint64_t{7})), -33);
    EXPECT_EQ((CallSlot<void*>(own, 3, "raw key")), static_cast<void*>(&host));
    EXPECT_EQ(host.calls, (std::vector<std::string>{"log 4 raw", "2: 1 9833440827789222417 2 3 4",
                                                    "3: 0 5 6 7", "get raw key"}));
}

TEST_F(Runtime, WithoutASinkPrintsTheTextWithANewlineAndReturnsNothing) {
    const IZUModRuntime* own = runtime;
    const CapturedStdout captured;
    CallSlot<int>(own, 0, uint32_t{8}, "a plain %s line");
    CallSlot<int>(own, 0, uint32_t{1}, "");
    EXPECT_EQ(captured.Text(), "a plain %s line\n\n");
    EXPECT_EQ((CallSlot<int32_t>(own, 1, uint8_t{1}, kBig, kBig, kBig, kBig)), 0);
    EXPECT_EQ((CallSlot<int32_t>(own, 2, uint8_t{1}, kBig, kBig, kBig)), 0);
    EXPECT_EQ((CallSlot<void*>(own, 3, "zu.env.modules.dir")), nullptr);
}

TEST_F(Runtime, StoresItsLockThenItsSinkThenItsFlag) {
    RawHost host;
    AttachRuntime(host.AsRuntime());
    const auto* bytes = reinterpret_cast<const char*>(runtime);
    const void* sink = nullptr;
    std::memcpy(&sink, bytes + 8 + sizeof(CMutexLock), sizeof sink);
    EXPECT_EQ(sink, &host);
    EXPECT_EQ(bytes[8 + sizeof(CMutexLock) + 8], 0);
    EXPECT_EQ(sizeof(CZUModRuntime), 8 + sizeof(CMutexLock) + 16);
}

TEST_F(Runtime, IsTheSameObjectForEveryThread) {
    CZUModRuntime* seen = nullptr;
    std::thread([&] { seen = CZUModRuntime::GetInstance(); }).join();
    EXPECT_EQ(seen, runtime);
}

// Whether another thread could lock the runtime now. Its lock is the first field; the mutex is that of the
// lock.
bool RuntimeIsLocked() {
    int result = 0;
    std::thread([&result] {
        auto* mutex =
            reinterpret_cast<pthread_mutex_t*>(reinterpret_cast<char*>(CZUModRuntime::GetInstance()) + 16);
        result = pthread_mutex_trylock(mutex);
        if (result == 0) {
            pthread_mutex_unlock(mutex);
        }
    }).join();
    EXPECT_TRUE(result == 0 || result == EBUSY);
    return result == EBUSY;
}

// Records for each of its calls whether the runtime is locked meanwhile.
class LockCheckingHost : public IZUModRuntime {
public:
    virtual ~LockCheckingHost() = default;
    int WriteLog(uint32_t, const char*) override { return Note("1"); }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return Note("2"); }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return Note("3"); }
    IZUModData* GetEnvProperty(const char*) override {
        Note("4");
        return nullptr;
    }

    std::vector<std::string> calls;

private:
    int Note(const std::string& slot) {
        calls.push_back(slot + (RuntimeIsLocked() ? " locked" : " free"));
        return 0;
    }
};

TEST_F(Runtime, CallsTheSinkUnderTheLock) {
    LockCheckingHost host;
    AttachRuntime(&host);
    EXPECT_FALSE(RuntimeIsLocked());
    runtime->WriteLog(1, "text");
    runtime->Service2(0, 0, 0, 0, 0);
    runtime->Service3(0, 0, 0, 0);
    runtime->GetEnvProperty("key");
    EXPECT_EQ(host.calls, (std::vector<std::string>{"1 locked", "2 locked", "3 locked", "4 locked"}));
    EXPECT_FALSE(RuntimeIsLocked());
}

TEST_F(Runtime, ChangesAndReadsTheSinkUnderTheLock) {
    LockCheckingHost host;
    const CallWatch watch;
    const uintptr_t mutex = reinterpret_cast<uintptr_t>(runtime) + 16;
    AttachRuntime(&host);
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock, mutex), 1);
    runtime->GetSink();
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock, mutex), 2);
    DetachRuntime();
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock, mutex), 3);
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_unlock, mutex), 3);
}

class ThrowingHost : public IZUModRuntime {
public:
    virtual ~ThrowingHost() = default;
    int WriteLog(uint32_t, const char*) override { throw std::runtime_error("log"); }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override {
        throw std::runtime_error("service 2");
    }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override {
        throw std::runtime_error("service 3");
    }
    IZUModData* GetEnvProperty(const char*) override { throw std::runtime_error("property"); }
};

TEST_F(Runtime, ReleasesItsLockWhenTheSinkThrowsFromALogLine) {
    ThrowingHost host;
    AttachRuntime(&host);
    EXPECT_THROW(runtime->WriteLog(1, "text"), std::runtime_error);
    ExpectAnotherThreadCanLog();
}

TEST_F(Runtime, ReleasesItsLockWhenTheSinkThrowsFromTheSecondService) {
    ThrowingHost host;
    AttachRuntime(&host);
    EXPECT_THROW(runtime->Service2(0, 0, 0, 0, 0), std::runtime_error);
    ExpectAnotherThreadCanLog();
}

TEST_F(Runtime, ReleasesItsLockWhenTheSinkThrowsFromTheThirdService) {
    ThrowingHost host;
    AttachRuntime(&host);
    EXPECT_THROW(runtime->Service3(0, 0, 0, 0), std::runtime_error);
    ExpectAnotherThreadCanLog();
}

TEST_F(Runtime, ReleasesItsLockWhenTheSinkThrowsFromThePropertyLookUp) {
    ThrowingHost host;
    AttachRuntime(&host);
    EXPECT_THROW(runtime->GetEnvProperty("key"), std::runtime_error);
    ExpectAnotherThreadCanLog();
}

// Calls another operation from inside each operation.
class TalkativeHost : public RecordingHost {
public:
    int WriteLog(uint32_t level, const char* text) override {
        RecordingHost::WriteLog(level, text);
        if (level != kLogTrace) {
            ZuModLog(kLogTrace, "from inside: %s", text);
        }
        return 0;
    }
    int32_t Service2(uint8_t flag, uint64_t, uint64_t, uint64_t, uint64_t) override {
        ZuModLog(kLogTrace, "service 2");
        return CZUModRuntime::GetInstance()->Service3(flag, 0, 0, 0);
    }
    int32_t Service3(uint8_t flag, uint64_t, uint64_t, uint64_t) override {
        ZuModLog(kLogTrace, "service 3");
        return flag;
    }
    IZUModData* GetEnvProperty(const char* key) override {
        ZuModLog(kLogTrace, "asked for %s", key);
        return nullptr;
    }
};

TEST_F(Runtime, LetsTheSinkCallBackFromInsideEveryOperation) {
    TalkativeHost host;
    AttachRuntime(&host);
    ZuModLog(kLogFailure, "outer");
    EXPECT_EQ(runtime->Service2(9, 0, 0, 0, 0), 9);
    EXPECT_EQ(runtime->GetEnvProperty("key"), nullptr);
    EXPECT_EQ(host.Lines(), (std::vector<testing::LogLine>{{4, "outer"},
                                                           {8, "from inside: outer"},
                                                           {8, "service 2"},
                                                           {8, "service 3"},
                                                           {8, "asked for key"}}));
    ExpectAnotherThreadCanLog();
}

TEST_F(Runtime, LetsTheSinkDetachItselfFromInside) {
    RecordingHost host;
    host.OnLine([](uint32_t, const char*) { DetachRuntime(); });
    AttachRuntime(&host);
    const CapturedStdout captured;
    ZuModLog(kLogEvent, "the last");
    ZuModLog(kLogEvent, "for nobody");
    EXPECT_EQ(host.Lines(), (std::vector<testing::LogLine>{{1, "the last"}}));
    EXPECT_EQ(captured.Text(), "for nobody\n");
}

// Records whether it is attached. Only the runtime's lock protects its fields.
class FragileHost : public RecordingHost {
public:
    int WriteLog(uint32_t, const char*) override {
        EXPECT_TRUE(attached) << "called after it was replaced";
        ++lines;
        return 0;
    }
    std::atomic<bool> attached{true};
    int lines = 0;
};

TEST_F(Runtime, ASinkThatWasReplacedWhileOthersLogIsNotCalledAgainAndNoLineIsLost) {
    constexpr int kThreads = 3;
    constexpr int kLines = 2000;
    std::vector<FragileHost> hosts(2);
    AttachRuntime(&hosts[0]);
    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int line = 0; line < kLines; ++line) {
                ZuModLog(kLogEvent, "line %d", line);
            }
            ++finished;
        });
    }
    for (size_t current = 0; finished < kThreads; current = 1 - current) {
        hosts[1 - current].attached = true;
        AttachRuntime(&hosts[1 - current]);
        // From here on the other sink must not be called.
        hosts[current].attached = false;
    }
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(hosts[0].lines + hosts[1].lines, kThreads * kLines);
}

TEST_F(Runtime, NoLineIsBrokenWhileAHostAttachesAndDetachesAndOthersLog) {
    constexpr int kLines = 1000;
    RecordingHost host;
    std::string printed;
    {
        const CapturedStdout captured;
        std::thread logger([&] {
            for (int line = 0; line < kLines; ++line) {
                ZuModLog(kLogEvent, "the same line");
            }
        });
        for (int i = 0; i < 100; ++i) {
            AttachRuntime(&host);
            DetachRuntime();
        }
        logger.join();
        printed = captured.Text();
    }
    const size_t to_output = printed.size() / std::strlen("the same line\n");
    EXPECT_EQ(to_output + host.Lines().size(), static_cast<size_t>(kLines));
    for (size_t at = 0; at < printed.size(); at += std::strlen("the same line\n")) {
        ASSERT_EQ(printed.compare(at, std::strlen("the same line\n"), "the same line\n"), 0);
    }
}

}  // namespace
}  // namespace zumod
