// The system calls for the work thread: its name, its pauses, a refused creation, and a stop before its first
// check of the stop request.
#include <unistd.h>

#include "src/base/object_monitor.h"
#include "tests/support/doubles/capture_fixture.h"
#include "tests/support/watch/call_watch.h"
#include "tests/support/watch/process_state.h"

namespace zumod::testing {
namespace {

class CaptureThreadTest : public CaptureTest {
protected:
    CaptureThreadTest() { devices.SetCamera(0, Nv12Camera()); }

    CallWatch watch;
};

TEST_F(CaptureThreadTest, AStartCreatesOneThreadNamedV4l2Cap) {
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    EXPECT_EQ(watch.Count(CallWatch::pthread_create), 1);
    // The argument of the new thread is its CBaseThread.
    const auto* thread = reinterpret_cast<const CBaseThread*>(watch.LastValue(CallWatch::pthread_create));
    EXPECT_EQ(thread->GetName(), "v4l2-cap");
}

TEST_F(CaptureThreadTest, AChangeIsLoggedUnderTheCapturesLockWhichIsReleasedBeforeTheReset) {
    devices.Unplug(0);
    LinuxV4L2CameraCapture capture;
    Calls seen;
    host.OnLine([&](uint32_t, const char* text) {
        const std::string line(text);
        for (const char* step : {"setFormat", "setDevId", "resetCapture"}) {
            if (line.find(step) != std::string::npos) {
                seen.push_back(step + std::string(" ") + std::to_string(watch.LockedMutexes()));
            }
        }
    });
    // One of the locked mutexes is that of the log.
    capture.setFormat(1280, 720, 30);
    capture.setDevId(1);
    host.OnLine(nullptr);
    EXPECT_EQ(seen, (Calls{"setFormat 2", "resetCapture 1", "setDevId 2", "resetCapture 1"}));
}

// While another thread starts the capture: the line names the device that the start leaves.
TEST_F(CaptureThreadTest, AResetWaitsForTheCapturesLockBeforeItLogs) {
    LinuxV4L2CameraCapture capture;
    capture.setDevId(0);
    const uintptr_t lock = watch.LastValue(CallWatch::pthread_mutex_lock);
    std::thread reset;
    devices.Before(DeviceCall::kOpen, [&] {
        if (reset.joinable() || !host.IsOwnThread()) {
            return;
        }
        const int before = watch.Count(CallWatch::pthread_mutex_lock, lock);
        reset = std::thread([&] { capture.resetCapture(); });
        EXPECT_TRUE(WaitUntil([&] { return watch.Count(CallWatch::pthread_mutex_lock, lock) > before; }));
        EXPECT_EQ(host.OtherLines(), LogLines{});
    });
    EXPECT_TRUE(capture.startCapture());
    ASSERT_TRUE(reset.joinable());
    reset.join();
    EXPECT_TRUE(host.Has({kLogEvent, "[LinuxV4L2CameraCapture] resetCapture, devId 0"}));
}

TEST_F(CaptureThreadTest, AStopDestroysTheThreadBeforeItLogsTheFinish) {
    // The module's second class in the registry is CBaseThread.
    ICObjectMonitor* const threads = g_ObjectRegistry.entries[1].monitor;
    ASSERT_STREQ(g_ObjectRegistry.entries[1].name, "CBaseThread");
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    const int64_t before = threads->GetDeleteCount();
    int64_t destroyed_at_begin = -1;
    int64_t destroyed_at_finish = -1;
    host.OnLine([&](uint32_t, const char* text) {
        const std::string line(text);
        if (line.find("begin stop work thread") != std::string::npos) {
            destroyed_at_begin = threads->GetDeleteCount() - before;
        } else if (line.find("finish stop work thread") != std::string::npos) {
            destroyed_at_finish = threads->GetDeleteCount() - before;
        }
    });
    capture.stopCapture();
    host.OnLine(nullptr);
    EXPECT_EQ(destroyed_at_begin, 0);
    EXPECT_EQ(destroyed_at_finish, 1);
}

TEST_F(CaptureThreadTest, AStartSucceedsEvenIfTheSystemRefusesTheThread) {
    watch.Fail(CallWatch::pthread_create, CallWatch::kAny);
    LinuxV4L2CameraCapture capture;
    EXPECT_TRUE(capture.startCapture());
    EXPECT_EQ(watch.Count(CallWatch::pthread_create), 1);
    EXPECT_EQ(host.OwnerLines(), StartLines());
    EXPECT_EQ(devices.Calls(), StartCalls());
    EXPECT_FALSE(capture.isStopping());
    host.Clear();
    EXPECT_TRUE(capture.startCapture());
    EXPECT_EQ(host.OwnerLines(), LogLines{});
    capture.stopCapture();
    EXPECT_EQ(host.OwnerLines(), StopLines());
    EXPECT_EQ(devices.Calls(), StartCalls() + StopCalls());
    EXPECT_EQ(host.OtherLines(), LogLines{});
    EXPECT_EQ(watch.Count(CallWatch::pthread_create), 1);

    FrameCollector collector;
    capture.SignalCaptureFrame.connect(&collector, &FrameCollector::OnFrame);
    ASSERT_TRUE(capture.startCapture());
    devices.PushFrame(0, {{1}});
    EXPECT_TRUE(WaitForFrames(collector, 1));
    capture.stopCapture();
}

// The thread begins between the stop request of the capture and the stop of CBaseThread. It waits at its
// first log line, because the stopping thread is logging and holds the lock of the log.
TEST_F(CaptureThreadTest, AThreadThatStartsDuringAStopOnlyLogsItsStartAndEnd) {
    std::atomic<bool> gate_open{false};
    std::atomic<pid_t> passed{0};
    watch.OnThreadStart([&] {
        WaitUntil([&] { return gate_open.load(); });
        passed = gettid();
    });
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    host.OnLine([&, lines = host.OwnerLines().size() + 2](uint32_t, const char*) {
        if (!host.IsOwnThread() || host.OwnerLines().size() != lines) {
            return;
        }
        EXPECT_EQ(host.OwnerLines().back().text,
                  "[LinuxV4L2CameraCapture] stopCapture, devid 0 begin stop work thread");
        gate_open = true;
        int asleep = 0;
        EXPECT_TRUE(WaitUntil([&] {
            asleep = passed != 0 && IsAsleep(passed) ? asleep + 1 : 0;
            return asleep == 20;
        }));
    });
    capture.stopCapture();
    EXPECT_EQ(host.OtherLines(), (LogLines{{1, "[LinuxV4L2CameraCapture] work thread start, devid 0"},
                                           {1, "[LinuxV4L2CameraCapture] work thread finish, devid 0"}}));
    EXPECT_EQ(devices.Calls(), StartCalls() + StopCalls());
}

TEST_F(CaptureThreadTest, EveryPassBeginsWithTheShortestPause) {
    std::vector<int> pauses_at_wait;
    devices.Before(DeviceCall::kSelect, [&] { pauses_at_wait.push_back(watch.Count(CallWatch::usleep)); });
    // Two waits time out, the third is interrupted and followed by a failed dequeue, the fourth has a frame.
    devices.Answer(DeviceCall::kSelect, 0, 0, 1, 2);
    devices.Fail(DeviceCall::kSelect, EINTR, 3);
    devices.Fail(DeviceCall::kDequeueBuf, EAGAIN);
    devices.PushFrame(0, {{1}});
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitUntil([this] { return devices.CallCount(DeviceCall::kSelect) >= 5; }));
    capture.stopCapture();
    for (size_t pass = 0; pass < pauses_at_wait.size(); ++pass) {
        EXPECT_EQ(pauses_at_wait[pass], static_cast<int>(pass) + 1);
    }
    EXPECT_EQ(watch.Count(CallWatch::usleep), watch.Count(CallWatch::usleep, 1));
}

}  // namespace
}  // namespace zumod::testing
