#include "host/options.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace zumod::host {
namespace {

struct Parsed {
    std::optional<int> status;
    HostOptions options;
    std::string out;
    std::string err;
};

Parsed Parse(std::vector<const char*> words) {
    words.insert(words.begin(), "zu-camera-host");
    Parsed parsed;
    std::ostringstream out;
    std::ostringstream err;
    parsed.status = ParseOptions(static_cast<int>(words.size()), words.data(), parsed.options, out, err);
    parsed.out = out.str();
    parsed.err = err.str();
    return parsed;
}

void ExpectRefused(std::vector<const char*> words, const std::string& line) {
    const Parsed parsed = Parse(std::move(words));
    EXPECT_EQ(parsed.status, 2);
    EXPECT_EQ(parsed.out, "");
    EXPECT_EQ(parsed.err, line + " (see --help)\n");
}

TEST(HostOptions, AListeningHostShowsInfoAndAboveAndFindsItsModulesByItself) {
    const Parsed parsed = Parse({"--listen", "/run/zu/camera"});
    EXPECT_EQ(parsed.status, std::nullopt);
    EXPECT_EQ(parsed.options.listen, "/run/zu/camera");
    EXPECT_FALSE(parsed.options.stdio);
    EXPECT_EQ(parsed.options.modules, "");
    EXPECT_TRUE(parsed.options.properties.empty());
    EXPECT_EQ(parsed.options.log_levels, 7U);
}

TEST(HostOptions, EveryPropertyIsKeptAndTheLastOfAKeyStands) {
    const Parsed parsed = Parse({"--stdio", "--modules", "/opt/m", "--env", "zu.codec.bitrate=900000",
                                 "--env", "a=", "--env=b=c=d", "--env", "a=[1,2]"});
    EXPECT_EQ(parsed.status, std::nullopt);
    EXPECT_TRUE(parsed.options.stdio);
    EXPECT_EQ(parsed.options.modules, "/opt/m");
    EXPECT_EQ(parsed.options.properties, (std::map<std::string, std::string>{
                                             {"zu.codec.bitrate", "900000"}, {"a", "[1,2]"}, {"b", "c=d"}}));
}

TEST(HostOptions, EachLevelShowsTheGraverOnesToo) {
    EXPECT_EQ(Parse({"--stdio", "--log-level", "error"}).options.log_levels, 4U);
    EXPECT_EQ(Parse({"--stdio", "--log-level", "warning"}).options.log_levels, 6U);
    EXPECT_EQ(Parse({"--stdio", "--log-level", "info"}).options.log_levels, 7U);
    EXPECT_EQ(Parse({"--stdio", "--log-level", "trace"}).options.log_levels, 15U);
}

TEST(HostOptions, AMistakeIsOneLineAndStatus2) {
    ExpectRefused({}, "zu-camera-host: give --listen PATH or --stdio");
    ExpectRefused({"--stdio", "--listen", "x"}, "zu-camera-host: --listen and --stdio exclude each other");
    ExpectRefused({"--stdio", "--log-level", "loud"},
                  "zu-camera-host: --log-level: takes error, warning, info or trace, not \"loud\"");
    ExpectRefused({"--stdio", "--env", "novalue"}, "zu-camera-host: --env: takes KEY=VALUE, not \"novalue\"");
    ExpectRefused({"--stdio", "--env", "=v"}, "zu-camera-host: --env: takes KEY=VALUE, not \"=v\"");
    ExpectRefused({"--listen", ""}, "zu-camera-host: --listen: takes a path");
    EXPECT_EQ(Parse({"--colour"}).status, 2);
    EXPECT_EQ(Parse({"--stdio", "word"}).status, 2);
    EXPECT_EQ(Parse({"--listen"}).status, 2);
    EXPECT_EQ(Parse({"--listen", "a", "--listen", "b"}).status, 2);
    // A property takes one word, not all that follow.
    EXPECT_EQ(Parse({"--stdio", "--env", "a=b", "c=d"}).status, 2);
}

TEST(HostOptions, HelpNamesEveryOptionAndTheLevelsBits) {
    const Parsed parsed = Parse({"--help"});
    EXPECT_EQ(parsed.status, 0);
    EXPECT_EQ(parsed.err, "");
    for (const char* part : {"--listen", "--stdio", "--modules", "--env", "--log-level", "--version",
                             "level bit 4", "bit 2", "bit 1", "bit 8"}) {
        EXPECT_NE(parsed.out.find(part), std::string::npos) << part;
    }
}

TEST(HostOptions, TheVersionIsOneLine) {
    const Parsed parsed = Parse({"--version"});
    EXPECT_EQ(parsed.status, 0);
    EXPECT_EQ(parsed.out, "zu-camera-host 2.0.0\n");
}

}  // namespace
}  // namespace zumod::host
