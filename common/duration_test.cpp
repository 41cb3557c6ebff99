#include "common/duration.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace zumod {
namespace {

TEST(Duration, IsReadFromItsText) {
    const std::vector<std::pair<const char*, int>> texts = {
        {"90", 90000},   {"1.5", 1500},     {"90s", 90000},         {"1m30s", 90000},
        {"1m30", 90000}, {"2h", 7200000},   {"01:30", 90000},       {"00:01:30", 90000},
        {"0:0.5", 500},  {"1h1s", 3601000}, {"1000000", 1000000000}};
    for (const auto& [text, expected] : texts) {
        EXPECT_EQ(ParseDuration(text), std::chrono::milliseconds(expected)) << text;
    }
}

TEST(Duration, IsNotReadFromAnyOtherText) {
    for (const char* text : {"",  "0",  "-1",   "+1",   "nan",     "inf",   "1e3",     "0x10",
                             "s", "1x", "1s1m", "1m1m", "m30",     "1 m",   " 1",      "1.2.3",
                             ":", "1:", ":30",  "1:60", "1:2:3:4", "1:30s", "1000001", "0.0000000001"}) {
        EXPECT_EQ(ParseDuration(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace zumod
