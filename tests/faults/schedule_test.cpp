// Sessions of the real plugin, bridge and capture under the scheduler of tests/support/watch/scheduler.h.
//
// The problem. Whether a stop ends depends on the order in which the run thread, the send thread and the
// capture threads reach their locks, semaphores and joins. A test with real threads sees the few orders that
// the system happens to choose, and cannot show them again. Here the seed of a schedule decides everything:
// what the peer requests and when, how fast camera, encoder and host are, and which thread goes on at each
// lock, semaphore, start, join, sleep and wait for a frame.
//
// What runs. One thread is the host: it calls Run once to three times, ExitInstance after most of them, and
// at last releases the plugin, with or without ExitInstance. Within Run the peer opens, changes and closes
// two cameras, also ones that are closed, open or unplugged. Each open camera has its real capture and work
// thread on the device double; an encoder double takes up to 120 ms a frame, so it may be slower than the
// camera; the real send thread writes to a stream that may be slow or fail. What is not real: devices,
// encoder and stream, and that no two threads run at once, so data races are not seen (the thread sanitizer
// looks for those).
//
// The invariants of each schedule
// - No deadlock and no livelock; no semaphore or mutex is misused (all checked by the scheduler).
// - After ExitInstance the host's thread is the only one, and it has returned within kLongestExit of virtual
//   time. The same holds for the destructor.
// - At the end no descriptor is open, nothing is mapped, no device call was misused and the host's stream has
//   only the host's reference.
//
// A failure prints the seed, what each thread waits for, and the last steps. The same program run with
// ZU_SCHEDULE=seed repeats that one schedule, for a debugger.
//
// One loop of the module has no scheduling point: on a closed queue the send thread spins (Take returns at
// once), as it does while the next Run resets the queue and the last one was not followed by ExitInstance.
// Virtual time would stand still. So Take is redirected too, and takes a millisecond when it spins.
//
// The planted bug: with timed locks that behave like plain ones, the bridge's LockForFrame waits for a lock
// whose owner waits for the end of that thread. The scheduler must find that deadlock, and again by its seed.
//
// The thread sanitizer sees one thread of the system, so it has nothing to compare: no schedule runs there.
// Under the address sanitizer each step is about ten times slower: fewer schedules.
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "src/capture/camera_enumerator.h"
#include "src/loader/codec_factory.h"
#include "src/module/attach_runtime.h"
#include "src/plugin/client_camera.h"
#include "src/plugin/send_queue.h"
#include "tests/support/doubles/device_double.h"
#include "tests/support/doubles/quiet_host.h"
#include "tests/support/watch/scheduler.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod {

// What the linker puts in place of two functions of the module.
CRefPtr_T<IVEncoder> CreateEncoderDouble(uint32_t, bool, bool, bool,
                                         bool) asm("__wrap__ZN5zumod18CreateVideoEncoderEjbbbb");
CRefPtr_T<IBuffer> RealTake(CSendQueue* queue) asm("__real__ZN5zumod10CSendQueue4TakeEv");
CRefPtr_T<IBuffer> TakeInSchedule(CSendQueue* queue) asm("__wrap__ZN5zumod10CSendQueue4TakeEv");

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using testing::Bytes;
using testing::DeviceDouble;
using testing::Scheduler;

#if defined(__SANITIZE_ADDRESS__)
constexpr uint64_t kSchedules = 4'000;
#else
constexpr uint64_t kSchedules = 100'000;
#endif
constexpr uint32_t kCameras = 2;
// For each camera: the frame in hand, and the second that select() may last. Then the wait of the send thread
// for a message, and the write in hand.
constexpr auto kLongestExit = kCameras * (120ms + 1000ms) + 500ms + 40ms;

// What the schedules have reached, over all seeds. Written by the threads of a schedule, one at a time.
struct Totals {
    uint64_t frames = 0;
    uint64_t failed_writes = 0;
    uint64_t spins = 0;
    uint64_t exits_with_threads = 0;
    uint64_t steps = 0;
} g_totals;

// Of the schedule that runs.
milliseconds g_encode_time{0};

// One of `choices`, drawn.
milliseconds OneOf(std::initializer_list<milliseconds> choices) {
    return choices.begin()[Scheduler::Draw(choices.size())];
}

class EncoderDouble final : public CCounted_T<IVEncoder> {
public:
    bool QueryInterface(const char*, void**) override { return false; }
    bool SetProperty(const char*, IZUModData*) override { return true; }
    IZUModData* GetProperty(const char*) override { return nullptr; }
    int SetInputFormat(const VideoInputFormat*) override { return 1; }
    bool Encode(IVEncArgs* args) override {
        // The camera fills a buffer only when it has it back, and the buffer stays mapped until then.
        uint64_t before = 0;
        std::memcpy(&before, args->GetInputData(), sizeof before);
        Scheduler::Sleep(g_encode_time);
        Scheduler::Check(std::memcmp(&before, args->GetInputData(), sizeof before) == 0,
                         "a picture changes while it is encoded");
        return args->PrepareOutput(4) == 4 && std::memcpy(args->GetOutputData(), "code", 4) != nullptr;
    }
};

// The host's stream: the peer's requests in, the plugin's messages out.
class PeerDouble final : public CCounted_T<IChannelStream> {
public:
    explicit PeerDouble(DeviceDouble& devices) : m_devices(devices) {}

    int Read(void* data, unsigned long size, unsigned long* done) override {
        if (m_request.empty()) {
            Scheduler::Sleep(OneOf({0ms, 0ms, 2ms, 30ms, 150ms}));
            if (m_requests_left == 0) {
                return -1;
            }
            --m_requests_left;
            m_request = NextRequest();
        }
        *done = std::min<unsigned long>(size, m_request.size());
        std::memcpy(data, m_request.data(), *done);
        m_request.erase(m_request.begin(), m_request.begin() + static_cast<ptrdiff_t>(*done));
        return 0;
    }

    int Write(const void* data, unsigned long size, unsigned long* done) override {
        Scheduler::Sleep(m_write_time);
        if (m_fails && Scheduler::Draw(4) == 0) {
            ++g_totals.failed_writes;
            return -1;
        }
        static const Bytes kFrames[kCameras] = {testing::FrameBytes(0, {'c', 'o', 'd', 'e'}),
                                                testing::FrameBytes(1, {'c', 'o', 'd', 'e'})};
        const auto* bytes = static_cast<const uint8_t*>(data);
        g_totals.frames += static_cast<uint64_t>(
            std::count(std::begin(kFrames), std::end(kFrames), Bytes(bytes, bytes + size)));
        *done = size;
        return 0;
    }

private:
    Bytes NextRequest() {
        const auto id = static_cast<uint32_t>(Scheduler::Draw(kCameras));
        const bool large = Scheduler::Draw(2) == 0;
        const uint32_t width = large ? 640 : 320;
        const uint32_t height = large ? 480 : 240;
        switch (Scheduler::Draw(20)) {
            case 0:
                m_devices.Unplug(static_cast<int>(id));
                return testing::OpenBytes(id, width, height);
            case 1:
                return testing::kVersionRequestBytes;
            case 2:
            case 3:
            case 4:
            case 5:
            case 6:
                return testing::CloseBytes(id);
            case 7:
            case 8:
            case 9:
            case 10:
            case 11:
                return testing::SetFormatBytes(id, width, height);
            default:
                return testing::OpenBytes(id, width, height);
        }
    }

    DeviceDouble& m_devices;
    uint64_t m_requests_left = 1 + Scheduler::Draw(6);
    Bytes m_request;
    const milliseconds m_write_time = OneOf({0ms, 0ms, 1ms, 20ms});
    const bool m_fails = Scheduler::Draw(4) == 0;
};

// The host's thread of one schedule.
class Schedule {
public:
    void Go() {
        m_devices.SetRecording(false);
        m_devices.SetLongestWait(2s);
        g_encode_time = OneOf({0ms, 5ms, 40ms, 120ms});
        for (uint32_t id = 0; id < kCameras; ++id) {
            const int index = static_cast<int>(id);
            m_devices.SetCamera(index, {.formats = {{V4L2_PIX_FMT_NV12, {{640, 480}, {320, 240}}}}});
            m_devices.SetFramePeriod(index, OneOf({10ms, 33ms, 33ms, 80ms}));
        }
        CRefPtr_T<ClientCamera> plugin(new ClientCamera);
        const CRefPtr_T<PeerDouble> peers[] = {NewPeer(), NewPeer(), NewPeer()};
        const uint64_t runs = 1 + Scheduler::Draw(3);
        for (uint64_t run = 0; run < runs; ++run) {
            plugin->SetChannelStream(peers[run].Get());
            Scheduler::Check(plugin->Run() == 1, "Run does not return 1");
            if (Scheduler::Draw(3) != 0) {
                End([&] { plugin->ExitInstance(); });
            }
        }
        End([&] { plugin = nullptr; });
        for (const CRefPtr_T<PeerDouble>& peer : peers) {
            peer->AddRef();
            Scheduler::Check(peer->Release() == 1, "a reference on the stream is left");
        }
        Scheduler::Check(m_devices.OpenDescriptors() == 0, "a descriptor is left");
        Scheduler::Check(m_devices.Mappings() == 0, "a mapping is left");
        Scheduler::Check(m_devices.Misuse().empty(), "a device call was misused");
    }

private:
    CRefPtr_T<PeerDouble> NewPeer() { return CRefPtr_T<PeerDouble>(new PeerDouble(m_devices)); }

    // A stop, by ExitInstance or by the last release.
    template <class Stop>
    static void End(Stop stop) {
        // More than the host's thread and the send thread.
        g_totals.exits_with_threads += Scheduler::LiveThreads() > 2 ? 1U : 0U;
        const auto start = Scheduler::Now();
        stop();
        Scheduler::Check(Scheduler::LiveThreads() == 1, "a stop has left a thread");
        Scheduler::Check(Scheduler::Now() - start <= kLongestExit, "a stop has taken too long");
    }

    DeviceDouble m_devices;
};

std::string RunSeed(uint64_t seed, Scheduler::TimedLocks timed_locks = Scheduler::TimedLocks::kTimeOut) {
    std::string failure = Scheduler::Run(
        seed, [] { std::make_unique<Schedule>()->Go(); }, timed_locks);
    g_totals.steps += Scheduler::Steps();
    return failure;
}

class ScheduleTest : public ::testing::Test {
protected:
    void SetUp() override {
#if defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "all threads of a schedule are one thread of the system";
#endif
        AttachRuntime(&m_host);
        // Constructed before the first schedule: a static variable's guard is not redirected.
        CameraEnumerator::GetInstance();
        g_totals = {};
    }
    void TearDown() override {
        DetachRuntime();
    }

private:
    testing::QuietHost m_host;
};

TEST_F(ScheduleTest, EveryStopEnds) {
    if (const char* seed = std::getenv("ZU_SCHEDULE")) {
        EXPECT_EQ(RunSeed(std::strtoull(seed, nullptr, 10)), "");
        return;
    }
    const std::clock_t start = std::clock();
    for (uint64_t seed = 0; seed < kSchedules; ++seed) {
        ASSERT_EQ(RunSeed(seed), "") << "ZU_SCHEDULE=" << seed << " repeats it";
    }
    std::cout << kSchedules << " schedules, " << g_totals.steps << " steps, " << g_totals.frames
              << " frames, " << g_totals.failed_writes << " failed writes, " << g_totals.spins
              << " spins on a closed queue, " << g_totals.exits_with_threads << " stops with cameras, "
              << static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC << " s of processor time\n";
    // The schedules are worth something: most of them stop cameras that deliver frames.
    EXPECT_GT(g_totals.frames, kSchedules);
    EXPECT_GT(g_totals.exits_with_threads, kSchedules / 2);
    EXPECT_GT(g_totals.failed_writes, kSchedules / 100);
    EXPECT_GT(g_totals.spins, kSchedules / 100);
}

// What the scheduler itself must see.
TEST_F(ScheduleTest, TheSchedulerSeesWhatIsWrong) {
    const auto failure_of = [](const std::function<void()>& body) {
        const std::string text = Scheduler::Run(1, body);
        return text.substr(0, text.find('\n'));
    };
    sem_t semaphore;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    EXPECT_EQ(failure_of([&] {
                  sem_init(&semaphore, 0, 0);
                  while (sem_wait(&semaphore) != 0) {
                  }
              }),
              "schedule 1: deadlock: no thread can go on");
    EXPECT_EQ(failure_of([&] {
                  pthread_mutex_lock(&mutex);
                  pthread_mutex_lock(&mutex);
              }),
              "schedule 1: deadlock: 1 threads wait for each other");
    EXPECT_EQ(failure_of([] {
                  for (;;) {
                      usleep(1);
                  }
              }),
              "schedule 1: livelock: 500001 steps");
    EXPECT_EQ(failure_of([&] { sem_post(&semaphore); }),
              "schedule 1: a semaphore is used while it does not exist");
    EXPECT_EQ(failure_of([] {
                  pthread_t sleeper{};
                  pthread_create(
                      &sleeper, nullptr,
                      [](void*) -> void* {
                          Scheduler::Sleep(1h);
                          return nullptr;
                      },
                      nullptr);
              }),
              "schedule 1: a thread outlives the first one");
}

TEST_F(ScheduleTest, APlainLockForAFrameIsADeadlock) {
#if defined(__SANITIZE_ADDRESS__)
    // The failed schedules' threads never end.
    const __lsan::ScopedDisabler disabler;
#endif
    constexpr auto kPlain = Scheduler::TimedLocks::kWaitForever;
    uint64_t seed = 0;
    std::string failure;
    while (failure.empty() && seed < 1000) {
        failure = RunSeed(seed++, kPlain);
    }
    std::cout << failure;
    ASSERT_NE(failure.find(": deadlock: 2 threads wait for each other\n"), std::string::npos);
    EXPECT_NE(failure.find(" waits: join #"), std::string::npos);
    EXPECT_NE(failure.find(" waits: timed lock #"), std::string::npos);
    EXPECT_EQ(RunSeed(seed - 1, kPlain), failure) << "the same seed shows something else";
    EXPECT_EQ(RunSeed(seed - 1), "") << "without the planted bug";
}

}  // namespace

CRefPtr_T<IVEncoder> CreateEncoderDouble(uint32_t, bool, bool, bool, bool) {
    return CRefPtr_T<IVEncoder>(new EncoderDouble);
}

CRefPtr_T<IBuffer> TakeInSchedule(CSendQueue* queue) {
    const auto start = Scheduler::Now();
    CRefPtr_T<IBuffer> message = RealTake(queue);
    if (message == nullptr && Scheduler::Now() == start) {
        ++g_totals.spins;
        Scheduler::Sleep(1ms);
    }
    return message;
}

}  // namespace zumod
