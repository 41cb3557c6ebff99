// The soak test: the built module in this process, three virtual cameras, and a peer that opens, closes and
// changes them at random, reads slowly or not at all and disconnects at any point. Meanwhile cameras are
// unplugged, plugged in again and made to fail. Once per minute everything is closed, and the process must
// hold the same threads, descriptors, mappings and heap as at the start, except for what the contract leaks.
//
// The seed determines every decision, but not when it is carried out.
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "common/command_line.h"
#include "src/capture/linux_v4l2_camera_capture.h"
#include "tests/support/doubles/raw_host.h"
#include "tests/support/watch/mappings.h"
#include "tests/support/watch/module_calls.h"
#include "tests/support/watch/process_state.h"
#include "tests/support/wire/camera_messages.h"
#include "vcam/testing/preloaded_cameras.h"

namespace {

using namespace zumod::testing;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kCameras = 3;
constexpr unsigned kSecondsForOneSession = 120;

struct Figures {
    uint64_t sessions = 0;
    uint64_t requests = 0;
    uint64_t faults = 0;
    uint64_t loads = 0;
    uint64_t kills = 0;
    uint64_t pauses = 0;
    std::atomic<uint64_t> opens{0};   // camera clients that were created
    std::atomic<uint64_t> starts{0};  // captures that started
    std::atomic<uint64_t> starts_that_leaked_mappings{0};
    uint64_t frames = 0;
    uint64_t replies = 0;
};

class Random {
public:
    explicit Random(uint64_t seed) : m_engine(seed) {}
    uint32_t Below(uint32_t bound) { return static_cast<uint32_t>(m_engine() % bound); }
    bool OneIn(uint32_t times) { return Below(times) == 0; }

private:
    std::mt19937_64 m_engine;
};

// ---- The host.

bool StartsWith(const char* text, const char* start) {
    return std::strncmp(text, start, std::strlen(start)) == 0;
}

void CountLine(Figures& figures, uint32_t level, const char* text) {
    const InHost outside;
    if (level == 1 && StartsWith(text, "[cameraclient] OnProtoOpenCamera id")) {
        ++figures.opens;
    } else if (StartsWith(text, "[LinuxV4L2CameraCapture] startCapture success")) {
        ++figures.starts;
    } else if (level == 4 && (StartsWith(text, "[LinuxV4L2CameraCapture] query buf fail") ||
                              StartsWith(text, "[LinuxV4L2CameraCapture] qbuf fail"))) {
        ++figures.starts_that_leaked_mappings;
    }
}

struct Stream : raw::Counted {
    int fd;
    std::mutex writing;
};
int ReadStream(Stream* self, void* data, unsigned long size, unsigned long* done) {
    const InHost outside;
    const ssize_t count = recv(self->fd, data, size, 0);
    *done = count > 0 ? static_cast<unsigned long>(count) : 0;
    return count > 0 ? 0 : -1;
}
int WriteStream(Stream* self, const void* data, unsigned long size, unsigned long* done) {
    const InHost outside;
    const std::lock_guard guard(self->writing);
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (*done = 0; *done < size;) {
        const ssize_t count = send(self->fd, bytes + *done, size - *done, MSG_NOSIGNAL);
        if (count <= 0) {
            return -1;
        }
        *done += static_cast<unsigned long>(count);
    }
    return 0;
}
void* const kStreamTable[] = {nullptr,
                              nullptr,
                              raw::Slot(&raw::CountUp),
                              raw::Slot(&raw::CountDown),
                              raw::Slot(&ReadStream),
                              raw::Slot(&WriteStream)};

// ---- The peer.

class Peer {
public:
    Peer(int fd, Figures& figures) : m_fd(fd), m_figures(figures) { fcntl(fd, F_SETFL, O_NONBLOCK); }
    ~Peer() { close(m_fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Reads until the time is over. Returns false after a malformed message.
    bool ReadFor(std::chrono::milliseconds time) {
        const auto end = Clock::now() + time;
        do {
            pollfd wait{m_fd, POLLIN, 0};
            poll(&wait, 1, 5);
            if (!ReadWhatIsThere()) {
                return false;
            }
        } while (Clock::now() < end);
        return true;
    }

    // Goes on reading while the module is slow to read.
    bool Send(const Bytes& bytes) {
        ++m_figures.requests;
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t count = send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count > 0) {
                sent += static_cast<size_t>(count);
            } else if (errno != EAGAIN) {
                return true;  // the module has ended its Run
            } else if (!ReadFor(std::chrono::milliseconds(5))) {
                return false;
            }
        }
        return true;
    }

    void StopSending() const { shutdown(m_fd, SHUT_WR); }

private:
    bool ReadWhatIsThere() {
        uint8_t piece[65536];
        for (ssize_t count = 0; (count = recv(m_fd, piece, sizeof piece, 0)) > 0;) {
            m_pending.insert(m_pending.end(), piece, piece + count);
        }
        size_t at = 0;
        while (m_pending.size() - at >= 8) {
            uint32_t length = 0;
            std::memcpy(&length, m_pending.data() + at, sizeof length);
            if (m_pending.size() - at < 8 + size_t{length}) {
                break;
            }
            if (!IsMessage(m_pending.data() + at, length)) {
                return false;
            }
            at += 8 + size_t{length};
        }
        m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(at));
        return true;
    }

    bool IsMessage(const uint8_t* message, uint32_t length) {
        if (message[4] == 7) {
            ++m_figures.frames;
            uint32_t id = 0;
            std::memcpy(&id, message + 8, sizeof id);
            return length == 12 && id < kCameras && std::memcmp(message + 16, "code", 4) == 0;
        }
        ++m_figures.replies;
        switch (message[4]) {
            case 2:
                return length >= 4 && length < 3 * 2000;
            case 5:
                return length == 8 && (message[8] == 1 || message[8] == 2 || message[8] == 4);
            case 11:
                return length == 4 && message[8] == 5;
            default:
                return false;
        }
    }

    const int m_fd;
    Figures& m_figures;
    Bytes m_pending;
};

// ---- One soak.

class Soak {
public:
    explicit Soak(uint64_t seed)
        : m_random(seed),
          m_cameras{"card=One,formats=NV12,sizes=640x480:320x240:160x120,fps=60",
                    "card=Two,formats=YUYV:YU12,sizes=320x240:640x480,fps=30:60,adjust=width",
                    "card=Three,formats=YUYV,sizes=160x120:320x240,fps=100"} {
        m_runtime.properties["zu.env.modules.dir"] = {
            {raw::kValueTable, 1}, 4, ZU_TEST_MODULES_DIR "/plain", 0};
        m_runtime.on_line = [this](uint32_t level, const char* text) { CountLine(m_figures, level, text); };
    }

    bool Run(std::chrono::minutes length, uint64_t seed) {
        std::printf("soak: %ld minutes, seed %lu\n", length.count(), seed);
        // The first call connects this process with its cameras, which takes descriptors.
        close(open("/dev/video0", O_RDONLY));
        Session(std::chrono::seconds(2));
        Settle();
        m_threads = CountThreads();
        m_descriptors = CountDescriptors();
        const auto start = Clock::now();
        bool good = IsQuiet(0);
        for (int minute = 1; good && minute <= length.count(); ++minute) {
            const auto end = start + std::chrono::minutes(minute);
            while (good && Clock::now() < end) {
                const std::chrono::milliseconds wanted(500 + m_random.Below(8000));
                const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
                good = Session(std::clamp(left, std::chrono::milliseconds(1), wanted));
            }
            Settle();
            good = IsQuiet(minute) && good;
        }
        std::printf("soak: %s\n", good ? "all as it should be" : "FAILED");
        return good;
    }

private:
    bool Complain(const std::string& text) {
        std::printf("soak: %s\n", text.c_str());
        return false;
    }

    const raw::Descriptor* Module() {
        if (m_library == nullptr) {
            const InModule inside;
            m_library = dlopen(ZU_MODULE_FILE, RTLD_NOW);
            if (m_library == nullptr) {
                std::fprintf(stderr, "soak: %s\n", dlerror());
                std::exit(1);
            }
            ++m_figures.loads;
        }
        return raw::EntryOf(m_library);
    }

    void Unload() {
        if (m_library != nullptr) {
            const InModule inside;
            dlclose(m_library);
            m_library = nullptr;
        }
    }

    bool Session(std::chrono::milliseconds length) {
        alarm(kSecondsForOneSession);
        ++m_figures.sessions;
        const raw::Descriptor* module = Module();
        raw::Policy policy = raw::PluginPolicy();
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            return Complain("no socket");
        }
        Stream stream{{kStreamTable, 1}, ends[0], {}};
        void* plugin = nullptr;
        {
            const InModule inside;
            module->attach_runtime(&m_runtime);
            if (module->create(&policy, &plugin) != 1) {
                return Complain("no plugin");
            }
            raw::Call<int>(plugin, 5, &stream);
        }
        std::thread run([plugin] {
            const InModule inside;
            raw::Call<int>(plugin, 6);
        });
        bool good = true;
        {
            Peer peer(ends[1], m_figures);
            const auto end = Clock::now() + length;
            while (good && Clock::now() < end) {
                good = Act(peer);
            }
            if (good && m_random.OneIn(3)) {
                // Half a message.
                Bytes half = OpenBytes(1);
                half.resize(10);
                good = peer.Send(half);
            }
            if (m_random.OneIn(3)) {
                peer.StopSending();
                good = peer.ReadFor(std::chrono::milliseconds(m_random.Below(300))) && good;
            }
            ++m_figures.kills;
        }
        run.join();
        int64_t left = 0;
        {
            const InModule inside;
            raw::Call<int>(plugin, 7);
            left = raw::Call<int64_t>(plugin, 3);
            module->detach_runtime();
        }
        close(ends[0]);
        if (m_random.OneIn(4)) {
            Unload();
        }
        if (!good) {
            return Complain("a malformed message");
        }
        if (left != 0 || stream.count != 1 || policy.count != 1) {
            return Complain("a reference is left");
        }
        return true;
    }

    // One action of a peer or one fault of a camera, and some time.
    bool Act(Peer& peer) {
        const uint32_t id = m_random.Below(kCameras + 1);  // one more than exist
        bool good = true;
        switch (m_random.Below(12)) {
            case 0:
            case 1:
            case 2:
                good = peer.Send(Request(3, id));
                break;
            case 3:
            case 4:
                good = peer.Send(Request(9, id));
                break;
            case 5:
            case 6:
                good = peer.Send(CloseBytes(id));
                break;
            case 7:
                good = peer.Send(kGetListBytes);
                break;
            case 8:
                good = peer.Send(kVersionRequestBytes) && peer.Send(Request(8, id)) &&
                       peer.Send(MessageBytes(99, {1, 2}));
                break;
            case 9:
                // Reads nothing for a time.
                ++m_figures.pauses;
                std::this_thread::sleep_for(std::chrono::milliseconds(m_random.Below(700)));
                break;
            default:
                InjectFault(m_cameras.At(m_random.Below(kCameras)));
                break;
        }
        return good && peer.ReadFor(std::chrono::milliseconds(m_random.Below(250)));
    }

    Bytes Request(uint8_t type, uint32_t id) {
        static constexpr uint32_t kSizes[][2] = {{640, 480}, {320, 240}, {160, 120}, {321, 241}};
        const auto& size = kSizes[m_random.Below(4)];
        const uint32_t fps = 15 + m_random.Below(100);
        return MessageBytes(type, Number32(id) + Number32(size[0]) + Number32(size[1]) + Number32(fps));
    }

    static void Inject(zumod::vcam::Camera& camera, const std::string& fault) {
        camera.Inject(zumod::vcam::ParseFault(fault).value());
    }

    void InjectFault(zumod::vcam::Camera& camera) {
        ++m_figures.faults;
        const std::string frame = std::to_string(m_random.Below(5));
        const std::string faults[] = {
            "short/" + frame + "/3",
            "zero/" + frame + "/3",
            // Far past the end of the process's mappings.
            "long/" + frame + "/3/4000000000",
            "error-flag/" + frame + "/3",
            "eintr-storm",
            "stall/" + std::to_string(m_random.Below(1500)),
            "bad-index/" + frame,
            "errno/DQBUF/EIO",
            "open-busy",
            "buffers-busy",
            "format-busy",
        };
        // Unplugging is as frequent as two of the others.
        const uint32_t chosen = m_random.Below(uint32_t{std::size(faults)} + 2);
        if (chosen < std::size(faults)) {
            Inject(camera, faults[chosen]);
        } else {
            Inject(camera, "unplug");
            Inject(camera, "replug/" + std::to_string(m_random.Below(1000)));
        }
    }

    // Closes and unloads everything, plugs every camera in and removes its faults.
    void Settle() {
        Unload();
        for (uint32_t i = 0; i < kCameras; ++i) {
            zumod::vcam::Camera& camera = m_cameras.At(i);
            camera.ClearFaults();
            Inject(camera, "unplug");
            Inject(camera, "replug");
            WaitUntil([&camera] { return camera.Number() >= 0; });
            camera.ClearFaults();
        }
    }

    bool IsQuiet(int minute) {
        size_t captures = 0;
        size_t pools = 0;
        size_t others = 0;
        std::vector<ModuleBlock> blocks(HeapOfModule().blocks + 16);
        const size_t count = std::min(ListHeapOfModule(blocks.data(), blocks.size()), blocks.size());
        for (size_t i = 0; i < count; ++i) {
            captures += blocks[i].size == kCaptureSize ? 1U : 0U;
            pools += blocks[i].size == kPoolSize ? 1U : 0U;
            others += blocks[i].size != kCaptureSize && blocks[i].size != kPoolSize ? 1U : 0U;
        }
        const size_t bytes = HeapOfModule().bytes;
        const bool threads = ThreadsComeTo(m_threads);
        const auto descriptors = CountDescriptors();
        const int64_t mappings = MappingsOfModule();
        const uint64_t opens = m_figures.opens;
        std::printf(
            "minute %d: %lu sessions, %lu loads, %lu requests, %lu opens, %lu starts, %lu frames, %lu "
            "replies, "
            "%lu pauses, %lu faults; threads %+ld, descriptors %+ld, mappings %ld, heap %zu bytes = %zu "
            "captures "
            "left deliberately + %zu buffer lists\n",
            minute, m_figures.sessions, m_figures.loads, m_figures.requests, opens, m_figures.starts.load(),
            m_figures.frames, m_figures.replies, m_figures.pauses, m_figures.faults,
            CountThreads() - m_threads, descriptors - m_descriptors, mappings, bytes, captures, pools);
        std::fflush(stdout);
        bool good = true;
        if (!threads) {
            good = Complain("threads are left");
        }
        if (descriptors != m_descriptors) {
            good = Complain("descriptors are left");
        }
        // Required by the contract: a start that fails with buffers already mapped leaks them.
        if (mappings < 0 || static_cast<uint64_t>(mappings) > 4 * m_figures.starts_that_leaked_mappings) {
            good = Complain("mappings are left");
        }
        if (captures != opens || pools > captures || others != 0 ||
            bytes != captures * kCaptureSize + pools * kPoolSize) {
            good = Complain("the heap holds more than the captures of " + std::to_string(opens) + " opens");
        }
        if (TimesMapped(ZU_MODULE_FILE) != 0) {
            good = Complain("the module is still mapped");
        }
        return good;
    }

    static constexpr size_t kCaptureSize = sizeof(zumod::LinuxV4L2CameraCapture);
    static constexpr size_t kPoolSize = 4 * (sizeof(void*) + sizeof(size_t));

    Random m_random;
    zumod::vcam::PreloadedCameras m_cameras;
    Figures m_figures;
    raw::Runtime m_runtime{raw::kRuntimeTable, {}, {}, {}};
    void* m_library = nullptr;
    std::ptrdiff_t m_threads = 0;
    std::ptrdiff_t m_descriptors = 0;
};

void ReportStuck(int /*signal*/) {
    static constexpr char kText[] = "soak: FAILED: a session does not end\n";
    if (write(STDOUT_FILENO, kText, sizeof kText - 1) < 0) {
        // There is nothing else to report it to.
    }
    abort();
}

}  // namespace

int main(int argc, char** argv) {
    int minutes = 10;
    uint64_t seed = std::random_device{}();
    CLI::App app("Uses the module at random and prints once per minute what is left behind.", "soak");
    app.set_help_flag("--help", "Print this text and exit");
    app.add_option("--minutes", minutes, "How long (default: 10)")
        ->type_name("N")
        ->check(CLI::Range(1, 100'000));
    app.add_option("--seed", seed, "The decisions of an earlier run, which prints it in its first line")
        ->type_name("N");
    app.footer(
        "LD_PRELOAD must name the virtual cameras' library, as in scripts/soak.\n"
        "Exits 0 if nothing is left behind, 1 otherwise, 2 for a wrong option.");
    if (const auto parsed = zumod::ParseCommandLine(app, argc, argv); !parsed) {
        return zumod::ReportError("soak", parsed.error());
    }
    std::signal(SIGALRM, &ReportStuck);
    Soak soak(seed);
    const int status = soak.Run(std::chrono::minutes(minutes), seed) ? 0 : 1;
    std::fflush(stdout);
    // Ends without destructors: the state that the cameras' library keeps is not under test.
    _exit(status);
}
