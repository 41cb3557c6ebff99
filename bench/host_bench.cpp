// The cost of lending a camera as a whole: the reference host in its own process, with the reference codec
// and a virtual camera, against the encoder by itself.
//
// This process has the virtual camera, so the cost of painting is not the host's. The preload library's share
// of the host's calls (a receive per dequeued frame, a store per queued one) counts as the host's, in place
// of a driver's ioctl.
#include <benchmark/benchmark.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
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

Bytes OpenRequest() {
    Bytes message(sizeof(_MESSAGE_HEADER) + sizeof(FormatRequest));
    WriteRecord(WriteHeader(message.data(), kOpenCamera, sizeof(FormatRequest)),
                FormatRequest{0, kWidth, kHeight, kRate});
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

}  // namespace
}  // namespace zumod::bench
