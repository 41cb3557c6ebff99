// The built module as a file: its exports, what it needs and its size. hardening_test has the rest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tests/support/process/elf_file.h"

namespace zumod::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using Names = std::vector<std::string>;

Names ExportsOf(const ElfFile& file) {
    Names names;
    for (const ElfFile::Symbol& symbol : file.Symbols(SHT_DYNSYM)) {
        if (symbol.defined && symbol.binding != STB_LOCAL) {
            names.push_back(symbol.name);
        }
    }
    return names;
}

Names ImportsOf(const ElfFile& file) {
    Names names;
    for (const ElfFile::Symbol& symbol : file.Symbols(SHT_DYNSYM)) {
        if (!symbol.defined) {
            names.push_back(symbol.name);
        }
    }
    return names;
}

const ElfFile& Module() {
    static const ElfFile file(ZU_MODULE_FILE);
    return file;
}

TEST(ModuleBinary, ExportsItsEntryPointAndNothingElse) {
    EXPECT_THAT(ExportsOf(Module()), ElementsAre("zumod_get_entrypoint"));
}

TEST(ModuleBinary, NeedsOnlyLibuuidAndTheCAndCppRuntimes) {
    if (ZU_SANITIZED) {
        GTEST_SKIP() << "a sanitizer needs further libraries";
    }
    const std::set<std::string> allowed = {"libuuid.so.1", "libstdc++.so.6", "libgcc_s.so.1",
                                           "libc.so.6",    "libm.so.6",      "ld-linux-x86-64.so.2"};
    EXPECT_FALSE(Module().Needed().empty());
    for (const std::string& name : Module().Needed()) {
        EXPECT_TRUE(allowed.contains(name)) << name;
    }
}

TEST(ModuleBinary, MayBeUnloaded) {
    EXPECT_EQ(Module().Dynamic(DT_FLAGS_1).value_or(0) & DF_1_NODELETE, 0U);
}

TEST(ModuleBinary, ItsEntryPointStartsWithABranchTarget) {
    for (const ElfFile::Symbol& symbol : Module().Symbols(SHT_DYNSYM)) {
        if (symbol.defined && symbol.name == "zumod_get_entrypoint") {
            EXPECT_EQ(Module().BytesAt(symbol.value, 4), "\xF3\x0F\x1E\xFA")
                << "built without -fcf-protection";
        }
    }
}

TEST(ModuleBinary, ItsTextFormattingIsChecked) {
    if (ZU_SANITIZED || !ZU_OPTIMISED) {
        GTEST_SKIP() << "the checked functions come with optimised builds without a sanitizer";
    }
    EXPECT_THAT(ImportsOf(Module()), Contains("__vsnprintf_chk"));
    EXPECT_THAT(ImportsOf(Module()), Not(Contains("vsnprintf")));
}

TEST(ModuleBinary, StrippedIsSmallerThan300Kilobytes) {
    if (ZU_SANITIZED) {
        GTEST_SKIP() << "a build with a sanitizer is not shipped";
    }
    const auto stripped =
        std::filesystem::temp_directory_path() / ("zu-stripped-" + std::to_string(getpid()) + ".so");
    const std::string command = "'" ZU_STRIP "' -s -o '" + stripped.string() + "' '" ZU_MODULE_FILE "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_LT(std::filesystem::file_size(stripped), 300U * 1000U);
    std::filesystem::remove(stripped);
}

TEST(ProbeBinary, ExportsItsProbeAndHasNoUniqueSymbol) {
    const ElfFile probe(ZU_PROBE_FILE);
    EXPECT_THAT(ExportsOf(probe), ElementsAre("load_probe"));
    for (const ElfFile::Symbol& symbol : probe.Symbols(SHT_SYMTAB)) {
        EXPECT_FALSE(symbol.defined && symbol.binding == STB_GNU_UNIQUE) << symbol.name;
    }
}

TEST(CHostBinary, DoesNotNeedACppRuntime) {
    EXPECT_THAT(ElfFile(ZU_C_HOST_FILE).Needed(), Not(Contains("libstdc++.so.6")));
}

}  // namespace
}  // namespace zumod::testing
