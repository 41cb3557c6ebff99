// What a captured frame costs on its way from the camera to the socket, with an encoder that returns a
// kilobyte at once, beside a bare loop: select, dequeue, write a kilobyte, queue. Run with the preload
// library of the virtual cameras.
#include <semaphore.h>
#include <unistd.h>

#include <ctime>

#include "bench/capture_rig.h"
#include "bench/paired.h"
#include "bench/picture_stamp.h"
#include "vcam/testing/preloaded_cameras.h"

namespace zumod::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr VideoMode kMode{1280, 720, 30};
constexpr const char* kCamera = "formats=NV12,sizes=1280x720,fps=30";
constexpr std::chrono::seconds kWarmUp{1};
constexpr std::chrono::seconds kSpan{4};

CRefPtr_T<IChannelStream> StreamTo(int fd) {
    return CRefPtr_T<IChannelStream>(new testing::SocketStream(fd));
}

// Seconds of processor time a frame: the plugin with this many open cameras.
double PluginCost(int cameras) {
    const SocketPair socket;
    const Drain drain(socket.ends[1]);
    const PluginRun run(cameras, kMode, ZU_BENCH_MODULES_DIR, StreamTo(socket.ends[0]).Get());
    std::this_thread::sleep_for(kWarmUp);
    const double seconds = ProcessorSeconds(run.OwnThreads());
    const uint64_t bytes = drain.Bytes();
    std::this_thread::sleep_for(kSpan);
    const double frames = static_cast<double>(drain.Bytes() - bytes) / Drain::kMessageSize;
    return (ProcessorSeconds(run.OwnThreads()) - seconds) / frames;
}

// Runs `pass`, a loop's body that tells whether it saw a frame, on a thread of its own; the seconds of
// processor time a frame of that thread and of every thread made since.
template <class Pass>
double LoopCost(Pass pass, const std::set<int>& others) {
    std::atomic<uint64_t> frames{0};
    std::atomic<bool> stop{false};
    std::thread loop([&] {
        while (!stop) {
            frames += pass() ? 1 : 0;
        }
    });
    std::this_thread::sleep_for(kWarmUp);
    const std::set<int> own = ThreadsSince(others);
    const double seconds = ProcessorSeconds(own);
    const uint64_t before = frames;
    std::this_thread::sleep_for(kSpan);
    const double cost = (ProcessorSeconds(own) - seconds) / static_cast<double>(frames - before);
    stop = true;
    loop.join();
    return cost;
}

double BareCost() {
    const SocketPair socket;
    const Drain drain(socket.ends[1]);
    BareCamera camera("/dev/video0", kMode);
    const uint8_t encoded[kEncodedSize] = {};
    const double cost = LoopCost(
        [&] {
            return camera.OneFrame([&](const uint8_t*) {
                Require(send(socket.ends[0], encoded, sizeof encoded, MSG_NOSIGNAL) > 0);
            });
        },
        Threads());
    close(socket.ends[0]);
    return cost;
}

// The bare loop again, with the two things besides a frame's work that are asked for: a pause of a
// microsecond in front of each wait, and a thread of its own that writes, woken by a semaphore it waits for
// with a time limit.
double HandOverCost() {
    const SocketPair socket;
    const Drain drain(socket.ends[1]);
    const std::set<int> others = Threads();
    BareCamera camera("/dev/video0", kMode);
    const uint8_t encoded[kEncodedSize] = {};
    sem_t items;
    sem_init(&items, 0, 0);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop) {
            timespec deadline{};
            clock_gettime(CLOCK_REALTIME, &deadline);
            deadline.tv_sec += 1;
            if (sem_timedwait(&items, &deadline) == 0 && !stop) {
                Require(send(socket.ends[0], encoded, sizeof encoded, MSG_NOSIGNAL) > 0);
            }
        }
    });
    const double cost = LoopCost(
        [&] {
            usleep(1);
            return camera.OneFrame([&](const uint8_t*) { sem_post(&items); });
        },
        others);
    stop = true;
    sem_post(&items);
    writer.join();
    sem_destroy(&items);
    close(socket.ends[0]);
    return cost;
}

template <class Minimum>
void CompareCost(benchmark::State& state, double limit, Minimum minimum) {
    const vcam::PreloadedCameras cameras{kCamera};
    std::vector<double> ratios;
    std::vector<double> more;
    std::vector<double> bare;
    for (auto _ : state) {
        const double least = minimum();
        const double plugin = PluginCost(1);
        ratios.push_back(plugin / least);
        more.push_back((plugin - least) * 1e6);
        bare.push_back(least * 1e6);
        state.SetIterationTime(plugin);
    }
    state.counters["ratio"] = Median(ratios);
    state.counters["limit"] = limit;
    state.counters["more_us"] = Median(more);
    state.counters["minimum_us"] = Median(bare);
}

void ProcessorTimeAFrame(benchmark::State& state) {
    CompareCost(state, 1.5, BareCost);
}
BENCHMARK(ProcessorTimeAFrame)->UseManualTime()->Iterations(7)->Unit(benchmark::kMicrosecond);

void ProcessorTimeAFrameWithTheSameWakeUps(benchmark::State& state) {
    CompareCost(state, 1.5, HandOverCost);
}
BENCHMARK(ProcessorTimeAFrameWithTheSameWakeUps)
    ->UseManualTime()
    ->Iterations(7)
    ->Unit(benchmark::kMicrosecond);

void ManyCamerasAgainstOne(benchmark::State& state) {
    const vcam::PreloadedCameras cameras{kCamera, kCamera, kCamera, kCamera, kCamera, kCamera,
                                         kCamera, kCamera, kCamera, kCamera, kCamera, kCamera,
                                         kCamera, kCamera, kCamera, kCamera};
    std::vector<double> ratios;
    for (auto _ : state) {
        const double one = PluginCost(1);
        const double many = PluginCost(static_cast<int>(state.range(0)));
        ratios.push_back(many / one);
        state.SetIterationTime(many);
    }
    state.counters["ratio"] = Median(ratios);
    state.counters["limit"] = 1.1;
}
BENCHMARK(ManyCamerasAgainstOne)
    ->Arg(4)
    ->Arg(8)
    ->Arg(16)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMicrosecond);

double MicrosecondsSince(uint64_t monotonic_us) {
    return static_cast<double>(
               std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
                   .count()) /
               1e3 -
           static_cast<double>(monotonic_us);
}

// A stream that notes, when a frame's last byte is written, how long ago the camera had painted it, less the
// time the encoder took. Written and read by the send thread until it is gone.
class LatencyStream final : public CCounted_T<IChannelStream> {
public:
    LatencyStream(int fd, std::vector<double>& latencies) : m_inner(StreamTo(fd)), m_latencies(latencies) {}

    int Read(void*, unsigned long, unsigned long*) override { return -1; }
    int Write(const void* data, unsigned long size, unsigned long* done) override {
        const int result = m_inner->Write(data, size, done);
        if (result == 0 && size == Drain::kMessageSize) {
            StampedPacket packet{};
            std::memcpy(&packet, static_cast<const uint8_t*>(data) + 16, sizeof packet);
            Require(*done == size && packet.readable == 1);
            m_latencies.push_back(MicrosecondsSince(packet.painted_us) -
                                  static_cast<double>(packet.encode_ns) / 1e3);
        }
        return result;
    }

private:
    const CRefPtr_T<IChannelStream> m_inner;
    std::vector<double>& m_latencies;
};

double PluginLatency() {
    const SocketPair socket;
    const Drain drain(socket.ends[1]);
    std::vector<double> latencies;
    {
        const CRefPtr_T<IChannelStream> stream(new LatencyStream(socket.ends[0], latencies));
        const PluginRun run(1, kMode, ZU_BENCH_STAMP_MODULES_DIR, stream.Get());
        std::this_thread::sleep_for(kSpan);
    }
    Require(!latencies.empty());
    return Median(latencies);
}

double BareLatency() {
    const SocketPair socket;
    const Drain drain(socket.ends[1]);
    BareCamera camera("/dev/video0", kMode);
    std::vector<double> latencies;
    uint8_t encoded[kEncodedSize] = {};
    const auto end = Clock::now() + kSpan;
    while (Clock::now() < end) {
        camera.OneFrame([&](const uint8_t* picture) {
            const StampedPacket packet = ReadPicture(picture, kMode.width, kMode.height);
            Require(packet.readable == 1);
            std::memcpy(encoded, &packet, sizeof packet);
            Require(send(socket.ends[0], encoded, sizeof encoded, MSG_NOSIGNAL) > 0);
            latencies.push_back(MicrosecondsSince(packet.painted_us) -
                                static_cast<double>(packet.encode_ns) / 1e3);
        });
    }
    close(socket.ends[0]);
    Require(!latencies.empty());
    return Median(latencies);
}

// The bare loop with a thread of its own that writes, woken by a semaphore.
double HandOverLatency() {
    const SocketPair socket;
    const Drain drain(socket.ends[1]);
    BareCamera camera("/dev/video0", kMode);
    std::vector<double> latencies;
    StampedPacket packet{};  // written before the post, read after the wait, 33 ms before the next
    sem_t items;
    sem_init(&items, 0, 0);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        uint8_t encoded[kEncodedSize] = {};
        while (sem_wait(&items) == 0 && !stop) {
            std::memcpy(encoded, &packet, sizeof packet);
            Require(send(socket.ends[0], encoded, sizeof encoded, MSG_NOSIGNAL) > 0);
            latencies.push_back(MicrosecondsSince(packet.painted_us) -
                                static_cast<double>(packet.encode_ns) / 1e3);
        }
    });
    const auto end = Clock::now() + kSpan;
    while (Clock::now() < end) {
        usleep(1);
        camera.OneFrame([&](const uint8_t* picture) {
            packet = ReadPicture(picture, kMode.width, kMode.height);
            Require(packet.readable == 1);
            sem_post(&items);
        });
    }
    stop = true;
    sem_post(&items);
    writer.join();
    sem_destroy(&items);
    close(socket.ends[0]);
    Require(!latencies.empty());
    return Median(latencies);
}

// From the painting of the picture to the last byte written, less the encoder's time; "more_us" is what the
// plugin takes longer than the bare loop, and its limit; "hand_over_us" what a bare hand-over to a thread
// does.
void LatencyToTheLastByte(benchmark::State& state) {
    const vcam::PreloadedCameras cameras{kCamera};
    std::vector<double> hand_over;
    std::vector<double> bare;
    std::vector<double> more;
    for (auto _ : state) {
        const double least = BareLatency();
        const double plugin = PluginLatency();
        bare.push_back(least);
        more.push_back(plugin - least);
        hand_over.push_back(HandOverLatency() - least);
        state.SetIterationTime(plugin / 1e6);
    }
    state.counters["bare_us"] = Median(bare);
    state.counters["more_us"] = Median(more);
    state.counters["hand_over_us"] = Median(hand_over);
    state.counters["limit_us"] = 150;
}
BENCHMARK(LatencyToTheLastByte)->UseManualTime()->Iterations(7)->Unit(benchmark::kMicrosecond);

long ResidentKilobytes() {
    std::ifstream books("/proc/self/statm");
    long total = 0;
    long resident = 0;
    books >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The whole process, its virtual camera included, after 1,000 frames and after 100,000.
void ResidentMemory(benchmark::State& state) {
    constexpr VideoMode kFast{320, 180, 1000};
    const vcam::PreloadedCameras cameras{"formats=NV12,sizes=320x180,fps=1000"};
    for (auto _ : state) {
        const SocketPair socket;
        const Drain drain(socket.ends[1]);
        const PluginRun run(1, kFast, ZU_BENCH_MODULES_DIR, StreamTo(socket.ends[0]).Get());
        const auto wait_for = [&](uint64_t frames) {
            while (drain.Bytes() < frames * Drain::kMessageSize) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            return ResidentKilobytes();
        };
        const auto start = Clock::now();
        const long early = wait_for(1'000);
        const long late = wait_for(100'000);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        state.counters["kib_after_1000"] = static_cast<double>(early);
        state.counters["kib_more_after_100000"] = static_cast<double>(late - early);
        state.counters["limit_kib"] = 0;
    }
}
BENCHMARK(ResidentMemory)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

// How many of the cameras' frames did not arrive, of 10,000, by the counters in the pictures.
void FramesDropped(benchmark::State& state) {
    constexpr int kCameras = 4;
    constexpr uint64_t kFrames = 10'000;
    const vcam::PreloadedCameras cameras{kCamera, kCamera, kCamera, kCamera};
    for (auto _ : state) {
        std::mutex mutex;
        std::map<uint32_t, std::pair<uint32_t, uint32_t>> seen;  // first and last counter of a camera
        uint64_t arrived = 0;
        std::atomic<bool> done{false};
        const SocketPair socket;
        const Drain drain(socket.ends[1], [&](uint32_t camera, const StampedPacket& packet) {
            const std::lock_guard<std::mutex> guard(mutex);
            if (arrived == kFrames) {
                return;
            }
            seen.try_emplace(camera, packet.counter, packet.counter).first->second.second = packet.counter;
            done = ++arrived == kFrames;
        });
        const auto start = Clock::now();
        {
            const PluginRun run(kCameras, kMode, ZU_BENCH_STAMP_MODULES_DIR, StreamTo(socket.ends[0]).Get());
            while (!done) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        const std::lock_guard<std::mutex> guard(mutex);
        uint64_t made = 0;
        for (const auto& [camera, counters] : seen) {
            made += counters.second - counters.first + 1;
        }
        state.counters["frames"] = static_cast<double>(arrived);
        state.counters["dropped"] = static_cast<double>(made - arrived);
        state.counters["limit"] = 0;
    }
}
BENCHMARK(FramesDropped)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace zumod::bench
