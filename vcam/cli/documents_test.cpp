// The README and the man page list what the tables hold.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "vcam/model/camera_option.h"

namespace zumod::vcam {
namespace {

std::string ReadDocument(const std::string& name) {
    std::ifstream in(std::string(ZU_VCAM_SOURCE_DIR "/") + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Roff reads a plain "-" as a hyphen.
std::string InRoff(std::string text) {
    for (size_t at = text.find('-'); at != std::string::npos; at = text.find('-', at + 2)) {
        text.replace(at, 1, "\\-");
    }
    return text;
}

TEST(Readme, HoldsTheListOfOptionsWordForWord) {
    EXPECT_NE(ReadDocument("README.md").find("```\n" + DescribeOptions() + "```\n"), std::string::npos)
        << "put the output of zu-vcam --list-options into README.md";
}

// The first words of the lines below a heading of DescribeOptions().
std::vector<std::string> NamesBelow(const std::string& heading) {
    std::istringstream options(DescribeOptions());
    std::vector<std::string> names;
    bool below = false;
    for (std::string line; std::getline(options, line);) {
        below = line.rfind(heading, 0) == 0 || (below && !line.empty());
        if (below && line.rfind("  ", 0) == 0) {
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
    }
    EXPECT_FALSE(names.empty()) << heading;
    return names;
}

TEST(ManPage, NamesEveryKeyFormatAndFault) {
    const std::string page = ReadDocument("cli/zu-vcam.1");
    for (const std::string& key : NamesBelow("Keys")) {
        EXPECT_NE(page.find("\n.BI " + key + "= "), std::string::npos) << key;
    }
    for (const char* heading : {"Formats", "Faults"}) {
        for (const std::string& name : NamesBelow(heading)) {
            EXPECT_NE(page.find("\n.B " + InRoff(name) + "\n"), std::string::npos) << name;
        }
    }
}

}  // namespace
}  // namespace zumod::vcam
