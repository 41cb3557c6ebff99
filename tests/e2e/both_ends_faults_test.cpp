// The reference host and the reference peer when one of them is killed, and when a camera disappears or
// stalls.
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/e2e/both_ends.h"
#include "tests/e2e/video_file.h"

namespace zumod::testing {
namespace {

class BothEndsKilled : public BothEnds {
protected:
    static constexpr size_t kAtOnce = 3;

    // Before it opens any camera, a host opens the first one for a moment. Where several hosts run, that one
    // is therefore not used.
    BothEndsKilled()
        : BothEnds({"card=First,formats=NV12,sizes=320x240,fps=100",
                    "card=Front,formats=NV12,sizes=320x240,fps=100",
                    "card=Desk,formats=YUYV,sizes=320x240,fps=100",
                    "card=Door,formats=YU12,sizes=320x240,fps=100"}) {}

    // The id of the camera that the peer with this index uses.
    static size_t CameraOf(size_t index) { return index + 1; }

    uint64_t Delivered(size_t index) { return cameras.At(CameraOf(index)).Status().delivered; }

    // Waits until all cameras are free: later frames belong to the peers of this round.
    void BeginRound() {
        ExpectCameraFree(0);
        for (size_t i = 0; i < kAtOnce; ++i) {
            ExpectCameraFree(CameraOf(i));
            m_delivered.at(i) = Delivered(i);
        }
    }

    // Kills the process once its camera has delivered so many frames.
    void KillAfter(uint64_t frames, size_t index, ChildProcess& victim) {
        WaitUntil([&] { return Delivered(index) - m_delivered.at(index) >= frames || victim.HasEnded(); });
        ASSERT_FALSE(victim.HasEnded()) << victim.Errors();
        victim.Signal(SIGKILL);
        EXPECT_EQ(victim.Wait(), 128 + SIGKILL);
    }

    // Whether a recording that is not complete has more than a header. What arrives is written within a
    // second.
    bool HasWrittenAFrame() const {
        for (const auto& entry : std::filesystem::directory_iterator(work.Path())) {
            std::error_code error;
            if (entry.path().string().find(".part-") != std::string::npos && entry.file_size(error) > 4000) {
                return true;
            }
        }
        return false;
    }

    std::string SocketOf(size_t index) const { return work / ("private/" + std::to_string(index)); }

    // Checks the recording of a peer whose host disappeared, and the peer's error.
    void ExpectPlayable(const std::string& path, const std::string& errors) const {
        const auto stamps = StampsIn(work, path, 320, 240);
        for (size_t i = 1; i < stamps.size(); ++i) {
            EXPECT_GT(stamps[i].counter, stamps[i - 1].counter);
        }
        const std::string rest =
            "; the " + std::to_string(stamps.size()) + " frames before that are in " + path + "\n";
        const std::string closed = "zu-camera-peer: the host closed the connection";
        EXPECT_TRUE(errors == closed + rest || errors == closed + " in the middle of a message" + rest)
            << errors << "expected: " << rest;
    }

private:
    std::array<uint64_t, kAtOnce> m_delivered{};
};

TEST_F(BothEndsKilled, AKilledHostDoesNotBlockTheNextAndThePeerKeepsItsRecording) {
    constexpr std::array<const char*, 3> kEndings = {".mp4", ".mkv", ".h264"};
    std::mt19937 random(5);
    for (size_t i = 0; i < ZU_KILLED_HOSTS_OF_PEERS; ++i) {
        const std::string path = work / (std::to_string(i) + kEndings.at(i % kEndings.size()));
        SCOPED_TRACE(path);
        const auto host = Start({"--log-level", "error"});
        BeginRound();
        PeerRun peer = Peer({"record", "1", path});
        // In some rounds there is a frame to keep for certain.
        const bool must_keep = i % 8 == 0;
        EXPECT_TRUE(!must_keep || WaitUntil([&] { return HasWrittenAFrame() || peer.Process().HasEnded(); }));
        KillAfter(random() % 25, 0, *host);
        EXPECT_EQ(peer.Process().Wait(), 1);
        if (must_keep || std::filesystem::exists(path)) {
            ExpectPlayable(path, peer.Process().Errors());
        }
        EXPECT_FALSE(HasTemporaryFile());
    }
    const auto host = Start();
    PrintedBy(Peer({"snapshot", "1", work / "picture.png"}));
}

TEST_F(BothEndsKilled, AHostSurvivesKilledPeersAndServesTheNext) {
    std::mt19937 random(6);
    std::vector<std::unique_ptr<ChildProcess>> hosts;
    for (size_t i = 0; i < kAtOnce; ++i) {
        hosts.push_back(std::make_unique<ChildProcess>(
            std::vector<std::string>{ZU_HOST_FILE, "--listen", SocketOf(i), "--log-level", "error"},
            work / (std::to_string(i) + ".errors")));
        EXPECT_TRUE(hosts.back()->Says("listening")) << hosts.back()->Errors();
    }
    for (int round = 0; round < ZU_ROUNDS_OF_KILLED_PEERS; ++round) {
        BeginRound();
        std::vector<PeerRun> peers;
        for (size_t i = 0; i < kAtOnce; ++i) {
            const std::string id = std::to_string(CameraOf(i));
            peers.emplace_back(work, "peer" + id,
                               std::vector<std::string>{ZU_PEER_FILE, "--socket", SocketOf(i), "record", id,
                                                        work / (id + ".mkv")});
        }
        for (size_t i = 0; i < kAtOnce; ++i) {
            KillAfter(random() % 25, i, peers.at(i).Process());
            EXPECT_FALSE(std::filesystem::exists(work / (std::to_string(CameraOf(i)) + ".mkv")));
        }
    }
    BeginRound();
    for (size_t i = 0; i < kAtOnce; ++i) {
        EXPECT_FALSE(hosts.at(i)->HasEnded());
        EXPECT_EQ(PrintedBy({work, "peer", {ZU_PEER_FILE, "--socket", SocketOf(i), "version"}}), "5\n");
        hosts.at(i)->Signal(SIGTERM);
        EXPECT_EQ(hosts.at(i)->Wait(), 0);
        EXPECT_FALSE(std::filesystem::exists(SocketOf(i)));
    }
}

TEST_F(BothEndsKilled, AHostAtAPipeEndsWhenItsPeerIsKilled) {
    // Orphaned processes become children of this process.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    std::mt19937 random(7);
    for (int round = 0; round < ZU_ROUNDS_OF_KILLED_PEERS_OF_PIPES; ++round) {
        std::vector<PeerRun> peers;
        BeginRound();
        for (size_t i = 0; i < kAtOnce; ++i) {
            const std::string id = std::to_string(CameraOf(i));
            peers.push_back(PeerWithHost({"record", id, work / (id + ".mkv")}, "peer" + id));
        }
        for (size_t i = 0; i < kAtOnce; ++i) {
            // After the first frame the host is known to run.
            KillAfter(1 + random() % 24, i, peers.at(i).Process());
        }
        for (size_t i = 0; i < kAtOnce; ++i) {
            int status = -1;
            EXPECT_TRUE(WaitUntil([&] { return waitpid(-1, &status, WNOHANG) > 0; })) << "a host still runs";
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << '\n'
                                                                       << FileContent(work / "errors");
        }
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process is left";
    }
    BeginRound();
}

// A driver that says that each frame has more bytes than its buffer.
class BothEndsLongFrames : public BothEnds, public ::testing::WithParamInterface<int> {
protected:
    BothEndsLongFrames() : BothEnds({"card=Front,formats=NV12,sizes=640x480,fps=30"}) {}
};

TEST_P(BothEndsLongFrames, AreRecordedAsTheyAre) {
    const auto host = Start();
    cameras.At(0).Inject(vcam::ParseFault("long/0/0/" + std::to_string(GetParam())).value());
    const std::string path = work / "front.h264";
    PeerRun peer = Peer({"record", "0", path});
    EXPECT_TRUE(WaitUntil([&] { return cameras.At(0).Status().delivered >= 30; }));
    peer.Process().Signal(SIGINT);
    PrintedBy(std::move(peer));
    const auto stamps = StampsIn(work, path, 640, 480);
    EXPECT_GE(stamps.size(), 5U);
    EXPECT_FALSE(host->HasEnded()) << host->Errors();
    ExpectCameraFree();
}

// A picture has 460800 bytes: an exact fit for rows of 640 bytes, then for 1280, then for 40960.
INSTANTIATE_TEST_SUITE_P(ByOnePageOneOrManyPictures, BothEndsLongFrames,
                         ::testing::Values(4096, 460800, 29030400));

class BothEndsWatch : public BothEnds {
protected:
    BothEndsWatch() : BothEnds({"card=Front,formats=NV12,sizes=640x480,fps=30"}) {}

    // Injects a fault while figures are printed; they continue once the camera is back. With 1 frame per
    // second the limit is 2.5 s, so that a loaded machine does not look like a stall.
    void ExpectReportedAndBack(const char* fault, const std::string& event, bool to_replug) {
        const auto host = Start();
        PeerRun peer = Peer({"stats", "0", "--fps", "1"});
        peer.Prints("camera 0 (Front) 640x480: ");
        const size_t before = peer.Printed().size();
        cameras.At(0).Inject(vcam::ParseFault(fault).value());
        const size_t named = peer.Prints(event, before);
        if (to_replug) {
            cameras.At(0).Inject(vcam::ParseFault("replug").value());
        }
        const size_t back = peer.Prints("camera 0 (Front) is back after ", named);
        peer.Prints("camera 0 (Front) 640x480: ", back);
        peer.Prints(", 0 dropped\n", back);
        peer.Stop();
        ExpectCameraFree();
    }
};

TEST_F(BothEndsWatch, ReportsAnUnpluggedCameraAndOpensItWhenItIsBack) {
    ExpectReportedAndBack("unplug", "camera 0 (Front) is gone\n", true);
}

TEST_F(BothEndsWatch, ReportsAStalledCameraAndOpensItAgain) {
    // Ten minutes; the stall ends when the stream restarts.
    ExpectReportedAndBack("stall/600000", "camera 0 (Front) stalled: no frame for 2.5 s\n", false);
}

}  // namespace
}  // namespace zumod::testing
