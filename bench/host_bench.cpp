// The cost of lending a camera as a whole: the reference host in its own process, with the reference codec
// and a virtual camera, against the encoder by itself.
//
// This process has the virtual camera, so the cost of painting is not the host's. The preload library's share
// of the host's calls (a receive per dequeued frame, a store per queued one) counts as the host's, in place
// of a driver's ioctl.
#include <benchmark/benchmark.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <ctime>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/bare_encoder.h"
#include "bench/paired.h"
#include "tests/support/process/child_process.h"
#include "tests/support/process/scoped_environment.h"
#include "tests/support/process/work_directory.h"
#include "tests/support/wire/camera_messages.h"
#include "tests/support/wire/peer_client.h"
#include "vcam/picture/pattern.h"
#include "vcam/testing/preloaded_cameras.h"
#include "zumod/camera_channel.h"

namespace zumod::bench {
namespace {

using testing::Bytes;
using testing::ChildProcess;
using testing::PeerClient;

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr int kRate = 30;
constexpr int kKeyInterval = 60;
constexpr int64_t kBitRate = 4'000'000;
// Frames before the measurement begins, which excludes the cost of opening the camera.
constexpr int kWarmUpFrames = 30;
// A multiple of the key interval, because key frames cost more than others.
constexpr int kFrames = 120;
const char* const kCamera = "card=Bench,formats=NV12,sizes=1280x720,fps=30";
// Several peers: four of each of four cameras.
constexpr uint32_t kCameras = 4;
constexpr size_t kPeersOfACamera = 4;

Bytes OpenRequest(uint32_t camera = 0) {
    Bytes message(sizeof(_MESSAGE_HEADER) + sizeof(FormatRequest));
    WriteRecord(WriteHeader(message.data(), kOpenCamera, sizeof(FormatRequest)),
                FormatRequest{camera, kWidth, kHeight, kRate});
    return message;
}

double SecondsOfClock(clockid_t clock) {
    timespec time{};
    Require(clock_gettime(clock, &time) == 0, "the clock cannot be read");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// A host process. It listens once the constructor returns.
class Host {
public:
    Host() {
        const testing::ScopedVariable preload("LD_PRELOAD", ZU_PRELOAD);
        m_process = std::make_unique<ChildProcess>(
            std::vector<std::string>{ZU_HOST_FILE, "--listen", m_work / "socket", "--env",
                                     "zu.codec.preset=ultrafast", "--env",
                                     "zu.codec.bitrate=" + std::to_string(kBitRate), "--env",
                                     "zu.codec.keyint=" + std::to_string(kKeyInterval)},
            m_work / "errors");
        Require(m_process->Says("listening on"), "the host does not start");
        Require(clock_getcpuclockid(m_process->Pid(), &m_clock) == 0, "the host has no clock");
    }

    PeerClient Connect() const { return PeerClient::ConnectTo(m_work / "socket"); }
    // Resident, in KiB.
    double Memory() const {
        std::ifstream status("/proc/" + std::to_string(m_process->Pid()) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("VmRSS:")) {
                return std::stod(line.substr(6));
            }
        }
        throw std::runtime_error("the host's memory cannot be read");
    }
    // The processor time of all its threads since its start.
    double ProcessorSeconds() const { return SecondsOfClock(m_clock); }
    void End() const {
        m_process->Signal(SIGTERM);
        Require(m_process->Wait() == 0, "the host does not end");
    }

private:
    const testing::WorkDirectory m_work;
    std::unique_ptr<ChildProcess> m_process;
    clockid_t m_clock{};
};

// A state message may arrive after a frame, because different threads write the two.
void ReceiveFrames(const PeerClient& peer, int count) {
    for (int frames = 0; frames < count;) {
        const auto message = peer.Receive();
        Require(message.has_value(), "the host has closed the channel");
        Require(message->type != kCameraState ||
                    ReadRecord<StateNotice>(message->body.data()).state == kCameraOpen,
                "the camera does not open");
        frames += message->type == kVideoFrame ? 1 : 0;
    }
}

// Processor seconds of the whole host per frame.
double MeasureHost(const Host& host) {
    const PeerClient peer = host.Connect();
    Require(peer.Send(OpenRequest()), "the host has closed the channel");
    ReceiveFrames(peer, kWarmUpFrames);
    const double before = host.ProcessorSeconds();
    ReceiveFrames(peer, kFrames);
    return (host.ProcessorSeconds() - before) / kFrames;
}

// The camera's pictures of one key interval, in order.
std::vector<std::vector<uint8_t>> PaintPictures() {
    const vcam::PictureLayout layout = vcam::LayOut(V4L2_PIX_FMT_NV12, kWidth, kHeight);
    const vcam::Pattern pattern(layout, "Bench");
    std::vector<std::vector<uint8_t>> pictures;
    for (uint32_t number = 0; number < kKeyInterval; ++number) {
        pictures.emplace_back(layout.sizeimage);
        pattern.Paint(pictures.back().data(), {number, uint64_t{number} * 1'000'000 / kRate});
    }
    return pictures;
}

// Processor seconds of the encoder per frame. The pictures come from memory, at the camera's rate.
double MeasureEncoder(const std::vector<std::vector<uint8_t>>& pictures) {
    BareEncoder encoder({kWidth, kHeight, kRate, kKeyInterval, kBitRate});
    auto due = std::chrono::steady_clock::now();
    double before = 0;
    for (int number = 0; number < kWarmUpFrames + kFrames; ++number) {
        if (number == kWarmUpFrames) {
            before = SecondsOfClock(CLOCK_THREAD_CPUTIME_ID);
        }
        std::this_thread::sleep_until(due);
        due += std::chrono::microseconds(1'000'000 / kRate);
        encoder.Encode(pictures[static_cast<size_t>(number) % pictures.size()].data());
    }
    return (SecondsOfClock(CLOCK_THREAD_CPUTIME_ID) - before) / kFrames;
}

// Reports a failure of `measure` as that of the benchmark, after all destructors have run.
void OrSkipWithError(benchmark::State& state, void (*measure)(benchmark::State&)) {
    try {
        measure(state);
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
    }
}

// The host and the encoder run one after the other, in alternating order, both at the camera's rate.
void MeasureProcessorTimePerFrame(benchmark::State& state) {
    const vcam::PreloadedCameras cameras{kCamera};
    const auto pictures = PaintPictures();
    const Host host;
    std::vector<double> ratios;
    std::vector<double> encoder_times;
    bool host_first = true;
    for (auto _ : state) {
        double host_seconds = host_first ? MeasureHost(host) : 0;
        const double encoder_seconds = MeasureEncoder(pictures);
        host_seconds = host_first ? host_seconds : MeasureHost(host);
        host_first = !host_first;
        ratios.push_back(host_seconds / encoder_seconds);
        encoder_times.push_back(encoder_seconds);
        state.SetIterationTime(host_seconds);
    }
    host.End();
    state.counters["encoder_us"] = Median(encoder_times) * 1e6;
    Report(state, "ratio", Median(ratios), 1.05);
}
void ProcessorTimePerFrame(benchmark::State& state) {
    OrSkipWithError(state, MeasureProcessorTimePerFrame);
}
BENCHMARK(ProcessorTimePerFrame)->UseManualTime()->Iterations(6)->Unit(benchmark::kMicrosecond);

// The time from the peer's request to its first frame. The host has just started, so the codec is not loaded
// yet; the system's file cache stays warm.
void MeasureOpenToFirstFrameCold(benchmark::State& state) {
    const vcam::PreloadedCameras cameras{kCamera};
    std::vector<double> times;
    for (auto _ : state) {
        const Host host;
        const PeerClient peer = host.Connect();
        Require(peer.Send(testing::kVersionRequestBytes) && peer.ReceiveType(kVersionReply).has_value(),
                "the host does not serve");
        const auto start = std::chrono::steady_clock::now();
        Require(peer.Send(OpenRequest()), "the host has closed the channel");
        ReceiveFrames(peer, 1);
        times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        state.SetIterationTime(times.back());
        host.End();
    }
    state.counters["median_ms"] = Median(times) * 1e3;
    Report(state, "worst_ms", *std::max_element(times.begin(), times.end()) * 1e3, 400);
}
void OpenToFirstFrameCold(benchmark::State& state) {
    OrSkipWithError(state, MeasureOpenToFirstFrameCold);
}
BENCHMARK(OpenToFirstFrameCold)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

// Peers that receive frames, each in a thread of this process. The cost of receiving is not the host's.
struct PeersCost {
    double frame_us = 0;    // processor time of the host per frame of a camera
    double rate = 0;        // frames per second at the slowest peer
    double lost = 0;        // frames that a camera delivered and a peer did not get, at most
    double memory_kib = 0;  // of the host, at the end
};

PeersCost MeasurePeers(vcam::PreloadedCameras& cameras, uint32_t used_cameras, size_t peers_of_each) {
    const Host host;
    const size_t count = used_cameras * peers_of_each;
    std::barrier begin(static_cast<std::ptrdiff_t>(count + 1));
    std::vector<double> seconds(count);
    std::vector<std::string> failures(count);
    std::vector<PeerClient> peers;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < count; ++i) {
        peers.push_back(host.Connect());
    }
    for (size_t i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            try {
                const auto camera = static_cast<uint32_t>(i % used_cameras);
                Require(peers[i].Send(OpenRequest(camera)), "the host has closed the channel");
                ReceiveFrames(peers[i], kWarmUpFrames);
            } catch (const std::exception& error) {
                failures[i] = error.what();
            }
            begin.arrive_and_wait();
            if (failures[i].empty()) {
                try {
                    const auto start = std::chrono::steady_clock::now();
                    ReceiveFrames(peers[i], kFrames);
                    seconds[i] =
                        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
                } catch (const std::exception& error) {
                    failures[i] = error.what();
                }
            }
        });
    }
    begin.arrive_and_wait();
    const double processor = host.ProcessorSeconds();
    std::vector<uint64_t> delivered;
    for (uint32_t camera = 0; camera < used_cameras; ++camera) {
        delivered.push_back(cameras.At(camera).Status().delivered);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    PeersCost cost;
    cost.memory_kib = host.Memory();
    cost.frame_us = (host.ProcessorSeconds() - processor) / (kFrames * used_cameras) * 1e6;
    for (const std::string& failure : failures) {
        Require(failure.empty(), failure.c_str());
    }
    cost.rate = kFrames / *std::max_element(seconds.begin(), seconds.end());
    for (uint32_t camera = 0; camera < used_cameras; ++camera) {
        const auto more = static_cast<double>(cameras.At(camera).Status().delivered - delivered[camera]);
        cost.lost = std::max(cost.lost, more - kFrames);
    }
    host.End();
    return cost;
}

// What each further peer of one camera costs, relative to the first one, whose picture has to be encoded.
void MeasureFurtherPeers(benchmark::State& state) {
    vcam::PreloadedCameras cameras{kCamera};
    std::vector<double> ratios;
    for (auto _ : state) {
        const PeersCost one = MeasurePeers(cameras, 1, 1);
        const PeersCost several = MeasurePeers(cameras, 1, kPeersOfACamera);
        ratios.push_back((several.frame_us - one.frame_us) / (kPeersOfACamera - 1) / one.frame_us);
        state.SetIterationTime(one.frame_us * 1e-6);
    }
    state.counters["least"] = *std::min_element(ratios.begin(), ratios.end());
    state.counters["most"] = *std::max_element(ratios.begin(), ratios.end());
    Report(state, "ratio", Median(ratios), 0.05);
}
void FurtherPeersOfACamera(benchmark::State& state) {
    OrSkipWithError(state, MeasureFurtherPeers);
}
BENCHMARK(FurtherPeersOfACamera)->UseManualTime()->Iterations(5)->Unit(benchmark::kMicrosecond);

// Sixteen peers on four cameras.
void MeasureManyPeers(benchmark::State& state) {
    vcam::PreloadedCameras cameras{kCamera, kCamera, kCamera, kCamera};
    std::vector<double> frame_us;
    std::vector<double> rates;
    std::vector<double> memory;
    double lost = 0;
    for (auto _ : state) {
        const PeersCost few = MeasurePeers(cameras, kCameras, 1);
        const PeersCost many = MeasurePeers(cameras, kCameras, kPeersOfACamera);
        frame_us.push_back(many.frame_us);
        rates.push_back(many.rate);
        memory.push_back((many.memory_kib - few.memory_kib) / (kCameras * (kPeersOfACamera - 1)));
        lost = std::max(lost, many.lost);
        state.SetIterationTime(many.frame_us * 1e-6);
    }
    state.counters["frame_us"] = Median(frame_us);
    state.counters["most_frame_us"] = *std::max_element(frame_us.begin(), frame_us.end());
    state.counters["peer_percent"] = Median(frame_us) * kRate / kPeersOfACamera * 1e-4;  // of a processor
    state.counters["peer_kib"] = Median(memory);
    state.counters["median_rate"] = Median(rates);
    state.counters["least_rate"] = *std::min_element(rates.begin(), rates.end());
    Report(state, "lost", lost, 0);
}
void SixteenPeersOfFourCameras(benchmark::State& state) {
    OrSkipWithError(state, MeasureManyPeers);
}
BENCHMARK(SixteenPeersOfFourCameras)->UseManualTime()->Iterations(3)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace zumod::bench
