#include "common/parse_number.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace zumod {
namespace {

TEST(ParseNumber, AcceptsEveryNumberThatTheTypeHolds) {
    EXPECT_EQ(ParseNumber<uint8_t>("0"), 0);
    EXPECT_EQ(ParseNumber<uint8_t>("255"), 255);
    EXPECT_EQ(ParseNumber<int8_t>("-128"), -128);
}

TEST(ParseNumber, RefusesEverythingElse) {
    for (const char* text : {"", "256", "-1", "+1", " 1", "1 ", "1x", "0x1", "1.0"}) {
        EXPECT_EQ(ParseNumber<uint8_t>(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace zumod
