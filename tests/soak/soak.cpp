// Hours of use in minutes: the built module in this process, three virtual cameras and a peer that opens,
// closes and changes them at random, reads slowly or not at all and goes away in the middle of things, while
// cameras are unplugged, plugged in again and go wrong. Each minute, with nothing open, the process must hold
// what it held at the start.
//
// Usage: soak [--minutes N] [--seed N]. What is decided is decided by the seed alone; when it happens is not.
#include <dlfcn.h>
#include <fcntl.h>
#include <getopt.h>
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

#include "src/capture/linux_v4l2_camera_capture.h"
#include "tests/support/doubles/raw_host.h"
#include "tests/support/watch/mappings.h"
#include "tests/support/watch/module_calls.h"
#include "tests/support/watch/process_state.h"
#include "vcam/testing/preloaded_cameras.h"

namespace {

using namespace zumod::testing;
namespace faults = zumod::vcam::faults;
using raw::Bytes;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kCameras = 3;
constexpr unsigned kSecondsUntilStuck = 120;

struct Figures {
    uint64_t sessions = 0;
    uint64_t requests = 0;
    uint64_t faults = 0;
    uint64_t loads = 0;
    uint64_t kills = 0;
    uint64_t pauses = 0;
    std::atomic<uint64_t> opens{0};         // camera clients that were made
    std::atomic<uint64_t> starts{0};        // captures that started
    std::atomic<uint64_t> unmapped_not{0};  // starts that failed with buffers mapped, which stay so
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

// ---- The host: tables of functions, whose own work is not the module's.

struct Runtime {
    void* const* table;
    Figures* figures;
    raw::Value directory;
};

bool Begins(const char* text, const char* start) {
    return std::strncmp(text, start, std::strlen(start)) == 0;
}

int WriteLog(Runtime* self, uint32_t level, const char* text) {
    const InHost outside;
    if (level == 1 && Begins(text, "[cameraclient] OnProtoOpenCamera id")) {
        ++self->figures->opens;
    } else if (Begins(text, "[LinuxV4L2CameraCapture] startCapture success")) {
        ++self->figures->starts;
    } else if (level == 4 && (Begins(text, "[LinuxV4L2CameraCapture] query buf fail") ||
                              Begins(text, "[LinuxV4L2CameraCapture] qbuf fail"))) {
        ++self->figures->unmapped_not;
    }
    return 0;
}
void* GetProperty(Runtime* self, const char* key) {
    return std::strcmp(key, "zu.env.modules.dir") == 0 ? &self->directory : nullptr;
}
void* const kRuntimeTable[] = {raw::Slot(&WriteLog), nullptr, nullptr, raw::Slot(&GetProperty)};

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

void PutNumber(Bytes& bytes, size_t at, uint32_t number) {
    std::memcpy(bytes.data() + at, &number, sizeof number);
}

class Peer {
public:
    Peer(int fd, Figures& figures) : m_fd(fd), m_figures(figures) { fcntl(fd, F_SETFL, O_NONBLOCK); }
    ~Peer() { close(m_fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Takes what comes until the time is over. False when a message is none.
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

    // Reads on while the module takes its time to read.
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
                    "card=Three,formats=YUYV,sizes=160x120:320x240,fps=100"} {}

    bool Run(std::chrono::minutes length, uint64_t seed) {
        std::printf("soak: %ld minutes, seed %lu\n", length.count(), seed);
        close(open("/dev/video0",
                   O_RDONLY));  // the first call connects this process with its cameras, for good
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
        return reinterpret_cast<const raw::Descriptor* (*)()>(dlsym(m_library, "zumod_get_entrypoint"))();
    }

    void Unload() {
        if (m_library != nullptr) {
            const InModule inside;
            dlclose(m_library);
            m_library = nullptr;
        }
    }

    bool Session(std::chrono::milliseconds length) {
        alarm(kSecondsUntilStuck);
        ++m_figures.sessions;
        const raw::Descriptor* module = Module();
        raw::Policy policy{{raw::kPolicyTable, 1},
                           {{raw::kValueTable, 1}, 4, "IClientCameraPlugin", 0},
                           {{raw::kValueTable, 1}, 2, nullptr, 0x0002000000000000}};
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
                // Half a message, and then nothing more.
                good = peer.Send({16, 0, 0, 0, 3, 0, 0, 0, 1, 0});
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
            return Complain("a message that is none");
        }
        if (left != 0 || stream.count != 1 || policy.count != 1) {
            return Complain("a reference is left");
        }
        return true;
    }

    // One thing that a peer does or that happens to a camera, and some time.
    bool Act(Peer& peer) {
        const uint32_t id = m_random.Below(kCameras + 1);  // one more than there are
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
            case 6: {
                Bytes message = {4, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0};
                PutNumber(message, 8, id);
                good = peer.Send(message);
                break;
            }
            case 7:
                good = peer.Send({0, 0, 0, 0, 1, 0, 0, 0});
                break;
            case 8:
                good = peer.Send({0, 0, 0, 0, 10, 0, 0, 0}) && peer.Send(Request(8, id)) &&
                       peer.Send({2, 0, 0, 0, 99, 0, 0, 0, 1, 2});
                break;
            case 9:
                // Reads nothing for a while.
                ++m_figures.pauses;
                std::this_thread::sleep_for(std::chrono::milliseconds(m_random.Below(700)));
                break;
            default:
                GoWrong(m_cameras.At(m_random.Below(kCameras)));
                break;
        }
        return good && peer.ReadFor(std::chrono::milliseconds(m_random.Below(250)));
    }

    Bytes Request(uint8_t type, uint32_t id) {
        static constexpr uint32_t kSizes[][2] = {{640, 480}, {320, 240}, {160, 120}, {321, 241}};
        const auto& size = kSizes[m_random.Below(4)];
        Bytes message = {16, 0, 0, 0, type, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        PutNumber(message, 8, id);
        PutNumber(message, 12, size[0]);
        PutNumber(message, 16, size[1]);
        PutNumber(message, 20, 15 + m_random.Below(100));
        return message;
    }

    void GoWrong(zumod::vcam::Camera& camera) {
        ++m_figures.faults;
        const uint32_t frame = m_random.Below(5);
        switch (m_random.Below(12)) {
            case 0:
            case 1:
                camera.Inject(faults::Unplug());
                camera.Inject(faults::Replug(m_random.Below(1000)));
                break;
            case 2:
                camera.Inject(faults::Short(frame, 3));
                break;
            case 3:
                camera.Inject(faults::Zero(frame, 3));
                break;
            case 4:
                camera.Inject(faults::ErrorFlag(frame, 3));
                break;
            case 5:
                camera.Inject(faults::EintrStorm());
                break;
            case 6:
                camera.Inject(faults::Stall(m_random.Below(1500)));
                break;
            case 7:
                camera.Inject(faults::BadIndex(frame));
                break;
            case 8:
                camera.Inject(faults::Errno(VIDIOC_DQBUF, EIO));
                break;
            case 9:
                camera.Inject(faults::OpenBusy());
                break;
            case 10:
                camera.Inject(faults::BuffersBusy());
                break;
            default:
                camera.Inject(faults::FormatBusy());
                break;
        }
    }

    // Nothing open, nothing loaded, every camera there and whole.
    void Settle() {
        Unload();
        for (uint32_t i = 0; i < kCameras; ++i) {
            zumod::vcam::Camera& camera = m_cameras.At(i);
            camera.ClearFaults();
            camera.Inject(faults::Unplug());
            camera.Inject(faults::Replug());
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
        // A start that fails with buffers already mapped leaves these, deliberately.
        if (mappings < 0 || static_cast<uint64_t>(mappings) > 4 * m_figures.unmapped_not) {
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
    Runtime m_runtime{kRuntimeTable, &m_figures, {{raw::kValueTable, 1}, 4, ZU_TEST_MODULES_DIR "/plain", 0}};
    void* m_library = nullptr;
    std::ptrdiff_t m_threads = 0;
    std::ptrdiff_t m_descriptors = 0;
};

void SayStuck(int /*signal*/) {
    static constexpr char kText[] = "soak: FAILED: a session does not end\n";
    if (write(STDOUT_FILENO, kText, sizeof kText - 1) < 0) {
        // there is nobody else to tell
    }
    abort();
}

bool ReadNumber(const char* text, uint64_t& number) {
    char* end = nullptr;
    errno = 0;
    number = std::strtoull(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && text[0] != '-';
}

constexpr char kUsage[] =
    "Usage: soak [--minutes N] [--seed N] [--help]\n"
    "\n"
    "Uses the module at random for N minutes (default 10) and says each minute what is left behind.\n"
    "Needs the virtual cameras' library in LD_PRELOAD: scripts/soak sees to it.\n"
    "Exits 0 when nothing was, 1 when something was, 2 for a wrong option.\n";

}  // namespace

int main(int argc, char** argv) {
    uint64_t minutes = 10;
    uint64_t seed = std::random_device{}();
    static constexpr option kOptions[] = {{"minutes", required_argument, nullptr, 'm'},
                                          {"seed", required_argument, nullptr, 's'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    for (int given = 0; (given = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (given == 'h') {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (given == '?' || !ReadNumber(optarg, given == 'm' ? minutes : seed) || minutes == 0 ||
            minutes > 100'000) {
            std::fputs("soak: a wrong option (see --help)\n", stderr);
            return 2;
        }
    }
    if (optind != argc) {
        std::fputs("soak: takes no arguments (see --help)\n", stderr);
        return 2;
    }
    std::signal(SIGALRM, &SayStuck);
    Soak soak(seed);
    const int status = soak.Run(std::chrono::minutes(minutes), seed) ? 0 : 1;
    std::fflush(stdout);
    // What the cameras' library holds for this process is not the module's: nothing is torn down after this.
    _exit(status);
}
