#include "common/module_directory.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace zumod {
namespace {

// The test program is in the build tree's program directory, as the programs are.
TEST(ModuleDirectory, IsFoundFromAProgramOfTheBuildTree) {
    EXPECT_EQ(FindModuleDirectory(), std::filesystem::weakly_canonical(ZU_MODULE_DIR).string());
}

}  // namespace
}  // namespace zumod
