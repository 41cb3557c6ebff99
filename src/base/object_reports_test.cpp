#include "src/base/object_reports.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "src/base/base_thread.h"
#include "src/base/object_monitor.h"

namespace zumod {
namespace {

const std::string kHeader = " id     alive|     new|  delete| name\r\n";

struct FakeMonitor : ICObjectMonitor {
    FakeMonitor(int64_t made_count, int64_t delete_count) : made(made_count), destroyed(delete_count) {}
    int64_t GetNewCount() override {
        calls += "new ";
        return made;
    }
    int64_t GetDeleteCount() override {
        calls += "delete ";
        return destroyed;
    }
    int64_t made;
    int64_t destroyed;
    std::string calls;
};

class ObjectReports : public ::testing::Test {
protected:
    std::string Table() {
        std::string text = "what was here before";
        DumpObjectTable(text, *registry);
        return text;
    }
    std::string Counts() {
        std::string text = "what was here before";
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

TEST_F(ObjectReports, AnEntryIsMarkedOnlyWhileMoreWereMadeThanDestroyed) {
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
    EXPECT_EQ(nameless.calls, "new delete new delete ")
        << "the counters are read before the name is looked at";
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

TEST_F(ObjectReports, OfTheModuleNameItsTwoClasses) {
    std::string counts;
    DumpObjectCounts(counts);
    EXPECT_EQ(counts.rfind("CMemBuffer_count: 0\r\nCMemBuffer_alive: 0\r\nCBaseThread_count: ", 0), 0U)
        << counts;
}

TEST_F(ObjectReports, MayRunWhileObjectsComeAndGo) {
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
