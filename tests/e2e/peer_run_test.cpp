// zu-camera-peer run: a program that knows only /dev/videoN, with a camera of the reference host.
#include <linux/videodev2.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <set>

#include "tests/e2e/both_ends.h"
#include "tests/support/doubles/scripted_host.h"
#include "tests/support/wire/encoded_stream.h"
#include "vcam/picture/pattern_reader.h"

namespace zumod::testing {
namespace {

constexpr unsigned kWidth = 320;
constexpr unsigned kHeight = 240;

class PeerRunsProgram : public BothEnds {
protected:
    explicit PeerRunsProgram(
        std::initializer_list<const char*> with = {"card=Front,formats=NV12,sizes=320x240,fps=30"})
        : BothEnds(with) {}

    // The program has only the cameras of the peer, and no sanitizer.
    PeerRun RunWords(const std::vector<std::string>& words, const std::string& host_socket) const {
        std::vector<std::string> line = {"/usr/bin/env", "-u",       "LD_PRELOAD", "-u", "ZU_VCAM",
                                         ZU_PEER_FILE,   "--socket", host_socket,  "run"};
        line.insert(line.end(), words.begin(), words.end());
        return {work, "peer", line};
    }
    // bash runs the script, in which $1 is the work directory.
    PeerRun Run(const std::string& script, const std::string& host_socket) const {
        return RunWords({"--", "bash", "-c", script, "run", work.Path()}, host_socket);
    }
    PeerRun Run(const std::string& script) const { return Run(script, socket); }
    void Touch(const std::string& name) const { std::ofstream(work / name).put('\n'); }
    bool Exists(const std::string& name) const { return access((work / name).c_str(), F_OK) == 0; }

    // The counters of the last pictures in a file of NV12, which may grow. A picture without a stamp, such as
    // a black one, has none.
    static std::set<uint32_t> CountersIn(const std::string& path) {
        const vcam::PictureLayout layout = vcam::LayOut(V4L2_PIX_FMT_NV12, kWidth, kHeight);
        const std::string bytes = LastPictures(path, layout.sizeimage);
        std::set<uint32_t> counters;
        for (size_t at = 0; at + layout.sizeimage <= bytes.size(); at += layout.sizeimage) {
            const auto* picture = reinterpret_cast<const uint8_t*>(bytes.data()) + at;
            if (const auto stamp = vcam::ReadStamp(picture, layout)) {
                counters.insert(stamp->counter);
            }
        }
        return counters;
    }
    // Whether one of the last pictures in such a file has a bright pixel.
    static bool HasLight(const std::string& path, unsigned width, unsigned height) {
        const size_t luma = size_t{width} * height;
        const std::string bytes = LastPictures(path, luma * 3 / 2);
        for (size_t at = 0; at + luma <= bytes.size(); at += luma * 3 / 2) {
            if (std::any_of(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                            bytes.begin() + static_cast<std::ptrdiff_t>(at + luma),
                            [](char value) { return static_cast<uint8_t>(value) > 150; })) {
                return true;
            }
        }
        return false;
    }

private:
    static std::string LastPictures(const std::string& path, size_t size) {
        constexpr size_t kPictures = 30;
        std::ifstream file(path, std::ios::binary | std::ios::ate);
        const auto whole = static_cast<size_t>(std::max<std::streamoff>(file.tellg(), 0)) / size;
        const size_t count = std::min(whole, kPictures);
        std::string bytes(count * size, '\0');
        file.seekg(static_cast<std::streamoff>((whole - count) * size));
        file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return bytes;
    }
};

TEST_F(PeerRunsProgram, TheProgramSeesThePicturesOfTheHostAndGetsSignals) {
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

TEST_F(PeerRunsProgram, TheCameraIsOpenOnlyWhileTheProgramStreams) {
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

class PeerRunsProgramWithTwins : public PeerRunsProgram {
protected:
    PeerRunsProgramWithTwins()
        : PeerRunsProgram({"card=Twin,formats=NV12,sizes=320x240,fps=30",
                           "card=Twin,formats=NV12,sizes=320x240,fps=30"}) {}
};

TEST_F(PeerRunsProgramWithTwins, TheProgramReadsTwoCamerasOfOneNameAtOnce) {
    if (access("/usr/bin/v4l2-ctl", X_OK) != 0) {
        GTEST_SKIP() << "v4l2-ctl is not installed";
    }
    const auto host = Start();
    PeerRun peer =
        Run("trap 'kill $(jobs -p)' TERM; for i in 0 1; do v4l2-ctl -d $i --set-fmt-video=pixelformat=NV12 "
            "--stream-mmap=4 --stream-to=\"$1/pictures$i\" >/dev/null 2>&1 & done; wait; exit 5");
    const auto has_pictures = [&](const char* name) { return CountersIn(work / name).size() >= 3; };
    EXPECT_TRUE(WaitUntil([&] {
        return (has_pictures("pictures0") && has_pictures("pictures1")) || peer.Process().HasEnded();
    }));
    EXPECT_TRUE(has_pictures("pictures0"));
    EXPECT_TRUE(has_pictures("pictures1"));
    EXPECT_TRUE(cameras.At(0).Status().streaming);
    EXPECT_TRUE(cameras.At(1).Status().streaming);
    peer.Process().Signal(SIGTERM);
    EXPECT_EQ(peer.Process().Wait(), 5);
    ExpectCameraFree(0);
    ExpectCameraFree(1);
}

class PeerRunsProgramWithCompressedSize : public PeerRunsProgram {
protected:
    PeerRunsProgramWithCompressedSize()
        : PeerRunsProgram({"card=Front,mode=MJPG/640x480/30,mode=NV12/320x240/30"}) {}
};

TEST_F(PeerRunsProgramWithCompressedSize, TheProgramSeesASmallerSizeScaled) {
    if (access("/usr/bin/v4l2-ctl", X_OK) != 0) {
        GTEST_SKIP() << "v4l2-ctl is not installed";
    }
    const auto host = Start();
    PeerRun peer =
        Run("exec v4l2-ctl --set-fmt-video=width=640,height=480,pixelformat=NV12 --stream-mmap=4 "
            "--stream-to=\"$1/pictures\" >/dev/null 2>&1");
    EXPECT_TRUE(
        WaitUntil([&] { return HasLight(work / "pictures", 640, 480) || peer.Process().HasEnded(); }));
    EXPECT_TRUE(HasLight(work / "pictures", 640, 480));
    EXPECT_TRUE(peer.Process().Says(
        "zu-camera-peer: camera 0 (Front) is open at 320x240, because larger sizes could not be opened\n"));
    peer.Process().Signal(SIGTERM);
    EXPECT_EQ(peer.Process().Wait(), 128 + SIGTERM);
}

TEST_F(PeerRunsProgram, TheProgramSeesAPictureThatIsTooWideForAVirtualCamera) {
    if (access("/usr/bin/v4l2-ctl", X_OK) != 0) {
        GTEST_SKIP() << "v4l2-ctl is not installed";
    }
    ScriptedHost host(work / "scripted");
    EncodedStream wide(8200, 64);
    PeerRun peer =
        Run("exec v4l2-ctl --set-fmt-video=pixelformat=NV12 --stream-mmap=4 --stream-to=\"$1/pictures\" "
            ">/dev/null 2>&1",
            work / "scripted");
    host.Accept();
    host.Expect(kGetListBytes);
    EXPECT_TRUE(host.Send(ListBytes({CameraBytes(0, "Front", {{kWidth, kHeight}})})));
    host.ExpectAfterLists(OpenBytes(0, kWidth, kHeight));
    EXPECT_TRUE(host.Send(StateBytes(2, 0)));
    // Without frames the peer would search for the camera, and show a sign.
    uint32_t sent = 0;
    EXPECT_TRUE(WaitUntil([&] {
        const bool is_sent = host.Send(FrameBytes(0, wide.Next(sent, sent)));
        ++sent;
        return !is_sent || HasLight(work / "pictures", kWidth, kHeight) || peer.Process().HasEnded();
    }));
    EXPECT_TRUE(HasLight(work / "pictures", kWidth, kHeight)) << peer.Process().Errors();
    peer.Process().Signal(SIGTERM);
    EXPECT_EQ(peer.Process().Wait(), 128 + SIGTERM);
}

TEST_F(PeerRunsProgram, ASizeThatIsNotListedOrCannotBeShownIsReported) {
    PeerRun odd = RunWords({"--size", "641x481", "--", "true"}, socket);
    odd.ExpectEnd(2,
                  "zu-camera-peer: 641x481 cannot be shown to programs: both sides must be even and from 16 "
                  "to 8192, and the size at most 4096x2304 pixels\n");
    const auto host = Start();
    PeerRun peer = RunWords({"--size", "800x600", "--", "bash", "-c", "exit 4"}, socket);
    peer.ExpectEnd(4, "zu-camera-peer: camera 0 (Front) may not have 800x600; it lists 320x240\n");
}

constexpr char kWaitForUnplugAndReturn[] =
    "[ -c /dev/video0 ] || exit 1; : >\"$1/began\"; while [ -c /dev/video0 ]; do [ -d \"$1\" ] || exit; "
    "sleep 0.05; done; "
    ": >\"$1/gone\"; until [ -c /dev/video0 ]; do [ -d \"$1\" ] || exit; sleep 0.05; done; exit 5";

TEST_F(PeerRunsProgram, TheCameraIsUnpluggedWhileTheHostIsGone) {
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

TEST_F(PeerRunsProgram, TheCameraIsUnpluggedWhileTheHostDoesNotListIt) {
    const auto host = Start();
    PeerRun peer = Run(kWaitForUnplugAndReturn);
    EXPECT_TRUE(WaitUntil([&] { return Exists("began") || peer.Process().HasEnded(); }));
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    EXPECT_TRUE(WaitUntil([&] { return Exists("gone") || peer.Process().HasEnded(); }));
    cameras.At(0).Inject(vcam::ParseFault("replug").value());
    peer.ExpectEnd(5, "");
}

TEST_F(PeerRunsProgram, WhatTheCommandBehindExecStartedEndsWithThePeer) {
    // NOLINTBEGIN(concurrency-mt-unsafe): nobody sets them now
    const char* preload = std::getenv("LD_PRELOAD");
    const char* server = std::getenv("ZU_VCAM");
    // NOLINTEND(concurrency-mt-unsafe)
    ASSERT_NE(server, nullptr);
    const std::string command = "sleep 1000 & echo $! >" + (work / "left") +
                                "; exec env LD_PRELOAD=" + (preload == nullptr ? "" : preload) +
                                " ZU_VCAM=" + server + " " ZU_HOST_FILE " --stdio 2>>" + (work / "errors");
    PeerRun peer(work, "peer",
                 {"/usr/bin/env", "-u", "LD_PRELOAD", "-u", "ZU_VCAM", ZU_PEER_FILE, "--exec", command, "run",
                  "--", "bash", "-c", "[ -c /dev/video0 ] && exit 3"});
    EXPECT_EQ(peer.Process().Wait(), 3) << peer.Process().Errors();
    const pid_t left = std::atoi(FileContent(work / "left").c_str());
    ASSERT_GT(left, 1);
    EXPECT_TRUE(WaitUntil([left] { return kill(left, 0) != 0; }));
    if (kill(left, SIGKILL) == 0) {
        ADD_FAILURE() << "it was left";
    }
}

TEST_F(PeerRunsProgram, WithoutAHostOrAProgramItFails) {
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
