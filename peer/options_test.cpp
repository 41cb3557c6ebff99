#include "peer/options.h"

#include <gtest/gtest.h>

#include <sstream>

namespace zumod::peer {
namespace {

struct Parsed {
    std::optional<int> status;
    PeerOptions options;
    std::string out;
    std::string err;
};

Parsed Parse(std::vector<const char*> words) {
    words.insert(words.begin(), "zu-camera-peer");
    Parsed parsed;
    std::ostringstream out;
    std::ostringstream err;
    parsed.status = ParseOptions(static_cast<int>(words.size()), words.data(), parsed.options, out, err);
    parsed.out = out.str();
    parsed.err = err.str();
    return parsed;
}

// With a socket given.
Parsed ParseWithSocket(std::vector<const char*> words) {
    words.insert(words.begin(), {"--socket", "s"});
    return Parse(words);
}

TEST(PeerOptions, NameFurtherCamerasToRecord) {
    const Parsed parsed = ParseWithSocket({"record", "0", "a.mp4", "2", "b.mkv", "7", "c.h264"});
    ASSERT_EQ(parsed.status, std::nullopt) << parsed.err;
    EXPECT_EQ(parsed.options.id, 0U);
    EXPECT_EQ(parsed.options.path, "a.mp4");
    ASSERT_EQ(parsed.options.more.size(), 2U);
    EXPECT_EQ(parsed.options.more[0].id, 2U);
    EXPECT_EQ(parsed.options.more[0].path, "b.mkv");
    EXPECT_EQ(parsed.options.more[1].id, 7U);
    EXPECT_EQ(parsed.options.more[1].path, "c.h264");
}

TEST(PeerOptions, HaveTheirDefaults) {
    const Parsed parsed = Parse({"--socket", "/run/s", "list"});
    ASSERT_EQ(parsed.status, std::nullopt) << parsed.err;
    const PeerOptions& options = parsed.options;
    EXPECT_EQ(options.command, Command::kList);
    EXPECT_EQ(options.socket, "/run/s");
    EXPECT_EQ(options.exec, "");
    EXPECT_EQ(options.limit, std::chrono::seconds(10));
    EXPECT_EQ(options.size, std::nullopt);
    EXPECT_EQ(options.fps, 30);
    EXPECT_EQ(options.seconds, std::nullopt);
    EXPECT_FALSE(options.json);
    EXPECT_FALSE(options.overwrite);
}

TEST(PeerOptions, MayStandBeforeAndBehindTheCommand) {
    const Parsed parsed =
        Parse({"record", "3", "a.mkv", "--seconds", "2.5", "--size", "640x480", "--fps", "15", "--overwrite",
               "--exec", "ssh desk", "--timeout", "0.5", "--modules", "/m"});
    ASSERT_EQ(parsed.status, std::nullopt) << parsed.err;
    const PeerOptions& options = parsed.options;
    EXPECT_EQ(options.command, Command::kRecord);
    EXPECT_EQ(options.exec, "ssh desk");
    EXPECT_EQ(options.modules, "/m");
    EXPECT_EQ(options.limit, std::chrono::milliseconds(500));
    EXPECT_EQ(options.id, 3U);
    EXPECT_EQ(options.path, "a.mkv");
    EXPECT_EQ(options.size, (PictureSize{640, 480}));
    EXPECT_EQ(options.fps, 15);
    EXPECT_EQ(options.seconds, std::chrono::milliseconds(2500));
    EXPECT_TRUE(options.overwrite);
}

TEST(PeerOptions, KnowEveryCommand) {
    EXPECT_EQ(ParseWithSocket({"snapshot", "0", "a.png"}).options.command, Command::kSnapshot);
    EXPECT_EQ(ParseWithSocket({"record", "0", "-"}).options.command, Command::kRecord);
    EXPECT_EQ(ParseWithSocket({"stats", "0", "--json"}).options.command, Command::kStats);
    EXPECT_EQ(ParseWithSocket({"format", "0", "--size", "1x1"}).options.command, Command::kFormat);
    EXPECT_EQ(ParseWithSocket({"close", "4294967295"}).options.id, 4294967295U);
    EXPECT_EQ(ParseWithSocket({"version"}).options.command, Command::kVersion);
}

TEST(PeerOptions, ThatAreWrongGiveStatusTwoAndOneLine) {
    const std::vector<std::vector<const char*>> wrong = {
        {},
        {"list"},
        {"--socket", "s"},
        {"--socket", "", "list"},
        {"--socket", "s", "--exec", "c", "list"},
        {"--socket", "s", "look"},
        {"--socket", "s", "list", "extra"},
        {"--socket", "s", "list", "--colour"},
        {"--socket", "s", "list", "version"},
        {"--socket", "s", "--timeout", "0", "list"},
        {"--socket", "s", "--timeout", "-1", "list"},
        {"--socket", "s", "--timeout", "nan", "list"},
        {"--socket", "s", "--timeout", "inf", "list"},
        {"--socket", "s", "--timeout", "soon", "list"},
        {"--socket", "s", "snapshot"},
        {"--socket", "s", "snapshot", "0"},
        {"--socket", "s", "snapshot", "-1", "a.png"},
        {"--socket", "s", "snapshot", "4294967296", "a.png"},
        {"--socket", "s", "snapshot", "front", "a.png"},
        {"--socket", "s", "snapshot", "0", "a.png", "--size", "640"},
        {"--socket", "s", "snapshot", "0", "a.png", "--fps", "0"},
        {"--socket", "s", "snapshot", "0", "a.png", "--fps", "1001"},
        {"--socket", "s", "snapshot", "0", "a.png", "--seconds", "1"},
        {"--socket", "s", "record", "0", "a.avi"},
        {"--socket", "s", "record", "0", "mp4"},
        {"--socket", "s", "record", "0", "a.mp4", "1"},
        {"--socket", "s", "record", "0", "a.mp4", "one", "b.mp4"},
        {"--socket", "s", "record", "0", "a.mp4", "1", "b.avi"},
        {"--socket", "s", "record", "0", "a.mp4", "0", "b.mp4"},
        {"--socket", "s", "record", "0", "a.mp4", "1", "b.mp4", "1", "c.mp4"},
        {"--socket", "s", "record", "0", "a.mp4", "1", "a.mp4"},
        {"--socket", "s", "record", "0", "a.mp4", "1", "b.mp4", "2", "b.mp4"},
        {"--socket", "s", "record", "0", "a.mp4", "1", "./a.mp4"},
        {"--socket", "s", "record", "0", "a.mp4", "1", "-"},
        {"--socket", "s", "record", "0", "-", "1", "b.mp4"},
        {"--socket", "s", "record", "0", "a.mp4", "--seconds", "0"},
        {"--socket", "s", "format", "0"},
    };
    for (const auto& words : wrong) {
        const Parsed parsed = Parse(words);
        const std::string what = words.empty() ? "nothing" : words.back();
        EXPECT_EQ(parsed.status, 2) << what;
        EXPECT_EQ(parsed.out, "") << what;
        EXPECT_EQ(parsed.err.rfind("zu-camera-peer: ", 0), 0U) << what;
        EXPECT_EQ(parsed.err.find('\n'), parsed.err.size() - 1) << parsed.err;
    }
}

TEST(PeerOptions, SayWhatIsWrong) {
    EXPECT_EQ(Parse({"list"}).err, "zu-camera-peer: give --socket PATH or --exec COMMAND (see --help)\n");
    EXPECT_EQ(Parse({"--socket", "s", "--exec", "c", "list"}).err,
              "zu-camera-peer: --socket and --exec exclude each other (see --help)\n");
    EXPECT_NE(ParseWithSocket({"record", "0", "a.avi"})
                  .err.find("ends in .mp4, .mkv or .h264, or -, not \"a.avi\""),
              std::string::npos);
    EXPECT_NE(ParseWithSocket({"format", "0", "--size", "big"}).err.find("takes WIDTHxHEIGHT, not \"big\""),
              std::string::npos);
}

TEST(PeerOptions, ExplainThemselves) {
    const Parsed help = Parse({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* word :
         {"--socket", "--exec", "--timeout", "snapshot", "record", "stats", "Exit status"}) {
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    }
    const Parsed of_a_command = Parse({"record", "--help"});
    EXPECT_EQ(of_a_command.status, 0);
    EXPECT_NE(of_a_command.out.find("--overwrite"), std::string::npos);
    const Parsed version = Parse({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("zu-camera-peer ", 0), 0U);
}

}  // namespace
}  // namespace zumod::peer
