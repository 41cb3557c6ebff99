// What the capture benchmarks compare: the plugin with open cameras, and a bare loop on a camera, each
// writing a kilobyte a frame into a socket whose other end reads it away. The cameras are virtual ones in
// this very process; what painting costs is on threads of theirs and not counted.
#pragma once

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/stamped_packet.h"
#include "src/plugin/client_camera.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/socket_stream.h"
#include "zumod/values.h"

namespace zumod::bench {

struct VideoMode {
    int width;
    int height;
    int fps;
};

inline void Require(bool good) {
    if (!good) {
        std::abort();
    }
}

inline std::set<int> Threads() {
    std::set<int> threads;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        threads.insert(std::stoi(entry.path().filename().string()));
    }
    return threads;
}

// Those that are there now and were not before.
inline std::set<int> ThreadsSince(const std::set<int>& before) {
    std::set<int> threads;
    for (const int thread : Threads()) {
        if (before.count(thread) == 0) {
            threads.insert(thread);
        }
    }
    return threads;
}

// Processor time of these threads so far, by the kernel's books.
inline double ProcessorSeconds(const std::set<int>& threads) {
    double nanoseconds = 0;
    for (const int thread : threads) {
        std::ifstream books("/proc/self/task/" + std::to_string(thread) + "/schedstat");
        double each = 0;
        books >> each;
        nanoseconds += each;
    }
    return nanoseconds / 1e9;
}

// The peer's end: reads what arrives and throws it away. With a callback it also takes the messages apart,
// each the head of 16 bytes and a kilobyte.
class Drain {
public:
    static constexpr size_t kMessageSize = 16 + kEncodedSize;
    using OnMessage = std::function<void(uint32_t camera, const StampedPacket& packet)>;

    explicit Drain(int fd, OnMessage on_message = {})
        : m_fd(fd), m_on_message(std::move(on_message)), m_thread([this] { Loop(); }) {}
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
            held = m_on_message ? Dispatch(bytes, held + static_cast<size_t>(count)) : 0;
            m_bytes += static_cast<uint64_t>(count);
        }
    }

    // Returns how many bytes of an unfinished message are left, moved to the front. Answers to requests,
    // which come before a camera's first frame, are shorter than a frame and skipped.
    size_t Dispatch(std::vector<uint8_t>& bytes, size_t size) {
        size_t at = 0;
        while (size - at >= sizeof(_MESSAGE_HEADER)) {
            _MESSAGE_HEADER header{};
            std::memcpy(&header, &bytes[at], sizeof header);
            if (size - at < sizeof header + header.length) {
                break;
            }
            if (header.type == kVideoFrame) {
                uint32_t camera = 0;
                StampedPacket packet{};
                std::memcpy(&camera, &bytes[at + sizeof header], sizeof camera);
                std::memcpy(&packet, &bytes[at + 16], sizeof packet);
                m_on_message(camera, packet);
            }
            at += sizeof header + header.length;
        }
        std::memmove(bytes.data(), &bytes[at], size - at);
        return size - at;
    }

    const int m_fd;
    // Written by the draining thread, read by the measuring one: only how much it is matters.
    std::atomic<uint64_t> m_bytes{0};
    const OnMessage m_on_message;
    std::thread m_thread;
};

// The plugin, its send thread running, and cameras 0 to count - 1 open in one mode.
class PluginRun {
public:
    PluginRun(int cameras, VideoMode mode, const std::string& modules, IChannelStream* stream) {
        m_host.SetProperty(kEnvModulesDir, CZUModData::FromText(modules.c_str()));
        AttachRuntime(&m_host);
        const std::set<int> others = Threads();
        m_plugin = CRefPtr_T<ClientCamera>(new ClientCamera);
        m_plugin->Run();  // without a stream: starts the send thread
        m_plugin->SetChannelStream(stream);
        for (int id = 0; id < cameras; ++id) {
            const int32_t message[] = {16, kOpenCamera, id, mode.width, mode.height, mode.fps};
            m_plugin->OnMessage(reinterpret_cast<const uint8_t*>(message), sizeof message, nullptr);
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

// A streaming camera as a program without any library would have it.
class BareCamera {
public:
    BareCamera(const char* file, VideoMode mode) : m_fd(open(file, O_RDWR | O_NONBLOCK)) {
        v4l2_format format{};
        format.type = kType;
        format.fmt.pix.width = static_cast<uint32_t>(mode.width);
        format.fmt.pix.height = static_cast<uint32_t>(mode.height);
        format.fmt.pix.pixelformat = V4L2_PIX_FMT_NV12;
        v4l2_requestbuffers request{};
        request.type = kType;
        request.memory = V4L2_MEMORY_MMAP;
        request.count = 4;
        Require(m_fd >= 0 && ioctl(m_fd, VIDIOC_S_FMT, &format) == 0 &&
                ioctl(m_fd, VIDIOC_REQBUFS, &request) == 0);
        for (uint32_t index = 0; index < request.count; ++index) {
            v4l2_buffer buffer = NewBuffer();
            buffer.index = index;
            Require(ioctl(m_fd, VIDIOC_QUERYBUF, &buffer) == 0);
            void* const start = mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd,
                                     static_cast<off_t>(buffer.m.offset));
            Require(start != MAP_FAILED && ioctl(m_fd, VIDIOC_QBUF, &buffer) == 0);
            m_pool.emplace_back(start, buffer.length);
        }
        int type = kType;
        Require(ioctl(m_fd, VIDIOC_STREAMON, &type) == 0);
    }
    ~BareCamera() {
        int type = kType;
        ioctl(m_fd, VIDIOC_STREAMOFF, &type);
        for (const auto& [address, length] : m_pool) {
            munmap(address, length);
        }
        close(m_fd);
    }
    BareCamera(const BareCamera&) = delete;
    BareCamera& operator=(const BareCamera&) = delete;

    // Waits for the next frame, hands it over and gives its buffer back; whether there was one.
    template <class Take>
    bool OneFrame(Take take) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(m_fd, &set);
        timeval timeout{1, 0};
        if (select(m_fd + 1, &set, nullptr, nullptr, &timeout) <= 0) {
            return false;
        }
        v4l2_buffer buffer = NewBuffer();
        if (ioctl(m_fd, VIDIOC_DQBUF, &buffer) != 0) {
            return false;
        }
        take(static_cast<const uint8_t*>(m_pool[buffer.index].first));
        Require(ioctl(m_fd, VIDIOC_QBUF, &buffer) == 0);
        return true;
    }

private:
    static constexpr uint32_t kType = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    static v4l2_buffer NewBuffer() {
        v4l2_buffer buffer{};
        buffer.type = kType;
        buffer.memory = V4L2_MEMORY_MMAP;
        return buffer;
    }

    const int m_fd;
    std::vector<std::pair<void*, size_t>> m_pool;
};

// Two ends of a socket: one to write to, one for a Drain.
struct SocketPair {
    SocketPair() { Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0); }
    int ends[2];
};

}  // namespace zumod::bench
