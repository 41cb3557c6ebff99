// zu-camera-peer stats: the figures, and a camera that stalls, disappears and comes back.
#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/e2e/peer_process.h"
#include "tests/support/wire/encoded_stream.h"

namespace zumod::testing {
namespace {

class PeerStats : public PeerProcess {
protected:
    // A frame with the current time. The first one starts the stream.
    Bytes NextFrame(uint32_t counter) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const auto us =
            static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
        return stream->Next(counter, us);
    }
    // With 1 frame per second the limit is 2.5 s, so that a loaded machine does not look like a stall.
    static Bytes OpenSlowly(uint8_t id) {
        Bytes open = OpenBytes(id);
        open[20] = 1;
        return open;
    }
    void AnswerSlowOpen() {
        AnswerList(kOneCamera);
        host.Expect(OpenSlowly(0));
        EXPECT_TRUE(host.Send(StateBytes(2, 0)));
    }

    // Ends the peer by a signal, and answers its last request.
    void Stop(int signal, uint8_t id) {
        peer->Signal(signal);
        host.Send(StateBytes(4, id));
        host.ExpectClosed();
        ExpectEnd(0, "");
    }

    void BeginStream() { stream = std::make_unique<EncodedStream>(640, 480); }

    // Sends frames until the peer has printed the text.
    void StreamUntilPrinted(uint8_t id, const std::string& text) {
        uint32_t counter = 0;
        EXPECT_TRUE(WaitUntil([&] {
            if (Printed().find(text) != std::string::npos) {
                return true;
            }
            // The rate of a camera.
            EXPECT_TRUE(host.Send(FrameBytes(id, NextFrame(counter++))));
            poll(nullptr, 0, 20);
            return false;
        })) << Printed();
    }

    std::unique_ptr<EncodedStream> stream = std::make_unique<EncodedStream>(640, 480);
};

TEST_F(PeerStats, PrintsOneLinePerSecondWithLatencyAndDrops) {
    Bytes frames;
    for (const uint32_t counter : {0U, 1U, 4U}) {
        frames = frames + FrameBytes(0, NextFrame(counter));
    }
    Start({"stats", "0", "--json", "--fps", "1"});
    AnswerSlowOpen();
    host.Send(frames + FrameBytes(0, {1, 2, 3}));
    // All in the first line, unless the machine is so busy that they are decoded in more than a second.
    const auto count = [this](const char* figure) {
        int sum = 0;
        std::istringstream lines(Printed());
        for (std::string line; std::getline(lines, line) && !lines.eof();) {
            sum += nlohmann::json::parse(line).value(figure, 0);
        }
        return sum;
    };
    ASSERT_TRUE(WaitUntil([&] { return count("frames") == 4; })) << Printed();
    Stop(SIGINT, 0);
    EXPECT_EQ(count("dropped"), 2);
    EXPECT_EQ(count("undecoded"), 1);
    std::istringstream lines(Printed());
    std::string line;
    std::getline(lines, line);
    const auto figures = nlohmann::json::parse(line);
    EXPECT_EQ(figures["camera"], 0);
    EXPECT_EQ(figures["name"], "Front");
    EXPECT_EQ(figures["width"], 640);
    EXPECT_EQ(figures["height"], 480);
    EXPECT_GT(figures["latency_ms"]["median"], 0);
    EXPECT_GE(figures["latency_ms"]["max"], figures["latency_ms"]["median"]);
    EXPECT_GE(figures["seconds"], 1.0);
}

TEST_F(PeerStats, ReportsAStalledCameraClosesItAndOpensItAgain) {
    Start({"stats", "0", "--fps", "1"});
    AnswerSlowOpen();
    host.Send(FrameBytes(0, NextFrame(0)));
    // No more frames: after half of the limit the peer requests the list.
    host.Expect(kGetListBytes);
    host.Send(kOneCamera);
    host.Expect(CloseBytes(0));
    host.Send(StateBytes(4, 0));
    EXPECT_TRUE(Prints("camera 0 (Front) stalled: no frame for 2.5 s\n"));
    host.Expect(kGetListBytes);
    host.Send(kOneCamera);
    host.Expect(OpenSlowly(0));
    host.Send(StateBytes(2, 0));
    BeginStream();
    StreamUntilPrinted(0, "camera 0 (Front) is back after ");
    StreamUntilPrinted(0, "camera 0 (Front) 640x480: ");
    Stop(SIGINT, 0);
}

TEST_F(PeerStats, FindsACameraThatComesBackUnderAnotherId) {
    Start({"stats", "0", "--json", "--fps", "1"});
    AnswerSlowOpen();
    host.Send(FrameBytes(0, NextFrame(0)));
    host.Expect(kGetListBytes);
    host.Send(ListBytes({CameraBytes(0, "Desk", {{640, 480}})}));
    host.Expect(CloseBytes(0));
    host.Send(StateBytes(4, 0));
    EXPECT_TRUE(Prints("\"event\":\"gone\",\"text\":\"camera 0 (Front) is gone\"}\n"));
    host.Expect(kGetListBytes);
    host.Send(ListBytes({CameraBytes(0, "Desk", {{640, 480}})}));
    host.Expect(kGetListBytes);
    host.Send(ListBytes({CameraBytes(0, "Desk", {}), CameraBytes(1, "Front", {})}));
    host.Expect(OpenSlowly(1));
    host.Send(StateBytes(2, 1));
    BeginStream();
    StreamUntilPrinted(1, "\"event\":\"back\",\"text\":\"camera 1 (Front) is back after ");
    Stop(SIGTERM, 1);
}

TEST_F(PeerStats, EndsWhenTheHostDisappears) {
    Start({"stats", "0"});
    AnswerOpen();
    host.Send(FrameBytes(0, NextFrame(0)));
    host.Close();
    ExpectEnd(1, "zu-camera-peer: the host closed the connection\n");
}

TEST_F(PeerStats, EndsAfterTheGivenTime) {
    Start({"stats", "0", "--seconds", "0.2"});
    AnswerOpen();
    AnswerClose();
    ExpectEnd(0, "");
    EXPECT_EQ(Printed(), "");
}

}  // namespace
}  // namespace zumod::testing
