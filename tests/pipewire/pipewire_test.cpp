// A virtual camera, the host, the peer's command camera, PipeWire, and a program that reads the node. Runs in
// a session that tests/pipewire/session starts.
#include <fstream>

#include "common/picture_stamp.h"
#include "common/waiter.h"
#include "tests/e2e/both_ends.h"

namespace zumod::testing {
namespace {

// A GStreamer program that writes the node's pictures to a file, in I420, and what they show.
class Reader {
public:
    // `pictures` is 0 for a reader that does not end by itself.
    Reader(const WorkDirectory& work, const std::string& name, int pictures, unsigned width = 640,
           unsigned height = 480)
        : m_width(width),
          m_height(height),
          m_file(work / (name + ".i420")),
          m_process(
              {"/usr/bin/env", "-u", "LD_PRELOAD", "gst-launch-1.0", "-q", "pipewiresrc",
               "target-object=zu-lent.desk.Front",
               "num-buffers=" + std::to_string(pictures == 0 ? -1 : pictures), "!",
               "video/x-raw,format=I420,width=" + std::to_string(width) + ",height=" + std::to_string(height),
               "!", "filesink", "location=" + m_file, "buffer-mode=unbuffered"},
              work / (name + ".errors")) {}

    ChildProcess& Process() { return m_process; }

    // The stamps of the pictures so far; those without one are left out.
    const std::vector<Stamp>& Stamps() {
        std::string picture(size_t{m_width} * m_height * 3 / 2, 0);
        std::ifstream file(m_file, std::ios::binary);
        file.seekg(static_cast<std::streamoff>(m_count * picture.size()));
        for (; file.read(picture.data(), static_cast<std::streamsize>(picture.size())); ++m_count) {
            const auto* const luma = reinterpret_cast<const uint8_t*>(picture.data());
            if (const auto stamp = ReadStamp(luma, m_width, m_width, m_height)) {
                m_stamps.push_back(*stamp);
            } else {
                // A sign in the middle of a dark picture.
                const bool is_card = luma[0] == 32 && luma[(m_height + 1) * m_width / 2] == 140;
                m_cards += is_card ? 1 : 0;
            }
        }
        return m_stamps;
    }
    // Waits until it has read so many pictures with a stamp.
    ::testing::AssertionResult Reads(size_t pictures) {
        return WaitUntil([&] { return Stamps().size() >= pictures; })
                   ? ::testing::AssertionSuccess()
                   : ::testing::AssertionFailure() << m_count << " pictures " << m_process.Errors();
    }
    // Waits until it has read a picture with the sign that there is no camera.
    ::testing::AssertionResult ReadsACard() {
        return WaitUntil([&] {
            Stamps();
            return m_cards > 0;
        })
                   ? ::testing::AssertionSuccess()
                   : ::testing::AssertionFailure() << m_count << " pictures " << m_process.Errors();
    }

private:
    const unsigned m_width;
    const unsigned m_height;
    const std::string m_file;
    ChildProcess m_process;
    size_t m_count = 0;  // of the pictures in the file that were looked at
    size_t m_cards = 0;
    std::vector<Stamp> m_stamps;
};

class PipeWireTest : public BothEnds {
protected:
    PipeWireTest() : BothEnds({"card=Front,formats=NV12,sizes=640x480:320x240,fps=30"}) {}

    // Offers the camera, and waits until the session's manager knows it.
    std::unique_ptr<PeerRun> Offer() const {
        auto peer = std::make_unique<PeerRun>(
            work, "peer",
            std::vector<std::string>{"/usr/bin/env", "-u", "LD_PRELOAD", ZU_PEER_FILE, "--socket", socket,
                                     "camera", "--label", "desk"});
        EXPECT_TRUE(peer->Process().Says(kOffered)) << peer->Process().Errors();
        EXPECT_TRUE(WaitUntil([&] { return StatusOfSession().find("Front (desk)") != std::string::npos; }))
            << StatusOfSession();
        return peer;
    }
    std::string StatusOfSession() const {
        PeerRun status(work, "status", {"/usr/bin/env", "-u", "LD_PRELOAD", "wpctl", "status"});
        status.ExpectEnd(0, "");
        return status.Printed();
    }
    void ExpectEndBySignal(PeerRun& peer) const {
        peer.Process().Signal(SIGTERM);
        EXPECT_EQ(peer.Process().Wait(), 0) << peer.Process().Errors();
    }
    static void ExpectRising(const std::vector<Stamp>& stamps) {
        for (size_t i = 1; i < stamps.size(); ++i) {
            EXPECT_GT(stamps[i].counter, stamps[i - 1].counter);
            EXPECT_GT(stamps[i].time_us, stamps[i - 1].time_us);
        }
    }

    static constexpr char kOffered[] = "zu-camera-peer: camera 0 (Front) is offered as \"Front (desk)\"\n";
};

TEST_F(PipeWireTest, TheCameraIsOpenOnlyWhileAProgramReads) {
    const auto host = Start();
    const auto peer = Offer();
    EXPECT_EQ(cameras.At(0).Status().delivered, 0U);
    EXPECT_FALSE(cameras.At(0).Status().streaming);
    const uint64_t begin_us = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count());
    Reader reader(work, "reader", 20);
    EXPECT_EQ(reader.Process().Wait(), 0) << reader.Process().Errors();
    const std::vector<Stamp>& stamps = reader.Stamps();
    EXPECT_EQ(stamps.size(), 20U);
    ExpectRising(stamps);
    EXPECT_GT(stamps.front().time_us, begin_us);
    ExpectCameraFree();
    ExpectEndBySignal(*peer);
    EXPECT_EQ(peer->Process().Errors(), kOffered);
}

TEST_F(PipeWireTest, AProgramChoosesAnotherSize) {
    const auto host = Start();
    const auto peer = Offer();
    Reader reader(work, "reader", 10, 320, 240);
    EXPECT_EQ(reader.Process().Wait(), 0) << reader.Process().Errors();
    EXPECT_EQ(reader.Stamps().size(), 10U);
    EXPECT_NE(host->Errors().find("OnProtoOpenCamera id 0 w 320 h 240 fps 30"), std::string::npos);
    ExpectEndBySignal(*peer);
}

TEST_F(PipeWireTest, TwoProgramsReadTheSameCamera) {
    const auto host = Start();
    const auto peer = Offer();
    Reader endless(work, "endless", 0);
    EXPECT_TRUE(endless.Reads(1));
    Reader second(work, "second", 10);
    EXPECT_EQ(second.Process().Wait(), 0) << second.Process().Errors();
    EXPECT_EQ(second.Stamps().size(), 10U);
    // The first one still gets pictures.
    EXPECT_TRUE(endless.Reads(endless.Stamps().size() + 5));
    ExpectRising(endless.Stamps());
    endless.Process().Signal(SIGKILL);
    ExpectCameraFree();
    ExpectEndBySignal(*peer);
}

TEST_F(PipeWireTest, AProgramSeesThatTheCameraIsGoneAndThatItIsBack) {
    const auto host = Start();
    const auto peer = Offer();
    Reader reader(work, "reader", 0);
    EXPECT_TRUE(reader.Reads(1));
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    EXPECT_TRUE(reader.ReadsACard());
    const size_t before = reader.Stamps().size();
    cameras.At(0).Inject(vcam::ParseFault("replug").value());
    EXPECT_TRUE(reader.Reads(before + 5));
    EXPECT_TRUE(peer->Process().Says("zu-camera-peer: camera 0 (Front) is back\n"))
        << peer->Process().Errors();
    reader.Process().Signal(SIGKILL);
    ExpectEndBySignal(*peer);
}

TEST_F(PipeWireTest, AProgramSeesACardAfterTheHostWasKilledAndThePeerEndsAfterIt) {
    const auto host = Start();
    const auto peer = Offer();
    Reader reader(work, "reader", 0);
    EXPECT_TRUE(reader.Reads(1));
    host->Signal(SIGKILL);
    EXPECT_TRUE(reader.ReadsACard());
    EXPECT_FALSE(peer->Process().HasEnded());
    reader.Process().Signal(SIGKILL);
    peer->ExpectEnd(1,
                    std::string(kOffered) +
                        "zu-camera-peer: the host closed the connection; ends when no program uses a camera\n"
                        "zu-camera-peer: the host closed the connection\n");
    EXPECT_EQ(StatusOfSession().find("Front (desk)"), std::string::npos);
}

TEST_F(PipeWireTest, SaysThatThereIsNoPipeWire) {
    const auto host = Start();
    PeerRun peer(work, "peer",
                 {"/usr/bin/env", "-u", "LD_PRELOAD", "PIPEWIRE_REMOTE=/nonexistent/pipewire-0", ZU_PEER_FILE,
                  "--socket", socket, "camera"});
    peer.ExpectEnd(
        1, "zu-camera-peer: there is no PipeWire at /nonexistent/pipewire-0: No such file or directory\n");
}

}  // namespace
}  // namespace zumod::testing
