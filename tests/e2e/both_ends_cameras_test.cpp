// Which camera a peer sees, and what happens when its device goes away.
#include <fstream>

#include "tests/e2e/both_ends.h"
#include "tests/e2e/video_file.h"
#include "vcam/cli/control.h"

namespace zumod::testing {
namespace {

class BothEndsUnplugged : public BothEnds {
protected:
    BothEndsUnplugged() : BothEnds({"card=Front,formats=NV12,sizes=640x480,fps=30"}) {}

    static void ExpectState(const PeerClient& peer, uint32_t state) {
        const auto message = peer.ReceiveType(5);
        ASSERT_TRUE(message.has_value()) << "the channel was closed";
        EXPECT_EQ(message->body, Number32(state) + Number32(0));
    }
};

TEST_F(BothEndsUnplugged, EveryPeerIsToldThatTheCameraIsClosedAndCanOpenItWhenItIsBack) {
    const auto host = Start();
    const PeerClient first = Connect();
    ExpectPictures(first);
    const PeerClient second = Connect();
    EXPECT_TRUE(second.Send(OpenBytes(0)));
    ExpectState(second, 2);
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    ExpectState(first, 4);
    ExpectState(second, 4);
    EXPECT_TRUE(host->Says("[host] camera 0 is gone: closed"));
    ExpectCameraFree();
    // It is not in the list, and opening it fails.
    EXPECT_TRUE(first.Send(OpenBytes(0)));
    ExpectState(first, 1);
    cameras.At(0).Inject(vcam::ParseFault("replug").value());
    ExpectPictures(first);
}

TEST_F(BothEndsUnplugged, ARecordingContinuesInAnotherFileWhenTheCameraIsBack) {
    const auto host = Start();
    // With 1 frame per second the limit is 2.5 s, so that a loaded machine does not look like a stall.
    PeerRun peer = Peer({"record", "Front", work / "film.mkv", "--reconnect", "--fps", "1"});
    EXPECT_TRUE(WaitUntil([&] { return cameras.At(0).Status().delivered >= 5; }));
    // As "zu-vcam ctl 0 unplug" does.
    EXPECT_TRUE(vcam::SendControl("0 unplug"));
    EXPECT_TRUE(peer.Process().Says("zu-camera-peer: camera 0 (Front) "));
    EXPECT_TRUE(vcam::SendControl("0 replug"));
    EXPECT_TRUE(peer.Process().Says("zu-camera-peer: camera 0 (Front) is back after "));
    peer.Process().Signal(SIGINT);
    EXPECT_EQ(peer.Process().Wait(), 1);
    EXPECT_NE(peer.Process().Errors().find("zu-camera-peer: camera 0 (Front) was away once\n"),
              std::string::npos)
        << peer.Process().Errors();
    for (const char* name : {"film.mkv", "film-002.mkv"}) {
        const auto stamps = StampsIn(work, work / name, 640, 480);
        ASSERT_FALSE(stamps.empty()) << name;
        for (size_t i = 1; i < stamps.size(); ++i) {
            EXPECT_GT(stamps[i].counter, stamps[i - 1].counter) << name;
        }
    }
    EXPECT_FALSE(std::filesystem::exists(work / "film-003.mkv"));
    EXPECT_FALSE(HasTemporaryFile());
    ExpectCameraFree();
}

// A film of one grey picture.
class GreyFilms {
protected:
    GreyFilms() {
        for (const auto& [file, grey] : {std::pair{dark, '\x20'}, std::pair{bright, '\xC0'}}) {
            std::ofstream film(file, std::ios::binary);
            film << "YUV4MPEG2 W320 H240 F100:1\nFRAME\n"
                 << std::string(size_t{320} * 240, grey) << std::string(size_t{320} * 240 / 2, '\x80');
        }
    }

    const WorkDirectory films;
    const std::string dark = films / "dark.y4m";
    const std::string bright = films / "bright.y4m";
};

class BothEndsOfTwoCameras : GreyFilms, public BothEnds {
protected:
    BothEndsOfTwoCameras()
        : BothEnds({("card=Dark,formats=NV12,y4m=" + dark).c_str(),
                    ("card=Bright,formats=NV12,y4m=" + bright).c_str()}) {}
};

TEST_F(BothEndsOfTwoCameras, EveryPictureIsOfTheCameraThatWasOpenedAlsoIfItStartsSlowly) {
    const auto host = Start();
    cameras.At(1).Inject(vcam::ParseFault("slow-open/50").value());
    for (const char* name : {"one.h264", "two.h264"}) {
        PrintedBy(Peer({"record", "Bright", work / name, "--fps", "100", "--seconds", "0.3"}));
        const std::string pictures = DecodedBytes(work, work / name, "gray");
        ASSERT_FALSE(pictures.empty());
        for (size_t middle = 320 * 120; middle < pictures.size(); middle += size_t{320} * 240) {
            ASSERT_GT(static_cast<unsigned char>(pictures[middle]), 128) << "at byte " << middle;
        }
    }
}

}  // namespace
}  // namespace zumod::testing
