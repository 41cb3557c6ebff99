#include "host/options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/process/scoped_environment.h"

namespace zumod::host {
namespace {

Expected<HostOptions> Parse(std::vector<const char*> words) {
    words.insert(words.begin(), "zu-camera-host");
    return ParseOptions(static_cast<int>(words.size()), words.data());
}

// The options of a command line without a mistake.
HostOptions Options(const std::vector<const char*>& words) {
    const auto options = Parse(words);
    EXPECT_TRUE(options) << options.error().text;
    return options.value_or(HostOptions{});
}

// The error of a command line with a mistake.
std::string Mistake(const std::vector<const char*>& words) {
    const auto options = Parse(words);
    EXPECT_FALSE(options);
    EXPECT_EQ(options.error().status, 2);
    return options.error().text;
}

TEST(HostOptions, AListeningHostShowsInfoAndAboveAndFindsItsModulesByItself) {
    const HostOptions options = Options({"--listen", "/run/zu/camera"});
    EXPECT_EQ(options.listen, "/run/zu/camera");
    EXPECT_FALSE(options.stdio);
    EXPECT_EQ(options.modules, "");
    EXPECT_TRUE(options.properties.empty());
    EXPECT_EQ(options.log_levels, 7U);
    EXPECT_EQ(options.limits.peers, 16U);
    EXPECT_TRUE(options.sandbox);
}

TEST(HostOptions, TheSandboxCanBeLeftOut) {
    EXPECT_FALSE(Options({"--stdio", "--no-sandbox"}).sandbox);
}

TEST(HostOptions, TheNumberOfPeersIsFrom1To256) {
    EXPECT_EQ(Options({"--listen", "x", "--peers", "1"}).limits.peers, 1U);
    EXPECT_EQ(Options({"--listen", "x", "--peers", "256"}).limits.peers, 256U);
    for (const char* wrong : {"0", "257", "-1", "many", "1.5", ""}) {
        EXPECT_EQ(Mistake({"--listen", "x", "--peers", wrong}),
                  "--peers: takes a number from 1 to 256, not \"" + std::string(wrong) + "\" (see --help)");
    }
}

TEST(HostOptions, LimitsOfTimeTakeTheUsualFormsAnd0IsNone) {
    const PeerLimits usual = Options({"--stdio"}).limits.each;
    EXPECT_EQ(usual.idle, std::chrono::seconds(60));
    EXPECT_EQ(usual.stuck, std::chrono::seconds(20));
    const PeerLimits given = Options({"--stdio", "--idle", "0", "--stuck", "1m30s"}).limits.each;
    EXPECT_EQ(given.idle, Clock::duration::zero());
    EXPECT_EQ(given.stuck, std::chrono::seconds(90));
    EXPECT_EQ(Mistake({"--stdio", "--idle", "-1"}),
              "--idle: takes a time such as 90, 1m30s or 00:01:30, not \"-1\" (see --help)");
    EXPECT_EQ(Mistake({"--stdio", "--stuck", "1000001"}),
              "--stuck: takes a time such as 90, 1m30s or 00:01:30, not \"1000001\" (see --help)");
}

TEST(HostOptions, EveryPropertyIsKeptAndTheLastValueOfAKeyWins) {
    const HostOptions options = Options({"--stdio", "--modules", "/opt/m", "--env", "zu.codec.bitrate=900000",
                                         "--env", "a=", "--env=b=c=d", "--env", "a=[1,2]"});
    EXPECT_TRUE(options.stdio);
    EXPECT_EQ(options.modules, "/opt/m");
    EXPECT_EQ(options.properties, (std::map<std::string, std::string>{
                                      {"zu.codec.bitrate", "900000"}, {"a", "[1,2]"}, {"b", "c=d"}}));
}

TEST(HostOptions, CamerasAreLentByPatternsOneForEachOption) {
    EXPECT_TRUE(Options({"--stdio"}).lending.allow.empty());
    const LendingRules rules =
        Options({"--stdio", "--allow", "Desk*", "--deny=usb-*-1", "--allow", "Front, 2"}).lending;
    EXPECT_EQ(rules.allow, (std::vector<std::string>{"Desk*", "Front, 2"}));
    EXPECT_EQ(rules.deny, std::vector<std::string>{"usb-*-1"});
    EXPECT_FALSE(rules.list_only);
    EXPECT_TRUE(Options({"--stdio", "--list-only"}).lending.list_only);
    Mistake({"--stdio", "--allow"});
    Mistake({"--stdio", "--allow", "a", "b"});
}

TEST(HostOptions, CommandsAreOfferedByThreeOptions) {
    const HostOptions none = Options({"--stdio"});
    EXPECT_FALSE(none.lending.ask);
    EXPECT_EQ(none.commands.ask_limit, std::chrono::seconds(30));
    const HostOptions options =
        Options({"--stdio", "--ask", "a b", "--ask-timeout", "2.5", "--on-open", "c", "--on-close", "d"});
    EXPECT_TRUE(options.lending.ask);
    EXPECT_EQ(options.commands.ask, "a b");
    EXPECT_EQ(options.commands.ask_limit, std::chrono::milliseconds(2500));
    EXPECT_EQ(options.commands.on_open, "c");
    EXPECT_EQ(options.commands.on_close, "d");
    EXPECT_EQ(Mistake({"--stdio", "--ask", ""}), "--ask: takes a command (see --help)");
}

TEST(HostOptions, EachLevelIncludesTheMoreSevereOnes) {
    EXPECT_EQ(Options({"--stdio", "--log-level", "error"}).log_levels, 4U);
    EXPECT_EQ(Options({"--stdio", "--log-level", "warning"}).log_levels, 6U);
    EXPECT_EQ(Options({"--stdio", "--log-level", "info"}).log_levels, 7U);
    EXPECT_EQ(Options({"--stdio", "--log-level", "trace"}).log_levels, 15U);
}

TEST(HostOptions, AHostBehindAPipeShowsNoEvents) {
    EXPECT_EQ(Options({"--stdio"}).log_levels, 6U);
}

TEST(HostOptions, AMistakeIsOneLineAndStatus2) {
    EXPECT_EQ(Mistake({}), "give --listen or --stdio (see --help)");
    EXPECT_EQ(Mistake({"--stdio", "--listen", "x"}), "--listen and --stdio exclude each other (see --help)");
    EXPECT_EQ(Mistake({"--stdio", "--log-level", "loud"}),
              "--log-level: takes error, warning, info or trace, not \"loud\" (see --help)");
    EXPECT_EQ(Mistake({"--stdio", "--env", "novalue"}),
              "--env: takes KEY=VALUE, not \"novalue\" (see --help)");
    EXPECT_EQ(Mistake({"--stdio", "--env", "=v"}), "--env: takes KEY=VALUE, not \"=v\" (see --help)");
    EXPECT_EQ(Mistake({"--listen", ""}), "--listen: takes a path (see --help)");
    Mistake({"--colour"});
    Mistake({"--stdio", "word"});
    Mistake({"--listen", "a", "--listen", "b"});
    // A property takes one word, not all that follow.
    Mistake({"--stdio", "--env", "a=b", "c=d"});
}

TEST(HostOptions, WithoutAPathTheSocketIsInTheDirectoryOfTheSession) {
    const zumod::testing::ScopedVariable session("XDG_RUNTIME_DIR", "/run/user/7");
    EXPECT_EQ(Options({"--listen"}).listen, "/run/user/7/zu/camera");
    EXPECT_EQ(Options({"--listen", "--log-level", "error"}).listen, "/run/user/7/zu/camera");
    EXPECT_EQ(Options({"--stdio"}).listen, "");
    const zumod::testing::ScopedVariable none("XDG_RUNTIME_DIR", "");
    if (geteuid() == 0) {
        EXPECT_EQ(Options({"--listen"}).listen, "/run/zu/camera");
    } else {
        EXPECT_EQ(Mistake({"--listen"}), "--listen: takes a path (see --help)");
    }
}

TEST(HostOptions, ANetworkAddressIsRefusedWithTheWayToUseSsh) {
    for (const std::string address : {"0.0.0.0:5000", "tcp://0.0.0.0:5000", "tcp://desk", "[::]:5000",
                                      "localhost:5000", ":5000", "5000"}) {
        EXPECT_EQ(
            Mistake({"--listen", address.c_str()}),
            "--listen: takes the path of a Unix socket, not \"" + address +
                "\"; over a network use ssh: zu-camera-peer --exec 'ssh MACHINE zu-camera-host --stdio' "
                "(see --help)");
    }
    for (const char* path : {"camera", "./5000", "/run/zu:5000", "camera:a", "camera5", "a:b5"}) {
        EXPECT_EQ(Options({"--listen", path}).listen, path);
    }
}

TEST(HostOptions, HelpNamesEveryOptionAndTheBitsOfTheLevels) {
    const auto help = Parse({"--help"});
    ASSERT_FALSE(help);
    EXPECT_EQ(help.error().status, 0);
    std::istringstream lines(help.error().text);
    std::string unwrapped;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80U) << line;
        unwrapped += line.substr(std::min(line.size(), line.find_first_not_of(' '))) + ' ';
    }
    for (const char* part :
         {"--allow",     "--deny",    "--list-only", "--ask",   "--ask-timeout", "--on-open", "--on-close",
          "--listen",    "--peers",   "--idle",      "--stuck", "--stdio",       "--modules", "--env",
          "--log-level", "--version", "level bit 4", "bit 2",   "bit 1",         "bit 8"}) {
        EXPECT_NE(unwrapped.find(part), std::string::npos) << part;
    }
}

TEST(HostOptions, TheVersionIsOneLine) {
    const auto version = Parse({"--version"});
    ASSERT_FALSE(version);
    EXPECT_EQ(version.error(), (Error{"zu-camera-host 2.0.0\n", 0}));
}

}  // namespace
}  // namespace zumod::host
