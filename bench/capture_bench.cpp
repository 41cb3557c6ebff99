// What a captured frame costs on its way from the camera to the socket, with an encoder that returns a
// kilobyte at once, beside a bare loop: select, dequeue, write a kilobyte, queue. The cameras are virtual
// ones in this process, so the program runs with their preload library; what painting costs is on other
// threads and not counted.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "bench/paired.h"
#include "loader/mod_data.h"
#include "plugin/client_camera.h"
#include "tests/support/recording_host.h"
#include "tests/support/socket_stream.h"
#include "vcam/preloaded_cameras.h"

namespace zumod::bench {
namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr size_t kEncodedSize = 1024;
constexpr std::chrono::seconds kSpan{4};
const char* const kCamera = "formats=NV12,sizes=1280x720,fps=30";

// Reads and counts what arrives at the peer's end, and throws it away.
class Drain {
public:
    explicit Drain(int fd) : m_fd(fd), m_thread([this] { Loop(); }) {}
    ~Drain() {
        shutdown(m_fd, SHUT_RDWR);
        m_thread.join();
        close(m_fd);
    }
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

    uint64_t Bytes() const { return m_bytes.load(); }

private:
    void Loop() {
        std::vector<uint8_t> bytes(1 << 16);
        for (ssize_t count = 0; (count = recv(m_fd, bytes.data(), bytes.size(), 0)) > 0;) {
            m_bytes += static_cast<uint64_t>(count);
        }
    }

    const int m_fd;
    std::atomic<uint64_t> m_bytes{0};
    std::thread m_thread;
};

std::set<int> Threads() {
    std::set<int> threads;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        threads.insert(std::stoi(entry.path().filename().string()));
    }
    return threads;
}

// Processor time of these threads so far, by the kernel's books.
double SecondsOf(const std::set<int>& threads) {
    double nanoseconds = 0;
    for (const int thread : threads) {
        std::ifstream books("/proc/self/task/" + std::to_string(thread) + "/schedstat");
        double each = 0;
        books >> each;
        nanoseconds += each;
    }
    return nanoseconds / 1e9;
}

struct Cost {
    double seconds_a_frame;
    double frames;
};

// The plugin with this many open cameras: its send thread and its capture threads together.
Cost MeasurePlugin(int cameras) {
    testing::RecordingHost host;
    host.SetProperty(kEnvModulesDir, CZUModData::FromText(ZU_BENCH_MODULES_DIR));
    AttachRuntime(&host);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        std::abort();
    }
    Cost cost{};
    {
        const Drain drain(ends[1]);
        const std::set<int> others = Threads();
        const CRefPtr_T<ClientCamera> plugin(new ClientCamera);
        plugin->Run();  // without a stream: starts the send thread
        plugin->SetChannelStream(CRefPtr_T<IChannelStream>(new testing::SocketStream(ends[0])).Get());
        for (int id = 0; id < cameras; ++id) {
            const uint32_t message[] = {16, kOpenCamera, static_cast<uint32_t>(id), kWidth, kHeight, 30};
            plugin->OnMessage(reinterpret_cast<const uint8_t*>(message), sizeof message, nullptr);
        }
        std::set<int> own;
        for (const int thread : Threads()) {
            if (others.count(thread) == 0) {
                own.insert(thread);
            }
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const double seconds = SecondsOf(own);
        const uint64_t bytes = drain.Bytes();
        std::this_thread::sleep_for(kSpan);
        cost.frames = static_cast<double>(drain.Bytes() - bytes) / (16 + kEncodedSize);
        cost.seconds_a_frame = (SecondsOf(own) - seconds) / cost.frames;
        plugin->ExitInstance();
    }
    DetachRuntime();
    return cost;
}

// The bare loop on one camera.
Cost MeasureBare() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        std::abort();
    }
    const Drain drain(ends[1]);
    const int camera = open("/dev/video0", O_RDWR | O_NONBLOCK);
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = kWidth;
    format.fmt.pix.height = kHeight;
    format.fmt.pix.pixelformat = V4L2_PIX_FMT_NV12;
    v4l2_requestbuffers request{};
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    request.count = 4;
    if (ioctl(camera, VIDIOC_S_FMT, &format) != 0 || ioctl(camera, VIDIOC_REQBUFS, &request) != 0) {
        std::abort();
    }
    std::vector<std::pair<void*, size_t>> pool;
    v4l2_buffer buffer{};
    for (uint32_t index = 0; index < request.count; ++index) {
        buffer = {};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = index;
        ioctl(camera, VIDIOC_QUERYBUF, &buffer);
        pool.emplace_back(
            mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, camera, buffer.m.offset),
            buffer.length);
        ioctl(camera, VIDIOC_QBUF, &buffer);
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ioctl(camera, VIDIOC_STREAMON, &type);

    Cost cost{};
    const uint8_t encoded[kEncodedSize] = {};
    const auto start = std::chrono::steady_clock::now();
    timespec warm{};
    timespec end{};
    double frames = 0;
    bool measuring = false;
    for (;;) {
        const auto elapsed = std::chrono::steady_clock::now() - start;
        if (!measuring && elapsed > std::chrono::seconds(1)) {
            measuring = true;
            frames = 0;
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &warm);
        }
        if (elapsed > std::chrono::seconds(1) + kSpan) {
            break;
        }
        fd_set set;
        FD_ZERO(&set);
        FD_SET(camera, &set);
        timeval timeout{1, 0};
        if (select(camera + 1, &set, nullptr, nullptr, &timeout) <= 0) {
            continue;
        }
        buffer = {};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        if (ioctl(camera, VIDIOC_DQBUF, &buffer) != 0) {
            continue;
        }
        if (send(ends[0], encoded, sizeof encoded, MSG_NOSIGNAL) < 0) {
            std::abort();
        }
        ioctl(camera, VIDIOC_QBUF, &buffer);
        ++frames;
    }
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
    cost.frames = frames;
    cost.seconds_a_frame = (static_cast<double>(end.tv_sec - warm.tv_sec) +
                            static_cast<double>(end.tv_nsec - warm.tv_nsec) / 1e9) /
                           frames;
    ioctl(camera, VIDIOC_STREAMOFF, &type);
    for (const auto& [address, length] : pool) {
        munmap(address, length);
    }
    close(camera);
    close(ends[0]);
    return cost;
}

void ProcessorTimeAFrame(benchmark::State& state) {
    const vcam::PreloadedCameras cameras{kCamera};
    std::vector<double> ratios;
    std::vector<double> more;
    for (auto _ : state) {
        const Cost bare = MeasureBare();
        const Cost plugin = MeasurePlugin(1);
        ratios.push_back(plugin.seconds_a_frame / bare.seconds_a_frame);
        more.push_back((plugin.seconds_a_frame - bare.seconds_a_frame) * 1e6);
        state.SetIterationTime(plugin.seconds_a_frame);
        state.counters["frames"] = plugin.frames;
    }
    state.counters["ratio"] = Median(ratios);
    state.counters["limit"] = 1.5;
    state.counters["more_us"] = Median(more);
}
BENCHMARK(ProcessorTimeAFrame)->UseManualTime()->Iterations(5)->Unit(benchmark::kMicrosecond);

void ManyCamerasAgainstOne(benchmark::State& state) {
    const vcam::PreloadedCameras cameras{kCamera, kCamera, kCamera, kCamera, kCamera, kCamera,
                                         kCamera, kCamera, kCamera, kCamera, kCamera, kCamera,
                                         kCamera, kCamera, kCamera, kCamera};
    std::vector<double> ratios;
    for (auto _ : state) {
        const Cost one = MeasurePlugin(1);
        const Cost many = MeasurePlugin(static_cast<int>(state.range(0)));
        ratios.push_back(many.seconds_a_frame / one.seconds_a_frame);
        state.SetIterationTime(many.seconds_a_frame);
        state.counters["frames"] = many.frames;
    }
    state.counters["ratio"] = Median(ratios);
    state.counters["limit"] = 1.1;
}
BENCHMARK(ManyCamerasAgainstOne)
    ->Arg(4)
    ->Arg(8)
    ->Arg(16)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace zumod::bench
