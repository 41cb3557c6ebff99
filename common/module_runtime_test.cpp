#include "common/module_runtime.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace zumod {
namespace {

TEST(ModuleRuntime, PassesOnWhatModulesLog) {
    std::vector<std::pair<uint32_t, std::string>> lines;
    ModuleRuntime runtime([&lines](uint32_t level, const char* text) { lines.emplace_back(level, text); },
                          {});
    EXPECT_EQ(runtime.WriteLog(kLogFailure, "broken"), 0);
    EXPECT_EQ(lines, (std::vector<std::pair<uint32_t, std::string>>{{kLogFailure, "broken"}}));
}

TEST(ModuleRuntime, FindsItsPropertiesByKey) {
    ModuleRuntime runtime([](uint32_t, const char*) {}, {{"key", "value"}});
    IZUModData* const value = runtime.GetEnvProperty("key");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value->GetString(), "value");
    EXPECT_EQ(runtime.GetEnvProperty("other"), nullptr);
}

}  // namespace
}  // namespace zumod
