// The hardening of every installed binary, read from its file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/process/elf_file.h"

namespace zumod::testing {
namespace {

using ::testing::Contains;

struct Binary {
    const char* name;
    const char* file;
};

void PrintTo(const Binary& binary, std::ostream* out) {
    *out << binary.file;
}

class Hardening : public ::testing::TestWithParam<Binary> {
protected:
    std::vector<std::string> Imports() const {
        std::vector<std::string> names;
        for (const ElfFile::Symbol& symbol : file.Symbols(SHT_DYNSYM)) {
            if (!symbol.defined) {
                names.push_back(symbol.name);
            }
        }
        return names;
    }
    uint64_t Flags(int64_t tag) const { return file.Dynamic(tag).value_or(0); }

    const ElfFile file{GetParam().file};
};

TEST_P(Hardening, ItBindsEverythingAtLoadAndIsReadOnlyAfterwards) {
    EXPECT_TRUE(file.Segment(PT_GNU_RELRO).has_value());
    EXPECT_TRUE((Flags(DT_FLAGS) & DF_BIND_NOW) != 0 || (Flags(DT_FLAGS_1) & DF_1_NOW) != 0);
}

TEST_P(Hardening, ItsCodeHasNoRelocation) {
    EXPECT_FALSE(file.Dynamic(DT_TEXTREL).has_value());
    EXPECT_EQ(Flags(DT_FLAGS) & DF_TEXTREL, 0U);
}

TEST_P(Hardening, NoSegmentIsWritableAndExecutableAndTheStackIsNotExecutable) {
    ASSERT_TRUE(file.Segment(PT_GNU_STACK).has_value());
    EXPECT_EQ(file.Segment(PT_GNU_STACK)->p_flags & PF_X, 0U);
    for (const Elf64_Phdr& segment : file.Segments()) {
        EXPECT_FALSE((segment.p_flags & PF_W) != 0 && (segment.p_flags & PF_X) != 0);
    }
}

TEST_P(Hardening, ItNamesNoDirectoryToSearchForLibraries) {
#if defined(__clang__)
    if (ZU_SANITIZED) {
        GTEST_SKIP() << "a program names the directory of the sanitizer's library";
    }
#endif
    EXPECT_FALSE(file.Dynamic(DT_RPATH).has_value());
    EXPECT_FALSE(file.Dynamic(DT_RUNPATH).has_value());
}

TEST_P(Hardening, ItGuardsItsStack) {
    EXPECT_THAT(Imports(), Contains("__stack_chk_fail"));
}

TEST_P(Hardening, ItDeclaresControlFlowProtectionIfTheCRuntimeAllowsIt) {
    constexpr uint32_t kBoth = GNU_PROPERTY_X86_FEATURE_1_IBT | GNU_PROPERTY_X86_FEATURE_1_SHSTK;
    std::istringstream files(ZU_CRT_FILES);
    for (std::string start_file; std::getline(files, start_file, ':');) {
        if (ElfFile(start_file).ControlFlowFeatures() != kBoth) {
            GTEST_SKIP() << start_file << " is not marked, so nothing that it is linked into can be";
        }
    }
    EXPECT_EQ(file.ControlFlowFeatures(), kBoth);
}

constexpr Binary kPrograms[] = {{"Host", ZU_HOST_FILE}, {"Peer", ZU_PEER_FILE}, {"Vcam", ZU_VCAM_FILE}};
constexpr Binary kModules[] = {
    {"CameraModule", ZU_MODULE_FILE}, {"Codec", ZU_CODEC_FILE}, {"Preload", ZU_PRELOAD_FILE}};

const auto kNameOf = [](const auto& binary) { return std::string(binary.param.name); };
INSTANTIATE_TEST_SUITE_P(Program, Hardening, ::testing::ValuesIn(kPrograms), kNameOf);
INSTANTIATE_TEST_SUITE_P(Module, Hardening, ::testing::ValuesIn(kModules), kNameOf);

using ProgramHardening = Hardening;

TEST_P(ProgramHardening, ItIsPositionIndependent) {
    EXPECT_EQ(file.Type(), ET_DYN);
    EXPECT_NE(Flags(DT_FLAGS_1) & DF_1_PIE, 0U);
}

INSTANTIATE_TEST_SUITE_P(Program, ProgramHardening, ::testing::ValuesIn(kPrograms), kNameOf);

using ModuleHardening = Hardening;

// A unique symbol would keep a module mapped after its last dlclose.
TEST_P(ModuleHardening, ItHasNoUniqueSymbol) {
    for (const uint32_t table : {uint32_t{SHT_DYNSYM}, uint32_t{SHT_SYMTAB}}) {
        const auto symbols = file.Symbols(table);
        ASSERT_FALSE(symbols.empty()) << "the test needs the full symbol table";
        for (const ElfFile::Symbol& symbol : symbols) {
            EXPECT_FALSE(symbol.defined && symbol.binding == STB_GNU_UNIQUE) << symbol.name;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Module, ModuleHardening, ::testing::ValuesIn(kModules), kNameOf);

using FortifiedHardening = Hardening;

TEST_P(FortifiedHardening, ItCallsTheCheckedFunctionsOfTheCLibrary) {
    if (ZU_SANITIZED || !ZU_OPTIMISED) {
        GTEST_SKIP() << "the checked functions come with optimised builds without a sanitizer";
    }
#if defined(__clang__)
    // In C++, Clang has no checked form of a call with variable arguments, and a program may have no other
    // call.
    GTEST_SKIP() << "GCC only, which is what is shipped";
#endif
    const auto is_checked = [](const std::string& name) {
        return name.size() > 4 && name.compare(name.size() - 4, 4, "_chk") == 0;
    };
    const auto imports = Imports();
    EXPECT_TRUE(std::any_of(imports.begin(), imports.end(), is_checked));
}

INSTANTIATE_TEST_SUITE_P(Program, FortifiedHardening, ::testing::ValuesIn(kPrograms), kNameOf);
// Not the preload library: it defines functions that the checked forms replace.
INSTANTIATE_TEST_SUITE_P(Module, FortifiedHardening, ::testing::Values(kModules[0], kModules[1]), kNameOf);

}  // namespace
}  // namespace zumod::testing
