// Reading messages from a stream, seen through the plugin's answers, and writing bytes to one.
#include <gtest/gtest.h>

#include <initializer_list>

#include "src/base/create_buffer.h"
#include "src/plugin/channel_io.h"
#include "src/plugin/client_camera.h"
#include "tests/support/doubles/client_camera_double.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/scripted_stream.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod {
namespace {

using testing::Bytes;
using testing::CloseBytes;
using testing::kVersionReplyBytes;
using testing::kVersionRequestBytes;
using testing::LogLine;
using testing::MessageBytes;
using testing::ScriptedStream;
using testing::StateBytes;
using testing::operator+;

class ReceiveLoop : public testing::LoggingTest {
protected:
    CRefPtr_T<ScriptedStream> Serve(const Bytes& input, uint64_t read_chunk = ScriptedStream::kUnlimited) {
        CRefPtr_T<ScriptedStream> stream(new ScriptedStream(input));
        stream->read_chunk = read_chunk;
        plugin->SetChannelStream(stream.Get());
        EXPECT_EQ(plugin->Run(), 1);
        return stream;
    }

    CRefPtr_T<ClientCamera> plugin{new ClientCamera};
};

// Records the messages it is called with.
class HandlersDouble final : public CameraMessageSeparation {
public:
    bool OnMessage(const uint8_t* data, unsigned long size, IBuffer* context) override {
        EXPECT_EQ(data, context->GetData());
        EXPECT_EQ(size, context->GetSize());
        messages.emplace_back(data, data + size);
        return false;
    }

    std::vector<Bytes> messages;
};

TEST(ServePeerTest, TheHandlersGetTheBufferWithTheWholeMessageAndTheirResultIsIgnored) {
    const CRefPtr_T<ScriptedStream> stream(new ScriptedStream(CloseBytes(9) + kVersionRequestBytes));
    HandlersDouble handlers;
    ServePeer(*stream, *g_pDefaultAlloctor, handlers);
    EXPECT_EQ(handlers.messages, (std::vector<Bytes>{CloseBytes(9), kVersionRequestBytes}));
}

TEST_F(ReceiveLoop, AMessageOfLengthZeroIsDispatched) {
    EXPECT_EQ(Serve(kVersionRequestBytes)->Written(), kVersionReplyBytes);
}

TEST_F(ReceiveLoop, MessagesFollowOneAnother) {
    EXPECT_EQ(Serve(kVersionRequestBytes + CloseBytes(9) + kVersionRequestBytes)->Written(),
              kVersionReplyBytes + StateBytes(4, 9) + kVersionReplyBytes);
}

TEST_F(ReceiveLoop, HeadersAndBodiesMayArriveInPieces) {
    const Bytes input = kVersionRequestBytes + CloseBytes(9) + kVersionRequestBytes;
    for (uint64_t chunk = 1; chunk <= 9; ++chunk) {
        EXPECT_EQ(Serve(input, chunk)->Written(), kVersionReplyBytes + StateBytes(4, 9) + kVersionReplyBytes)
            << chunk;
    }
}

TEST_F(ReceiveLoop, ReadsAskForTheRestOfTheHeaderThenForTheRestOfTheBody) {
    EXPECT_EQ(Serve(CloseBytes(9), 3)->ReadSizes(), (std::vector<uint64_t>{8, 5, 2, 4, 1}));
    EXPECT_EQ(Serve(kVersionRequestBytes)->ReadSizes(), (std::vector<uint64_t>{8}));
}

TEST_F(ReceiveLoop, UnknownTypesAreReadToTheirEndAndDropped) {
    for (const uint8_t type : std::initializer_list<uint8_t>{0, 6, 12, 255}) {
        EXPECT_EQ(Serve(MessageBytes(type, {1, 2, 3}) + kVersionRequestBytes)->Written(), kVersionReplyBytes);
    }
}

TEST_F(ReceiveLoop, TypesThatOnlyThePluginSendsAreDropped) {
    for (const uint8_t type : std::initializer_list<uint8_t>{2, 5, 7, 11}) {
        EXPECT_EQ(Serve(MessageBytes(type, {1, 2, 3, 4}) + kVersionRequestBytes)->Written(),
                  kVersionReplyBytes);
    }
}

TEST_F(ReceiveLoop, AnIncompleteMessageIsNotHandled) {
    host.TakeLines();
    EXPECT_TRUE(Serve({4, 0, 0, 0, 4, 0, 0, 0, 9, 0, 0})->Written().empty());
    EXPECT_EQ(host.Lines(),
              (std::vector<LogLine>{{1, "[cameraclient] Run start"}, {1, "[cameraclient] Run return"}}));
}

TEST_F(ReceiveLoop, AMegabyteOfBodyIsAccepted) {
    EXPECT_EQ(
        Serve(Bytes{0, 0, 0x10, 0, 0x0A, 0, 0, 0} + Bytes(0x100000, 0x55) + kVersionRequestBytes)->Written(),
        kVersionReplyBytes + kVersionReplyBytes);
}

class WriteAllTest : public ::testing::Test {
protected:
    CRefPtr_T<ScriptedStream> stream{new ScriptedStream};
    const Bytes bytes = {1, 2, 3, 4, 5};
};

TEST_F(WriteAllTest, WritesEverythingInOneCallIfTheStreamAcceptsIt) {
    EXPECT_TRUE(WriteAll(*stream, bytes.data(), bytes.size()));
    EXPECT_EQ(stream->Written(), bytes);
    EXPECT_EQ(stream->WriteCalls(), 1u);
}

TEST_F(WriteAllTest, RepeatsPartialWritesFromWhereTheyEnded) {
    stream->write_chunk = 2;
    EXPECT_TRUE(WriteAll(*stream, bytes.data(), bytes.size()));
    EXPECT_EQ(stream->Written(), bytes);
    EXPECT_EQ(stream->WriteCalls(), 3u);
}

TEST_F(WriteAllTest, StopsAtTheFirstFailedWrite) {
    stream->write_chunk = 2;
    stream->fail_write_after = 2;
    EXPECT_FALSE(WriteAll(*stream, bytes.data(), bytes.size()));
    EXPECT_EQ(stream->Written(), (Bytes{1, 2}));
    EXPECT_EQ(stream->WriteCalls(), 2u);
}

TEST_F(WriteAllTest, WithoutBytesTheStreamIsNotCalled) {
    EXPECT_TRUE(WriteAll(*stream, nullptr, 0));
    EXPECT_EQ(stream->WriteCalls(), 0u);
}

// Reports more bytes as written than it was asked to write.
class OverreportingStream final : public CCounted_T<IChannelStream> {
public:
    int Read(void*, unsigned long, unsigned long*) override { return -1; }
    int Write(const void*, unsigned long size, unsigned long* done) override {
        *done = size + 100;
        return 0;
    }
};

TEST(WriteAll, ACountBeyondTheSizeCountsAsAllBytes) {
    const CRefPtr_T<OverreportingStream> stream(new OverreportingStream);
    EXPECT_TRUE(WriteAll(*stream, "abc", 3));
}

// Its first read and its first write succeed and leave the count as it was.
class SilentStream final : public CCounted_T<IChannelStream> {
public:
    int Read(void* data, unsigned long size, unsigned long* done) override {
        return m_reads++ == 0 ? 0 : m_stream->Read(data, size, done);
    }
    int Write(const void* data, unsigned long size, unsigned long* done) override {
        return m_writes++ == 0 ? 0 : m_stream->Write(data, size, done);
    }
    Bytes Written() const { return m_stream->Written(); }

private:
    CRefPtr_T<ScriptedStream> m_stream{new ScriptedStream(kVersionRequestBytes)};
    int m_reads = 0;
    int m_writes = 0;
};

TEST(WriteAll, AWriteThatLeavesTheCountIsRepeated) {
    const CRefPtr_T<SilentStream> stream(new SilentStream);
    EXPECT_TRUE(WriteAll(*stream, "abc", 3));
    EXPECT_EQ(stream->Written(), (Bytes{'a', 'b', 'c'}));
}

TEST(ServePeerTest, AReadThatLeavesTheCountIsRepeated) {
    const CRefPtr_T<SilentStream> stream(new SilentStream);
    HandlersDouble handlers;
    ServePeer(*stream, *g_pDefaultAlloctor, handlers);
    EXPECT_EQ(handlers.messages, (std::vector<Bytes>{kVersionRequestBytes}));
}

}  // namespace
}  // namespace zumod
