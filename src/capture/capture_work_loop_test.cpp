#include <sys/select.h>

#include "tests/support/doubles/capture_fixture.h"

namespace zumod::testing {
namespace {

class CaptureWorkLoopTest : public CaptureTest {
protected:
    CaptureWorkLoopTest() {
        devices.SetCamera(0, Nv12Camera());
        capture.SignalCaptureFrame.connect(&collector, &FrameCollector::OnFrame);
    }
    ~CaptureWorkLoopTest() override { capture.stopCapture(); }

    // The calls from the first wait on.
    Calls WorkCalls() const {
        Calls calls = devices.Calls();
        const auto stream_on = std::find(calls.begin(), calls.end(), "STREAMON video0 type=1");
        calls.erase(calls.begin(), stream_on == calls.end() ? stream_on : stream_on + 1);
        return calls;
    }
    static ReceivedFrame Received(std::vector<uint8_t> bytes, unsigned long size) {
        return {std::move(bytes), size, 640, 480, V4L2_PIX_FMT_NV12};
    }
    bool WaitForCalls(DeviceCall call, int count) {
        return WaitUntil([this, call, count] { return devices.CallCount(call) >= count; });
    }
    bool WaitForOtherLine(const LogLine& line) {
        return WaitUntil([this, &line] {
            const LogLines lines = host.OtherLines();
            return std::find(lines.begin(), lines.end(), line) != lines.end();
        });
    }

    FrameCollector collector;
    LinuxV4L2CameraCapture capture;
};

TEST_F(CaptureWorkLoopTest, AFrameIsDequeuedDeliveredAndQueuedAgain) {
    devices.PushFrame(0, {{10, 11, 12, 13}});
    int queued_at_delivery = -1;
    bool own_thread = true;
    collector.during = [&] {
        queued_at_delivery = devices.CallCount(DeviceCall::kQueueBuf);
        own_thread = host.IsOwnThread();
    };
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForCalls(DeviceCall::kSelect, 2));
    capture.stopCapture();

    EXPECT_EQ(collector.Frames(), (std::vector{Received({10, 11, 12}, 4)}));
    // The buffer is queued again only after the slot: so far, only the four of the start had been queued.
    EXPECT_EQ(queued_at_delivery, 4);
    EXPECT_FALSE(own_thread);
    EXPECT_EQ(WorkCalls(), (Calls{"select video0 timeout=1.000000", "DQBUF video0 type=1 memory=1 index=0",
                                  "QBUF video0 type=1 memory=1 index=0 used=4 length=4096",
                                  "select video0 timeout=1.000000"}) +
                               StopCalls());
    EXPECT_EQ(host.OtherLines(), WorkLines());
}

TEST_F(CaptureWorkLoopTest, FramesArriveInOrderEachFromItsBuffer) {
    ASSERT_TRUE(capture.startCapture());
    std::vector<ReceivedFrame> expected;
    for (uint8_t number = 0; number < 20; ++number) {
        devices.PushFrame(0, {{number, 1, 2, 3, 4}});
        expected.push_back(Received({number, 1, 2}, 5));
    }
    ASSERT_TRUE(WaitForFrames(collector, 20));
    EXPECT_EQ(collector.Frames(), expected);
}

TEST_F(CaptureWorkLoopTest, WithoutSlotsBuffersAreDequeuedAndQueuedAgain) {
    LinuxV4L2CameraCapture unconnected;
    ASSERT_TRUE(unconnected.startCapture());
    devices.PushFrame(0, {{1}});
    devices.PushFrame(0, {{2}});
    ASSERT_TRUE(WaitForCalls(DeviceCall::kQueueBuf, 4 + 2));
    unconnected.stopCapture();
    EXPECT_EQ(host.OtherLines(), WorkLines());
}

TEST_F(CaptureWorkLoopTest, TwoSlotsBothGetEveryFrameInOrder) {
    std::vector<std::string> order;
    FrameCollector second;
    collector.during = [&order] { order.push_back("first"); };
    second.during = [&order] { order.push_back("second"); };
    capture.SignalCaptureFrame.connect(&second, &FrameCollector::OnFrame);
    ASSERT_TRUE(capture.startCapture());
    devices.PushFrame(0, {{1}});
    devices.PushFrame(0, {{2}});
    ASSERT_TRUE(WaitForFrames(second, 2));
    capture.stopCapture();
    EXPECT_EQ(collector.Frames(), (std::vector{Received({1}, 1), Received({2}, 1)}));
    EXPECT_EQ(second.Frames(), (std::vector{Received({1}, 1), Received({2}, 1)}));
    EXPECT_EQ(order, (std::vector<std::string>{"first", "second", "first", "second"}));
}

TEST_F(CaptureWorkLoopTest, ASlotThatDisconnectsDuringAFrameGetsNoMoreFrames) {
    FrameCollector second;
    capture.SignalCaptureFrame.connect(&second, &FrameCollector::OnFrame);
    collector.during = [this] { collector.disconnect_all(); };
    ASSERT_TRUE(capture.startCapture());
    devices.PushFrame(0, {{1}});
    devices.PushFrame(0, {{2}});
    ASSERT_TRUE(WaitForFrames(second, 2));
    capture.stopCapture();
    EXPECT_EQ(collector.Count(), 1u);
    capture.SignalCaptureFrame.disconnect_all();
}

TEST_F(CaptureWorkLoopTest, ADestroyedHolderGetsNoFrame) {
    {
        FrameCollector destroyed;
        capture.SignalCaptureFrame.connect(&destroyed, &FrameCollector::OnFrame);
    }
    ASSERT_TRUE(capture.startCapture());
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(WaitForFrames(collector, 1));
}

TEST_F(CaptureWorkLoopTest, TheSizeIsTheDriversButNeverExceedsTheMappedBuffer) {
    ASSERT_TRUE(capture.startCapture());
    const uint32_t reported[] = {0, 3, 4095, 4096, 4097, 1000000, UINT32_MAX};
    for (const uint32_t size : reported) {
        devices.PushFrame(0, {.bytes = {1, 2, 3}, .bytes_used = size});
    }
    ASSERT_TRUE(WaitForFrames(collector, std::size(reported)));
    std::vector<unsigned long> sizes;
    for (const ReceivedFrame& frame : collector.Frames()) {
        sizes.push_back(frame.size);
    }
    EXPECT_EQ(sizes, (std::vector<unsigned long>{0, 3, 4095, 4096, 4096, 4096, 4096}));
    // The driver gets its own number back.
    const Calls calls = WorkCalls();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                            [](const std::string& call) {
                                return call.starts_with("QBUF") && call.find(" used=1000000 ") != call.npos;
                            }),
              1);
}

TEST_F(CaptureWorkLoopTest, ABufferThatWasNeverMappedIsQueuedAgainWithoutAFrame) {
    ASSERT_TRUE(capture.startCapture());
    devices.PushFrame(0, {.bytes = {1}, .index = 4});
    devices.PushFrame(0, {.bytes = {2}, .index = 0xFFFFFFFF});
    devices.PushFrame(0, {.bytes = {3}});
    ASSERT_TRUE(WaitForFrames(collector, 1));
    capture.stopCapture();
    EXPECT_EQ(collector.Frames(), (std::vector{Received({3}, 1)}));
    EXPECT_EQ(host.OtherLines(), (LogLines{{1, "[LinuxV4L2CameraCapture] work thread start, devid 0"},
                                           {2, "[LinuxV4L2CameraCapture] qbuf fail, devid 0"},
                                           {2, "[LinuxV4L2CameraCapture] qbuf fail, devid 0"},
                                           {1, "[LinuxV4L2CameraCapture] work thread finish, devid 0"}}));
}

TEST_F(CaptureWorkLoopTest, AfterATimeoutTheLoopWaitsAgain) {
    devices.Answer(DeviceCall::kSelect, 0, 0, 1, 5);
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForFrames(collector, 1));
    capture.stopCapture();
    EXPECT_EQ(devices.CallCount(DeviceCall::kDequeueBuf), 1);
    EXPECT_GE(devices.CallCount(DeviceCall::kSelect), 6);
    EXPECT_EQ(host.OtherLines(), WorkLines());
}

TEST_F(CaptureWorkLoopTest, AWaitThatReportsAnotherDescriptorDequeuesNothing) {
    devices.Answer(DeviceCall::kSelect, 2, 0, 1, 3);
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForFrames(collector, 1));
    EXPECT_EQ(devices.CallCount(DeviceCall::kDequeueBuf), 1);
}

TEST_F(CaptureWorkLoopTest, AnInterruptedWaitIsFollowedByADequeue) {
    devices.Fail(DeviceCall::kSelect, EINTR);
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForCalls(DeviceCall::kSelect, 2));
    capture.stopCapture();
    EXPECT_EQ(WorkCalls(), (Calls{"select video0 timeout=1.000000", "DQBUF video0 type=1 memory=1 index=0",
                                  "select video0 timeout=1.000000"}) +
                               StopCalls());
    EXPECT_EQ(host.OtherLines(), WorkLines());
}

TEST_F(CaptureWorkLoopTest, AnInterruptedDequeueIsRepeatedAtOnce) {
    devices.Fail(DeviceCall::kDequeueBuf, EINTR, 1, 3);
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForFrames(collector, 1));
    ASSERT_TRUE(WaitForCalls(DeviceCall::kSelect, 2));
    capture.stopCapture();
    EXPECT_EQ(
        WorkCalls(),
        (Calls{"select video0 timeout=1.000000", "DQBUF video0 type=1 memory=1 index=0",
               "DQBUF video0 type=1 memory=1 index=0", "DQBUF video0 type=1 memory=1 index=0",
               "DQBUF video0 type=1 memory=1 index=0",
               "QBUF video0 type=1 memory=1 index=0 used=1 length=4096", "select video0 timeout=1.000000"}) +
            StopCalls());
}

TEST_F(CaptureWorkLoopTest, AfterAFailedDequeueTheLoopWaitsAgain) {
    devices.Fail(DeviceCall::kDequeueBuf, EAGAIN, 1, 2);
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForFrames(collector, 1));
    ASSERT_TRUE(WaitForCalls(DeviceCall::kSelect, 4));
    capture.stopCapture();
    EXPECT_EQ(WorkCalls(), (Calls{"select video0 timeout=1.000000", "DQBUF video0 type=1 memory=1 index=0",
                                  "select video0 timeout=1.000000", "DQBUF video0 type=1 memory=1 index=0",
                                  "select video0 timeout=1.000000", "DQBUF video0 type=1 memory=1 index=0",
                                  "QBUF video0 type=1 memory=1 index=0 used=1 length=4096",
                                  "select video0 timeout=1.000000"}) +
                               StopCalls());
    EXPECT_EQ(host.OtherLines(), WorkLines());
}

TEST_F(CaptureWorkLoopTest, AStopEndsAStormOfInterruptions) {
    devices.SetRecording(false);
    devices.Fail(DeviceCall::kSelect, EINTR, 1, DeviceDouble::kEveryTime);
    devices.Fail(DeviceCall::kDequeueBuf, EINTR, 1, DeviceDouble::kEveryTime);
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForCalls(DeviceCall::kDequeueBuf, 1000));
    // One wait; the loop never left the dequeue.
    EXPECT_EQ(devices.CallCount(DeviceCall::kSelect), 1);
    capture.stopCapture();
    EXPECT_EQ(host.OtherLines(), WorkLines());
}

TEST_F(CaptureWorkLoopTest, AStopEndsAStormOfEmptyDequeues) {
    devices.SetRecording(false);
    devices.Answer(DeviceCall::kSelect, 1, 0, 1, DeviceDouble::kEveryTime);
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForCalls(DeviceCall::kDequeueBuf, 100));
    capture.stopCapture();
    EXPECT_EQ(host.OtherLines(), WorkLines());
}

TEST_F(CaptureWorkLoopTest, AFrameDequeuedDuringAStopIsNeitherDeliveredNorQueuedAgain) {
    // The stop is requested after the dequeue and before the next check of the request.
    std::thread stopper;
    devices.After(DeviceCall::kDequeueBuf, [this, &stopper] {
        if (!stopper.joinable()) {
            stopper = std::thread([this] { capture.stopCapture(); });
            while (!capture.isStopping()) {
                std::this_thread::yield();
            }
        }
    });
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitUntil([this] { return capture.isStopping(); }));
    // The hook has assigned `stopper` before isStopping() can return true.
    ASSERT_TRUE(WaitUntil([this] { return devices.OpenDescriptors() == 0; }));
    stopper.join();
    EXPECT_EQ(collector.Count(), 0u);
    EXPECT_EQ(devices.CallCount(DeviceCall::kQueueBuf), 4);
    EXPECT_EQ(WorkCalls(), (Calls{"select video0 timeout=1.000000", "DQBUF video0 type=1 memory=1 index=0"}) +
                               StopCalls());
}

TEST_F(CaptureWorkLoopTest, AStopDuringAWaitEndsTheLoopWithoutADequeue) {
    std::thread stopper;
    devices.After(DeviceCall::kSelect, [this, &stopper] {
        if (!stopper.joinable()) {
            stopper = std::thread([this] { capture.stopCapture(); });
            while (!capture.isStopping()) {
                std::this_thread::yield();
            }
        }
    });
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitUntil([this] { return capture.isStopping(); }));
    ASSERT_TRUE(WaitUntil([this] { return devices.OpenDescriptors() == 0; }));
    stopper.join();
    EXPECT_EQ(WorkCalls(), Calls{"select video0 timeout=1.000000"} + StopCalls());
}

// The stop is requested while the wait fails.
TEST_F(CaptureWorkLoopTest, AWaitThatFailsDuringAStopLogsNoFailure) {
    std::thread stopper;
    devices.Fail(DeviceCall::kSelect, EIO);
    devices.After(DeviceCall::kSelect, [this, &stopper] {
        stopper = std::thread([this] { capture.stopCapture(); });
        WaitUntil([this] { return capture.isStopping(); });
    });
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitUntil([this] { return devices.OpenDescriptors() == 0; }));
    stopper.join();
    EXPECT_EQ(WorkCalls(), Calls{"select video0 timeout=1.000000"} + StopCalls());
    EXPECT_FALSE(host.Has({4, "[LinuxV4L2CameraCapture] workLoop, select fail, devid 0, err: 5"}));
}

TEST_F(CaptureWorkLoopTest, ADequeueThatFailsDuringAStopEndsTheLoop) {
    std::thread stopper;
    devices.Fail(DeviceCall::kDequeueBuf, EIO);
    devices.After(DeviceCall::kDequeueBuf, [this, &stopper] {
        stopper = std::thread([this] { capture.stopCapture(); });
        WaitUntil([this] { return capture.isStopping(); });
    });
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitUntil([this] { return devices.OpenDescriptors() == 0; }));
    stopper.join();
    EXPECT_EQ(WorkCalls(), (Calls{"select video0 timeout=1.000000", "DQBUF video0 type=1 memory=1 index=0"}) +
                               StopCalls());
}

TEST_F(CaptureWorkLoopTest, TheStopRequestIsSetBeforeTheEndOfTheLoopIsLogged) {
    bool stopping = false;
    host.OnLineWith("work thread finish", [&] { stopping = capture.isStopping(); });
    devices.Fail(DeviceCall::kSelect, EIO);
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForOtherLine({1, "[LinuxV4L2CameraCapture] work thread finish, devid 0"}));
    EXPECT_TRUE(capture.isStopping());
    capture.stopCapture();
    EXPECT_TRUE(stopping);
}

TEST_F(CaptureWorkLoopTest, AStopWaitsForASlotThatRuns) {
    std::atomic<bool> in_slot{false};
    std::atomic<bool> may_leave{false};
    collector.during = [&] {
        in_slot = true;
        WaitUntil([&] { return may_leave.load(); });
    };
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitUntil([&] { return in_slot.load(); }));
    std::thread stopper([this] { capture.stopCapture(); });
    ASSERT_TRUE(WaitUntil([this] { return capture.isStopping(); }));
    // Nothing is unmapped while the slot runs.
    EXPECT_EQ(devices.Mappings(), 4);
    may_leave = true;
    stopper.join();
    // The frame's buffer is queued again even so; then the loop ends.
    EXPECT_EQ(WorkCalls(), (Calls{"select video0 timeout=1.000000", "DQBUF video0 type=1 memory=1 index=0",
                                  "QBUF video0 type=1 memory=1 index=0 used=1 length=4096"}) +
                               StopCalls());
    EXPECT_EQ(collector.Frames(), (std::vector{Received({1}, 1)}));
    EXPECT_EQ(devices.Mappings(), 0);
}

TEST_F(CaptureWorkLoopTest, ASlotThatWaitsForTheStoppingThreadsLockCanGiveUp) {
    std::mutex owner_lock;
    std::atomic<bool> in_slot{false};
    collector.during = [&] {
        in_slot = true;
        std::unique_lock lock(owner_lock, std::defer_lock);
        while (!lock.try_lock()) {
            if (capture.isStopping()) {
                return;
            }
            std::this_thread::yield();
        }
    };
    ASSERT_TRUE(capture.startCapture());
    {
        const std::lock_guard guard(owner_lock);
        devices.PushFrame(0, {{1}});
        ASSERT_TRUE(WaitUntil([&] { return in_slot.load(); }));
        capture.stopCapture();
    }
    EXPECT_EQ(host.OtherLines(), WorkLines());
}

TEST_F(CaptureWorkLoopTest, AnUnpluggedCameraEndsTheThreadAndAStopStillSucceeds) {
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    devices.Unplug(0);
    ASSERT_TRUE(WaitForOtherLine({1, "[LinuxV4L2CameraCapture] work thread finish, devid 0"}));
    EXPECT_EQ(host.OtherLines(),
              (LogLines{{1, "[LinuxV4L2CameraCapture] work thread start, devid 0"},
                        {4, "[LinuxV4L2CameraCapture] workLoop, select fail, devid 0, err: 19"},
                        {1, "[LinuxV4L2CameraCapture] work thread finish, devid 0"}}));
    // The loop sets the stop request when it ends. The capture counts as capturing until it is stopped.
    EXPECT_TRUE(capture.isStopping());
    host.Clear();
    EXPECT_TRUE(capture.startCapture());
    EXPECT_EQ(host.OwnerLines(), LogLines{});

    capture.stopCapture();
    EXPECT_EQ(
        host.OwnerLines(),
        StopLines() + (LogLines{{4, "[LinuxV4L2CameraCapture] dealloc buffer pool fail, devid 0, err 19"}}));
    EXPECT_EQ(devices.OpenDescriptors(), 0);
    EXPECT_EQ(devices.Mappings(), 0);

    host.Clear();
    EXPECT_FALSE(capture.startCapture());
    EXPECT_EQ(host.OwnerLines(),
              (LogLines{{8, "[LinuxV4L2CameraCapture] startCapture, devid 0, get device info"},
                        {4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0"}}));

    devices.SetCamera(0, Nv12Camera());
    EXPECT_TRUE(capture.startCapture());
}

TEST_F(CaptureWorkLoopTest, AnUnpluggedCameraThatStaysReadableCanBeStopped) {
    devices.SetRecording(false);
    ASSERT_TRUE(capture.startCapture());
    devices.Unplug(0, Unplugged::kAlwaysReadable);
    ASSERT_TRUE(WaitForCalls(DeviceCall::kDequeueBuf, 100));
    capture.stopCapture();
    EXPECT_EQ(host.OtherLines(), WorkLines());
}

TEST_F(CaptureWorkLoopTest, AStalledCameraIsWaitedForAndStopped) {
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForCalls(DeviceCall::kSelect, 20));
    EXPECT_EQ(devices.CallCount(DeviceCall::kDequeueBuf), 0);
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(WaitForFrames(collector, 1));
}

TEST_F(CaptureWorkLoopTest, FramesArriveOnADescriptorPastFdSetsize) {
    devices.SetFirstDescriptor(FD_SETSIZE + 476);
    ASSERT_TRUE(capture.startCapture());
    devices.PushFrame(0, {{1}});
    ASSERT_TRUE(WaitForFrames(collector, 1));
    EXPECT_EQ(collector.Frames(), (std::vector{Received({1}, 1)}));
}

TEST_F(CaptureWorkLoopTest, ARestartDeliversFromItsOwnBuffers) {
    for (uint8_t round = 0; round < 5; ++round) {
        ASSERT_TRUE(capture.startCapture());
        devices.PushFrame(0, {{round}});
        ASSERT_TRUE(WaitForFrames(collector, round + 1U));
        capture.stopCapture();
        EXPECT_EQ(collector.Frames().back(), Received({round}, 1));
    }
}

TEST_F(CaptureWorkLoopTest, AThousandFramesPerSecondAreDeliveredInOrder) {
    devices.SetRecording(false);
    devices.SetFramePeriod(0, std::chrono::microseconds(1000));
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForFrames(collector, 200));
    capture.stopCapture();
    const std::vector<ReceivedFrame> frames = collector.Frames();
    for (size_t i = 1; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].size, 4096u);
        const auto number = [](const ReceivedFrame& frame) { return frame.bytes[0] + 256 * frame.bytes[1]; };
        EXPECT_GT(number(frames[i]), number(frames[i - 1]));
    }
}

TEST_F(CaptureWorkLoopTest, FiveHundredStartsAndStopsLeaveNothingOpenOrMapped) {
    devices.SetRecording(false);
    devices.SetFramePeriod(0, std::chrono::microseconds(1000));
    for (int round = 0; round < 500; ++round) {
        ASSERT_TRUE(capture.startCapture());
        // Some are stopped before their first frame, some after it.
        if (round % 2 == 0) {
            ASSERT_TRUE(WaitForFrames(collector, collector.Count() + 1));
        }
        capture.stopCapture();
        ASSERT_EQ(devices.OpenDescriptors(), 0);
        ASSERT_EQ(devices.Mappings(), 0);
    }
    EXPECT_GE(collector.Count(), 250u);
}

}  // namespace
}  // namespace zumod::testing
