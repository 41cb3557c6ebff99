// The order of everything the plugin does that is visible outside: log lines, calls on cameras, answers.
#include <gtest/gtest.h>

#include <cerrno>
#include <map>

#include "src/plugin/client_camera.h"
#include "tests/support/doubles/client_camera_double.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/scripted_stream.h"
#include "tests/support/watch/call_watch.h"
#include "tests/support/watch/wait_until.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod {
namespace {

using testing::Bytes;
using testing::CallWatch;
using testing::CameraScript;
using testing::CloseBytes;
using testing::kGetListBytes;
using testing::kVersionRequestBytes;
using testing::OpenBytes;
using testing::ScriptedStream;
using testing::SetFormatBytes;
using testing::SetPropertyBytes;
using testing::operator+;
using Trace = std::vector<std::string>;

class CallOrder : public ::testing::Test {
protected:
    CallOrder() {
        CameraScript() = {};
        host.OnLine([this](uint32_t, const char* text) {
            CameraScript().calls.emplace_back(text);
            threads[text] = watch.Count(CallWatch::pthread_create) - watch.Count(CallWatch::pthread_join);
            semaphores_made[text] = watch.Count(CallWatch::sem_init);
            semaphores_destroyed[text] = watch.Count(CallWatch::sem_destroy);
        });
        AttachRuntime(&host);
        plugin = CRefPtr_T<ClientCamera>(new ClientCamera);
    }
    ~CallOrder() override {
        plugin = nullptr;
        DetachRuntime();
    }

    // The trace of these requests, without the first and the last line of Run.
    Trace Serve(const Bytes& requests) {
        const CRefPtr_T<ScriptedStream> stream(new ScriptedStream(requests));
        stream->on_write = [] { CameraScript().calls.emplace_back("answer"); };
        plugin->SetChannelStream(stream.Get());
        CameraScript().calls.clear();
        plugin->Run();
        plugin->SetChannelStream(nullptr);
        const Trace trace = TakeTrace();
        EXPECT_GE(trace.size(), 2u);
        return {trace.begin() + 1, trace.end() - 1};
    }

    static Trace TakeTrace() { return std::exchange(CameraScript().calls, {}); }

    CallWatch watch;
    // The number of running threads at the last log line with this text.
    std::map<std::string, int> threads;
    // The number of semaphores made and destroyed until then.
    std::map<std::string, int> semaphores_made;
    std::map<std::string, int> semaphores_destroyed;
    // Its lines are in the same list as the calls on cameras.
    testing::RecordingHost host;
    CRefPtr_T<ClientCamera> plugin;
};

TEST_F(CallOrder, TheQueueIsOpenBeforeTheCreationIsLogged) {
    EXPECT_EQ(semaphores_made["[cameraclient] create"], 2);
}

TEST_F(CallOrder, RunIsLoggedBeforeTheQueueIsReset) {
    plugin->Run();
    EXPECT_EQ(semaphores_destroyed["[cameraclient] Run start"], 0);
    EXPECT_EQ(semaphores_destroyed["[cameraclient] Run return"], 2);
    EXPECT_EQ(semaphores_made["[cameraclient] Run return"], 4);
}

TEST_F(CallOrder, TheSendThreadHasItsName) {
    plugin->Run();
    // The argument of the new thread is its CBaseThread.
    const auto* thread = reinterpret_cast<const CBaseThread*>(watch.LastValue(CallWatch::pthread_create));
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(thread->GetName(), "cameraclient-send");
}

// Records its destruction in the same list as the log lines.
class EndTracedStream final : public CCounted_T<IChannelStream> {
public:
    ~EndTracedStream() override { CameraScript().calls.emplace_back("stream released"); }
    int Read(void*, unsigned long, unsigned long*) override { return -1; }
    int Write(const void*, unsigned long, unsigned long*) override { return -1; }
};

TEST_F(CallOrder, TheDestructorEndsTheThreadThenTheQueueThenReleasesTheStream) {
    plugin->SetChannelStream(new EndTracedStream);
    plugin->Run();
    TakeTrace();
    const auto trace = [](const char* text) { return [text] { CameraScript().calls.emplace_back(text); }; };
    watch.OnNext(CallWatch::pthread_join, CallWatch::kAny, trace("thread joined"));
    watch.OnNext(CallWatch::sem_destroy, CallWatch::kFreeSlots, trace("free slots destroyed"));
    watch.OnNext(CallWatch::sem_destroy, CallWatch::kItems, trace("items destroyed"));
    plugin = nullptr;
    EXPECT_EQ(TakeTrace(),
              (Trace{"[cameraclient] destroy", "[cameraclient] finish to clear devs", "thread joined",
                     "free slots destroyed", "items destroyed", "stream released"}));
}

TEST_F(CallOrder, WithoutMemoryForItsAnswerAHandlerReturnsTrue) {
    const struct {
        Bytes request;
        size_t answer_size;
    } cases[] = {{kVersionRequestBytes, 12}, {kGetListBytes, 12}, {CloseBytes(7), 16}, {OpenBytes(7), 16}};
    for (const auto& c : cases) {
        const int tries = watch.Count(CallWatch::malloc, c.answer_size);
        watch.Fail(CallWatch::malloc, c.answer_size, 2);
        EXPECT_TRUE(plugin->OnMessage(c.request.data(), c.request.size(), nullptr)) << int{c.request[4]};
        EXPECT_EQ(watch.Count(CallWatch::malloc, c.answer_size), tries + 2) << "both failed";
    }
}

TEST_F(CallOrder, AVersionRequestIsLoggedThenAnswered) {
    EXPECT_EQ(Serve(kVersionRequestBytes), (Trace{"[cameraclient] version req", "answer"}));
}

TEST_F(CallOrder, TheCamerasAreListedThenLoggedThenAnswered) {
    EXPECT_EQ(Serve(kGetListBytes),
              (Trace{"ListCameras()", "[cameraclient] OnProtoGetCameraList, count 0", "answer"}));
}

TEST_F(CallOrder, OpenIsLoggedThenPerformedThenAnswered) {
    EXPECT_EQ(Serve(OpenBytes(7)), (Trace{"[cameraclient] OnProtoOpenCamera id 7 w 640 h 480 fps 30",
                                          "0 created", "0 SetListener()", "0 SetCameraId(7)",
                                          "0 SetFormat(640, 480, 30)", "0 Open()", "answer"}));
    EXPECT_EQ(Serve(OpenBytes(7)),
              (Trace{"[cameraclient] OnProtoOpenCamera id 7 w 640 h 480 fps 30 camera not found", "answer"}));
}

TEST_F(CallOrder, ACameraThatFailsToOpenIsDestroyedBeforeTheAnswer) {
    CameraScript().open_result = false;
    EXPECT_EQ(Serve(OpenBytes(7)),
              (Trace{"[cameraclient] OnProtoOpenCamera id 7 w 640 h 480 fps 30", "0 created",
                     "0 SetListener()", "0 SetCameraId(7)", "0 SetFormat(640, 480, 30)", "0 Open()",
                     "0 Close(7)", "0 destroyed", "answer"}));
}

TEST_F(CallOrder, AMissingImplementationIsLoggedThenAnswered) {
    CameraScript().built_in = false;
    EXPECT_EQ(Serve(OpenBytes(7)),
              (Trace{"[cameraclient] OnProtoOpenCamera id 7 w 640 h 480 fps 30",
                     "[cameraclient] OnProtoOpenCamera cureent platform not impl", "answer"}));
}

TEST_F(CallOrder, PropertyAndFormatAreLoggedThenPassedOn) {
    Serve(OpenBytes(7));
    EXPECT_EQ(
        Serve(SetPropertyBytes(7) + SetFormatBytes(7)),
        (Trace{"[cameraclient] OnProtoSetProperty id 7 prop 5 value -2 auto 1", "0 SetProperty(5, -2, 1)",
               "[cameraclient] OnProtoSetFormat id 7 w 1280 h 720 fps 25", "0 SetFormat(1280, 720, 25)"}));
}

TEST_F(CallOrder, CloseIsLoggedThenPerformedThenAnswered) {
    Serve(OpenBytes(7));
    EXPECT_EQ(Serve(CloseBytes(7)),
              (Trace{"[cameraclient] OnProtoCloseCamera id 7", "0 Close(7)", "0 destroyed", "answer"}));
}

TEST_F(CallOrder, TheOrderOfExitInstance) {
    Serve(OpenBytes(7));
    plugin->ExitInstance();
    EXPECT_EQ(TakeTrace(),
              (Trace{"[cameraclient] ExitInstance", "[cameraclient] start to clear devs", "0 Close()",
                     "0 destroyed", "[cameraclient] finish to clear devs",
                     "[cameraclient] start to stop send thread", "[cameraclient] ExitInstance finish"}));
}

TEST_F(CallOrder, TheOrderOfTheDestructor) {
    Serve(OpenBytes(7));
    plugin = nullptr;
    EXPECT_EQ(TakeTrace(), (Trace{"[cameraclient] destroy", "0 Close()", "0 destroyed",
                                  "[cameraclient] finish to clear devs"}));
}

TEST_F(CallOrder, TheQueueIsResetBeforeTheSendThreadStarts) {
    int started = -1;
    watch.OnNext(CallWatch::sem_init, CallWatch::kItems,
                 [&] { started = watch.Count(CallWatch::pthread_create); });
    plugin->Run();
    EXPECT_EQ(started, 0);
}

TEST_F(CallOrder, TheSendThreadGoesOnAfterPassesWithoutAMessage) {
    const CRefPtr_T<ScriptedStream> stream(new ScriptedStream);
    plugin->SetChannelStream(stream.Get());
    watch.FailWith(CallWatch::sem_clockwait, CallWatch::kItems, {ETIMEDOUT, EINVAL, ETIMEDOUT});
    plugin->Run();
    ASSERT_TRUE(testing::WaitUntil([&] { return watch.Count(CallWatch::sem_clockwait) > 3; }));
    plugin->OnVideoPacket(7, "\x01", 1);
    EXPECT_TRUE(testing::WaitUntil([&] { return stream->Written().size() == 17; }));
}

TEST_F(CallOrder, TheSendThreadRunsFromRunToExitInstance) {
    plugin->Run();
    EXPECT_EQ(threads.at("[cameraclient] create"), 0);
    EXPECT_EQ(threads.at("[cameraclient] Run start"), 0);
    EXPECT_EQ(threads.at("[cameraclient] Run return"), 1);
    plugin->ExitInstance();
    EXPECT_EQ(threads.at("[cameraclient] start to stop send thread"), 1);
    EXPECT_EQ(threads.at("[cameraclient] ExitInstance finish"), 0);
}

}  // namespace
}  // namespace zumod
