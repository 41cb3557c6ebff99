// Compares what the reference peer writes with what the reference host's cameras showed.
#include <linux/videodev2.h>

#include <array>
#include <cmath>
#include <csignal>
#include <fstream>
#include <ostream>

#include "tests/e2e/both_ends.h"
#include "tests/e2e/video_file.h"
#include "tests/support/doubles/picture_pattern.h"
#include "vcam/picture/pattern.h"

namespace zumod::testing {
namespace {

constexpr double kRate = 15;
// On a busy machine frames come late, or the camera has no buffer for one. Then the test records again.
constexpr int kAttempts = 10;

class BothEndsRecord : public BothEnds {
protected:
    BothEndsRecord()
        : BothEnds({"card=Front,formats=NV12,sizes=640x480,fps=15",
                    "card=Desk,formats=YUYV,sizes=320x240,fps=15"}) {}

    static bool IsNear(double value, double expected, double tolerance) {
        return std::abs(value - expected) <= tolerance;
    }

    // Checks a recording of one second. Returns whether no picture is missing and each arrived in time.
    bool IsCompleteRecording(const std::string& path, unsigned width, unsigned height, bool has_times) const {
        SCOPED_TRACE(path);
        const VideoFile file = Probe(work, path);
        EXPECT_EQ(file.width, width);
        EXPECT_EQ(file.height, height);
        bool is_complete = IsNear(static_cast<double>(file.frames), kRate, kRate / 4);
        if (has_times) {
            EXPECT_EQ(file.times.size(), file.frames);
            EXPECT_EQ(file.times.at(0), 0);
            is_complete &= IsNear(file.Rate(), kRate, kRate / 5);
        }
        const auto stamps = StampsIn(work, path, width, height);
        EXPECT_EQ(stamps.size(), file.frames);
        for (size_t i = 1; i < stamps.size(); ++i) {
            EXPECT_GT(stamps[i].counter, stamps[i - 1].counter);
            is_complete &= stamps[i].counter == stamps[i - 1].counter + 1;
        }
        if (is_complete) {
            const auto span = static_cast<double>(stamps.back().time_us - stamps.front().time_us) / 1e6;
            EXPECT_NEAR(static_cast<double>(stamps.size() - 1) / span, kRate, 0.1);
        }
        return is_complete;
    }

    // Calls `record`, which records and returns whether the recording is complete, until it is.
    template <class Record>
    static void ExpectComplete(Record record) {
        bool is_complete = false;
        for (int i = 0; i < kAttempts && !is_complete && !HasFailure(); ++i) {
            is_complete = record();
        }
        EXPECT_TRUE(is_complete) << "pictures are missing or late in each attempt";
    }
};

TEST_F(BothEndsRecord, OneCameraInEachFormat) {
    const auto host = Start();
    for (const char* name : {"front.mp4", "front.mkv", "front.h264"}) {
        const std::string path = work / name;
        ExpectComplete([&] {
            const std::string printed =
                PrintedBy(Peer({"record", "0", path, "--seconds", "1", "--overwrite"}));
            EXPECT_EQ(printed.substr(0, path.size() + 2), path + ": ");
            EXPECT_NE(printed.find(", " + std::to_string(Probe(work, path).frames) + " frame"),
                      std::string::npos)
                << printed;
            const bool has_times = std::string(name) != "front.h264";
            return IsCompleteRecording(path, 640, 480, has_times);
        });
    }
}

TEST_F(BothEndsRecord, TwoCamerasAtOnce) {
    const auto host = Start();
    const std::string front = work / "front.mp4";
    const std::string desk = work / "desk.mkv";
    ExpectComplete([&] {
        PrintedBy(Peer({"record", "0", front, "1", desk, "--seconds", "1", "--overwrite"}));
        const bool is_front_complete = IsCompleteRecording(front, 640, 480, true);
        return IsCompleteRecording(desk, 320, 240, true) && is_front_complete;
    });
    ExpectCameraFree(0);
    ExpectCameraFree(1);
}

TEST_F(BothEndsRecord, AndKeepTheSecondFileWhenTheFirstCannotBePutInPlace) {
    const auto host = Start();
    const std::string front = work / "front.mkv";
    const std::string desk = work / "desk.mkv";
    PeerRun peer = Peer({"record", "0", front, "1", desk});
    for (const size_t camera : {0U, 1U}) {
        EXPECT_TRUE(WaitUntil([&] { return cameras.At(camera).Status().delivered >= 10; }));
    }
    std::ofstream(front) << "precious";
    peer.Process().Signal(SIGINT);
    EXPECT_EQ(peer.Process().Wait(), 1);
    const std::string errors = peer.Process().Errors();
    const std::string start =
        "zu-camera-peer: " + front + " cannot be put in place: File exists; it is kept as ";
    ASSERT_EQ(errors.substr(0, start.size()), start);
    EXPECT_EQ(FileContent(front), "precious");
    const std::string kept = errors.substr(start.size(), errors.size() - start.size() - 1);
    EXPECT_EQ(StampsIn(work, kept, 640, 480).size(), Probe(work, kept).frames);
    EXPECT_EQ(StampsIn(work, desk, 320, 240).size(), Probe(work, desk).frames);
    EXPECT_GT(Probe(work, desk).frames, 0U);
}

struct Shot {
    const char* format;
    unsigned width;
    unsigned height;
};

void PrintTo(const Shot& shot, std::ostream* out) {
    *out << shot.format << " " << shot.width << "x" << shot.height;
}

class BothEndsTakeAPicture : public BothEnds {
protected:
    BothEndsTakeAPicture()
        : BothEnds({"card=Front,formats=NV12,sizes=320x240:642x480,fps=15",
                    "card=Desk,formats=YUYV,sizes=320x240:642x480,fps=15"}) {}

    // The worst of the three colours.
    static double PsnrOfColours(const std::string& shown, const std::string& taken) {
        std::array<Psnr, 3> colours;
        for (size_t i = 0; i < shown.size(); ++i) {
            if (i % 4 != 3) {
                colours.at(i % 4).Add(static_cast<uint8_t>(shown[i]), static_cast<uint8_t>(taken[i]));
            }
        }
        return std::min({colours[0].Value(), colours[1].Value(), colours[2].Value()});
    }
};

TEST_F(BothEndsTakeAPicture, ThatTheCameraShowed) {
    const auto host = Start();
    for (const Shot& shot :
         {Shot{"NV12", 320, 240}, Shot{"NV12", 642, 480}, Shot{"YUYV", 320, 240}, Shot{"YUYV", 642, 480}}) {
        SCOPED_TRACE(::testing::PrintToString(shot));
        const bool front = std::string(shot.format) == "NV12";
        const std::string path = work / "picture.png";
        PrintedBy(Peer({"snapshot", front ? "0" : "1", path, "--overwrite", "--size",
                        std::to_string(shot.width) + "x" + std::to_string(shot.height)}));
        const std::string taken = DecodedBytes(work, path, "bgr0");
        const vcam::PictureLayout layout = vcam::LayOut(V4L2_PIX_FMT_BGR32, shot.width, shot.height);
        ASSERT_EQ(taken.size(), layout.sizeimage);
        const auto stamp = vcam::ReadStamp(reinterpret_cast<const uint8_t*>(taken.data()), layout);
        ASSERT_TRUE(stamp);
        std::string shown(layout.sizeimage, '\0');
        const std::string label = std::string(front ? "Front " : "Desk ") + shot.format + " 15";
        vcam::Pattern(layout, label).Paint(reinterpret_cast<uint8_t*>(shown.data()), *stamp);
        EXPECT_GE(PsnrOfColours(shown, taken), 30);
    }
}

}  // namespace
}  // namespace zumod::testing
