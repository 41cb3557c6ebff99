#include "src/base/object_registry.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "src/base/base_thread.h"
#include "src/base/object_monitor.h"
#include "tests/support/doubles/raw_slots.h"

namespace zumod {
namespace {

using testing::CallSlot;

struct FixedMonitor : ICObjectMonitor {
    int64_t GetNewCount() override { return 1; }
    int64_t GetDeleteCount() override { return 1; }
};

TEST(ObjectRegistry, GivesIdsInTheOrderOfRegistration) {
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

TEST(ObjectRegistry, HasRoomFor1024ClassesAndNothingElse) {
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

TEST(ObjectMonitor, HasNoDataOfItsOwnAndCountsPerClass) {
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

TEST(ObjectMonitor, AnswersThroughItsRawSlotsWithTheDestructorBehindTheCounters) {
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
    // The module's own monitor is the same table.
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

TEST(ObjectMonitor, SeesEveryThreadObjectComeAndGo) {
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

}  // namespace
}  // namespace zumod
