// What lending a camera costs as a whole: the reference host as a process of its own, with the reference
// codec and a virtual camera, against the encoder alone.
//
// The camera is this process's: what its painting costs is booked here and not on the host. What the preload
// library does for the host's own calls (a receive for each frame dequeued, a store for each one queued) is
// the host's, in the place of a driver's ioctl.
#include <benchmark/benchmark.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/paired.h"
#include "common/av_objects.h"
#include "tests/support/process/child_process.h"
#include "tests/support/process/scoped_environment.h"
#include "tests/support/process/work_directory.h"
#include "tests/support/wire/camera_messages.h"
#include "tests/support/wire/peer_client.h"
#include "vcam/picture/pattern.h"
#include "vcam/testing/preloaded_cameras.h"

extern "C" {
#include <libavutil/opt.h>
}

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
// Not measured: what opening costs.
constexpr int kWarmUpFrames = 30;
// Whole key intervals.
constexpr int kFrames = 120;
const char* const kCamera = "card=Bench,formats=NV12,sizes=1280x720,fps=30";
const Bytes kOpen = {16, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0xD0, 2, 0, 0, 30, 0, 0, 0};

void Require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

double SecondsOfClock(clockid_t clock) {
    timespec time{};
    Require(clock_gettime(clock, &time) == 0, "the clock cannot be read");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// A host of its own process that listens when this is made.
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
    // Of all its threads, since its start.
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

// The camera's state may come behind a frame: the two are written by different threads.
void ReceiveFrames(const PeerClient& peer, int count) {
    for (int frames = 0; frames < count;) {
        const auto message = peer.Receive();
        Require(message.has_value(), "the host has closed the channel");
        Require(message->type != 5 || message->body.at(0) == 2, "the camera does not open");
        frames += message->type == 7 ? 1 : 0;
    }
}

// Processor time of the whole host, a frame, in seconds.
double MeasureHost(const Host& host) {
    const PeerClient peer = host.Connect();
    Require(peer.Send(kOpen), "the host has closed the channel");
    ReceiveFrames(peer, kWarmUpFrames);
    const double before = host.ProcessorSeconds();
    ReceiveFrames(peer, kFrames);
    return (host.ProcessorSeconds() - before) / kFrames;
}

// The camera's own pictures, one after the other, as many as there are between two key frames.
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

// The settings of the reference codec.
AvOwner<AVCodecContext> OpenEncoder() {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    AvOwner<AVCodecContext> context(avcodec_alloc_context3(codec));
    context->log_level_offset = 100;
    context->width = kWidth;
    context->height = kHeight;
    context->pix_fmt = AV_PIX_FMT_NV12;
    context->color_range = AVCOL_RANGE_MPEG;
    context->colorspace = AVCOL_SPC_SMPTE170M;
    context->time_base = {1, kRate};
    context->framerate = {kRate, 1};
    context->gop_size = kKeyInterval;
    context->max_b_frames = 0;
    context->thread_count = 1;
    context->bit_rate = context->rc_max_rate = kBitRate;
    context->rc_buffer_size = static_cast<int>(kBitRate);
    av_opt_set(context->priv_data, "preset", "ultrafast", 0);
    av_opt_set(context->priv_data, "tune", "zerolatency", 0);
    Require(avcodec_open2(context.get(), codec, nullptr) >= 0, "the encoder does not open");
    return context;
}

// Processor time of the encoder alone, a frame, in seconds: the pictures from memory, at the camera's pace.
double MeasureEncoder(const std::vector<std::vector<uint8_t>>& pictures) {
    const auto context = OpenEncoder();
    const AvOwner<AVFrame> frame(av_frame_alloc());
    const AvOwner<AVPacket> packet(av_packet_alloc());
    auto due = std::chrono::steady_clock::now();
    double before = 0;
    for (int number = 0; number < kWarmUpFrames + kFrames; ++number) {
        if (number == kWarmUpFrames) {
            before = SecondsOfClock(CLOCK_THREAD_CPUTIME_ID);
        }
        std::this_thread::sleep_until(due);
        due += std::chrono::microseconds(1'000'000 / kRate);
        // A buffer that nobody frees: the picture is not copied.
        auto* bytes = const_cast<uint8_t*>(pictures[static_cast<size_t>(number) % pictures.size()].data());
        frame->buf[0] = av_buffer_create(
            bytes, kWidth * kHeight * 3 / 2, [](void*, uint8_t*) {}, nullptr, AV_BUFFER_FLAG_READONLY);
        frame->format = AV_PIX_FMT_NV12;
        frame->width = kWidth;
        frame->height = kHeight;
        frame->data[0] = bytes;
        frame->data[1] = bytes + kWidth * kHeight;
        frame->linesize[0] = frame->linesize[1] = kWidth;
        frame->pts = number;
        Require(avcodec_send_frame(context.get(), frame.get()) >= 0 &&
                    avcodec_receive_packet(context.get(), packet.get()) >= 0,
                "the encoder fails");
        av_frame_unref(frame.get());
    }
    return (SecondsOfClock(CLOCK_THREAD_CPUTIME_ID) - before) / kFrames;
}

void OrSayWhyNot(benchmark::State& state, void (*measure)(benchmark::State&)) {
    try {
        measure(state);
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
    }
}

// Turn by turn, the order changing; both at the camera's pace, neither while the other works.
void MeasureProcessorTimeOfAFrame(benchmark::State& state) {
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
    state.counters["ratio"] = Median(ratios);
    state.counters["limit"] = 1.05;
}
BENCHMARK_CAPTURE(OrSayWhyNot, ProcessorTimeOfAFrame, &MeasureProcessorTimeOfAFrame)
    ->UseManualTime()
    ->Iterations(6)
    ->Unit(benchmark::kMicrosecond);

// From the peer's request to the first frame in its hands, with a host that has just started: nothing of the
// codec is mapped yet. What the system has in its file cache stays there.
void MeasureOpenToFirstFrameCold(benchmark::State& state) {
    const vcam::PreloadedCameras cameras{kCamera};
    std::vector<double> times;
    for (auto _ : state) {
        const Host host;
        const PeerClient peer = host.Connect();
        Require(peer.Send(testing::kVersionRequestBytes) && peer.ReceiveType(0x0B).has_value(),
                "the host does not serve");
        const auto start = std::chrono::steady_clock::now();
        Require(peer.Send(kOpen), "the host has closed the channel");
        ReceiveFrames(peer, 1);
        times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        state.SetIterationTime(times.back());
        host.End();
    }
    state.counters["median_ms"] = Median(times) * 1e3;
    state.counters["worst_ms"] = *std::max_element(times.begin(), times.end()) * 1e3;
    state.counters["limit_ms"] = 400;
}
BENCHMARK_CAPTURE(OrSayWhyNot, OpenToFirstFrameCold, &MeasureOpenToFirstFrameCold)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zumod::bench
