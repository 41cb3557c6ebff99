// Several peers of the reference host at once.
#include <algorithm>

#include "tests/e2e/host_process.h"

namespace zumod::testing {
namespace {

class HostPeers : public HostProcess {
protected:
    using HostProcess::HostProcess;

    static void ExpectNotice(const PeerClient& peer, const std::string& text) {
        const auto notice = peer.ReceiveType(128);
        ASSERT_TRUE(notice.has_value());
        EXPECT_EQ(std::string(notice->body.begin(), notice->body.end()), text);
    }
    static void ExpectState(const PeerClient& peer, uint32_t state, uint32_t id) {
        const auto message = peer.ReceiveType(5);
        ASSERT_TRUE(message.has_value());
        EXPECT_EQ(message->body, Number32(state) + Number32(id));
    }
    static void ExpectFrames(const PeerClient& peer, int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(peer.ReceiveType(7).has_value());
        }
    }
    bool IsStreaming() { return cameras.At(0).Status().streaming; }
};

TEST_F(HostPeers, WatchOneCameraTogetherUntilTheLastOneCloses) {
    const auto host = Start();
    const PeerClient first = Connect();
    ExpectPictures(first, 5);
    const PeerClient second = Connect();
    EXPECT_TRUE(second.Send(OpenBytes(0)));
    ExpectState(second, 2, 0);
    // It can decode from its first frame on: the parameters of the sequence are in front of a key frame.
    const auto frame = second.Receive();
    ASSERT_TRUE(frame.has_value());
    ASSERT_EQ(frame->type, 7);
    const Bytes parameters = {0, 0, 0, 1, 0x67};
    EXPECT_TRUE(std::search(frame->body.begin(), frame->body.end(), parameters.begin(), parameters.end()) !=
                frame->body.end());
    EXPECT_TRUE(first.Send(CloseBytes(0)));
    ExpectState(first, 4, 0);
    ExpectFrames(second, 5);
    EXPECT_TRUE(IsStreaming());
    ExpectServed(first);
    EXPECT_TRUE(second.Send(CloseBytes(0)));
    ExpectState(second, 4, 0);
    EXPECT_FALSE(IsStreaming());
}

TEST_F(HostPeers, AskForTheFormatThatIsInUse) {
    const auto host = Start();
    const PeerClient first = Connect();
    ExpectPictures(first);
    const PeerClient second = Connect();
    EXPECT_TRUE(second.Send(OpenBytes(0, 640, 480, 15)));
    ExpectNotice(second, "camera 0 is in use by another peer at 640x480, 30 frames per second");
    ExpectState(second, 1, 0);
    ExpectFrames(first, 3);
    ExpectServed(second);
}

TEST_F(HostPeers, LeaveTheirCamerasToTheOthers) {
    const auto host = Start();
    const PeerClient third = Connect();
    ExpectServed(third);
    {
        const PeerClient first = Connect();
        ExpectPictures(first);
        const PeerClient second = Connect();
        EXPECT_TRUE(second.Send(OpenBytes(0)));
        ExpectState(second, 2, 0);
        first.Hang();
        ExpectFrames(second, 5);
    }
    EXPECT_TRUE(WaitUntil([this] { return !IsStreaming(); }));
    // The session has not ended: no plugin was created for this.
    ExpectPictures(third);
    EXPECT_EQ(host->Errors().find("[cameraclient] ExitInstance"), std::string::npos);
}

TEST_F(HostPeers, ThatAreTooManyGetANoticeAndTheOthersAreStillServed) {
    const auto host = Start({"--peers", "2"});
    const PeerClient first = Connect();
    ExpectPictures(first);
    {
        const PeerClient second = Connect();
        ExpectServed(second);
        const PeerClient third = Connect();
        ExpectNotice(third, "busy: 2 peers are being served");
        EXPECT_TRUE(third.IsClosed());
        ExpectServed(second);
    }
    ExpectServed(first);
    // The place of one that has left is free at once.
    ExpectServed(Connect());
}

TEST_F(HostPeers, ThatSendTooMuchEndAlone) {
    const auto host = Start();
    const PeerClient good = Connect();
    const PeerClient bad = Connect();
    ExpectServed(bad);
    EXPECT_TRUE(bad.Send({1, 0, 1, 0, 1, 0, 0, 0}));
    ExpectNotice(bad, "a request has 65537 bytes; the limit is 65536");
    EXPECT_TRUE(bad.IsClosed());
    ExpectPictures(good);
}

class HostPeersOfAFastCamera : public HostPeers {
protected:
    HostPeersOfAFastCamera() : HostPeers({"formats=NV12,sizes=640x480,fps=200"}) {}
};

TEST_F(HostPeersOfAFastCamera, AreNotDelayedByOneThatDoesNotRead) {
    const auto host = Start({"--env", "zu.codec.bitrate=20000000", "--env", "zu.codec.keyint=50"});
    const PeerClient fast = Connect();
    const PeerClient slow = Connect();
    for (const PeerClient* peer : {&fast, &slow}) {
        EXPECT_TRUE(peer->Send(OpenBytes(0, 640, 480, 200)));
        ExpectState(*peer, 2, 0);
    }
    // The fast one goes on while the queue of the slow one fills up, and after that.
    while (host->Errors().find("[host] peer 2 is slow and loses frames of camera 0") == std::string::npos) {
        ASSERT_TRUE(fast.ReceiveType(7).has_value());
    }
    ExpectFrames(fast, 60);
    // What waits for the slow one, and after that it is served as before.
    EXPECT_TRUE(slow.Send(kVersionRequestBytes));
    EXPECT_TRUE(slow.ReceiveType(11).has_value());
    EXPECT_TRUE(slow.Send(CloseBytes(0)));
    ExpectState(slow, 4, 0);
    ExpectFrames(fast, 5);
}

}  // namespace
}  // namespace zumod::testing
