#include "host/plugin_stream.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <future>

#include "tests/support/wire/camera_messages.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {
namespace {

using testing::FrameBytes;
using testing::kVersionReplyBytes;
using testing::kVersionRequestBytes;
using testing::OpenBytes;
using testing::StateBytes;
using testing::operator+;

// A stream with one peer.
class PluginStreamTest : public ::testing::Test {
protected:
    PluginStreamTest() {
        stream->Call([](Broker& broker) { broker.AddPeer(1, Clock::now()); });
    }
    // At the end it must not wait for a thread that waits for the stream.
    ~PluginStreamTest() override { stream->End(); }

    void Ask(const Bytes& bytes) {
        stream->Call([&](Broker& broker) { broker.OnInput(1, bytes); });
    }
    // Reads as the plugin does: this many bytes, however many calls it takes. Empty if a call fails.
    Bytes Read(size_t size) {
        Bytes bytes(size);
        for (size_t read = 0; read < size;) {
            unsigned long done = 0;
            if (stream->Read(bytes.data() + read, size - read, &done) != 0) {
                return {};
            }
            read += done;
        }
        return bytes;
    }
    bool Write(const Bytes& bytes) {
        unsigned long done = 0;
        return stream->Write(bytes.data(), bytes.size(), &done) == 0 && done == bytes.size();
    }
    // What the peer gets, if it takes all there is.
    Bytes Take() {
        return stream->Call([](Broker& broker) {
            Bytes taken;
            for (auto output = broker.NextOutput(1); !output.rest.empty(); output = broker.NextOutput(1)) {
                taken.insert(taken.end(), output.rest.begin(), output.rest.end());
                broker.OnSent(1, output.rest.size(), Clock::now());
            }
            return taken;
        });
    }
    bool IsAwake() const {
        pollfd watched{stream->Wake(), POLLIN, 0};
        return poll(&watched, 1, 0) == 1;
    }
    void Open() {
        Ask(OpenBytes(0));
        ASSERT_EQ(Read(24), OpenBytes(0));
        ASSERT_TRUE(Write(StateBytes(2, 0)));
        ASSERT_EQ(Take(), StateBytes(2, 0));
    }
    // A frame that waits until the one before it is taken.
    std::future<bool> StartWaitingWrite() {
        EXPECT_TRUE(Write(FrameBytes(0, {1})));
        auto result = std::async(std::launch::async, [this] { return Write(FrameBytes(0, {2})); });
        EXPECT_EQ(result.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        return result;
    }

    const CRefPtr_T<PluginStream> stream{new PluginStream({})};
};

TEST_F(PluginStreamTest, ARequestIsReadInPiecesOfAnySize) {
    Ask(OpenBytes(0) + kVersionRequestBytes);
    Bytes read;
    for (const size_t size : {8U, 1U, 15U, 3U, 5U}) {
        read = read + Read(size);
    }
    EXPECT_EQ(read, OpenBytes(0) + kVersionRequestBytes);
}

TEST_F(PluginStreamTest, AReadWaitsForARequest) {
    auto result = std::async(std::launch::async, [this] { return Read(8); });
    Ask(kVersionRequestBytes);
    EXPECT_EQ(result.get(), kVersionRequestBytes);
}

TEST_F(PluginStreamTest, AnAnswerWakesTheMainThread) {
    Ask(kVersionRequestBytes);
    Read(8);
    stream->ClearWake();
    EXPECT_FALSE(IsAwake());
    EXPECT_TRUE(Write(kVersionReplyBytes));
    EXPECT_TRUE(IsAwake());
    EXPECT_EQ(Take(), kVersionReplyBytes);
}

TEST_F(PluginStreamTest, AFrameWaitsUntilThePeerHasTakenTheOneBeforeIt) {
    Open();
    auto waiting = StartWaitingWrite();
    // An answer does not wait.
    Ask(kVersionRequestBytes);
    EXPECT_EQ(Read(8), kVersionRequestBytes);
    EXPECT_TRUE(Write(kVersionReplyBytes));
    EXPECT_EQ(Take(), FrameBytes(0, {1}) + kVersionReplyBytes);
    EXPECT_TRUE(waiting.get());
    EXPECT_EQ(Take(), FrameBytes(0, {2}));
}

TEST_F(PluginStreamTest, APeerThatLeavesLetsAFrameThatWaitsPass) {
    Open();
    auto waiting = StartWaitingWrite();
    stream->Call([](Broker& broker) { broker.RemovePeer(1); });
    EXPECT_TRUE(waiting.get());
}

TEST_F(PluginStreamTest, EndInterruptsAReadAndAWriteThatWait) {
    Open();
    auto writing = StartWaitingWrite();
    auto reading = std::async(std::launch::async, [this] { return Read(8); });
    stream->End();
    EXPECT_FALSE(writing.get());
    EXPECT_EQ(reading.get(), Bytes());
}

TEST_F(PluginStreamTest, AfterEndNothingIsReadOrWritten) {
    Ask(kVersionRequestBytes + kVersionRequestBytes);
    EXPECT_EQ(Read(3).size(), 3U);
    stream->End();
    EXPECT_EQ(Read(5), Bytes());
    EXPECT_FALSE(Write(kVersionReplyBytes));
    EXPECT_EQ(Take(), Bytes());
}

TEST_F(PluginStreamTest, BytesThatAreNotOneMessageAreNotWritten) {
    EXPECT_FALSE(Write(kVersionReplyBytes + kVersionReplyBytes));
}

// The module lists a camera whose file the host cannot look at.
TEST(PluginStreamWithAGate, LooksAtACameraBeforeThePluginOpensIt) {
    CameraFiles files;
    files.OnLogLine("[CameraEnumerator]  id: 0 name: A bus:  usb-1 file: /nonexistent/video0 res: ");
    CameraGate gate({{"*"}, {}, false}, files, [](const std::string&) {});
    const CRefPtr_T<PluginStream> stream(new PluginStream({}, &gate));
    stream->Call([](Broker& broker) {
        broker.AddPeer(1, Clock::now());
        broker.OnInput(1, OpenBytes(0) + kVersionRequestBytes);
    });
    Bytes bytes(8);
    unsigned long done = 0;
    ASSERT_EQ(stream->Read(bytes.data(), bytes.size(), &done), 0);
    EXPECT_EQ(bytes, testing::kGetListBytes);
    ASSERT_EQ(stream->Write(testing::kEmptyListBytes.data(), testing::kEmptyListBytes.size(), &done), 0);
    ASSERT_EQ(stream->Read(bytes.data(), bytes.size(), &done), 0);
    EXPECT_EQ(bytes, kVersionRequestBytes);
    const auto output = stream->Query([](const Broker& broker) { return broker.NextOutput(1); });
    EXPECT_EQ(*output.message, testing::NoticeBytes("this host lends no camera 0"));
}

}  // namespace
}  // namespace zumod::host
