// zu-camera-peer and a host, or something else, that means harm.
#include <sys/socket.h>

#include <csignal>

#include "tests/e2e/peer_process.h"
#include "tests/support/wire/encoded_stream.h"
#include "tests/support/wire/hostile_frames.h"

namespace zumod::testing {
namespace {

class PeerHostile : public PeerProcess {
protected:
    // From then on a signal does not kill the program.
    void WaitUntilSignalsAreBlocked() const {
        const std::string status = "/proc/" + std::to_string(peer->Pid()) + "/status";
        EXPECT_TRUE(WaitUntil([&] {
            const std::string text = FileContent(status);
            const size_t at = text.find("SigBlk:");
            return at != std::string::npos && std::stoull(text.substr(at + 7), nullptr, 16) != 0;
        }));
    }

    // A few megabytes that keep a decoder busy for minutes: the beginning of a picture again and again.
    static Bytes EndlessFrame() {
        Bytes frame = kUsualPicture;
        const Bytes again = kFirstMacroblocks + kFirstMacroblocks + kFirstMacroblocks + kFirstMacroblocks;
        for (int i = 0; i < 40'000; ++i) {
            frame.insert(frame.end(), again.begin(), again.end());
        }
        return frame;
    }
};

TEST_F(PeerHostile, RefusesAPictureThatIsMuchLargerThanTheRequestedOne) {
    for (const Bytes& picture : {kHugePicture, kHugePictureCropped}) {
        for (const std::vector<std::string>& words :
             {std::vector<std::string>{"snapshot", "0", work / "picture.png"},
              {"stats", "0"},
              {"format", "0", "--size", "640x480", "--fps", "30"}}) {
            Start(words);
            AnswerList(ListBytes({CameraBytes(0, "Front", {{640, 480}})}));
            host.Expect(OpenBytes(0));
            host.Send(StateBytes(2, 0) + FrameBytes(0, picture + kFirstMacroblocks));
            AnswerClose();
            ExpectEnd(1,
                      "zu-camera-peer: the host sent a frame that cannot be decoded: [zu-codec] a picture "
                      "of 16000x16000 has more than 2088960 pixels\n");
        }
    }
    EXPECT_EQ(Files().size(), 0U);
}

TEST_F(PeerHostile, DecodesASizeThatTheHostChoseItself) {
    Start({"snapshot", "0", work / "picture.png"});
    AnswerOpen();
    EncodedStream larger(1280, 720);
    host.Send(FrameBytes(0, larger.Next(0, 0)));
    AnswerClose();
    ExpectEnd(0, "");
}

TEST_F(PeerHostile, SkipsAPictureOfWhichAPartIsMissing) {
    const std::string path = work / "picture.png";
    Start({"snapshot", "0", path, "--timeout", "1"});
    AnswerOpen(FrameBytes(0, kUsualPicture + kFirstMacroblocks));
    AnswerClose();
    ExpectEnd(1, "zu-camera-peer: none of the 1 frames of camera 0 (Front) within 1.0 s could be decoded\n");
    EXPECT_EQ(Files().size(), 0U);
}

TEST_F(PeerHostile, EndsOnASignalWhileItDecodes) {
    Start({"snapshot", "0", work / "picture.png", "--timeout", "1000"});
    AnswerOpen();
    EXPECT_TRUE(host.Send(FrameBytes(0, EndlessFrame())));
    EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    peer->Signal(SIGTERM);
    AnswerClose();
    ExpectEnd(1, "zu-camera-peer: interrupted\n");
    EXPECT_EQ(Files().size(), 0U);
}

TEST_F(PeerHostile, KeepsTheTimeLimitWhileItDecodes) {
    const Bytes frame = EndlessFrame();
    Start({"stats", "0", "--timeout", "1"});
    AnswerOpen(FrameBytes(0, frame));
    AnswerClose();
    ExpectEnd(1, "zu-camera-peer: a frame of " + std::to_string(frame.size()) +
                     " bytes was not decoded within 1.0 s\n");
}

TEST_F(PeerHostile, EndsOnASignalWhileTheHostDoesNotAccept) {
    // More connections than the host's queue has places.
    std::vector<UniqueFd> others;
    const auto address = UnixAddress::FromPath(socket);
    do {
        others.push_back(NewUnixSocket(SOCK_NONBLOCK));
    } while (address->Connect(others.back()) == 0);
    StartWith({"--socket", socket, "--timeout", "1000", "list"});
    WaitUntilSignalsAreBlocked();
    peer->Signal(SIGINT);
    ExpectEnd(1, "zu-camera-peer: interrupted\n");
    StartWith({"--socket", socket, "--timeout", "0.2", "list"});
    ExpectEnd(1, "zu-camera-peer: no connection to " + socket + ": not accepted within 0.2 s\n");
}

TEST_F(PeerHostile, ShowsAGreetingThatIsNotACameraHosts) {
    StartWith(
        {"--exec", "printf 'Welcome to \\033[2Jdesk.\\r\\nLast login: today\\n'; cat >/dev/null", "list"});
    ExpectEnd(1, "zu-camera-peer: what answered is not a camera host: 'Welcome to \\x1b[2Jdesk.'\n");
    StartWith({"--exec", "printf 'no\\n'", "list"});
    ExpectEnd(1, "zu-camera-peer: what answered is not a camera host: 'no'\n");
}

}  // namespace
}  // namespace zumod::testing
