#include "peer/options.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "peer/commands.h"

namespace zumod::peer {
namespace {

Expected<PeerOptions> Parse(std::vector<const char*> words) {
    words.insert(words.begin(), "zu-camera-peer");
    return ParseOptions(static_cast<int>(words.size()), words.data());
}

// The options of a command line without a mistake.
PeerOptions Options(const std::vector<const char*>& words) {
    const auto options = Parse(words);
    EXPECT_TRUE(options) << options.error().text;
    return options.value_or(PeerOptions{});
}
PeerOptions OptionsWithSocket(std::vector<const char*> words) {
    words.insert(words.begin(), {"--socket", "s"});
    return Options(words);
}

// The error of a command line with a mistake.
std::string Mistake(const std::vector<const char*>& words) {
    const auto options = Parse(words);
    EXPECT_FALSE(options) << (words.empty() ? "nothing" : words.back());
    EXPECT_EQ(options.error().status, 2);
    return options.error().text;
}

// The text that a command line asks for.
std::string Help(const std::vector<const char*>& words) {
    const auto options = Parse(words);
    EXPECT_FALSE(options);
    EXPECT_EQ(options.error().status, 0);
    return options.error().text;
}

std::string CommandOf(const std::vector<const char*>& words) {
    return OptionsWithSocket(words).command->name;
}

TEST(PeerOptions, NameFurtherCamerasToRecord) {
    const PeerOptions options = OptionsWithSocket({"record", "0", "a.mp4", "2", "b.mkv", "7", "c.h264"});
    EXPECT_EQ(options.camera, "0");
    EXPECT_EQ(options.path, "a.mp4");
    ASSERT_EQ(options.targets.size(), 3U);
    EXPECT_EQ(options.targets[0].camera, "0");
    EXPECT_EQ(options.targets[0].path, "a.mp4");
    EXPECT_EQ(options.targets[1].camera, "2");
    EXPECT_EQ(options.targets[1].path, "b.mkv");
    EXPECT_EQ(options.targets[2].camera, "7");
    EXPECT_EQ(options.targets[2].path, "c.h264");
}

TEST(PeerOptions, KeepTheWordsOfAProgram) {
    const std::vector<std::string> words = {"ffmpeg", "-map", "[v]", "[a,b]", "{}", "", "--", "--size", "9"};
    EXPECT_EQ(Options({"--socket", "/run/s", "run", "--fps", "10", "--", "ffmpeg", "-map", "[v]", "[a,b]",
                       "{}", "", "--", "--size", "9"})
                  .program,
              words);
    EXPECT_EQ(Mistake({"--socket", "/run/s", "run", "ls"}), "COMMAND must follow -- (see --help)");
    EXPECT_EQ(Mistake({"--socket", "/run/s", "run", "ls", "--", "-l"}),
              "The following argument was not expected: -l (see --help)");
}

TEST(PeerOptions, HaveTheirDefaults) {
    const PeerOptions options = Options({"--socket", "/run/s", "list"});
    EXPECT_STREQ(options.command->name, "list");
    EXPECT_EQ(options.socket, "/run/s");
    EXPECT_EQ(options.exec, "");
    EXPECT_FALSE(options.host_user);
    EXPECT_EQ(options.limit, std::chrono::seconds(10));
    EXPECT_EQ(options.size, std::nullopt);
    EXPECT_EQ(options.fps, 30);
    EXPECT_EQ(options.seconds, std::nullopt);
    EXPECT_FALSE(options.json);
    EXPECT_FALSE(options.overwrite);
}

TEST(PeerOptions, MayStandBeforeAndAfterTheCommand) {
    const PeerOptions options =
        Options({"record", "3", "a.mkv", "--seconds", "2.5", "--size", "640x480", "--fps", "15",
                 "--overwrite", "--exec", "ssh desk", "--timeout", "0.5", "--modules", "/m"});
    EXPECT_STREQ(options.command->name, "record");
    EXPECT_EQ(options.exec, "ssh desk");
    EXPECT_EQ(options.modules, "/m");
    EXPECT_EQ(options.limit, std::chrono::milliseconds(500));
    EXPECT_EQ(options.camera, "3");
    EXPECT_EQ(options.path, "a.mkv");
    EXPECT_EQ(options.size, (PictureSize{640, 480}));
    EXPECT_EQ(options.fps, 15);
    EXPECT_EQ(options.seconds, std::chrono::milliseconds(2500));
    EXPECT_TRUE(options.overwrite);
}

TEST(PeerOptions, NameTheCamerasToOffer) {
    EXPECT_TRUE(OptionsWithSocket({"camera"}).cameras.empty());
    const PeerOptions options =
        OptionsWithSocket({"camera", "0", "Door", "--label", "desk", "--size", "640x480"});
    EXPECT_EQ(options.cameras, (std::vector<std::string>{"0", "Door"}));
    EXPECT_EQ(options.label, "desk");
    EXPECT_EQ(options.size, (PictureSize{640, 480}));
}

TEST(PeerOptions, SelectACommand) {
    EXPECT_EQ(CommandOf({"snapshot", "0", "a.png"}), "snapshot");
    EXPECT_EQ(CommandOf({"record", "0", "-"}), "record");
    EXPECT_EQ(CommandOf({"stats", "0", "--json"}), "stats");
    EXPECT_EQ(CommandOf({"format", "0", "--size", "1x1"}), "format");
    EXPECT_EQ(CommandOf({"camera"}), "camera");
    EXPECT_EQ(CommandOf({"close", "0"}), "close");
    EXPECT_EQ(CommandOf({"version"}), "version");
    EXPECT_EQ(OptionsWithSocket({"close", "Front Camera"}).camera, "Front Camera");
}

TEST(PeerOptions, WithAMistakeFailWithOneLineAndStatus2) {
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
        {"--socket", "s", "--host-uid", "root", "list"},
        {"--socket", "s", "--timeout", "0", "list"},
        {"--socket", "s", "--timeout", "-1", "list"},
        {"--socket", "s", "--timeout", "nan", "list"},
        {"--socket", "s", "--timeout", "inf", "list"},
        {"--socket", "s", "--timeout", "soon", "list"},
        {"--socket", "s", "snapshot"},
        {"--socket", "s", "snapshot", "0"},
        {"--socket", "s", "snapshot", "", "a.png"},
        {"--socket", "s", "snapshot", "0", "a.gif"},
        {"--socket", "s", "snapshot", "0", "a.png", "--skip", "-1"},
        {"--socket", "s", "snapshot", "0", "a.png", "--after", "0"},
        {"--socket", "s", "snapshot", "0", "a.png", "--size", "640"},
        {"--socket", "s", "snapshot", "0", "a.png", "--fps", "0"},
        {"--socket", "s", "snapshot", "0", "a.png", "--fps", "1001"},
        {"--socket", "s", "snapshot", "0", "a.png", "--seconds", "1"},
        {"--socket", "s", "record", "0", "a.avi"},
        {"--socket", "s", "record", "0", "mp4"},
        {"--socket", "s", "record", "0", "a.mp4", "1"},
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
        EXPECT_EQ(Mistake(words).find('\n'), std::string::npos);
    }
}

TEST(PeerOptions, SayWhatIsWrong) {
    EXPECT_EQ(Mistake({"list"}), "give --socket PATH or --exec COMMAND (see --help)");
    EXPECT_EQ(Mistake({"--socket", "s", "--exec", "c", "list"}),
              "--socket and --exec exclude each other (see --help)");
    EXPECT_EQ(Mistake({"--socket", "s", "record", "0", "a.avi"}),
              "FILE: takes a name that ends in .mp4, .mkv or .h264, or -, not \"a.avi\" (see --help)");
    EXPECT_EQ(Mistake({"--socket", "s", "record", "one", "a.mp4", "one", "b.mp4"}),
              "CAMERA: one is given twice (see --help)");
    EXPECT_EQ(Mistake({"--socket", "s", "snapshot", "0", "a.gif"}),
              "FILE: takes a name that ends in .png, .jpg or .jpeg, or -, not \"a.gif\" (see --help)");
    EXPECT_EQ(Mistake({"--socket", "s", "lst"}),
              "there is no command \"lst\"; did you mean list? (see --help)");
    EXPECT_EQ(Mistake({"--timeout", "3", "rec\x1b", "0"}),
              "there is no command \"rec\\x1b\"; did you mean record? (see --help)");
    EXPECT_EQ(Mistake({"snap"}), "there is no command \"snap\"; did you mean snapshot? (see --help)");
    EXPECT_EQ(Mistake({"--socket", "s", "record", "0", "a.mp4", "1"}),
              "FILE: is missing after CAMERA 1 (see --help)");
    EXPECT_EQ(Mistake({"--socket", "s", "--timeout", "soon", "list"}),
              "--timeout: takes a time such as 90, 1m30s or 00:01:30, not \"soon\" (see --help)");
    EXPECT_EQ(Mistake({"--socket", "s", "set", "0", "focus=10", "gain=3", "focus=auto"}),
              "CONTROL=VALUE: focus is given twice (see --help)");
    EXPECT_EQ(Mistake({"--socket", "s", "format", "0", "--size", "big"}),
              "--size: takes WIDTHxHEIGHT, not \"big\" (see --help)");
}

// Each option that takes a time, in a command line to which the time is to be appended.
TEST(PeerOptions, TakeEveryTimeInTheSameForms) {
    const std::vector<std::pair<std::vector<const char*>, std::function<Clock::duration(const PeerOptions&)>>>
        options = {
            {{"list", "--timeout"}, [](const PeerOptions& given) { return given.limit; }},
            {{"list", "--wait"}, [](const PeerOptions& given) { return given.wait; }},
            {{"snapshot", "0", "a.png", "--after"}, [](const PeerOptions& given) { return *given.after; }},
            {{"record", "0", "a.mkv", "--seconds"}, [](const PeerOptions& given) { return *given.seconds; }},
            {{"record", "0", "a.mkv", "--segment"}, [](const PeerOptions& given) { return *given.segment; }},
            {{"stats", "0", "--seconds"}, [](const PeerOptions& given) { return *given.seconds; }},
        };
    for (auto [words, value] : options) {
        const std::string option = words.back();
        SCOPED_TRACE(option);
        words.push_back("");
        for (const char* time : {"90", "1m30s", "00:01:30", "1.5m"}) {
            words.back() = time;
            EXPECT_EQ(value(OptionsWithSocket(words)), std::chrono::seconds(90)) << time;
        }
        words.back() = "0";
        words.insert(words.begin(), {"--socket", "s"});
        EXPECT_EQ(Mistake(words),
                  option + ": takes a time such as 90, 1m30s or 00:01:30, not \"0\" (see --help)");
    }
}

TEST(MostPixels, AllowAHostASizeOfItsChoice) {
    PeerOptions options;
    EXPECT_EQ(MostPixels(options, {640, 480}), 1920U * 1088);
    EXPECT_EQ(MostPixels(options, {1280, 720}), 4U * 1280 * 720);
    EXPECT_EQ(MostPixels(options, {16384, 16384}), 3840U * 2176);
    options.size = PictureSize{16384, 16384};
    EXPECT_EQ(MostPixels(options, {640, 480}), 4U * 16384 * 16384);
}

// Without the breaks of lines.
std::string Unwrapped(const std::string& text) {
    std::istringstream words(text);
    std::string unwrapped;
    for (std::string word; words >> word;) {
        unwrapped += word + ' ';
    }
    return unwrapped;
}

TEST(PeerOptions, AreExplainedInLinesOf80Columns) {
    std::vector<std::string> texts = {Help({"--help"})};
    for (const Command& command : Commands()) {
        texts.push_back(Help({command.name, "--help"}));
    }
    for (const std::string& text : texts) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80U) << line;
        }
    }
}

TEST(PeerOptions, ExplainThemselves) {
    const std::string help = Help({"--help"});
    for (const char* word : {"--socket", "--exec", "--timeout", "Exit status"}) {
        EXPECT_NE(help.find(word), std::string::npos) << word;
    }
    for (const Command& command : Commands()) {
        EXPECT_NE(help.find(std::string("  ") + command.name + " "), std::string::npos) << command.name;
        EXPECT_NE(Unwrapped(help).find(command.help), std::string::npos) << command.name;
    }
    EXPECT_NE(Help({"record", "--help"}).find("--overwrite"), std::string::npos);
    EXPECT_EQ(Help({"--version"}).rfind("zu-camera-peer ", 0), 0U);
    EXPECT_EQ(Help({"-h"}), help);
    EXPECT_EQ(Help({"-V"}), Help({"--version"}));
}

}  // namespace
}  // namespace zumod::peer
