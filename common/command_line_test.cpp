#include "common/command_line.h"

#include <gtest/gtest.h>

#include <vector>

namespace zumod {
namespace {

class CommandLine : public ::testing::Test {
protected:
    CommandLine() {
        AddHelpAndVersion(app);
        AddModulesOption(app, modules, "zu-codec.so");
    }
    Expected<void> Parse(std::vector<const char*> words) {
        words.insert(words.begin(), "zu-program");
        return ParseCommandLine(app, static_cast<int>(words.size()), words.data());
    }

    CLI::App app{"Does something.", "zu-program"};
    std::string modules;
};

TEST_F(CommandLine, ValuesAreStored) {
    EXPECT_TRUE(Parse({"--modules", "/opt/m"}));
    EXPECT_EQ(modules, "/opt/m");
}

TEST_F(CommandLine, HelpNamesEveryOption) {
    const auto result = Parse({"--help"});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().status, 0);
    for (const char* part :
         {"Does something.", "--help", "--version", "--modules DIR", "The directory of zu-codec.so"}) {
        EXPECT_NE(result.error().text.find(part), std::string::npos) << part;
    }
}

TEST_F(CommandLine, HelpIsWrappedAt80Columns) {
    CLI::App wide("Does something that takes more words to describe than a line of eighty columns can hold.",
                  "zu");
    wide.set_help_flag("--help", "Print this text");
    std::string value;
    wide.add_option("--an-option", value,
                    "Its description continues in the column where it starts, as often as it needs to, until "
                    "all of it has been said")
        ->type_name("NAME");
    const char* words[] = {"zu", "--help"};
    const auto result = ParseCommandLine(wide, 2, words);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().text,
              "Does something that takes more words to describe than a line of eighty columns\n"
              "can hold.\n"
              "Usage: zu [OPTIONS]\n"
              "\n"
              "Options:\n"
              "  --help                      Print this text\n"
              "  --an-option NAME            Its description continues in the column where it\n"
              "                              starts, as often as it needs to, until all of it\n"
              "                              has been said\n"
              "\n");
}

TEST_F(CommandLine, TheVersionIsOneLine) {
    const auto result = Parse({"--version"});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), (Error{"zu-program 2.0.0\n", 0}));
}

TEST_F(CommandLine, AMistakeIsOneLineThatRefersToTheHelpText) {
    const auto empty = Parse({"--modules", ""});
    ASSERT_FALSE(empty);
    EXPECT_EQ(empty.error(), (Error{"--modules: takes a path (see --help)", kExitUsage}));
    const auto unknown = Parse({"--colour\nred"});
    ASSERT_FALSE(unknown);
    EXPECT_EQ(unknown.error().status, kExitUsage);
    EXPECT_EQ(unknown.error().text.find('\n'), std::string::npos);
}

}  // namespace
}  // namespace zumod
