// The plugin's life cycle: creation, Run, frames to the stream, ExitInstance, destruction.
#include "src/plugin/client_camera.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "src/module/log.h"
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
using testing::CountThreads;
using testing::FrameBytes;
using testing::IsAsleep;
using testing::kVersionReplyBytes;
using testing::kVersionRequestBytes;
using testing::LogLine;
using testing::OpenBytes;
using testing::ScriptedStream;
using testing::ThreadsComeTo;
using testing::WaitUntil;
using testing::operator+;

class ClientCameraTest : public testing::LoggingTest {
protected:
    ClientCameraTest() { CameraScript() = {}; }

    CRefPtr_T<ScriptedStream> Connect(Bytes input = {}) {
        CRefPtr_T<ScriptedStream> stream(new ScriptedStream(std::move(input)));
        plugin->SetChannelStream(stream.Get());
        return stream;
    }

    CRefPtr_T<ClientCamera> plugin{new ClientCamera};
};

TEST_F(ClientCameraTest, CreationLogsOneLine) {
    EXPECT_EQ(host.Lines(), (std::vector<LogLine>{{1, "[cameraclient] create"}}));
}

TEST_F(ClientCameraTest, DestructionWithoutARunLogsTwoLines) {
    host.TakeLines();
    plugin = nullptr;
    EXPECT_EQ(host.Lines(), (std::vector<LogLine>{{1, "[cameraclient] destroy"},
                                                  {8, "[cameraclient] finish to clear devs"}}));
}

TEST_F(ClientCameraTest, RunWithoutAStreamStartsTheSendThreadAndReturnsAtOnce) {
    host.TakeLines();
    EXPECT_EQ(plugin->Run(), 1);
    EXPECT_EQ(host.TakeLines(),
              (std::vector<LogLine>{{1, "[cameraclient] Run start"}, {1, "[cameraclient] Run return"}}));
    // The send thread is running: it takes the frame and finds no stream.
    plugin->OnVideoPacket(7, "\x42", 1);
    EXPECT_TRUE(WaitUntil([&] { return host.Has({4, "[cameraclient] Send2StreamRaw fail, type: 7/1 ."}); }));
}

TEST_F(ClientCameraTest, EachFrameWithoutAStreamLogsOneLineAndIsDropped) {
    for (int i = 0; i < 3; ++i) {
        plugin->OnVideoPacket(7, "\x42", 1);
    }
    host.TakeLines();
    plugin->Run();  // empties the queue
    for (int i = 0; i < 3; ++i) {
        plugin->OnVideoPacket(7, Bytes(0x1AB, 0).data(), 0x1AB);
    }
    const LogLine line = {4, "[cameraclient] Send2StreamRaw fail, type: 7/AB ."};
    EXPECT_TRUE(WaitUntil([&] { return host.Lines().size() == 5; }));
    EXPECT_EQ(host.Lines(),
              (std::vector<LogLine>{
                  {1, "[cameraclient] Run start"}, {1, "[cameraclient] Run return"}, line, line, line}));
}

TEST_F(ClientCameraTest, FramesAreWrittenWholeAndInOrder) {
    const auto stream = Connect();
    stream->write_chunk = 1;
    plugin->Run();
    plugin->OnVideoPacket(7, "\x01\x02\x03", 3);
    plugin->OnVideoPacket(8, nullptr, 0);
    plugin->OnVideoPacket(9, "\x04", 1);
    const Bytes expected = FrameBytes(7, {1, 2, 3}) + FrameBytes(8, {}) + FrameBytes(9, {4});
    EXPECT_TRUE(WaitUntil([&] { return stream->Written().size() == expected.size(); }));
    EXPECT_EQ(stream->Written(), expected);
}

TEST_F(ClientCameraTest, AFrameWhoseWriteFailsLogsOneLineAndIsNotRetried) {
    const auto stream = Connect();
    stream->fail_write_after = 10;
    plugin->Run();
    host.TakeLines();
    plugin->OnVideoPacket(7, "\x01\x02\x03", 3);
    EXPECT_TRUE(WaitUntil([&] { return !host.Lines().empty(); }));
    EXPECT_EQ(host.Lines(), (std::vector<LogLine>{{4, "[cameraclient] Send2StreamRaw fail, type: 7/3 ."}}));
    EXPECT_EQ(stream->Written().size(), 10u);
}

TEST_F(ClientCameraTest, FramesTakeNoReferenceOnTheStream) {
    const auto stream = Connect();
    plugin->Run();
    const uint64_t before = stream->AddRefs();
    plugin->OnVideoPacket(7, "\x01", 1);
    EXPECT_TRUE(WaitUntil([&] { return stream->Written().size() == 17; }));
    EXPECT_EQ(stream->AddRefs(), before);
}

// Keeps the address of what is written.
class AddressStream final : public CCounted_T<IChannelStream> {
public:
    int Read(void*, unsigned long, unsigned long*) override { return -1; }
    int Write(const void* data, unsigned long size, unsigned long* done) override {
        *done = size;
        written = data;
        return 0;
    }
    std::atomic<const void*> written{nullptr};
};

TEST_F(ClientCameraTest, AFrameIsWrittenFromTheVeryBlockThatWasFilled) {
    const CRefPtr_T<AddressStream> stream(new AddressStream);
    plugin->SetChannelStream(stream.Get());
    plugin->Run();
    const CallWatch heap;
    plugin->OnVideoPacket(7, "\x01", 1);
    EXPECT_TRUE(WaitUntil([&] { return stream->written != nullptr; }));
    EXPECT_EQ(heap.Count(CallWatch::malloc, 16 + 1), 1);
    EXPECT_EQ(stream->written, heap.FirstMalloc());
    plugin = nullptr;  // while the watch exists
}

TEST_F(ClientCameraTest, IsBusyFromTheSixthQueuedFrameOn) {
    for (int i = 0; i < 5; ++i) {
        plugin->OnVideoPacket(7, "\x01", 1);
    }
    EXPECT_FALSE(plugin->IsBusy(7));
    plugin->OnVideoPacket(7, "\x01", 1);
    EXPECT_TRUE(plugin->IsBusy(7));
}

TEST_F(ClientCameraTest, AudioLogsOneLineAndQueuesNothing) {
    host.TakeLines();
    for (int i = 0; i < 6; ++i) {
        plugin->OnAudioPacket(7, "\x01", 1);
    }
    EXPECT_EQ(host.Lines(), std::vector<LogLine>(6, {2, "[cameraclient] OnAudioPacket ignored"}));
    EXPECT_FALSE(plugin->IsBusy(7));
}

TEST_F(ClientCameraTest, RunFirstEmptiesTheQueue) {
    for (int i = 0; i < 6; ++i) {
        plugin->OnVideoPacket(7, "\x01", 1);
    }
    const auto stream = Connect();
    plugin->Run();
    EXPECT_FALSE(plugin->IsBusy(7));
    plugin->OnVideoPacket(8, "\x02", 1);
    EXPECT_TRUE(WaitUntil([&] { return stream->Written().size() == 17; }));
    EXPECT_EQ(stream->Written(), FrameBytes(8, {2}));
}

TEST_F(ClientCameraTest, SetChannelStreamReleasesThePreviousStream) {
    EXPECT_EQ(plugin->SetChannelStream(new ScriptedStream), 0);
    EXPECT_EQ(ScriptedStream::Alive(), 1);
    EXPECT_EQ(plugin->SetChannelStream(new ScriptedStream), 0);
    EXPECT_EQ(ScriptedStream::Alive(), 1);
    EXPECT_EQ(plugin->SetChannelStream(nullptr), 0);
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

TEST_F(ClientCameraTest, SetChannelStreamWithTheSameStreamKeepsIt) {
    auto stream = Connect();
    ScriptedStream* const same = stream.Get();
    stream = nullptr;  // the plugin's is now the only reference
    plugin->SetChannelStream(same);
    ASSERT_EQ(ScriptedStream::Alive(), 1);
    stream = CRefPtr_T<ScriptedStream>(same);
    plugin->Run();
    plugin->OnVideoPacket(7, "\x01", 1);
    EXPECT_TRUE(WaitUntil([&] { return stream->Written().size() == 17; }));
}

// Records each change of its reference count in a list that several streams share.
class TracedStream final : public CCounted_T<IChannelStream> {
public:
    TracedStream(std::string name, std::vector<std::string>& trace)
        : m_name(std::move(name)), m_trace(trace) {}
    uint64_t AddRef() override {
        m_trace.push_back(m_name + " taken");
        return CCounted_T::AddRef();
    }
    int64_t Release() override {
        m_trace.push_back(m_name + " released");
        return CCounted_T::Release();
    }
    int Read(void*, unsigned long, unsigned long*) override { return -1; }
    int Write(const void*, unsigned long, unsigned long*) override { return -1; }

private:
    const std::string m_name;
    std::vector<std::string>& m_trace;
};

TEST_F(ClientCameraTest, SetChannelStreamTakesTheNewStreamBeforeItReleasesTheOldOne) {
    std::vector<std::string> trace;
    plugin->SetChannelStream(new TracedStream("first", trace));
    plugin->SetChannelStream(new TracedStream("second", trace));
    plugin->SetChannelStream(nullptr);
    EXPECT_EQ(trace,
              (std::vector<std::string>{"first taken", "second taken", "first released", "second released"}));
}

TEST_F(ClientCameraTest, CameraIdsAreOrderedAsUnsignedNumbers) {
    Connect(OpenBytes(0x80000000) + OpenBytes(0x7FFFFFFF));
    plugin->Run();
    CameraScript().calls.clear();
    plugin->ExitInstance();
    EXPECT_EQ(CameraScript().calls,
              (std::vector<std::string>{"1 Close()", "0 Close()", "1 destroyed", "0 destroyed"}));
}

TEST_F(ClientCameraTest, ExitInstanceClosesCamerasInIdOrderThenReleasesThem) {
    Connect(OpenBytes(7) + OpenBytes(3));
    plugin->Run();
    CameraScript().calls.clear();
    host.TakeLines();
    EXPECT_EQ(plugin->ExitInstance(), 0);
    EXPECT_EQ(CameraScript().calls,
              (std::vector<std::string>{"1 Close()", "0 Close()", "1 destroyed", "0 destroyed"}));
    EXPECT_EQ(host.Lines(), (std::vector<LogLine>{{1, "[cameraclient] ExitInstance"},
                                                  {8, "[cameraclient] start to clear devs"},
                                                  {8, "[cameraclient] finish to clear devs"},
                                                  {8, "[cameraclient] start to stop send thread"},
                                                  {8, "[cameraclient] ExitInstance finish"}}));
}

// Whether another thread can log. If the lock of the log is held forever, so is that thread.
bool AnotherThreadCanLog() {
    const auto logged = std::make_shared<std::atomic<bool>>(false);
    std::thread other([logged] {
        ZuModLog(kLogTrace, "not locked");
        *logged = true;
    });
    if (!WaitUntil([&] { return logged->load(); })) {
        other.detach();
        return false;
    }
    other.join();
    return true;
}

TEST_F(ClientCameraTest, AnExceptionOfTheSinkLeavesExitInstanceAfterCamerasAndSendThreadHaveEnded) {
    const auto threads = CountThreads();
    for (const char* line :
         {"[cameraclient] ExitInstance", "[cameraclient] start to clear devs",
          "[cameraclient] finish to clear devs", "[cameraclient] start to stop send thread",
          "[cameraclient] ExitInstance finish"}) {
        SCOPED_TRACE(line);
        Connect(OpenBytes(7));
        plugin->Run();
        EXPECT_EQ(CameraScript().alive, 1);
        host.OnLine([line](uint32_t, const char* text) {
            if (std::string(text) == line) {
                throw std::runtime_error(line);
            }
        });
        EXPECT_THROW(plugin->ExitInstance(), std::runtime_error);
        host.OnLine(nullptr);
        EXPECT_EQ(CameraScript().alive, 0);
        // Both wait for a long time if the module is wrong: once must be enough.
        ASSERT_TRUE(ThreadsComeTo(threads));
        ASSERT_TRUE(AnotherThreadCanLog());
        EXPECT_EQ(plugin->ExitInstance(), 0);
    }
}

TEST_F(ClientCameraTest, ExitInstanceBeforeAnyRunIsHarmlessAndMayBeRepeated) {
    EXPECT_EQ(plugin->ExitInstance(), 0);
    EXPECT_EQ(plugin->ExitInstance(), 0);
}

TEST_F(ClientCameraTest, ExitInstanceKeepsQueuedFrames) {
    plugin->ExitInstance();
    for (int i = 0; i < 6; ++i) {
        plugin->OnVideoPacket(7, "\x01", 1);
    }
    plugin->ExitInstance();
    EXPECT_TRUE(plugin->IsBusy(7));
}

TEST_F(ClientCameraTest, DestructionClosesOpenCamerasInIdOrderAndStopsTheThread) {
    Connect(OpenBytes(7) + OpenBytes(3));
    plugin->Run();
    CameraScript().calls.clear();
    host.TakeLines();
    plugin = nullptr;
    EXPECT_EQ(CameraScript().calls,
              (std::vector<std::string>{"1 Close()", "0 Close()", "1 destroyed", "0 destroyed"}));
    EXPECT_EQ(host.Lines(), (std::vector<LogLine>{{1, "[cameraclient] destroy"},
                                                  {8, "[cameraclient] finish to clear devs"}}));
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

TEST_F(ClientCameraTest, CamerasStayOpenWhenRunReturnsAndAfterASecondRun) {
    Connect(OpenBytes(7));
    plugin->Run();
    EXPECT_EQ(CameraScript().alive, 1);
    const auto second = Connect();
    plugin->Run();
    EXPECT_EQ(CameraScript().alive, 1);
    CameraScript().listeners.at(0)->OnVideoPacket(7, "\x05", 1);
    EXPECT_TRUE(WaitUntil([&] { return second->Written().size() == 17; }));
    EXPECT_EQ(second->Written(), FrameBytes(7, {5}));
}

TEST_F(ClientCameraTest, RunAfterExitInstanceStartsTheSendThreadAgain) {
    plugin->Run();
    plugin->ExitInstance();
    const auto stream = Connect();
    plugin->Run();
    plugin->OnVideoPacket(7, "\x01", 1);
    EXPECT_TRUE(WaitUntil([&] { return stream->Written().size() == 17; }));
}

// A stream whose Write blocks until the test releases it.
class StuckStream final : public CCounted_T<IChannelStream> {
public:
    StuckStream() { ++s_alive; }
    ~StuckStream() override { --s_alive; }
    int Read(void*, unsigned long, unsigned long*) override { return -1; }
    int Write(const void*, unsigned long, unsigned long*) override {
        s_writing = true;
        WaitUntil([] { return s_released.load(); });
        s_writing = false;
        return -1;
    }
    static inline std::atomic<bool> s_writing{false};
    static inline std::atomic<bool> s_released{false};
    static inline std::atomic<int> s_alive{0};
};

TEST_F(ClientCameraTest, AStreamThatIsReplacedDuringAWriteOutlivesTheWrite) {
    StuckStream::s_released = false;
    plugin->SetChannelStream(new StuckStream);
    plugin->Run();
    plugin->OnVideoPacket(7, "\x01", 1);
    ASSERT_TRUE(WaitUntil([] { return StuckStream::s_writing.load(); }));
    const auto next = Connect();
    EXPECT_EQ(StuckStream::s_alive, 1);
    StuckStream::s_released = true;
    EXPECT_TRUE(WaitUntil([] { return StuckStream::s_alive == 0; }));
    plugin->OnVideoPacket(7, "\x02", 1);
    EXPECT_TRUE(WaitUntil([&] { return next->Written().size() == 17; }));
}

TEST_F(ClientCameraTest, ExitInstanceWaitsForTheWriteInProgress) {
    StuckStream::s_released = false;
    plugin->SetChannelStream(new StuckStream);
    plugin->Run();
    plugin->OnVideoPacket(7, "\x01", 1);
    ASSERT_TRUE(WaitUntil([] { return StuckStream::s_writing.load(); }));
    std::atomic<pid_t> caller{0};
    std::atomic<bool> returned{false};
    std::thread exit([&] {
        caller = gettid();
        EXPECT_EQ(plugin->ExitInstance(), 0);
        returned = true;
    });
    int asleep = 0;
    EXPECT_TRUE(WaitUntil([&] {
        asleep = caller != 0 && IsAsleep(caller) ? asleep + 1 : 0;
        return returned || asleep == 20;
    }));
    EXPECT_FALSE(returned);
    EXPECT_TRUE(StuckStream::s_writing);
    StuckStream::s_released = true;
    exit.join();
    EXPECT_FALSE(StuckStream::s_writing);
}

TEST_F(ClientCameraTest, AReplyIsWrittenWhileTheSendThreadIsStillWritingAFrame) {
    const auto stream = Connect(kVersionRequestBytes);
    std::atomic<bool> writing_frame{false};
    std::atomic<bool> writing_reply{false};
    stream->on_read = [&] {
        if (!writing_frame) {
            plugin->OnVideoPacket(7, "\x01", 1);
            EXPECT_TRUE(WaitUntil([&] { return writing_frame.load(); }));
        }
    };
    stream->on_write = [&] {
        if (host.IsOwnThread()) {
            writing_reply = true;
        } else {
            writing_frame = true;
            EXPECT_TRUE(WaitUntil([&] { return writing_reply.load(); }));
        }
    };
    plugin->Run();
    EXPECT_TRUE(WaitUntil([&] { return stream->Written().size() == 12 + 17; }));
}

// Four cameras deliver frames while this thread answers requests. Each request is read only after more frames
// have been written, so that the replies are spread among them.
TEST_F(ClientCameraTest, FramesFromManyCamerasAndRepliesArriveWhole) {
    constexpr uint64_t kReplies = 20;
    constexpr uint64_t kFramesPerReply = 10;
    Bytes requests;
    for (uint64_t i = 0; i < kReplies; ++i) {
        requests = requests + kVersionRequestBytes;
    }
    const auto stream = Connect(requests);
    std::vector<std::thread> cameras;
    uint64_t reads = 0;
    stream->on_read = [&] {
        for (uint8_t id = 0; reads == 0 && id < 4; ++id) {
            cameras.emplace_back([&, id] {
                for (uint8_t i = 0; i < 100; ++i) {
                    plugin->OnVideoPacket(id, &i, 1);
                }
            });
        }
        // Each reply is one write, and so is each frame.
        const uint64_t replies = reads++;
        EXPECT_TRUE(
            WaitUntil([&] { return stream->WriteCalls() >= replies + (replies + 1) * kFramesPerReply; }));
    };
    plugin->Run();
    for (std::thread& camera : cameras) {
        camera.join();
    }
    constexpr size_t kFrameSize = 17;
    constexpr size_t kReplySize = 12;
    constexpr size_t kExpected = size_t{4} * 100 * kFrameSize + kReplies * kReplySize;
    ASSERT_TRUE(WaitUntil([&] { return stream->Written().size() == kExpected; }));
    const Bytes written = stream->Written();
    std::vector<uint8_t> next(4, 0);
    uint64_t replies = 0;
    for (size_t at = 0; at < written.size();) {
        const bool is_reply = written[at + 4] == 0x0B;
        const size_t size = is_reply ? kReplySize : kFrameSize;
        const Bytes message(written.begin() + static_cast<std::ptrdiff_t>(at),
                            written.begin() + static_cast<std::ptrdiff_t>(at + size));
        if (is_reply) {
            ASSERT_EQ(message, kVersionReplyBytes);
            ++replies;
        } else {
            const uint8_t id = message[8];
            ASSERT_LT(id, 4);
            ASSERT_EQ(message, FrameBytes(id, {next[id]++}));
        }
        at += size;
    }
    EXPECT_EQ(replies, kReplies);
    EXPECT_EQ(next, std::vector<uint8_t>(4, 100));
}

}  // namespace
}  // namespace zumod
