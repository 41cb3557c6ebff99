#include "src/base/object_monitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "src/base/base_thread.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/watch/single_step.h"

namespace zumod {
namespace {

using testing::CallSlot;

struct FixedMonitor : ICObjectMonitor {
    int64_t GetNewCount() override { return 1; }
    int64_t GetDeleteCount() override { return 1; }
};

TEST(ObjectRegistry, AssignsIdsInTheOrderOfRegistration) {
    const auto registry = std::make_unique<ObjectRegistry>();
    FixedMonitor first;
    FixedMonitor second;
    RegisterObjectMonitor(*registry, &first, "First");
    RegisterObjectMonitor(*registry, &second, "Second");
    EXPECT_EQ(registry->count.load(), 2);
    EXPECT_EQ(registry->entries[0].monitor, &first);
    EXPECT_STREQ(registry->entries[0].name, "First");
    EXPECT_EQ(registry->entries[1].monitor, &second);
    EXPECT_STREQ(registry->entries[1].name, "Second");
    EXPECT_EQ(registry->entries[2].monitor, nullptr);
}

TEST(ObjectRegistry, CountsThe1025thRegistrationButDoesNotStoreIt) {
    struct {
        ObjectRegistry registry;
        ObjectRegistry::Entry behind;
    }* memory = new std::remove_pointer_t<decltype(memory)>{};
    FixedMonitor monitor;
    for (int i = 0; i < 1023; ++i) {
        RegisterObjectMonitor(memory->registry, &monitor, "Early");
    }
    RegisterObjectMonitor(memory->registry, &monitor, "Last");
    RegisterObjectMonitor(memory->registry, &monitor, "TooLate");
    EXPECT_EQ(memory->registry.count.load(), 1025);
    EXPECT_STREQ(memory->registry.entries[1022].name, "Early");
    EXPECT_STREQ(memory->registry.entries[1023].name, "Last");
    EXPECT_EQ(memory->behind.monitor, nullptr);
    EXPECT_EQ(memory->behind.name, nullptr);
    delete memory;
}

TEST(ObjectRegistry, Holds1024ClassesAndNothingElse) {
    EXPECT_EQ(kObjectRegistryCapacity, 1024);
    EXPECT_EQ(sizeof(ObjectRegistry), 8U + 1024U * 16U);
}

TEST(ObjectMonitor, RegistersItselfUnderItsClassesName) {
    struct Watched {};
    const int64_t id = g_ObjectRegistry.count.load();
    static ADD_TO_MONITORING_LIST<Watched> monitor("Watched");
    ASSERT_EQ(g_ObjectRegistry.count.load(), id + 1);
    EXPECT_EQ(g_ObjectRegistry.entries[id].monitor, &monitor);
    EXPECT_STREQ(g_ObjectRegistry.entries[id].name, "Watched");
}

TEST(ObjectMonitor, HoldsNoDataAndCountsPerClass) {
    struct One {};
    struct Other {};
    static ADD_TO_MONITORING_LIST<One> one("One");
    static ADD_TO_MONITORING_LIST<Other> other("Other");
    EXPECT_EQ(sizeof one, sizeof(void*));
    EXPECT_EQ(one.GetNewCount(), 0);
    EXPECT_EQ(one.GetDeleteCount(), 0);
    ADD_TO_MONITORING_LIST<One>::CountNew();
    ADD_TO_MONITORING_LIST<One>::CountNew();
    ADD_TO_MONITORING_LIST<One>::CountDelete();
    EXPECT_EQ(one.GetNewCount(), 2);
    EXPECT_EQ(one.GetDeleteCount(), 1);
    EXPECT_EQ(other.GetNewCount(), 0);
    EXPECT_EQ(other.GetDeleteCount(), 0);
}

TEST(ObjectMonitor, HasTheDestructorPairAfterTheCountersInItsTable) {
    static int destroyed = 0;
    struct Raw : ICObjectMonitor {
        int64_t GetNewCount() override { return -5; }
        int64_t GetDeleteCount() override { return 7; }
        ~Raw() override { ++destroyed; }
    };
    alignas(Raw) unsigned char storage[sizeof(Raw)];
    ICObjectMonitor* monitor = new (storage) Raw;
    EXPECT_EQ((CallSlot<int64_t>(monitor, 0)), -5);
    EXPECT_EQ((CallSlot<int64_t>(monitor, 1)), 7);
    CallSlot<>(monitor, 2);
    EXPECT_EQ(destroyed, 1);
    CallSlot<>(static_cast<ICObjectMonitor*>(new Raw), 3);
    EXPECT_EQ(destroyed, 2);
    // The module's monitor has the same table.
    ICObjectMonitor* threads = g_ObjectRegistry.entries[1].monitor;
    EXPECT_EQ((CallSlot<int64_t>(threads, 0)), threads->GetNewCount());
}

TEST(ObjectMonitor, CountsOnAnyThread) {
    struct Busy {};
    static ADD_TO_MONITORING_LIST<Busy> monitor("Busy");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 5000; ++round) {
                ADD_TO_MONITORING_LIST<Busy>::CountNew();
                ADD_TO_MONITORING_LIST<Busy>::CountDelete();
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(monitor.GetNewCount(), 20000);
    EXPECT_EQ(monitor.GetDeleteCount(), 20000);
}

#if ZU_CAN_SINGLE_STEP
TEST(ObjectMonitor, CountsAndRegistersWithOneLockedInstruction) {
    using testing::ChangesOf;
    using testing::NumberChanges;
    struct Stepped {};
    static ADD_TO_MONITORING_LIST<Stepped> monitor("Stepped");
    const NumberChanges one_locked{1, 0};
    EXPECT_EQ(ChangesOf([] { return monitor.GetNewCount(); }, &ADD_TO_MONITORING_LIST<Stepped>::CountNew),
              one_locked);
    EXPECT_EQ(
        ChangesOf([] { return monitor.GetDeleteCount(); }, &ADD_TO_MONITORING_LIST<Stepped>::CountDelete),
        one_locked);
    const auto registry = std::make_unique<ObjectRegistry>();
    EXPECT_EQ(ChangesOf([&] { return registry->count.load(); },
                        [&] { RegisterObjectMonitor(*registry, &monitor, "Again"); }),
              one_locked);
}
#endif

TEST(ObjectMonitor, CountsEveryThreadObjectThatIsConstructedOrDestroyed) {
    struct Idle : CBaseThread {
        bool Run() override { return false; }
    };
    ICObjectMonitor* monitor = g_ObjectRegistry.entries[1].monitor;
    const int64_t made = monitor->GetNewCount();
    const int64_t destroyed = monitor->GetDeleteCount();
    auto first = std::make_unique<Idle>();
    {
        const Idle second;
        EXPECT_EQ(monitor->GetNewCount(), made + 2);
        EXPECT_EQ(monitor->GetDeleteCount(), destroyed);
    }
    EXPECT_EQ(monitor->GetDeleteCount(), destroyed + 1);
    first.reset();
    EXPECT_EQ(monitor->GetNewCount(), made + 2);
    EXPECT_EQ(monitor->GetDeleteCount(), destroyed + 2);
}

const std::string kHeader = " id     alive|     new|  delete| name\r\n";

struct FakeMonitor : ICObjectMonitor {
    FakeMonitor(int64_t new_count, int64_t delete_count) : created(new_count), destroyed(delete_count) {}
    int64_t GetNewCount() override {
        calls += "new ";
        return created;
    }
    int64_t GetDeleteCount() override {
        calls += "delete ";
        return destroyed;
    }
    int64_t created;
    int64_t destroyed;
    std::string calls;
};

class ObjectReports : public ::testing::Test {
protected:
    std::string Table() {
        std::string text = "previous content";
        DumpObjectTable(text, *registry);
        return text;
    }
    std::string Counts() {
        std::string text = "previous content";
        DumpObjectCounts(text, *registry);
        return text;
    }
    void Register(ICObjectMonitor* monitor, const char* name) {
        RegisterObjectMonitor(*registry, monitor, name);
    }

    std::unique_ptr<ObjectRegistry> registry = std::make_unique<ObjectRegistry>();
};

TEST_F(ObjectReports, WithoutEntriesTheTableIsItsHeaderAndTheLineReportIsEmpty) {
    EXPECT_EQ(Table(), kHeader);
    EXPECT_EQ(Counts(), "");
}

TEST_F(ObjectReports, TheTableShowsTwoLiveThreadsOutOfFive) {
    FakeMonitor buffers(0, 0);
    FakeMonitor threads(5, 3);
    Register(&buffers, "CMemBuffer");
    Register(&threads, "CBaseThread");
    EXPECT_EQ(Table(),
              " id     alive|     new|  delete| name\r\n"
              "  0         0|       0|       0| CMemBuffer\r\n"
              "  1 !       2|       5|       3| CBaseThread\r\n");
}

TEST_F(ObjectReports, TheLineReportHasTwoLinesForEachClass) {
    FakeMonitor buffers(0, 0);
    FakeMonitor threads(5, 3);
    Register(&buffers, "CMemBuffer");
    Register(&threads, "CBaseThread");
    EXPECT_EQ(Counts(),
              "CMemBuffer_count: 0\r\nCMemBuffer_alive: 0\r\n"
              "CBaseThread_count: 5\r\nCBaseThread_alive: 2\r\n");
}

TEST_F(ObjectReports, AnEntryIsMarkedOnlyWhileMoreWereConstructedThanDestroyed) {
    FakeMonitor even(4, 4);
    FakeMonitor alive(5, 4);
    FakeMonitor ahead(4, 5);
    Register(&even, "Even");
    Register(&alive, "Alive");
    Register(&ahead, "Ahead");
    EXPECT_EQ(Table(), kHeader +
                           "  0         0|       4|       4| Even\r\n"
                           "  1 !       1|       5|       4| Alive\r\n"
                           "  2        -1|       4|       5| Ahead\r\n");
    EXPECT_EQ(Counts(),
              "Even_count: 4\r\nEven_alive: 0\r\nAlive_count: 5\r\nAlive_alive: 1\r\n"
              "Ahead_count: 4\r\nAhead_alive: -1\r\n");
}

TEST_F(ObjectReports, NumbersWiderThanTheirColumnAreWrittenInFull) {
    FakeMonitor many(INT64_MAX, 0);
    FakeMonitor few(INT64_MIN, 0);
    Register(&many, "Many");
    Register(&few, "Few");
    EXPECT_EQ(Table(), kHeader +
                           "  0 !9223372036854775807|9223372036854775807|       0| Many\r\n"
                           "  1  -9223372036854775808|-9223372036854775808|       0| Few\r\n");
}

TEST_F(ObjectReports, ANameOfAnyLengthIsWrittenInFull) {
    FakeMonitor monitor(0, 0);
    const std::string name(1000, 'N');
    Register(&monitor, name.c_str());
    EXPECT_EQ(Table(), kHeader + "  0         0|       0|       0| " + name + "\r\n");
}

TEST_F(ObjectReports, AnEntryWithoutANameOrAMonitorIsSkippedAndKeepsItsId) {
    FakeMonitor nameless(9, 1);
    FakeMonitor named(1, 1);
    Register(nullptr, "Monitorless");
    Register(&nameless, nullptr);
    Register(&named, "Named");
    EXPECT_EQ(Table(), kHeader + "  2         0|       1|       1| Named\r\n");
    EXPECT_EQ(Counts(), "Named_count: 1\r\nNamed_alive: 0\r\n");
    EXPECT_EQ(nameless.calls, "new delete new delete ") << "the counters are read before the name is tested";
}

TEST_F(ObjectReports, TheNewCountIsReadBeforeTheDeleteCount) {
    FakeMonitor monitor(1, 1);
    Register(&monitor, "Ordered");
    Table();
    EXPECT_EQ(monitor.calls, "new delete ");
    Counts();
    EXPECT_EQ(monitor.calls, "new delete new delete ");
}

TEST_F(ObjectReports, StopAtId1023) {
    FakeMonitor monitor(0, 0);
    for (int i = 0; i < 1030; ++i) {
        Register(&monitor, "C");
    }
    const std::string table = Table();
    const std::string last = "1023         0|       0|       0| C\r\n";
    ASSERT_GE(table.size(), last.size());
    EXPECT_EQ(table.substr(table.size() - last.size()), last);
    // Ids of up to three digits take 36 characters with their "\r\n", those of four 37.
    EXPECT_EQ(table.size(), kHeader.size() + 1000 * (last.size() - 1) + 24 * last.size());
    EXPECT_EQ(Counts().size(), 1024 * std::string("C_count: 0\r\nC_alive: 0\r\n").size());
}

TEST_F(ObjectReports, OfTheModuleListItsTwoClasses) {
    std::string counts;
    DumpObjectCounts(counts);
    EXPECT_EQ(counts.rfind("CMemBuffer_count: 0\r\nCMemBuffer_alive: 0\r\nCBaseThread_count: ", 0), 0U)
        << counts;
}

TEST_F(ObjectReports, MayRunWhileObjectsAreConstructedAndDestroyed) {
    struct Idle : CBaseThread {
        bool Run() override { return false; }
    };
    std::atomic<bool> done{false};
    std::thread maker([&] {
        for (int i = 0; i < 2000; ++i) {
            const Idle idle;
        }
        done = true;
    });
    std::string text;
    do {
        DumpObjectTable(text);
        EXPECT_EQ(text.substr(0, kHeader.size()), kHeader);
        DumpObjectCounts(text);
        EXPECT_NE(text.find("CBaseThread_alive: "), std::string::npos);
    } while (!done);
    maker.join();
}

}  // namespace
}  // namespace zumod
