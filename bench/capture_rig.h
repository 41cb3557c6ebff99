// The two sides that the capture benchmarks compare: the plugin with open cameras, and a bare loop on one
// camera. Each writes a kilobyte per frame to a socket whose other end discards it. The virtual cameras are
// in this process; they paint on separate threads, which are not counted.
//
// Thread rule: [benchmark thread], except where a class says otherwise.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/bare_camera.h"
#include "bench/paired.h"
#include "bench/picture_stamp.h"
#include "src/plugin/client_camera.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/socket_stream.h"
#include "zumod/camera_channel.h"
#include "zumod/values.h"

namespace zumod::bench {

inline std::set<int> Threads() {
    std::set<int> threads;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        threads.insert(std::stoi(entry.path().filename().string()));
    }
    return threads;
}

// The threads of this process that are not in `before`.
inline std::set<int> ThreadsSince(const std::set<int>& before) {
    std::set<int> threads;
    for (const int thread : Threads()) {
        if (before.count(thread) == 0) {
            threads.insert(thread);
        }
    }
    return threads;
}

// The processor time of these threads so far, from the kernel's statistics.
inline double ProcessorSeconds(const std::set<int>& threads) {
    double nanoseconds = 0;
    for (const int thread : threads) {
        std::ifstream schedstat("/proc/self/task/" + std::to_string(thread) + "/schedstat");
        double each = 0;
        schedstat >> each;
        nanoseconds += each;
    }
    return nanoseconds / 1e9;
}

// A frame's message, as the plugin sends it.
inline constexpr size_t kStampAt = sizeof(_MESSAGE_HEADER) + sizeof(VideoFrameHeader);
inline constexpr size_t kMessageSize = kStampAt + kEncodedSize;

// The peer's end: discards what arrives. With a callback it also parses the messages and reports each frame,
// on its own thread.
class Drain {
public:
    using OnFrame = std::function<void(uint32_t camera, const StampedPacket& packet)>;

    explicit Drain(int fd, OnFrame on_frame = {})
        : m_fd(fd), m_on_frame(std::move(on_frame)), m_thread([this] { Loop(); }) {}
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
        size_t held = 0;
        for (ssize_t count = 0; (count = recv(m_fd, bytes.data() + held, bytes.size() - held, 0)) > 0;) {
            held = m_on_frame ? Dispatch(bytes, held + static_cast<size_t>(count)) : 0;
            m_bytes += static_cast<uint64_t>(count);
        }
    }

    // Moves the bytes of an unfinished message to the front and returns how many there are.
    size_t Dispatch(std::vector<uint8_t>& bytes, size_t size) {
        size_t at = 0;
        while (size - at >= sizeof(_MESSAGE_HEADER)) {
            const _MESSAGE_HEADER header = ReadHeader(&bytes[at]);
            const size_t length = sizeof header + header.length;
            if (size - at < length) {
                break;
            }
            if (header.type == kVideoFrame) {
                const uint8_t* body = &bytes[at + sizeof header];
                m_on_frame(ReadRecord<VideoFrameHeader>(body).id,
                           ReadRecord<StampedPacket>(body + sizeof(VideoFrameHeader)));
            }
            at += length;
        }
        std::memmove(bytes.data(), &bytes[at], size - at);
        return size - at;
    }

    const int m_fd;
    // Written by the draining thread, read by the measuring one, which needs only the number.
    std::atomic<uint64_t> m_bytes{0};
    const OnFrame m_on_frame;
    std::thread m_thread;
};

// The plugin with a running send thread and with cameras 0 to `cameras` - 1 open in one mode.
class PluginRun {
public:
    PluginRun(int cameras, VideoMode mode, const std::string& modules, IChannelStream* stream) {
        m_host.SetProperty(kEnvModulesDir, CZUModData::FromText(modules.c_str()));
        AttachRuntime(&m_host);
        const std::set<int> others = Threads();
        m_plugin = CRefPtr_T<ClientCamera>(new ClientCamera);
        m_plugin->Run();  // returns at once without a stream, with the send thread started
        m_plugin->SetChannelStream(stream);
        for (int id = 0; id < cameras; ++id) {
            uint8_t message[sizeof(_MESSAGE_HEADER) + sizeof(FormatRequest)];
            WriteRecord(WriteHeader(message, kOpenCamera, sizeof(FormatRequest)),
                        FormatRequest{static_cast<uint32_t>(id), mode.width, mode.height, mode.fps});
            m_plugin->OnMessage(message, sizeof message, nullptr);
        }
        m_threads = ThreadsSince(others);
    }
    ~PluginRun() {
        m_plugin->ExitInstance();
        m_plugin = {};
        DetachRuntime();
    }
    PluginRun(const PluginRun&) = delete;
    PluginRun& operator=(const PluginRun&) = delete;

    // The send thread and the capture threads.
    const std::set<int>& OwnThreads() const { return m_threads; }

private:
    testing::RecordingHost m_host;
    CRefPtr_T<ClientCamera> m_plugin;
    std::set<int> m_threads;
};

// Two ends of a socket: one to write to, one for a Drain, which closes it.
struct SocketPair {
    SocketPair() { Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "there is no socket pair"); }
    int ends[2];
};

}  // namespace zumod::bench
