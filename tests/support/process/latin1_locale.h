// A locale with the character classes of the single-byte ISO 8859-1, built by the test, so that no test
// depends on the installed locales. 0xA0 is white space; 0xC9 and 0xE9 are an upper- and lower-case pair.
//
// Thread rule: as in scoped_environment.h. The locale is current from construction to destruction.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "tests/support/process/scoped_environment.h"

namespace zumod::testing {

class Latin1Locale {
public:
    Latin1Locale() {
        std::string pattern = ::testing::TempDir() + "latin1_locale_XXXXXX";
        m_directory = mkdtemp(pattern.data());
        WriteCharmap(m_directory + "/charmap");
        WriteSource(m_directory + "/source");
        // localedef gets character classes only. With -c it accepts that, with warnings and status 1.
        const std::string make = "localedef -c --no-archive -f " + m_directory + "/charmap -i " +
                                 m_directory + "/source " + m_directory + "/test.ISO-8859-1 >/dev/null 2>&1";
        EXPECT_NE(std::system(make.c_str()), -1);
        m_path.emplace("LOCPATH", m_directory);
        m_locale.emplace("test.ISO-8859-1", LC_CTYPE);
    }
    ~Latin1Locale() {
        m_locale.reset();
        m_path.reset();
        std::filesystem::remove_all(m_directory);
    }
    Latin1Locale(const Latin1Locale&) = delete;
    Latin1Locale& operator=(const Latin1Locale&) = delete;

    bool IsInstalled() const { return m_locale->IsInstalled(); }

private:
    static void WriteCharmap(const std::string& path) {
        std::ofstream out(path);
        out << "<code_set_name> ISO-8859-1\n<comment_char> %\n<escape_char> /\nCHARMAP\n";
        for (unsigned code = 0; code < 256; ++code) {
            char line[64];
            std::snprintf(line, sizeof line, "<U%04X> /x%02x character\n", code, code);
            out << line;
        }
        out << "END CHARMAP\n";
    }
    static void WriteSource(const std::string& path) {
        std::ofstream(path) << "comment_char %\nescape_char /\nLC_CTYPE\n"
                               "upper <U0041>..<U005A>;<U00C9>\nlower <U0061>..<U007A>;<U00E9>\n"
                               "space <U0009>..<U000D>;<U0020>;<U00A0>\n"
                               "toupper (<U00E9>,<U00C9>)\ntolower (<U00C9>,<U00E9>)\nEND LC_CTYPE\n";
    }

    std::string m_directory;
    std::optional<ScopedVariable> m_path;
    std::optional<ScopedLocale> m_locale;
};

}  // namespace zumod::testing
