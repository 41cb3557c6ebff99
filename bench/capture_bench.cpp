// The processor time and the latency of a captured frame between camera and socket, with an encoder that
// returns a kilobyte at once, against a bare loop: select, dequeue, write a kilobyte, queue. Runs with the
// preload library of the virtual cameras.
#include <semaphore.h>
#include <unistd.h>

#include <ctime>
#include <map>
#include <mutex>
#include <optional>

#include "bench/capture_rig.h"
#include "bench/paired.h"
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

double MicrosecondsSince(uint64_t monotonic_us) {
    return static_cast<double>(
               std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
                   .count()) /
               1e3 -
           static_cast<double>(monotonic_us);
}

// The age of the picture, without the time spent in the encoder.
double LatencyOf(const StampedPacket& packet) {
    Require(packet.readable == 1, "a picture carries no stamp");
    return MicrosecondsSince(packet.painted_us) - static_cast<double>(packet.encode_ns) / 1e3;
}

// A thread that runs `work` once per Post. It waits like the plugin's send thread: on a semaphore, with a
// time limit.
class HandOver {
public:
    explicit HandOver(std::function<void()> work) : m_work(std::move(work)) {
        sem_init(&m_items, 0, 0);
        m_thread = std::thread([this] { Loop(); });
    }
    ~HandOver() {
        m_stop = true;
        Post();
        m_thread.join();
        sem_destroy(&m_items);
    }
    HandOver(const HandOver&) = delete;
    HandOver& operator=(const HandOver&) = delete;

    void Post() { sem_post(&m_items); }

private:
    void Loop() {
        while (!m_stop) {
            timespec deadline{};
            clock_gettime(CLOCK_REALTIME, &deadline);
            deadline.tv_sec += 1;
            if (sem_timedwait(&m_items, &deadline) == 0 && !m_stop) {
                m_work();
            }
        }
    }

    const std::function<void()> m_work;
    sem_t m_items;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// The hand-written minimum. With kHandOver it also does the two things that the plugin's contract demands
// besides a frame's work: a pause of a microsecond before each wait, and a separate thread that writes.
enum class Minimum { kBare, kHandOver };

class BareLoop {
public:
    // `latencies` receives each frame's latency; null leaves the stamps unread.
    explicit BareLoop(Minimum minimum, std::vector<double>* latencies = nullptr) : m_latencies(latencies) {
        if (minimum == Minimum::kHandOver) {
            m_writer.emplace([this] { Write(); });
        }
    }
    ~BareLoop() {
        m_writer.reset();
        close(m_socket.ends[0]);
    }
    BareLoop(const BareLoop&) = delete;
    BareLoop& operator=(const BareLoop&) = delete;

    // Returns whether there was a frame.
    bool Pass() {
        if (m_writer) {
            usleep(1);
        }
        return m_camera.OneFrame([this](const uint8_t* picture) {
            if (m_latencies != nullptr) {
                m_packet = ReadPicture(picture, kMode.width, kMode.height);
            }
            if (m_writer) {
                m_writer->Post();
            } else {
                Write();
            }
        });
    }

    // The writing thread, if there is one, and threads started since.
    std::set<int> OwnThreads() const { return ThreadsSince(m_others); }

private:
    void Write() {
        std::memcpy(m_encoded, &m_packet, sizeof m_packet);
        Require(send(m_socket.ends[0], m_encoded, sizeof m_encoded, MSG_NOSIGNAL) > 0,
                "the socket is closed");
        if (m_latencies != nullptr) {
            m_latencies->push_back(LatencyOf(m_packet));
        }
    }

    std::vector<double>* const m_latencies;
    const SocketPair m_socket;
    const Drain m_drain{m_socket.ends[1]};
    BareCamera m_camera{"/dev/video0", kMode};
    const std::set<int> m_others = Threads();
    // Written before the post and read after the wait, 33 ms before the next post.
    StampedPacket m_packet{};
    uint8_t m_encoded[kEncodedSize] = {};
    std::optional<HandOver> m_writer;
};

// Processor seconds per frame: the plugin with this many open cameras.
double PluginCost(int cameras) {
    const SocketPair socket;
    const Drain drain(socket.ends[1]);
    const PluginRun run(cameras, kMode, ZU_BENCH_MODULES_DIR, StreamTo(socket.ends[0]).Get());
    std::this_thread::sleep_for(kWarmUp);
    const double seconds = ProcessorSeconds(run.OwnThreads());
    const uint64_t bytes = drain.Bytes();
    std::this_thread::sleep_for(kSpan);
    const double frames = static_cast<double>(drain.Bytes() - bytes) / kMessageSize;
    return (ProcessorSeconds(run.OwnThreads()) - seconds) / frames;
}

// Processor seconds per frame: the hand-written minimum.
double MinimumCost(Minimum minimum) {
    BareLoop loop(minimum);
    std::atomic<uint64_t> frames{0};
    std::atomic<bool> stop{false};
    std::thread thread([&] {
        while (!stop) {
            frames += loop.Pass() ? 1 : 0;
        }
    });
    std::this_thread::sleep_for(kWarmUp);
    const std::set<int> own = loop.OwnThreads();
    const double seconds = ProcessorSeconds(own);
    const uint64_t before = frames;
    std::this_thread::sleep_for(kSpan);
    const double cost = (ProcessorSeconds(own) - seconds) / static_cast<double>(frames - before);
    stop = true;
    thread.join();
    return cost;
}

// "more_us" is the plugin's additional processor time per frame.
void ProcessorTimePerFrame(benchmark::State& state, Minimum minimum) {
    const vcam::PreloadedCameras cameras{kCamera};
    std::vector<double> ratios;
    std::vector<double> more;
    std::vector<double> least_times;
    for (auto _ : state) {
        const double least = MinimumCost(minimum);
        const double plugin = PluginCost(1);
        ratios.push_back(plugin / least);
        more.push_back((plugin - least) * 1e6);
        least_times.push_back(least * 1e6);
        state.SetIterationTime(plugin);
    }
    Report(state, "ratio", Median(ratios), 1.5);
    state.counters["more_us"] = Median(more);
    state.counters["minimum_us"] = Median(least_times);
}
BENCHMARK_CAPTURE(ProcessorTimePerFrame, AgainstBareLoop, Minimum::kBare)
    ->UseManualTime()
    ->Iterations(7)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ProcessorTimePerFrame, AgainstTheSameWakeUps, Minimum::kHandOver)
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
    Report(state, "ratio", Median(ratios), 1.1);
}
BENCHMARK(ManyCamerasAgainstOne)
    ->Arg(4)
    ->Arg(8)
    ->Arg(16)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMicrosecond);

// A stream that records each frame's latency when its last byte is written. Only the send thread uses
// `latencies` until it ends.
class LatencyStream final : public CCounted_T<IChannelStream> {
public:
    LatencyStream(int fd, std::vector<double>& latencies) : m_inner(StreamTo(fd)), m_latencies(latencies) {}

    int Read(void*, unsigned long, unsigned long*) override { return -1; }
    int Write(const void* data, unsigned long size, unsigned long* done) override {
        const int result = m_inner->Write(data, size, done);
        if (result == 0 && size == kMessageSize) {
            Require(*done == size, "a frame is written in parts");
            m_latencies.push_back(
                LatencyOf(ReadRecord<StampedPacket>(static_cast<const uint8_t*>(data) + kStampAt)));
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
    Require(!latencies.empty(), "no frame arrives");
    return Median(latencies);
}

double MinimumLatency(Minimum minimum) {
    std::vector<double> latencies;
    {
        BareLoop loop(minimum, &latencies);
        const auto end = Clock::now() + kSpan;
        while (Clock::now() < end) {
            loop.Pass();
        }
    }
    Require(!latencies.empty(), "no frame arrives");
    return Median(latencies);
}

// The latency from the painting of a picture to the last byte written, without the time spent in the encoder.
// "more_us" is the plugin's additional latency against the bare loop, "hand_over_us" that of the bare loop
// with a writing thread.
void LatencyToTheLastByte(benchmark::State& state) {
    const vcam::PreloadedCameras cameras{kCamera};
    std::vector<double> hand_over;
    std::vector<double> bare;
    std::vector<double> more;
    for (auto _ : state) {
        const double least = MinimumLatency(Minimum::kBare);
        const double plugin = PluginLatency();
        bare.push_back(least);
        more.push_back(plugin - least);
        hand_over.push_back(MinimumLatency(Minimum::kHandOver) - least);
        state.SetIterationTime(plugin / 1e6);
    }
    state.counters["bare_us"] = Median(bare);
    Report(state, "more_us", Median(more), 150);
    state.counters["hand_over_us"] = Median(hand_over);
}
BENCHMARK(LatencyToTheLastByte)->UseManualTime()->Iterations(7)->Unit(benchmark::kMicrosecond);

long ResidentKilobytes() {
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The growth of the whole process, including its virtual camera, between frame 1,000 and frame 100,000.
void ResidentMemory(benchmark::State& state) {
    constexpr VideoMode kFast{320, 180, 1000};
    const vcam::PreloadedCameras cameras{"formats=NV12,sizes=320x180,fps=1000"};
    for (auto _ : state) {
        const SocketPair socket;
        const Drain drain(socket.ends[1]);
        const PluginRun run(1, kFast, ZU_BENCH_MODULES_DIR, StreamTo(socket.ends[0]).Get());
        const auto wait_for = [&](uint64_t frames) {
            while (drain.Bytes() < frames * kMessageSize) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            return ResidentKilobytes();
        };
        const auto start = Clock::now();
        const long early = wait_for(1'000);
        const long late = wait_for(100'000);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        state.counters["kib_after_1000"] = static_cast<double>(early);
        Report(state, "kib_more_after_100000", static_cast<double>(late - early), 0);
    }
}
BENCHMARK(ResidentMemory)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

// How many of 10,000 frames did not arrive, determined from the counters in the pictures.
void FramesDropped(benchmark::State& state) {
    constexpr int kCameras = 4;
    constexpr uint64_t kFrames = 10'000;
    const vcam::PreloadedCameras cameras{kCamera, kCamera, kCamera, kCamera};
    for (auto _ : state) {
        std::mutex mutex;
        std::map<uint32_t, std::pair<uint32_t, uint32_t>> seen;  // first and last counter of each camera
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
        uint64_t painted = 0;
        for (const auto& [camera, counters] : seen) {
            painted += counters.second - counters.first + 1;
        }
        state.counters["frames"] = static_cast<double>(arrived);
        Report(state, "dropped", static_cast<double>(painted - arrived), 0);
    }
}
BENCHMARK(FramesDropped)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace zumod::bench
