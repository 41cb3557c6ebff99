#include "src/base/uuid_text.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <set>

#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

TEST(UuidText, ReadsTheFirstThreeNumbersLittleEndianAndEndsInZeros) {
    EXPECT_EQ(UuidText({0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE,
                        0xFF, 0x01}),
              "8877665544332211-AA99-CCBB-DDEE-FF0100000000");
}

TEST(UuidText, PadsTheFirstNumberTo8DigitsOnly) {
    EXPECT_EQ(UuidText({1}), "00000001-0000-0000-0000-000000000000");
    EXPECT_EQ(UuidText({0x78, 0x56, 0x34, 0x12, 0x0F}), "F12345678-0000-0000-0000-000000000000");
}

TEST(UuidText, WritesEveryByteOfTheLargestIdentifier) {
    unsigned char bytes[16];
    for (unsigned char& byte : bytes) {
        byte = 0xFF;
    }
    EXPECT_EQ(UuidText(bytes), "FFFFFFFFFFFFFFFF-FFFF-FFFF-FFFF-FFFF00000000");
}

TEST(NewUuidString, HasTheFormAndTheVersionBitsOfAUuid) {
    for (int i = 0; i < 50; ++i) {
        const std::string text = NewUuidString();
        SCOPED_TRACE(text);
        std::uint64_t first = 0;
        unsigned second = 0;
        unsigned third = 0;
        unsigned fourth = 0;
        unsigned long fifth = 1;
        ASSERT_EQ(std::sscanf(text.c_str(), "%16" SCNx64 "-%4X-%4X-%4X-%12lX", &first, &second, &third,
                              &fourth, &fifth),
                  5);
        char again[64];
        std::snprintf(again, sizeof again, "%08" PRIX64 "-%04X-%04X-%04X-%012lX", first, second, third,
                      fourth, fifth);
        EXPECT_EQ(text, again);
        // The upper half of byte 6 is the version, 1 (time) or 4 (random); the upper two bits of byte 8
        // are 10.
        const std::uint64_t version = first >> 52 & 0xF;
        EXPECT_TRUE(version == 1 || version == 4);
        EXPECT_EQ(second & 0xC0, 0x80U);
        // The last four bytes of the record are never written and are 0.
        EXPECT_EQ(fifth & 0xFFFFFFFF, 0U);
    }
}

TEST(NewUuidString, LetsTheLibraryChooseTheKindOfUuid) {
    const testing::CallWatch watch;
    NewUuidString();
    EXPECT_EQ(watch.Count(testing::CallWatch::uuid_generate), 1);
}

TEST(NewUuidString, DiffersEachTime) {
    std::set<std::string> texts;
    for (int i = 0; i < 100; ++i) {
        texts.insert(NewUuidString());
    }
    EXPECT_EQ(texts.size(), 100U);
}

}  // namespace
}  // namespace zumod
