// The work thread as the system is asked for it: its name, its refusal, and a stop that comes before its
// first look. The calls for a thread go through this program, which keeps a new thread at its gate while one
// is closed.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/doubles/capture_fixture.h"
#include "tests/support/watch/process_state.h"

namespace zumod::testing {
namespace {

struct ThreadStart {
    void* (*entry)(void*);
    void* argument;
};

std::atomic<bool> g_watching{false};
std::atomic<bool> g_gate_open{true};
std::atomic<bool> g_refuse{false};
std::atomic<int> g_asked{0};
std::atomic<const void*> g_argument{nullptr};
std::atomic<pid_t> g_passed{0};
std::atomic<int> g_pauses{0};
std::atomic<useconds_t> g_longest_pause{0};
// One thread at a time.
ThreadStart g_start;

void* EnterThroughTheGate(void* /*unused*/) {
    WaitUntil([] { return g_gate_open.load(); });
    g_passed = gettid();
    return g_start.entry(g_start.argument);
}

}  // namespace
}  // namespace zumod::testing

extern "C" {
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __real_usleep(useconds_t time);
int __wrap_usleep(useconds_t time);

int __wrap_usleep(useconds_t time) {
    using namespace zumod::testing;
    ++g_pauses;
    g_longest_pause = std::max(g_longest_pause.load(), time);
    return __real_usleep(time);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
    using namespace zumod::testing;
    if (!g_watching) {
        return __real_pthread_create(thread, attributes, entry, argument);
    }
    ++g_asked;
    g_argument = argument;
    if (g_refuse) {
        return EAGAIN;
    }
    g_start = {entry, argument};
    return __real_pthread_create(thread, attributes, &EnterThroughTheGate, nullptr);
}
}

namespace zumod::testing {
namespace {

class CaptureThreadTest : public CaptureTest {
protected:
    CaptureThreadTest() {
        devices.SetCamera(0, Nv12Camera());
        g_asked = 0;
        g_argument = nullptr;
        g_passed = 0;
        g_pauses = 0;
        g_longest_pause = 0;
        g_watching = true;
    }
    ~CaptureThreadTest() override {
        g_watching = false;
        g_gate_open = true;
        g_refuse = false;
    }
};

TEST_F(CaptureThreadTest, AStartMakesOneThreadOfTheNameOfTheCapture) {
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    EXPECT_EQ(g_asked, 1);
    // A thread is created for its object.
    EXPECT_EQ(static_cast<const CBaseThread*>(g_argument.load())->GetName(), "v4l2-cap");
}

TEST_F(CaptureThreadTest, AThreadThatTheSystemRefusesIsNoFailureOfTheStart) {
    g_refuse = true;
    LinuxV4L2CameraCapture capture;
    EXPECT_TRUE(capture.startCapture());
    EXPECT_EQ(g_asked, 1);
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

    g_refuse = false;
    FrameCollector collector;
    capture.SignalCaptureFrame.connect(&collector, &FrameCollector::OnFrame);
    ASSERT_TRUE(capture.startCapture());
    devices.PushFrame(0, {{1}});
    EXPECT_TRUE(WaitForFrames(collector, 1));
    capture.stopCapture();
}

// The stop request of the capture is raised, that of the thread not yet: the thread is let in between the two
// and kept at its first line, whose lock the line of the stop holds.
TEST_F(CaptureThreadTest, AThreadThatFindsItselfStoppedSaysThatItStartsAndEndsAndAsksForNothing) {
    g_gate_open = false;
    LinuxV4L2CameraCapture capture;
    ASSERT_TRUE(capture.startCapture());
    host.before_return = [this, lines = host.OwnerLines().size() + 2] {
        if (host.OwnerLines().size() != lines) {
            return;
        }
        EXPECT_EQ(host.OwnerLines().back().text,
                  "[LinuxV4L2CameraCapture] stopCapture, devid 0 begin stop work thread");
        g_gate_open = true;
        int asleep = 0;
        EXPECT_TRUE(WaitUntil([&asleep] {
            asleep = g_passed != 0 && IsAsleep(g_passed) ? asleep + 1 : 0;
            return asleep == 20;
        }));
    };
    capture.stopCapture();
    EXPECT_EQ(host.OtherLines(), (LogLines{{1, "[LinuxV4L2CameraCapture] work thread start, devid 0"},
                                           {1, "[LinuxV4L2CameraCapture] work thread finish, devid 0"}}));
    EXPECT_EQ(devices.Calls(), StartCalls() + StopCalls());
}

TEST_F(CaptureThreadTest, EveryPassBeginsWithTheShortestPause) {
    std::vector<int> pauses_at_wait;
    devices.Before(DeviceCall::kSelect, [&pauses_at_wait] { pauses_at_wait.push_back(g_pauses); });
    // Two waits that time out, one that is interrupted and asks for a frame in vain, one that brings a frame.
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
    EXPECT_EQ(g_longest_pause, 1u);
}

}  // namespace
}  // namespace zumod::testing
