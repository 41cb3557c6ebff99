// zu-camera-peer run: a program that knows only /dev/videoN, with a camera of the reference host.
#include <linux/videodev2.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <set>

#include "tests/e2e/both_ends.h"
#include "vcam/picture/pattern_reader.h"

namespace zumod::testing {
namespace {

constexpr unsigned kWidth = 320;
constexpr unsigned kHeight = 240;

class PeerRunsProgram : public BothEnds {
protected:
    PeerRunsProgram() : BothEnds({"card=Front,formats=NV12,sizes=320x240,fps=30"}) {}

    // bash runs the script, in which $1 is the work directory. The program has only the cameras of the peer,
    // and no sanitizer.
    PeerRun Run(const std::string& script) const {
        return {work,
                "peer",
                {"/usr/bin/env", "-u", "LD_PRELOAD", "-u", "ZU_VCAM", ZU_PEER_FILE, "--socket", socket, "run",
                 "--", "bash", "-c", script, "run", work.Path()}};
    }
    void Touch(const std::string& name) const { std::ofstream(work / name).put('\n'); }
    bool Exists(const std::string& name) const { return access((work / name).c_str(), F_OK) == 0; }

    // The counters of the last pictures in a file of NV12, which may grow. A picture without a stamp, such as
    // a black one, has none.
    std::set<uint32_t> CountersIn(const std::string& path) const {
        constexpr size_t kPictures = 30;
        const vcam::PictureLayout layout = vcam::LayOut(V4L2_PIX_FMT_NV12, kWidth, kHeight);
        std::ifstream file(path, std::ios::binary | std::ios::ate);
        const auto whole = static_cast<size_t>(std::max<std::streamoff>(file.tellg(), 0)) / layout.sizeimage;
        const size_t count = std::min(whole, kPictures);
        std::string bytes(count * layout.sizeimage, '\0');
        file.seekg(static_cast<std::streamoff>((whole - count) * layout.sizeimage));
        file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        std::set<uint32_t> counters;
        for (size_t at = 0; at + layout.sizeimage <= bytes.size(); at += layout.sizeimage) {
            const auto* picture = reinterpret_cast<const uint8_t*>(bytes.data()) + at;
            if (const auto stamp = vcam::ReadStamp(picture, layout)) {
                counters.insert(stamp->counter);
            }
        }
        return counters;
    }
};

TEST_F(PeerRunsProgram, WhichSeesThePicturesOfTheHostAndGetsSignals) {
    if (access("/usr/bin/v4l2-ctl", X_OK) != 0) {
        GTEST_SKIP() << "v4l2-ctl is not installed";
    }
    const auto host = Start();
    PeerRun peer =
        Run("exec v4l2-ctl --set-fmt-video=pixelformat=NV12 --stream-mmap=4 --stream-to=\"$1/pictures\" "
            ">/dev/null 2>&1");
    EXPECT_TRUE(
        WaitUntil([&] { return CountersIn(work / "pictures").size() >= 5 || peer.Process().HasEnded(); }));
    EXPECT_GE(CountersIn(work / "pictures").size(), 5U) << "the counter in the pictures does not move";
    peer.Process().Signal(SIGTERM);
    // On a slow machine it may also say that the camera has stalled.
    EXPECT_EQ(peer.Process().Wait(), 128 + SIGTERM);
    ExpectCameraFree();
}

TEST_F(PeerRunsProgram, AndTheCameraIsOpenOnlyWhileItStreams) {
    if (access("/usr/bin/v4l2-ctl", X_OK) != 0) {
        GTEST_SKIP() << "v4l2-ctl is not installed";
    }
    const auto host = Start();
    PeerRun peer =
        Run("until [ -e \"$1/streamed\" ]; do [ -d \"$1\" ] || exit; [ -c /dev/video0 ] && v4l2-ctl "
            "--stream-mmap=4 "
            "--stream-count=5; done "
            ">/dev/null 2>&1; : >\"$1/stopped\"; until [ -e \"$1/free\" ]; do [ -d \"$1\" ] || exit; sleep "
            "0.05; done; exit 7");
    EXPECT_TRUE(WaitUntil([&] { return cameras.At(0).Status().streaming || peer.Process().HasEnded(); }));
    Touch("streamed");
    EXPECT_TRUE(WaitUntil([&] { return Exists("stopped") || peer.Process().HasEnded(); }));
    ExpectCameraFree();
    EXPECT_FALSE(peer.Process().HasEnded()) << "it is the end of the stream that closes the camera";
    Touch("free");
    EXPECT_EQ(peer.Process().Wait(), 7);
}

constexpr char kWaitForUnplugAndReturn[] =
    "[ -c /dev/video0 ] || exit 1; : >\"$1/began\"; while [ -c /dev/video0 ]; do [ -d \"$1\" ] || exit; "
    "sleep 0.05; done; "
    ": >\"$1/gone\"; until [ -c /dev/video0 ]; do [ -d \"$1\" ] || exit; sleep 0.05; done; exit 5";

TEST_F(PeerRunsProgram, WhoseCameraIsUnpluggedWhileTheHostIsGone) {
    auto host = Start();
    PeerRun peer = Run(kWaitForUnplugAndReturn);
    EXPECT_TRUE(WaitUntil([&] { return Exists("began") || peer.Process().HasEnded(); }));
    host->Signal(SIGKILL);
    EXPECT_EQ(host->Wait(), 128 + SIGKILL);
    EXPECT_TRUE(WaitUntil([&] { return Exists("gone") || peer.Process().HasEnded(); }));
    host = Start();
    peer.ExpectEnd(
        5,
        "zu-camera-peer: the host closed the connection; the cameras are unplugged until the host is "
        "back\nzu-camera-peer: the host is back\n");
}

TEST_F(PeerRunsProgram, WhoseCameraIsUnpluggedWhileTheHostDoesNotListIt) {
    const auto host = Start();
    PeerRun peer = Run(kWaitForUnplugAndReturn);
    EXPECT_TRUE(WaitUntil([&] { return Exists("began") || peer.Process().HasEnded(); }));
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    EXPECT_TRUE(WaitUntil([&] { return Exists("gone") || peer.Process().HasEnded(); }));
    cameras.At(0).Inject(vcam::ParseFault("replug").value());
    peer.ExpectEnd(5, "");
}

TEST_F(PeerRunsProgram, UnlessThereIsNoHostOrNoProgram) {
    PeerRun without_host = Run("exit 0");
    without_host.ExpectEnd(1, "zu-camera-peer: no connection to " + socket + ": No such file or directory\n");
    PeerRun without_program = Peer({"run"});
    EXPECT_EQ(without_program.Process().Wait(), 2);
    const auto host = Start();
    PeerRun unknown(work, "unknown",
                    {"/usr/bin/env", "-u", "LD_PRELOAD", "-u", "ZU_VCAM", ZU_PEER_FILE, "--socket", socket,
                     "run", "--", "/nonexistent/program"});
    EXPECT_EQ(unknown.Process().Wait(), 127);
}

}  // namespace
}  // namespace zumod::testing
