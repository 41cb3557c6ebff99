// The reference peer's commands with the reference host at the other end.
#include <cmath>
#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/e2e/both_ends.h"
#include "tests/e2e/video_file.h"

namespace zumod::testing {
namespace {

constexpr double kRate = 15;
// On a busy machine frames come late, or the camera has no buffer for one. Then the test measures again.
constexpr int kAttempts = 10;

class BothEndsTalk : public BothEnds {
protected:
    BothEndsTalk()
        : BothEnds({"card=Front Camera,formats=NV12,sizes=320x240:640x480,fps=15",
                    "card=Old,formats=MJPG,sizes=640x480", "card=Desk,formats=YUYV,sizes=320x240,fps=15"}) {}

    std::string Listed(std::vector<std::string> words) const {
        PeerRun peer = Peer(std::move(words));
        peer.ExpectEnd(0, kOldIsUnusable);
        return peer.Printed();
    }

    const std::string kOldIsUnusable =
        "zu-camera-peer: the host says: /dev/video1 (Old) cannot be used: it delivers only MJPG\n";
};

TEST_F(BothEndsTalk, ListsTheCamerasAsTextAndAsJson) {
    const auto host = Start();
    EXPECT_EQ(Listed({"list"}),
              "ID  NAME          SIZES\n"
              "0   Front Camera  320x240 640x480\n"
              "1   Old           640x480\n"
              "2   Desk          320x240\n");
    EXPECT_EQ(Listed({"list", "--json"}),
              R"([{"id":0,"name":"Front Camera","display_name":"Front Camera","in_use":false,)"
              R"("sizes":[{"width":320,"height":240},{"width":640,"height":480}]},)"
              R"({"id":1,"name":"Old","display_name":"Old","in_use":false,)"
              R"("sizes":[{"width":640,"height":480}]},)"
              R"({"id":2,"name":"Desk","display_name":"Desk","in_use":false,)"
              R"("sizes":[{"width":320,"height":240}]}])"
              "\n");
}

TEST_F(BothEndsTalk, ReportsTheVersionAndThatACameraIsClosed) {
    const auto host = Start();
    EXPECT_EQ(PrintedBy(Peer({"version"})), "5\n");
    EXPECT_EQ(PrintedBy(Peer({"close", "0"})), "camera 0: closed\n");
    EXPECT_EQ(PrintedBy(Peer({"close", "9"})), "camera 9: closed\n");
}

TEST_F(BothEndsTalk, ChangesTheFormatWhileTheCameraStreams) {
    const auto host = Start();
    EXPECT_EQ(PrintedBy(Peer({"format", "0", "--size", "320x240"})),
              "camera 0 (Front Camera): 640x480, then 320x240\n");
    EXPECT_EQ(PrintedBy(Peer({"format", "0", "--size", "640x480"})),
              "camera 0 (Front Camera): 320x240, then 640x480\n");
    ExpectCameraFree();
}

TEST_F(BothEndsTalk, ReportsASizeThatTheCameraDoesNotHave) {
    const auto host = Start();
    Peer({"snapshot", "0", work / "none.png", "--size", "1280x720"})
        .ExpectEnd(1,
                   "zu-camera-peer: camera 0 (Front Camera) could not be opened at 1280x720, which it does "
                   "not list\n");
    Peer({"format", "0", "--size", "1280x720", "--timeout", "3"})
        .ExpectEnd(1,
                   "zu-camera-peer: no picture of camera 0 (Front Camera) came within 3.0 s of the change "
                   "to 1280x720, which it does not list\n");
    ExpectCameraFree();
}

TEST_F(BothEndsTalk, ListsTheControlsOfACamera) {
    const auto host = Start();
    EXPECT_EQ(PrintedBy(Peer({"controls", "Front Camera"})),
              "NAME           VALUE  RANGE                    DEFAULT  AUTOMATIC\n"
              "brightness     128    0 to 255                 128      -\n"
              "contrast       128    0 to 255                 128      -\n"
              "saturation     64     0 to 255                 64       -\n"
              "hue            0      -180 to 180              0        -\n"
              "gamma          100    72 to 500                100      -\n"
              "sharpness      3      0 to 6                   3        -\n"
              "backlight      1      0 to 2                   1        -\n"
              "gain           0      0 to 100                 0        -\n"
              "white-balance  4600   2800 to 6500 by 10       4600     on\n"
              "exposure       157    1 to 5000                157      on\n"
              "focus          0      0 to 250 by 5            0        on\n"
              "zoom           100    100 to 500               100      -\n"
              "pan            0      -36000 to 36000 by 3600  0        -\n"
              "tilt           0      -36000 to 36000 by 3600  0        -\n");
    const auto controls = nlohmann::json::parse(PrintedBy(Peer({"controls", "0", "--json"})));
    ASSERT_EQ(controls.size(), 14U);
    EXPECT_EQ(controls[10].dump(),
              R"({"automatic":true,"default":0,"maximum":250,"minimum":0,"name":"focus",)"
              R"("read_only":false,"step":5,"value":0})");
}

TEST_F(BothEndsTalk, ChangesControlsOfTheNamedCameraWhileAnotherPeerRecordsIt) {
    const auto host = Start();
    PeerRun recording = Peer({"record", "2", work / "desk.mkv"}, "recording");
    ASSERT_TRUE(WaitUntil([this] { return cameras.At(2).Status().delivered >= 2; }));
    EXPECT_EQ(PrintedBy(Peer({"set", "Desk", "focus=50", "brightness=200", "exposure=auto"})),
              "camera 2 (Desk): focus 50\n"
              "camera 2 (Desk): brightness 200\n"
              "camera 2 (Desk): exposure automatic\n");
    EXPECT_TRUE(host->Says(" camera 2: focus is now 50\n"));
    const std::string desk = PrintedBy(Peer({"controls", "2"}));
    EXPECT_NE(desk.find("brightness     200 "), std::string::npos) << desk;
    EXPECT_NE(desk.find("0        off\n"), std::string::npos) << desk;
    EXPECT_NE(PrintedBy(Peer({"controls", "0"})).find("brightness     128 "), std::string::npos);
    recording.Stop();
}

TEST_F(BothEndsTalk, RefusesWrongControlsWithoutChangingAnything) {
    const auto host = Start();
    Peer({"set", "0", "brightness=7", "focus=251"})
        .ExpectEnd(1, "zu-camera-peer: focus=251: the focus of camera 0 (Front Camera) is 0 to 250 by 5\n");
    Peer({"set", "0", "gain=auto"})
        .ExpectEnd(1, "zu-camera-peer: gain=auto: camera 0 (Front Camera) has no automatic gain\n");
    Peer({"set", "0", "brightnes=1"})
        .ExpectEnd(2,
                   "zu-camera-peer: CONTROL=VALUE: there is no control \"brightnes\"; did you mean "
                   "brightness? (see --help)\n");
    EXPECT_NE(PrintedBy(Peer({"controls", "0"})).find("brightness     128 "), std::string::npos);
    EXPECT_EQ(FileContent(work / "errors").find("is now"), std::string::npos);
}

TEST_F(BothEndsTalk, MeasuresRateLatencyAndDropsFromThePictures) {
    const auto host = Start();
    bool all_in_time = false;
    for (int i = 0; i < kAttempts && !all_in_time; ++i) {
        std::istringstream lines(PrintedBy(Peer({"stats", "0", "--json", "--seconds", "2"})));
        std::string line;
        int in_time = 0;
        while (std::getline(lines, line)) {
            const auto figures = nlohmann::json::parse(line);
            ASSERT_TRUE(figures.contains("fps") && figures.contains("dropped")) << line;
            if (std::abs(figures["fps"].get<double>() - kRate) > kRate / 4 || figures["dropped"] != 0) {
                continue;
            }
            ++in_time;
            EXPECT_EQ(figures["width"], 640);
            EXPECT_EQ(figures["height"], 480);
            EXPECT_EQ(figures["undecoded"], 0);
            EXPECT_GT(figures["latency_ms"]["median"], 0);
            EXPECT_GE(figures["latency_ms"]["max"], figures["latency_ms"]["median"]);
        }
        // Including the line that is due at the end.
        EXPECT_LE(in_time, 2);
        all_in_time = in_time == 2;
    }
    EXPECT_TRUE(all_in_time) << "frames are missing or late in each attempt";
}

TEST_F(BothEndsTalk, RefusesACameraThatHasOnlyCompressedPictures) {
    const auto host = Start();
    const std::string refused = "zu-camera-peer: camera 1 (Old) could not be opened\n";
    Peer({"snapshot", "1", work / "refused.png"}).ExpectEnd(1, refused);
    Peer({"record", "1", work / "refused.mkv"}).ExpectEnd(1, refused);
    Peer({"record", "0", work / "front.mkv", "1", work / "refused.mkv"}).ExpectEnd(1, refused);
    EXPECT_FALSE(HasTemporaryFile());
    EXPECT_FALSE(std::filesystem::exists(work / "refused.png"));
    EXPECT_FALSE(std::filesystem::exists(work / "front.mkv"));
    ExpectCameraFree(0);
    ExpectCameraFree(1);
}

TEST_F(BothEndsTalk, RefusesAPeerTooManyWithoutDisturbingTheFirst) {
    const auto host = Start({"--peers", "1"});
    const std::string path = work / "first.mkv";
    PeerRun first = Peer({"record", "0", path});
    const auto delivered = [this] { return cameras.At(0).Status().delivered; };
    ASSERT_TRUE(WaitUntil([&] { return delivered() >= 5; })) << first.Process().Errors();
    for (int i = 0; i < 3; ++i) {
        Peer({"list"}, "second")
            .ExpectEnd(1, "zu-camera-peer: the host says: busy: another peer is being served\n");
    }
    const uint64_t so_far = delivered();
    EXPECT_TRUE(WaitUntil([&] { return delivered() >= so_far + 5; }));
    first.Stop();
    const auto stamps = StampsIn(work, path, 640, 480);
    ASSERT_GE(stamps.size(), 5U);
    EXPECT_EQ(stamps.back().counter - stamps.front().counter + 1, stamps.size());
    EXPECT_GE(stamps.back().counter, so_far);
}

TEST_F(BothEndsTalk, TalkThroughTheStandardStreamsOfACommand) {
    PeerRun list = PeerWithHost({"list"});
    list.ExpectEnd(0, kOldIsUnusable);
    EXPECT_EQ(list.Printed(),
              "ID  NAME          SIZES\n"
              "0   Front Camera  320x240 640x480\n"
              "1   Old           640x480\n"
              "2   Desk          320x240\n");
    const std::string path = work / "desk.mp4";
    PrintedBy(PeerWithHost({"record", "2", path, "--seconds", "1"}));
    const VideoFile file = Probe(work, path);
    EXPECT_EQ(file.width, 320U);
    EXPECT_EQ(file.height, 240U);
    EXPECT_EQ(StampsIn(work, path, 320, 240).size(), file.frames);
    EXPECT_GE(file.frames, 5U);
    // Its log, from each start of the host.
    std::istringstream errors(FileContent(work / "errors"));
    for (std::string line; std::getline(errors, line);) {
        EXPECT_NE(line.find("warning [host] /dev/video1 (Old) cannot be used: it delivers only MJPG"),
                  std::string::npos)
            << line;
    }
    ExpectCameraFree(2);
}

TEST_F(BothEndsTalk, ReportTheMissingCodec) {
    std::filesystem::create_directory(work / "modules");
    std::filesystem::create_symlink(ZU_MODULE_DIR "/zu-client-camera.so",
                                    work / "modules/zu-client-camera.so");
    const auto host = Start({"--modules", work / "modules"});
    EXPECT_TRUE(host->Says("[host] no video can be sent, because zu-codec.so is missing: " +
                           (work / "modules/zu-codec.so\n")));
    Peer({"record", "0", work / "nothing.mkv", "--timeout", "3"})
        .ExpectEnd(1, "zu-camera-peer: camera 0 (Front Camera) sent no frame within 3.0 s\n");
    EXPECT_FALSE(HasTemporaryFile());
    EXPECT_FALSE(std::filesystem::exists(work / "nothing.mkv"));
    ExpectCameraFree();
}

}  // namespace
}  // namespace zumod::testing
