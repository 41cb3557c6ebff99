// What the codec's settings and its following of the line do to a stream: size, quality and delay of the
// pictures.
//
// The line is simulated. Time is that of the pictures, 30 per second, and the encoder's clock shows it too,
// so that the figures are the same on every machine, but for the figures of processor time. As in the camera
// module, a picture is dropped before it is encoded while more than 5 messages wait for the line.
#include <array>
#include <ctime>
#include <deque>
#include <memory>

#include "bench/clips.h"
#include "bench/paired.h"
#include "codec/video_encoder.h"
#include "common/av_objects.h"
#include "src/module/attach_runtime.h"
#include "tests/support/doubles/encode_call.h"
#include "tests/support/doubles/quiet_host.h"
#include "zumod/values.h"

namespace zumod::bench {
namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr size_t kLuma = size_t{kWidth} * kHeight;
constexpr int kRate = 30;
constexpr size_t kMostWaiting = 5;

enum ClipKind { kPattern, kNatural };

std::unique_ptr<Clip> NewClip(int64_t kind) {
    if (kind == kPattern) {
        return std::make_unique<PatternClip>(kWidth, kHeight);
    }
    return std::make_unique<NaturalClip>(kWidth, kHeight);
}

// The encoder's clock.
LineFollower::Duration simulated_now{};

// The codec's host, with settings.
class SettingsHost {
public:
    SettingsHost() { AttachRuntime(&m_host); }
    SettingsHost(const SettingsHost&) = delete;
    SettingsHost& operator=(const SettingsHost&) = delete;
    ~SettingsHost() { DetachRuntime(); }
    void Set(const char* key, int64_t value) {
        m_host.SetProperty(key, CZUModData::FromText(std::to_string(value).c_str()));
    }

private:
    testing::QuietHost m_host;
};

class Decoder {
public:
    Decoder() : m_context(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))) {
        m_context->thread_count = 1;
        m_context->flags |= AV_CODEC_FLAG_LOW_DELAY;
        Require(avcodec_open2(m_context.get(), nullptr, nullptr) >= 0, "the decoder does not open");
    }
    // The luma's mean squared error of a picture of the stream against the picture that was encoded.
    double Error(std::vector<uint8_t>& stream, const uint8_t* original) {
        const size_t size = stream.size();
        stream.resize(size + AV_INPUT_BUFFER_PADDING_SIZE);
        m_packet->data = stream.data();
        m_packet->size = static_cast<int>(size);
        Require(avcodec_send_packet(m_context.get(), m_packet.get()) >= 0 &&
                    avcodec_receive_frame(m_context.get(), m_frame.get()) >= 0,
                "a picture does not decode");
        uint64_t sum = 0;
        for (int y = 0; y < kHeight; ++y) {
            const uint8_t* row = m_frame->data[0] + ptrdiff_t{y} * m_frame->linesize[0];
            for (int x = 0; x < kWidth; ++x, ++original) {
                const int difference = row[x] - *original;
                sum += static_cast<uint64_t>(difference * difference);
            }
        }
        return static_cast<double>(sum) / static_cast<double>(kLuma);
    }

private:
    AvOwner<AVCodecContext> m_context;
    AvOwner<AVFrame> m_frame{av_frame_alloc()};
    AvOwner<AVPacket> m_packet{av_packet_alloc()};
};

double ThreadsSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double Percentile(std::vector<double> values, double share) {
    const auto at = values.begin() + static_cast<ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

struct Sent {
    double size_bits;
    double latency_ms;  // on the line, from the picture's time to its last byte
    double error;
};

struct Stream {
    std::vector<Sent> pictures;
    double seconds = 0;  // of the clip
};

// Encodes a clip for a line of this many bits per second. If the encoder does not follow the line, its clock
// shows no gaps.
Stream SendClip(Clip& clip, int pictures, double line_bits, bool follows) {
    const CRefPtr_T<CVideoEncoder> encoder(new CVideoEncoder({}, [] { return simulated_now; }));
    const VideoInputFormat record{kWidth, kHeight, kWidth, 8, VideoFormatCode("NV12")};
    Decoder decoder;
    testing::EncodeCall call;
    std::vector<uint8_t> picture(kLuma * 3 / 2);
    std::deque<double> ends;  // when the messages that are not sent yet will be
    Stream stream;
    stream.seconds = static_cast<double>(pictures) / kRate;
    for (int i = 0; i < pictures; ++i) {
        const double now = static_cast<double>(i) / kRate;
        clip.Paint(picture.data(), static_cast<uint32_t>(i));
        while (!ends.empty() && ends.front() <= now) {
            ends.pop_front();
        }
        // The first is on its way and waits no more.
        if (ends.size() > kMostWaiting + 1) {
            continue;
        }
        const double time = follows ? now : static_cast<double>(stream.pictures.size()) / kRate;
        simulated_now = LineFollower::Duration(static_cast<int64_t>(time * 1e6));
        call.SetInput(picture.data(), picture.size());
        encoder->SetInputFormat(&record);
        Require(encoder->Encode(&call), "the codec fails");
        const double bits = 8.0 * static_cast<double>(call.output.size());
        ends.push_back((ends.empty() ? now : ends.back()) + bits / line_bits);
        stream.pictures.push_back(
            {bits, (ends.back() - now) * 1e3, decoder.Error(call.output, picture.data())});
    }
    return stream;
}

template <class Field>
std::vector<double> Values(const Stream& stream, Field field) {
    std::vector<double> values;
    for (const Sent& sent : stream.pictures) {
        values.push_back(sent.*field);
    }
    return values;
}

double Mean(const std::vector<double>& values) {
    double sum = 0;
    for (const double value : values) {
        sum += value;
    }
    return sum / static_cast<double>(values.size());
}

double Decibel(double error) {
    return 10 * std::log10(255.0 * 255.0 / error);
}

double Decibel(const Stream& stream) {
    return Decibel(Mean(Values(stream, &Sent::error)));
}

// zu.codec.buffer: the largest picture, how long it takes on a line of the stream's rate, and the quality.
void Buffer(benchmark::State& state) {
    SettingsHost host;
    host.Set("zu.codec.buffer", state.range(1));
    for (auto _ : state) {
        const auto clip = NewClip(state.range(0));
        const Stream stream = SendClip(*clip, 180, 4'147'200, false);
        const std::vector<double> sizes = Values(stream, &Sent::size_bits);
        state.counters["psnr_db"] = Decibel(stream);
        state.counters["first_db"] = Decibel(stream.pictures.front().error);
        state.counters["worst_db"] = Decibel(Percentile(Values(stream, &Sent::error), 1));
        state.counters["largest_kB"] = Percentile(sizes, 1) / 8e3;
        state.counters["largest_ms"] = Percentile(sizes, 1) / 4147.2;
        state.counters["late_ms"] = Percentile(Values(stream, &Sent::latency_ms), 1);
        state.counters["Mbit_s"] = Mean(sizes) * kRate / 1e6;
    }
}
BENCHMARK(Buffer)
    ->ArgNames({"natural", "ms"})
    ->ArgsProduct({{kPattern, kNatural}, {50, 100, 150, 200, 1000}})
    ->Iterations(1);

// One of several encoders of the same pictures.
struct ThreadsRun {
    int64_t threads;
    CRefPtr_T<CVideoEncoder> encoder{new CVideoEncoder({}, [] { return simulated_now; })};
    testing::EncodeCall call{};
    std::vector<double> seconds{};
    std::vector<double> processor_seconds{};
    double bytes = 0;
};

// The median of the ratios of neighbouring values.
double MedianRatio(const std::vector<double>& values, const std::vector<double>& others) {
    std::vector<double> ratios;
    for (size_t i = 0; i < values.size(); ++i) {
        ratios.push_back(values[i] / others[i]);
    }
    return Percentile(std::move(ratios), 0.5);
}

// zu.codec.threads: time of a call, processor time and size with several threads, divided by those with one.
// Every picture is encoded with each number of threads, in changing order.
void Threads(benchmark::State& state) {
    constexpr int kPictures = 180;
    const VideoInputFormat record{kWidth, kHeight, kWidth, 8, VideoFormatCode("NV12")};
    SettingsHost host;
    for (auto _ : state) {
        const auto clip = NewClip(state.range(0));
        std::array<ThreadsRun, 3> runs{{{1}, {2}, {4}}};
        std::vector<uint8_t> picture(kLuma * 3 / 2);
        for (int i = 0; i < kPictures; ++i) {
            clip->Paint(picture.data(), static_cast<uint32_t>(i));
            simulated_now = LineFollower::Duration(int64_t{1'000'000} * i / kRate);
            for (size_t turn = 0; turn < runs.size(); ++turn) {
                ThreadsRun& run = runs.at((static_cast<size_t>(i) + turn) % runs.size());
                host.Set("zu.codec.threads", run.threads);
                run.call.SetInput(picture.data(), picture.size());
                run.encoder->SetInputFormat(&record);
                const double processor_before = ThreadsSeconds();
                auto encode = [&] { Require(run.encoder->Encode(&run.call), "the codec fails"); };
                run.seconds.push_back(SecondsOf(encode));
                run.processor_seconds.push_back(ThreadsSeconds() - processor_before);
                run.bytes += static_cast<double>(run.call.output.size());
            }
        }
        const ThreadsRun& one = runs.front();
        state.counters["encode_ms"] = 1e3 * Percentile(one.seconds, 0.5);
        for (size_t i = 1; i < runs.size(); ++i) {
            const ThreadsRun& run = runs.at(i);
            const std::string of = std::to_string(run.threads) + "_threads";
            state.counters["encode_" + of] = MedianRatio(run.seconds, one.seconds);
            state.counters["processor_" + of] = MedianRatio(run.processor_seconds, one.processor_seconds);
            state.counters["size_" + of] = run.bytes / one.bytes;
        }
    }
}
BENCHMARK(Threads)->ArgName("natural")->Arg(kPattern)->Arg(kNatural)->Iterations(1);

// A line slower than the stream, with and without the following of the line.
void SlowLine(benchmark::State& state) {
    SettingsHost host;
    for (auto _ : state) {
        const auto clip = NewClip(kNatural);
        const Stream stream =
            SendClip(*clip, 300, static_cast<double>(state.range(0)) * 1e3, state.range(1) != 0);
        const std::vector<double> latencies = Values(stream, &Sent::latency_ms);
        state.counters["pictures_s"] = static_cast<double>(stream.pictures.size()) / stream.seconds;
        state.counters["psnr_db"] = Decibel(stream);
        state.counters["median_ms"] = Percentile(latencies, 0.5);
        state.counters["p99_ms"] = Percentile(latencies, 0.99);
    }
}
BENCHMARK(SlowLine)
    ->ArgNames({"kbit_s", "follows"})
    ->ArgsProduct({{4000, 2000, 1000, 500}, {0, 1}})
    ->Iterations(1);

}  // namespace
}  // namespace zumod::bench
