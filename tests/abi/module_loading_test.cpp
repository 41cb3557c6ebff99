// Loads and unloads the module as a host without the SDK does.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "tests/support/doubles/raw_host.h"
#include "tests/support/watch/mappings.h"
#include "tests/support/watch/module_calls.h"

namespace {

using zumod::testing::CallsOf;
using zumod::testing::HeapOfModule;
using zumod::testing::InModule;
using zumod::testing::LocksOfModule;
using zumod::testing::ModuleCall;
using zumod::testing::TimesMapped;
namespace raw = zumod::testing::raw;

// Counts log lines and allocates nothing, because the tests compare the memory that is in use.
struct Host : raw::Runtime {
    Host() : raw::Runtime{raw::kRuntimeTable, {}, {}, {}} {
        on_line = [this](uint32_t, const char*) { ++logged; };
    }
    std::atomic<int> logged{0};
};

class Library {
public:
    explicit Library(const char* path) : m_path(path) {
        {
            const InModule inside;
            m_handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        }
        EXPECT_NE(m_handle, nullptr) << dlerror();
        EXPECT_EQ(TimesMapped(path), 1);
    }
    ~Library() {
        if (m_handle != nullptr) {
            Close();
        }
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    template <class Function>
    Function Find(const char* name) {
        void* address = dlsym(m_handle, name);
        EXPECT_NE(address, nullptr) << name;
        return reinterpret_cast<Function>(address);
    }
    const raw::Descriptor* Entry() { return raw::EntryOf(m_handle); }
    void Close() {
        EXPECT_EQ(dlclose(m_handle), 0);
        m_handle = nullptr;
        EXPECT_EQ(TimesMapped(m_path), 0) << "still mapped after the last close";
        EXPECT_EQ(dlopen(m_path, RTLD_NOW | RTLD_NOLOAD), nullptr);
    }

private:
    const char* m_path;
    void* m_handle = nullptr;
};

class ModuleLoading : public ::testing::Test {
protected:
    ModuleLoading() { zumod::testing::StopFailing(); }

    // The module's exit handlers release what it took at load and in use.
    static void ExpectNothingLeft() {
        EXPECT_GT(CallsOf(ModuleCall::kHostAllocation), 0U) << "the default allocator at least";
        EXPECT_EQ(HeapOfModule().blocks, 0U);
        EXPECT_GT(CallsOf(ModuleCall::kLock), 0U) << "the singleton's lock at least";
        EXPECT_EQ(LocksOfModule(), 0U);
        zumod::testing::StopFailing();
    }
};

TEST_F(ModuleLoading, TheDescriptorIsRightInEveryField) {
    Library library(ZU_MODULE_FILE);
    const raw::Descriptor* descriptor = library.Entry();
    ASSERT_NE(descriptor, nullptr);
    EXPECT_EQ(descriptor->version, 0x0002000000000000U);
    EXPECT_STREQ(descriptor->name, "zu-client-camera");
    EXPECT_NE(descriptor->attach_runtime, nullptr);
    EXPECT_NE(descriptor->detach_runtime, nullptr);
    EXPECT_NE(descriptor->create, nullptr);
    EXPECT_THAT(
        descriptor->build_stamp,
        ::testing::MatchesRegex("(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3][0-9] 20[0-9]{2} "
                                "[0-2][0-9]:[0-5][0-9]:[0-6][0-9]"));
    EXPECT_EQ(library.Entry(), descriptor) << "one static record";
}

TEST_F(ModuleLoading, AttachAcceptsAHostAndRefusesNull) {
    Library library(ZU_MODULE_FILE);
    const raw::Descriptor* descriptor = library.Entry();
    Host host;
    EXPECT_EQ(descriptor->attach_runtime(nullptr), 0);
    EXPECT_EQ(descriptor->attach_runtime(&host), 1);
    EXPECT_EQ(descriptor->attach_runtime(&host), 1);
    descriptor->detach_runtime();
    descriptor->detach_runtime();
}

TEST_F(ModuleLoading, CreateRefusesARequestWithoutAPolicyOrASlot) {
    Library library(ZU_MODULE_FILE);
    const raw::Descriptor* descriptor = library.Entry();
    Host host;
    EXPECT_EQ(descriptor->attach_runtime(&host), 1);
    void* const untouched = &host;
    void* out = untouched;
    EXPECT_EQ(descriptor->create(nullptr, nullptr), 0);
    EXPECT_EQ(descriptor->create(nullptr, &out), 0);
    EXPECT_EQ(out, untouched);
    descriptor->detach_runtime();
}

TEST_F(ModuleLoading, ALeakedBlockAndALeakedLockAreDetected) {
    pthread_mutex_t lock;
    void* block = nullptr;
    {
        const InModule inside;
        block = operator new(100);
        pthread_mutex_init(&lock, nullptr);
    }
    EXPECT_EQ(HeapOfModule().bytes, 100U);
    EXPECT_EQ(LocksOfModule(), 1U);
    pthread_mutex_destroy(&lock);
    operator delete(block);
    ExpectNothingLeft();
}

TEST_F(ModuleLoading, AnUnusedLoadLeavesNothing) {
    Library library(ZU_MODULE_FILE);
    library.Close();
    ExpectNothingLeft();
}

TEST_F(ModuleLoading, TheObjectStaysMappedUntilItsLastClose) {
    Library first(ZU_MODULE_FILE);
    void* second = dlopen(ZU_MODULE_FILE, RTLD_NOW);
    EXPECT_EQ(dlclose(second), 0);
    EXPECT_EQ(TimesMapped(ZU_MODULE_FILE), 1);
    EXPECT_EQ(first.Entry()->version, 0x0002000000000000U);
    first.Close();
}

TEST_F(ModuleLoading, LoadsRunsAndUnloadsAHundredTimes) {
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        Library library(ZU_MODULE_FILE);
        const raw::Descriptor* descriptor = library.Entry();
        EXPECT_EQ(descriptor->version, 0x0002000000000000U);
        Host host;
        {
            const InModule inside;
            EXPECT_EQ(descriptor->attach_runtime(&host), 1);
        }
        std::thread([descriptor] {
            const InModule inside;
            EXPECT_EQ(descriptor->create(nullptr, nullptr), 0);
        }).join();
        {
            const InModule inside;
            descriptor->detach_runtime();
        }
        library.Close();
        ExpectNothingLeft();
    }
}

TEST_F(ModuleLoading, AModuleWhoseThreadsLoggedUnloadsAHundredTimes) {
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        Library library(ZU_PROBE_FILE);
        const auto probe_function = library.Find<int64_t (*)(void*)>("load_probe");
        const auto probe = [probe_function](Host* host) {
            const InModule inside;
            return probe_function(host);
        };
        Host host;
        EXPECT_EQ(probe(&host), 2) << "two classes are registered, afresh with each load";
        EXPECT_EQ(probe(&host), 2);
        EXPECT_EQ(host.logged, 2 * 7);
        library.Close();
        ExpectNothingLeft();
    }
}

TEST_F(ModuleLoading, TwoModulesAtOnceShareNothing) {
    Library module(ZU_MODULE_FILE);
    Library probe(ZU_PROBE_FILE);
    Host module_host;
    Host probe_host;
    EXPECT_EQ(module.Entry()->attach_runtime(&module_host), 1);
    EXPECT_EQ(probe.Find<int64_t (*)(void*)>("load_probe")(&probe_host), 2);
    EXPECT_EQ(probe_host.logged, 7);
    EXPECT_EQ(module_host.logged, 0);
    module.Entry()->detach_runtime();
}

}  // namespace
