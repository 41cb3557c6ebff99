// The cost of a virtual camera: painting a frame and delivering it to a program, compared with writing the
// frame once into memory.
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/paired.h"
#include "vcam/model/buffer_pool.h"
#include "vcam/model/camera_option.h"
#include "vcam/picture/jpeg_pattern.h"
#include "vcam/picture/pattern.h"
#include "vcam/testing/model_file.h"

namespace zumod::vcam {
namespace {

constexpr uint32_t kBuffers = 4;
constexpr double kLimit = 1.2;

// Painting into each buffer, compared with copying a prepared frame into each buffer.
void PaintFrame(benchmark::State& state, uint32_t fourcc, uint32_t width, uint32_t height) {
    const PictureLayout layout = LayOut(fourcc, width, height);
    const Pattern pattern(layout, "BENCH");
    const std::vector<uint8_t> prepared = pattern.Still();
    const auto pool = BufferPool::Create(kBuffers, layout.sizeimage);
    uint32_t counter = 0;
    bench::RunPaired(
        state, kLimit,
        [&] {
            for (uint32_t i = 0; i < kBuffers; ++i) {
                ++counter;
                pattern.Paint(pool->At(i), {counter, uint64_t{counter} * 33333});
                benchmark::DoNotOptimize(pool->At(i));
            }
        },
        [&] {
            for (uint32_t i = 0; i < kBuffers; ++i) {
                std::memcpy(pool->At(i), prepared.data(), prepared.size());
                benchmark::DoNotOptimize(pool->At(i));
            }
        });
}

BENCHMARK_CAPTURE(PaintFrame, NV12_640x480, V4L2_PIX_FMT_NV12, 640, 480)->UseManualTime();
BENCHMARK_CAPTURE(PaintFrame, NV12_1280x720, V4L2_PIX_FMT_NV12, 1280, 720)->UseManualTime();
BENCHMARK_CAPTURE(PaintFrame, NV12_1920x1080, V4L2_PIX_FMT_NV12, 1920, 1080)->UseManualTime();
BENCHMARK_CAPTURE(PaintFrame, YU12_640x480, V4L2_PIX_FMT_YUV420, 640, 480)->UseManualTime();
BENCHMARK_CAPTURE(PaintFrame, YUYV_640x480, V4L2_PIX_FMT_YUYV, 640, 480)->UseManualTime();
BENCHMARK_CAPTURE(PaintFrame, BGR4_640x480, V4L2_PIX_FMT_BGR32, 640, 480)->UseManualTime();

// Painting and compressing a frame.
void PaintJpeg(benchmark::State& state, uint32_t width, uint32_t height) {
    const PictureLayout layout = LayOut(V4L2_PIX_FMT_MJPEG, width, height);
    const JpegPattern pattern(layout, "BENCH");
    std::vector<uint8_t> out(layout.sizeimage);
    std::vector<uint8_t> prepared(layout.sizeimage);
    prepared.resize(pattern.Paint(prepared.data(), {1, 33333}));
    uint32_t counter = 0;
    for (auto _ : state) {
        ++counter;
        benchmark::DoNotOptimize(pattern.Paint(out.data(), {counter, uint64_t{counter} * 33333}));
    }
    state.counters["bytes"] = static_cast<double>(prepared.size());
}

BENCHMARK_CAPTURE(PaintJpeg, 640x480, 640, 480);
BENCHMARK_CAPTURE(PaintJpeg, 1280x720, 1280, 720);

double ProcessorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Cameras that stream in this process and are all read by one thread.
class Cameras {
public:
    Cameras(unsigned count, const std::string& options) : m_boards(new CameraBoard[count]()) {
        for (unsigned i = 0; i < count; ++i) {
            CameraConfig config = ParseCamera(options).value();
            config.number = static_cast<int>(i);
            m_cameras.push_back(
                std::make_unique<Camera>(i, config, "bench." + std::to_string(getpid()), m_boards[i]));
            m_files.push_back(std::make_unique<ModelFile>(*m_cameras.back()));
            Start(*m_files.back());
        }
    }
    ~Cameras() {
        for (const auto& [memory, length] : m_mapped) {
            munmap(memory, length);
        }
    }

    void Stop() {
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        for (const auto& file : m_files) {
            file->Ioctl(VIDIOC_STREAMOFF, &type);
        }
    }

    // Takes this many frames from all cameras together and queues each buffer again. Returns the frames lost.
    uint64_t Take(uint64_t frames) {
        std::vector<pollfd> waiting;
        for (const auto& file : m_files) {
            waiting.push_back({file->Descriptor(), POLLIN, 0});
        }
        for (uint64_t taken = 0; taken < frames;) {
            poll(waiting.data(), waiting.size(), 1000);
            for (size_t i = 0; i < waiting.size(); ++i) {
                v4l2_buffer buffer = Buffer(0);
                if (waiting[i].revents != 0 && m_files[i]->Ioctl(VIDIOC_DQBUF, &buffer) == 0) {
                    m_files[i]->Ioctl(VIDIOC_QBUF, &buffer);
                    ++taken;
                }
            }
        }
        uint64_t lost = 0;
        for (const auto& camera : m_cameras) {
            lost += camera->Status().dropped;
        }
        return lost;
    }

private:
    static v4l2_buffer Buffer(uint32_t index) {
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = index;
        return buffer;
    }

    void Start(ModelFile& file) {
        v4l2_requestbuffers request{};
        request.count = kBuffers;
        request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        request.memory = V4L2_MEMORY_MMAP;
        file.Ioctl(VIDIOC_REQBUFS, &request);
        for (uint32_t i = 0; i < request.count; ++i) {
            v4l2_buffer buffer = Buffer(i);
            file.Ioctl(VIDIOC_QUERYBUF, &buffer);
            m_mapped.push_back({file.Map(buffer.length, PROT_READ, buffer.m.offset), buffer.length});
            file.Ioctl(VIDIOC_QBUF, &buffer);
        }
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        file.Ioctl(VIDIOC_STREAMON, &type);
    }

    std::unique_ptr<CameraBoard[]> m_boards;
    std::vector<std::unique_ptr<Camera>> m_cameras;
    std::vector<std::unique_ptr<ModelFile>> m_files;
    std::vector<std::pair<void*, size_t>> m_mapped;
};

// The minimum that delivers frames at a rate to a waiting reader: a thread that sleeps until each frame is
// due, writes it once into memory and sends a record.
void TakeMinimum(uint64_t frames, const FrameClock& clock, const std::vector<uint8_t>& frame,
                 BufferPool& pool) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        throw std::runtime_error("no socket pair");
    }
    std::thread giver([&] {
        prctl(PR_SET_TIMERSLACK, 1UL);
        for (uint64_t i = 0; i < frames; ++i) {
            std::this_thread::sleep_until(clock.Due(i));
            std::memcpy(pool.At(i % kBuffers), frame.data(), frame.size());
            const Record record{};
            send(pair[1], &record, sizeof record, MSG_NOSIGNAL);
        }
    });
    for (uint64_t i = 0; i < frames; ++i) {
        pollfd waiting{pair[0], POLLIN, 0};
        poll(&waiting, 1, -1);
        Record record{};
        recv(pair[0], &record, sizeof record, 0);
        benchmark::DoNotOptimize(record);
    }
    giver.join();
    close(pair[0]);
    close(pair[1]);
}

// The processor time of a delivered frame, both sides together, from the camera's clock until its buffer is
// queued again, compared with the minimum above.
void DeliverFrame(benchmark::State& state, uint32_t fps, uint32_t width, uint32_t height) {
    constexpr uint64_t kFrames = 300;
    const PictureLayout layout = LayOut(V4L2_PIX_FMT_NV12, width, height);
    const Pattern pattern(layout, "BENCH");
    const auto pool = BufferPool::Create(kBuffers, layout.sizeimage);
    const std::string options =
        "fps=" + std::to_string(fps) + ",sizes=" + std::to_string(width) + "x" + std::to_string(height);
    std::vector<double> ratios;
    std::vector<double> microseconds;
    for (auto _ : state) {
        Cameras cameras(1, options);
        cameras.Take(kFrames / 4);
        double before = ProcessorSeconds();
        cameras.Take(kFrames);
        const double delivering = ProcessorSeconds() - before;
        cameras.Stop();
        before = ProcessorSeconds();
        TakeMinimum(kFrames, FrameClock(std::chrono::steady_clock::now(), {fps, 1}), pattern.Still(), *pool);
        const double minimum = ProcessorSeconds() - before;
        ratios.push_back(delivering / minimum);
        microseconds.push_back(delivering / kFrames * 1e6);
        state.SetIterationTime(delivering);
    }
    state.counters["ratio"] = bench::Median(ratios);
    state.counters["limit"] = kLimit;
    state.counters["us_a_frame"] = bench::Median(microseconds);
}

BENCHMARK_CAPTURE(DeliverFrame, NV12_640x480, 500, 640, 480)->UseManualTime()->Iterations(5);
BENCHMARK_CAPTURE(DeliverFrame, NV12_1280x720, 500, 1280, 720)->UseManualTime()->Iterations(5);
BENCHMARK_CAPTURE(DeliverFrame, NV12_1920x1080, 300, 1920, 1080)->UseManualTime()->Iterations(5);

// Sixteen cameras at 30 frames per second: frames lost, and the share of one processor they use.
void SixteenCameras(benchmark::State& state) {
    constexpr unsigned kCount = 16;
    constexpr uint64_t kSeconds = 3;
    uint64_t lost = 0;
    double share = 0;
    for (auto _ : state) {
        Cameras cameras(kCount, "sizes=640x480,fps=30");
        const double before = ProcessorSeconds();
        lost += cameras.Take(kCount * 30 * kSeconds);
        share = (ProcessorSeconds() - before) / kSeconds;
    }
    state.counters["lost"] = static_cast<double>(lost);
    state.counters["processor_share"] = share;
}

BENCHMARK(SixteenCameras)->Iterations(1)->UseRealTime();

}  // namespace
}  // namespace zumod::vcam
