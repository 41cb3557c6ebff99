// The plugin's two paths, requests in and frames out, and its idle cost.
#include <semaphore.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench/paired.h"
#include "src/base/mem_alloctor_ex.h"
#include "src/plugin/channel_io.h"
#include "src/plugin/client_camera.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/socket_stream.h"

namespace zumod::bench {
namespace {

using Clock = std::chrono::steady_clock;
using testing::SocketStream;

// ---- Receiving ----

// A socket pair whose peer writes the same bytes repeatedly on a separate thread.
class Feed {
public:
    Feed(const std::vector<uint8_t>& bytes, int times) {
        int ends[2];
        Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "there is no socket pair");
        m_stream = CRefPtr_T<IChannelStream>(new SocketStream(ends[0]));
        m_writer = std::thread([&bytes, times, fd = ends[1]] {
            for (int i = 0; i < times; ++i) {
                for (size_t done = 0; done < bytes.size();) {
                    const ssize_t count = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
                    Require(count > 0, "the socket is closed");
                    done += static_cast<size_t>(count);
                }
            }
            close(fd);
        });
    }
    ~Feed() { m_writer.join(); }

    IChannelStream& Stream() { return *m_stream; }

private:
    CRefPtr_T<IChannelStream> m_stream;
    std::thread m_writer;
};

class NoHandlers final : public CameraMessageSeparation {};

bool ReadFully(IChannelStream& stream, uint8_t* bytes, uint64_t size) {
    for (uint64_t done = 0; done < size;) {
        unsigned long count = 0;
        if (stream.Read(bytes + done, size - done, &count) != 0) {
            return false;
        }
        done += count;
    }
    return true;
}

void ReadBare(IChannelStream& stream) {
    uint8_t header[8];
    while (ReadFully(stream, header, sizeof header)) {
        uint32_t length = 0;
        std::memcpy(&length, header, sizeof length);
        auto* message = static_cast<uint8_t*>(std::malloc(sizeof header + length));
        std::memcpy(message, header, sizeof header);
        const bool complete = ReadFully(stream, message + sizeof header, length);
        benchmark::DoNotOptimize(message);
        std::free(message);
        if (!complete) {
            return;
        }
    }
}

void ReceiveLoop(benchmark::State& state) {
    const auto length = static_cast<uint32_t>(state.range(0));
    const auto messages = static_cast<int>(state.range(1));
    std::vector<uint8_t> message(8 + size_t{length}, 0x55);
    std::memcpy(message.data(), &length, sizeof length);
    message[4] = 99;
    const CRefPtr_T<IMemAlloctor> alloctor(new CMemAlloctorEx<CMemBuffer>);
    NoHandlers handlers;
    RunPaired(
        state, 1.10,
        [&] {
            Feed feed(message, messages);
            ServePeer(feed.Stream(), *alloctor, handlers);
        },
        [&] {
            Feed feed(message, messages);
            ReadBare(feed.Stream());
        });
}
BENCHMARK(ReceiveLoop)->Args({64, 20000})->Args({64 << 10, 2000})->Args({4 << 20, 40})->UseManualTime();

// ---- Sending ----

constexpr size_t kFrameSize = 20 << 10;

// Copies the bytes as a socket does, and records when a message was written.
class TimedStream final : public CCounted_T<IChannelStream> {
public:
    TimedStream() { sem_init(&m_written, 0, 0); }
    ~TimedStream() override { sem_destroy(&m_written); }
    int Read(void*, unsigned long, unsigned long*) override { return -1; }
    int Write(const void* data, unsigned long size, unsigned long* done) override {
        std::memcpy(m_sink, data, size);
        *done = size;
        m_time = Clock::now();
        sem_post(&m_written);
        return 0;
    }
    Clock::time_point WaitWritten() {
        sem_wait(&m_written);
        return m_time;
    }

private:
    sem_t m_written;
    Clock::time_point m_time;
    uint8_t m_sink[16 + kFrameSize];
};

// The hand-written minimum: one malloc, one copy, one semaphore, one thread that writes.
class BareSender {
public:
    explicit BareSender(IChannelStream& stream) : m_stream(stream) {
        sem_init(&m_items, 0, 0);
        m_thread = std::thread([this] { Loop(); });
    }
    ~BareSender() {
        sem_post(&m_items);
        m_thread.join();
        sem_destroy(&m_items);
    }
    void Send(const void* data, size_t size) {
        m_message = static_cast<uint8_t*>(std::malloc(16 + size));
        std::memset(m_message, 0, 16);
        std::memcpy(m_message + 16, data, size);
        m_size = 16 + size;
        sem_post(&m_items);
    }

private:
    void Loop() {
        for (;;) {
            sem_wait(&m_items);
            if (m_message == nullptr) {
                return;
            }
            unsigned long done = 0;
            uint8_t* message = std::exchange(m_message, nullptr);
            m_stream.Write(message, m_size, &done);
            std::free(message);
        }
    }

    IChannelStream& m_stream;
    sem_t m_items;
    uint8_t* m_message = nullptr;
    size_t m_size = 0;
    std::thread m_thread;
};

double Percentile(std::vector<double> values, double part) {
    const auto at =
        values.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

void FrameToLastByte(benchmark::State& state) {
    testing::RecordingHost host;
    AttachRuntime(&host);
    const std::vector<uint8_t> frame(kFrameSize, 0x42);
    const CRefPtr_T<ClientCamera> plugin(new ClientCamera);
    const CRefPtr_T<TimedStream> stream(new TimedStream);
    plugin->SetChannelStream(stream.Get());
    plugin->Run();
    const CRefPtr_T<TimedStream> bare_stream(new TimedStream);
    BareSender bare(*bare_stream);

    std::vector<double> subject;
    std::vector<double> minimum;
    for (auto _ : state) {
        auto start = Clock::now();
        plugin->OnVideoPacket(1, frame.data(), frame.size());
        const double seconds = std::chrono::duration<double>(stream->WaitWritten() - start).count();
        subject.push_back(seconds);
        start = Clock::now();
        bare.Send(frame.data(), frame.size());
        minimum.push_back(std::chrono::duration<double>(bare_stream->WaitWritten() - start).count());
        state.SetIterationTime(seconds);
    }
    Report(state, "ratio", Percentile(subject, 0.5) / Percentile(minimum, 0.5), 1.10);
    Report(state, "ratio_p99", Percentile(subject, 0.99) / Percentile(minimum, 0.99), 1.10);
    plugin->ExitInstance();
    DetachRuntime();
}
BENCHMARK(FrameToLastByte)->UseManualTime()->Iterations(20000);

// ---- Idle ----

// The kernel's statistics of one thread of this process.
struct ThreadStatistics {
    explicit ThreadStatistics(int id) {
        const std::string directory = "/proc/self/task/" + std::to_string(id);
        std::ifstream status(directory + "/status");
        for (std::string word; status >> word;) {
            if (word == "voluntary_ctxt_switches:") {
                status >> wake_ups;
            }
        }
        std::ifstream schedstat(directory + "/schedstat");
        schedstat >> run_nanoseconds;
    }
    double wake_ups = 0;
    double run_nanoseconds = 0;
};

int NewestThread() {
    int newest = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        newest = std::max(newest, std::stoi(entry.path().filename().string()));
    }
    return newest;
}

void Idle(benchmark::State& state) {
    testing::RecordingHost host;
    AttachRuntime(&host);
    const CRefPtr_T<ClientCamera> plugin(new ClientCamera);
    // Twice: a thread that survived a reset must be as idle as a new one.
    plugin->Run();
    const int thread = NewestThread();
    plugin->Run();
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    for (auto _ : state) {
        const ThreadStatistics before(thread);
        const auto start = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(10));
        const ThreadStatistics after(thread);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(seconds);
        Report(state, "wake_ups_per_second", (after.wake_ups - before.wake_ups) / seconds, 2);
        state.counters["processor_time_ppm"] =
            (after.run_nanoseconds - before.run_nanoseconds) / seconds / 1000.0;
    }
    plugin->ExitInstance();
    DetachRuntime();
}
BENCHMARK(Idle)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace zumod::bench
