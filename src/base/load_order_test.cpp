// The state of the module's namespace-scope objects before any function of the module is called.
#include <gtest/gtest.h>

#include <cstring>

#include "src/base/create_buffer.h"
#include "src/base/object_monitor.h"

namespace zumod {
namespace {

TEST(LoadOrder, TheBufferClassIsRegisteredFirstAndTheThreadClassSecond) {
    ASSERT_GE(g_ObjectRegistry.count.load(), 2);
    EXPECT_STREQ(g_ObjectRegistry.entries[0].name, "CMemBuffer");
    EXPECT_STREQ(g_ObjectRegistry.entries[1].name, "CBaseThread");
    EXPECT_NE(g_ObjectRegistry.entries[0].monitor, nullptr);
    EXPECT_NE(g_ObjectRegistry.entries[1].monitor, nullptr);
}

TEST(LoadOrder, TheDefaultAllocatorHasOneReferenceAndNoLimit) {
    ASSERT_NE(g_pDefaultAlloctor, nullptr);
    EXPECT_EQ(g_pDefaultAlloctor->AddRef(), 2U);
    EXPECT_EQ(g_pDefaultAlloctor->Release(), 1);
    EXPECT_EQ(g_pDefaultAlloctor->GetMaxSize(), ~uint64_t{0});
    uint64_t fields[5];
    std::memcpy(fields, reinterpret_cast<const char*>(g_pDefaultAlloctor.Get()) + 32, sizeof fields);
    EXPECT_EQ(fields[0], 0U);
    EXPECT_EQ(fields[3], 4096U);
    EXPECT_EQ(fields[4], 1000U);
}

TEST(LoadOrder, TheRowOfTheBufferClassAlwaysReadsZero) {
    const CRefPtr_T<IBuffer> alive = CreateBuffer("x", 1);
    CreateBuffer("y", 1);
    std::string report;
    DumpObjectTable(report);
    const std::string expected =
        " id     alive|     new|  delete| name\r\n"
        "  0         0|       0|       0| CMemBuffer\r\n";
    EXPECT_EQ(report.substr(0, expected.size()), expected);
}

}  // namespace
}  // namespace zumod
