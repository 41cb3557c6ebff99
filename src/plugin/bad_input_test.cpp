// Malformed input, stream failures and lack of memory: nothing leaks and the plugin can serve another stream.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>

#include "src/base/mem_buffer.h"
#include "src/plugin/client_camera.h"
#include "tests/support/doubles/client_camera_double.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/scripted_stream.h"
#include "tests/support/watch/call_watch.h"
#include "tests/support/watch/process_state.h"
#include "tests/support/watch/wait_until.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod {
namespace {

using testing::Bytes;
using testing::CallWatch;
using testing::CameraScript;
using testing::CloseBytes;
using testing::CountDescriptors;
using testing::CountThreads;
using testing::kGetListBytes;
using testing::kVersionReplyBytes;
using testing::kVersionRequestBytes;
using testing::LogLine;
using testing::OpenBytes;
using testing::ScriptedStream;
using testing::SetFormatBytes;
using testing::SetPropertyBytes;
using testing::StateBytes;
using testing::ThreadsComeTo;
using testing::WaitUntil;
using testing::operator+;

const Bytes kUnknown = {2, 0, 0, 0, 6, 0, 0, 0, 1, 2};

// One of each message that a peer may send, and one of an unknown type.
Bytes WholeSession() {
    return kVersionRequestBytes + kGetListBytes + OpenBytes(7) + SetPropertyBytes(7) + SetFormatBytes(7) +
           kUnknown + CloseBytes(7);
}

class BadInput : public testing::LoggingTest {
protected:
    BadInput() { CameraScript() = {}; }

    CRefPtr_T<ScriptedStream> Serve(Bytes input) {
        CRefPtr_T<ScriptedStream> stream(new ScriptedStream(std::move(input)));
        plugin->SetChannelStream(stream.Get());
        EXPECT_EQ(plugin->Run(), 1);
        return stream;
    }

    // The plugin serves another stream and has released all streams.
    void ExpectServesAgain() {
        EXPECT_EQ(Serve(kVersionRequestBytes)->Written(), kVersionReplyBytes);
        plugin->SetChannelStream(nullptr);
        EXPECT_EQ(ScriptedStream::Alive(), 0);
    }

    CRefPtr_T<ClientCamera> plugin{new ClientCamera};
};

TEST_F(BadInput, AStreamMayEndAtAnyByteOfASession) {
    const Bytes session = WholeSession();
    Serve({});
    const auto threads = CountThreads();
    const auto descriptors = CountDescriptors();
    for (size_t length = 0; length <= session.size(); ++length) {
        const auto end = session.begin() + static_cast<std::ptrdiff_t>(length);
        Serve(Bytes(session.begin(), end));
        EXPECT_TRUE(ThreadsComeTo(threads)) << length;
        EXPECT_EQ(CountDescriptors(), descriptors) << length;
        EXPECT_LE(CameraScript().alive, 1) << length;
    }
    ExpectServesAgain();
    plugin = nullptr;
    EXPECT_EQ(CameraScript().alive, 0);
    EXPECT_TRUE(ThreadsComeTo(threads - 1));
}

TEST_F(BadInput, AStreamWhoseWritesFailFromAnyByteOnIsReadToItsEnd) {
    const Bytes session = WholeSession();
    const Bytes answers = Serve(session)->Written();
    ASSERT_EQ(answers.size(), 12u + 12 + 16 + 16);
    for (size_t length = 0; length <= answers.size(); ++length) {
        CRefPtr_T<ScriptedStream> stream(new ScriptedStream(session));
        stream->fail_write_after = length;
        plugin->SetChannelStream(stream.Get());
        host.TakeLines();
        plugin->Run();
        EXPECT_EQ(stream->Written(),
                  Bytes(answers.begin(), answers.begin() + static_cast<std::ptrdiff_t>(length)));
        EXPECT_EQ(host.Lines().back(), (LogLine{1, "[cameraclient] Run return"}));
        EXPECT_TRUE(host.Has({1, "[cameraclient] OnProtoCloseCamera id 7"})) << length;
    }
    ExpectServesAgain();
}

TEST_F(BadInput, AFrameWhoseWriteFailsAtAnyByteIsDroppedAndTheNextOneIsTried) {
    for (uint64_t length = 0; length < 20; ++length) {
        CRefPtr_T<ScriptedStream> stream(new ScriptedStream);
        stream->fail_write_after = length;
        plugin->SetChannelStream(stream.Get());
        plugin->Run();
        host.TakeLines();
        plugin->OnVideoPacket(7, "abcd", 4);
        plugin->OnVideoPacket(7, "abcde", 5);
        EXPECT_TRUE(WaitUntil([&] { return host.Lines().size() == 2; })) << length;
        EXPECT_EQ(host.Lines(),
                  (std::vector<LogLine>{{4, "[cameraclient] Send2StreamRaw fail, type: 7/4 ."},
                                        {4, "[cameraclient] Send2StreamRaw fail, type: 7/5 ."}}));
        EXPECT_EQ(stream->Written().size(), length);
    }
    ExpectServesAgain();
}

TEST_F(BadInput, AStreamMayReadAndWriteOneBytePerCall) {
    CRefPtr_T<ScriptedStream> stream(new ScriptedStream(WholeSession()));
    stream->read_chunk = 1;
    stream->write_chunk = 1;
    plugin->SetChannelStream(stream.Get());
    plugin->Run();
    EXPECT_EQ(stream->Written(), Serve(WholeSession())->Written());
}

TEST_F(BadInput, TheLargestLengthWithoutMemoryForItEndsTheRunLikeAFailedRead) {
    CallWatch heap;
    constexpr size_t kMessageSize = 0xFFFFFFFFull + 8;
    heap.Fail(CallWatch::realloc, kMessageSize, 1);
    host.TakeLines();
    EXPECT_TRUE(
        Serve(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0x0A, 0, 0, 0} + kVersionRequestBytes)->Written().empty());
    EXPECT_EQ(host.Lines(),
              (std::vector<LogLine>{{1, "[cameraclient] Run start"}, {1, "[cameraclient] Run return"}}));
    ExpectServesAgain();
}

TEST_F(BadInput, ALongMessageMayEndEarly) {
    Serve(Bytes{0, 0, 0, 0x10, 0x0A, 0, 0, 0} + Bytes(1000, 0x55));
    ExpectServesAgain();
}

TEST_F(BadInput, NoMemoryForAHeaderEndsTheRun) {
    CallWatch heap;
    heap.Fail(CallWatch::malloc, 8, 2);  // the allocator tries twice
    EXPECT_TRUE(Serve(kVersionRequestBytes)->Written().empty());
    ExpectServesAgain();
}

TEST_F(BadInput, NoMemoryForAReplyLeavesItUnsent) {
    CallWatch heap;
    heap.Fail(CallWatch::malloc, 12, 2);
    EXPECT_EQ(Serve(kVersionRequestBytes + CloseBytes(7))->Written(), StateBytes(4, 7));
    heap.Fail(CallWatch::malloc, 12, 2);
    EXPECT_EQ(Serve(kGetListBytes + kVersionRequestBytes)->Written(), kVersionReplyBytes);
    heap.Fail(CallWatch::malloc, 16, 2);
    EXPECT_EQ(Serve(CloseBytes(7) + kVersionRequestBytes)->Written(), kVersionReplyBytes);
    ExpectServesAgain();
}

TEST_F(BadInput, NoMemoryForAFrameDropsIt) {
    const auto stream = Serve({});
    CallWatch heap;
    heap.Fail(CallWatch::malloc, 16 + 3, 2);
    plugin->OnVideoPacket(7, "abc", 3);
    plugin->OnVideoPacket(7, "abcd", 4);
    EXPECT_TRUE(WaitUntil([&] { return stream->Written().size() == 20; }));
    EXPECT_EQ(stream->Written()[12], 4);
}

// A buffer is an object and a memory block. If there is no memory for the object, the allocation throws and
// leaks the block: required by the contract, so the tests free it.
TEST_F(BadInput, NoMemoryForAMessagesObjectEndsTheRunLikeAFailedRead) {
    CallWatch heap;
    heap.Fail(CallWatch::malloc, sizeof(CMemBuffer), 1);
    host.TakeLines();
    EXPECT_TRUE(Serve(kVersionRequestBytes)->Written().empty());
    std::free(heap.FirstMalloc());
    EXPECT_EQ(host.Lines(),
              (std::vector<LogLine>{{1, "[cameraclient] Run start"}, {1, "[cameraclient] Run return"}}));
    ExpectServesAgain();
}

TEST_F(BadInput, NoMemoryForAFramesObjectDropsIt) {
    const auto stream = Serve({});
    plugin->ExitInstance();
    CallWatch heap;
    heap.Fail(CallWatch::malloc, sizeof(CMemBuffer), 1);
    plugin->OnVideoPacket(7, "abc", 3);
    std::free(heap.FirstMalloc());
    EXPECT_FALSE(plugin->IsBusy(7));
    for (int frame = 0; frame < 6; ++frame) {
        EXPECT_FALSE(plugin->IsBusy(7));
        plugin->OnVideoPacket(7, "abcd", 4);
    }
    EXPECT_TRUE(plugin->IsBusy(7));
}

TEST_F(BadInput, RandomMessagesInReadsOfRandomSize) {
    std::mt19937 random(20);  // fixed: the same bytes in every run
    for (int round = 0; round < 20; ++round) {
        Bytes input;
        for (int message = 0; message < 50; ++message) {
            const auto length = static_cast<uint8_t>(random() % 24);
            input = input + Bytes{length, 0, 0, 0, static_cast<uint8_t>(random() % 14), 0, 0, 0};
            for (uint8_t i = 0; i < length; ++i) {
                input.push_back(static_cast<uint8_t>(random() % 4));
            }
        }
        CRefPtr_T<ScriptedStream> stream(new ScriptedStream(input));
        stream->read_chunk = 1 + random() % 16;
        plugin->SetChannelStream(stream.Get());
        plugin->Run();
    }
    ExpectServesAgain();
}

// Lack of memory of the host, which the plugin tells from its own.
struct HostFailure : std::bad_alloc {};

// Throws in the second read. The exception propagates to the host.
class ThrowingStream final : public CCounted_T<IChannelStream> {
public:
    int Read(void*, unsigned long, unsigned long* done) override {
        if (m_reads++ == 0) {
            *done = 3;
            return 0;
        }
        throw HostFailure();
    }
    int Write(const void*, unsigned long, unsigned long*) override { return -1; }

private:
    int m_reads = 0;
};

TEST_F(BadInput, AStreamThatThrowsEndsTheRunWithItsException) {
    plugin->SetChannelStream(new ThrowingStream);
    EXPECT_THROW(plugin->Run(), HostFailure);
    ExpectServesAgain();
}

TEST_F(BadInput, AStreamThatThrowsInAWriteEndsTheRunWithItsException) {
    for (const Bytes& request : {kVersionRequestBytes, kGetListBytes, OpenBytes(7), CloseBytes(7)}) {
        CRefPtr_T<ScriptedStream> stream(new ScriptedStream(request));
        stream->on_write = [] { throw HostFailure(); };
        plugin->SetChannelStream(stream.Get());
        EXPECT_THROW(plugin->Run(), HostFailure) << int{request[4]};
    }
    ExpectServesAgain();
}

// A camera throws what the host's log sink throws.
TEST_F(BadInput, ACameraThatThrowsWhileItIsOpenedIsNotOpen) {
    for (const char* call : {"SetFormat(640, 480, 30)", "Open()"}) {
        CameraScript().throws_in = call;
        EXPECT_THROW(Serve(OpenBytes(7)), std::runtime_error) << call;
        EXPECT_EQ(CameraScript().alive, 0) << call;
    }
    CameraScript().throws_in.clear();
    EXPECT_EQ(Serve(OpenBytes(7))->Written(), StateBytes(2, 7));
    EXPECT_EQ(CameraScript().alive, 1);
}

TEST_F(BadInput, ACameraThatThrowsWhileItIsClosedIsNotOpen) {
    Serve(OpenBytes(7));
    CameraScript().throws_in = "Close(7)";
    EXPECT_THROW(Serve(CloseBytes(7)), std::runtime_error);
    EXPECT_EQ(CameraScript().alive, 0);
    CameraScript().open_result = false;
    EXPECT_THROW(Serve(OpenBytes(7)), std::runtime_error);
    EXPECT_EQ(CameraScript().alive, 0);
}

TEST_F(BadInput, ACameraThatThrowsInExitInstanceIsNotOpenAndTheSendThreadEnds) {
    const auto threads = testing::CountThreads();
    Serve(OpenBytes(7));
    Serve(OpenBytes(8));
    CameraScript().throws_in = "Close()";
    int alive_at_join = -1;
    CallWatch watch;
    watch.OnNext(CallWatch::pthread_join, CallWatch::kAny, [&] { alive_at_join = CameraScript().alive; });
    EXPECT_THROW(plugin->ExitInstance(), std::runtime_error);
    EXPECT_EQ(alive_at_join, 0) << "nothing is captured while the send thread ends";
    EXPECT_EQ(CameraScript().alive, 0);
    EXPECT_TRUE(testing::ThreadsComeTo(threads));
    CameraScript().throws_in.clear();
    EXPECT_EQ(plugin->ExitInstance(), 0);
}

TEST_F(BadInput, ACameraOrASinkThatThrowsInTheLastReleaseEndsNothing) {
    Serve(OpenBytes(7));
    CameraScript().throws_in = "Close()";
    plugin = nullptr;
    EXPECT_EQ(CameraScript().alive, 0);
    for (const char* line : {"[cameraclient] destroy", "[cameraclient] finish to clear devs"}) {
        CameraScript() = {};
        plugin = CRefPtr_T<ClientCamera>(new ClientCamera);
        Serve(OpenBytes(7));
        host.OnLineWith(line, [] { throw std::runtime_error("sink"); });
        plugin = nullptr;
        EXPECT_EQ(CameraScript().alive, 0) << line;
    }
}

// The send thread logs that there is no stream, and the host calls the plugin from inside.
TEST_F(BadInput, ExitInstanceOnTheSendThreadIsOneLine) {
    int result = -1;
    std::vector<LogLine> during;
    std::atomic<bool> back{false};
    plugin->Run();
    host.OnLineWith("Send2StreamRaw fail", [&] {
        host.TakeLines();
        result = plugin->ExitInstance();
        during = host.TakeLines();
        back = true;
    });
    plugin->OnVideoPacket(7, "\x42", 1);
    ASSERT_TRUE(WaitUntil([&] { return back.load(); }));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(during,
              (std::vector<LogLine>{{4, "[cameraclient] ExitInstance ignored, called on the send thread"}}));
    EXPECT_EQ(plugin->ExitInstance(), 0);
    plugin = nullptr;
}

TEST_F(BadInput, ASinkThatThrowsEndsTheRunWithItsException) {
    host.OnLineWith("version req", [] { throw HostFailure(); });
    EXPECT_THROW(Serve(kVersionRequestBytes), HostFailure);
    CameraScript().built_in = false;
    host.OnLineWith("cureent platform not impl", [] { throw HostFailure(); });
    EXPECT_THROW(Serve(OpenBytes(7)), HostFailure);
    ExpectServesAgain();
}

}  // namespace
}  // namespace zumod
