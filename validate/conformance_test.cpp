// docs/conformance-1.txt lists the checks that a module must pass.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/process/file_content.h"
#include "validate/check.h"

namespace zumod::validate {
namespace {

TEST(Conformance, TheDocumentListsEveryCheckThatAModuleMustPass) {
    std::string expected =
        "# The checks of zu-module-validate that a module must pass, for SDK 1: kind, name, what it does.\n";
    for (const Check& check : Checks()) {
        if (check.severity == Severity::kMust) {
            expected +=
                std::string(TargetName(check.target)) + " " + check.name + ": " + check.sentence + "\n";
        }
    }
    EXPECT_EQ(zumod::testing::FileContent(ZU_CONFORMANCE_FILE), expected);
}

}  // namespace
}  // namespace zumod::validate
