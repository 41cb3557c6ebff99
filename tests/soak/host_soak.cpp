// The soak test of the host: two hosts lend three virtual cameras to peers that come, ask for anything, read
// slowly or not at all, and leave or are killed at any point. Meanwhile cameras are unplugged, plugged in
// again and made to fail. One host runs all the time with its usual options; the other one starts anew each
// minute with other options. Once per minute all peers leave: each host must then serve a new peer, free its
// cameras, and hold the same threads and descriptors as at the start.
//
// The seed determines every decision, but not when it is carried out.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/command_line.h"
#include "common/unique_fd.h"
#include "common/unix_socket.h"
#include "tests/support/process/child_process.h"
#include "tests/support/process/work_directory.h"
#include "tests/support/watch/process_state.h"
#include "tests/support/wire/camera_messages.h"
#include "vcam/testing/preloaded_cameras.h"

namespace zumod::testing {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint32_t kCameras = 3;
constexpr size_t kMostPeers = 10;
constexpr size_t kMostPrograms = 2;
// How much more a host may hold after any number of peers, in KiB: what its allocator keeps for later.
constexpr long kMoreMemory = 64 * 1024;

class Random {
public:
    explicit Random(uint64_t seed) : m_engine(seed) {}
    uint32_t Below(uint32_t bound) { return static_cast<uint32_t>(m_engine() % bound); }
    bool OneIn(uint32_t times) { return Below(times) == 0; }
    template <class List>
    auto& OneOf(List& list) {
        return list[Below(static_cast<uint32_t>(std::size(list)))];
    }

private:
    std::mt19937_64 m_engine;
};

struct Figures {
    uint64_t peers = 0;
    uint64_t refused = 0;
    uint64_t requests = 0;
    uint64_t answers = 0;
    uint64_t notices = 0;
    uint64_t frames = 0;
    uint64_t stalls = 0;
    uint64_t programs = 0;
    uint64_t killed = 0;
    uint64_t faults = 0;
    uint64_t hosts = 0;
};

uint32_t NumberAt(const Bytes& bytes, size_t at) {
    return bytes[at] | uint32_t{bytes[at + 1]} << 8 | uint32_t{bytes[at + 2]} << 16 |
           uint32_t{bytes[at + 3]} << 24;
}

// ---- A peer in this process.

class Peer {
public:
    Peer(const std::string& path, Figures& figures)
        : m_figures(figures), m_socket(NewUnixSocket(SOCK_NONBLOCK)) {
        const auto address = UnixAddress::FromPath(path);
        m_is_open = address && address->Connect(m_socket) == 0;
        ++(m_is_open ? figures.peers : figures.refused);
    }

    bool IsOpen() const { return m_is_open; }
    uint64_t Frames() const { return m_frames; }
    // What is wrong with what it received; empty if nothing is.
    const std::string& Complaint() const { return m_complaint; }

    void Send(const Bytes& bytes) {
        ++m_figures.requests;
        if (bytes.size() == 24 && bytes[4] == 3) {
            m_asked_for.insert(NumberAt(bytes, 8));
        }
        // If nothing fits, the host is served too slowly by this machine, or it has closed: both show when
        // reading.
        if (send(m_socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(bytes.size())) {
            m_is_open = false;
        }
    }

    // Reads nothing until then.
    void Stall(Clock::time_point until) {
        ++m_figures.stalls;
        m_has_stalled = true;
        m_stalls_until = until;
    }

    // Reads what is there now.
    void Read() {
        if (!m_is_open || Clock::now() < m_stalls_until) {
            return;
        }
        uint8_t piece[32768];
        for (int i = 0; i < 16; ++i) {
            const ssize_t count = recv(m_socket.Get(), piece, sizeof piece, 0);
            if (count <= 0) {
                if (count < 0 && errno == EAGAIN) {
                    return;
                }
                OnEnd();
                return;
            }
            m_received.insert(m_received.end(), piece, piece + count);
            ReadMessages();
        }
    }

private:
    void OnEnd() {
        m_is_open = false;
        // A host says why it closes, and waits only so long for a peer that does not read.
        if (!m_has_notice && !m_has_stalled) {
            m_complaint = "a connection was closed without a notice";
        }
    }

    void ReadMessages() {
        while (m_received.size() >= 8) {
            const size_t size = 8 + size_t{NumberAt(m_received, 0)};
            if (m_received[5] != 0 || m_received[6] != 0 || m_received[7] != 0 || size > 4'000'000) {
                m_complaint = "a malformed header";
                m_is_open = false;
                return;
            }
            if (m_received.size() < size) {
                return;
            }
            const auto end = m_received.begin() + static_cast<std::ptrdiff_t>(size);
            OnMessage(Bytes(m_received.begin(), end));
            m_received.erase(m_received.begin(), end);
        }
    }

    void OnMessage(const Bytes& message) {
        const auto require = [&](bool condition) {
            if (!condition) {
                m_complaint = "a malformed message of type " + std::to_string(message[4]);
            }
        };
        switch (message[4]) {
            case 7:
                ++m_frames;
                ++m_figures.frames;
                require(message.size() > 16 && NumberAt(message, 12) == message.size() - 16);
                if (!m_asked_for.contains(NumberAt(message, 8))) {
                    m_complaint = "a frame of a camera that was not opened";
                }
                return;
            case 128:
                m_has_notice = true;
                ++m_figures.notices;
                require(message.size() <= 8 + 256);
                return;
            case 2:
                require(message.size() >= 12);
                break;
            case 5:
                require(message.size() == 16 && (message[8] == 1 || message[8] == 2 || message[8] == 4));
                break;
            default:
                require(message == kVersionReplyBytes);
        }
        ++m_figures.answers;
    }

    Figures& m_figures;
    const UniqueFd m_socket;
    bool m_is_open = false;
    bool m_has_notice = false;
    bool m_has_stalled = false;
    Clock::time_point m_stalls_until{};
    Bytes m_received;
    std::set<uint32_t> m_asked_for;
    uint64_t m_frames = 0;
    std::string m_complaint;
};

// ---- A host as a process.

struct Holdings {
    std::ptrdiff_t threads = 0;
    std::ptrdiff_t descriptors = 0;
    long kibibytes = 0;  // of resident memory
};

class Host {
public:
    Host(std::string socket, const std::string& errors, std::vector<std::string> more)
        : m_socket(std::move(socket)) {
        more.insert(more.begin(), {ZU_HOST_FILE, "--listen", m_socket, "--env", "zu.codec.preset=ultrafast"});
        m_process = std::make_unique<ChildProcess>(std::move(more), errors);
        m_process->Says("listening on");
    }

    const std::string& Socket() const { return m_socket; }
    ChildProcess& Process() { return *m_process; }

    Holdings Holds() const {
        const std::string directory = "/proc/" + std::to_string(m_process->Pid());
        Holdings holdings{CountEntries((directory + "/task").c_str()),
                          CountEntries((directory + "/fd").c_str()), -1};
        std::ifstream status(directory + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("VmRSS:")) {
                holdings.kibibytes = std::stol(line.substr(6));
            }
        }
        return holdings;
    }

private:
    const std::string m_socket;
    std::unique_ptr<ChildProcess> m_process;
};

// ---- The soak.

class HostSoak {
public:
    explicit HostSoak(uint64_t seed)
        : m_random(seed),
          m_cameras{"card=One,formats=NV12,sizes=320x240:160x120,fps=30",
                    "card=Two,formats=YUYV:YU12,sizes=160x120:320x240,fps=15:30,adjust=width",
                    "card=Three,formats=YUYV,sizes=160x120,fps=60"} {}

    bool Run(std::chrono::minutes length, uint64_t seed) {
        std::printf("host soak: %ld minutes, seed %lu\n", length.count(), seed);
        const auto start = Clock::now();
        m_hosts[0] = StartHost(0, {});
        bool good = Settle(*m_hosts[0]);
        m_idle = HoldsWithoutPeer(*m_hosts[0]);
        for (int minute = 1; good && minute <= length.count(); ++minute) {
            m_hosts[1] = StartHost(1, ChooseOptions());
            const auto end = start + std::chrono::minutes(minute);
            while (good && Clock::now() < end) {
                good = Act();
            }
            m_peers.clear();
            KillPrograms();
            for (const auto& host : m_hosts) {
                good = good && Settle(*host) && IsQuiet(*host);
            }
            Print(minute);
            good = EndHost(*m_hosts[1]) && good;
        }
        good = EndHost(*m_hosts[0]) && good;
        std::printf("host soak: %s\n", good ? "all as it should be" : "FAILED");
        return good;
    }

private:
    static bool Complain(const std::string& text) {
        std::printf("host soak: %s\n", text.c_str());
        return false;
    }

    std::unique_ptr<Host> StartHost(size_t index, std::vector<std::string> options) {
        ++m_figures.hosts;
        const std::string name = std::to_string(index);
        options.insert(options.end(), {"--log-level", "error"});
        return std::make_unique<Host>(m_work / ("private/" + name), m_work / (name + ".errors"),
                                      std::move(options));
    }

    std::vector<std::string> ChooseOptions() {
        static const char* const kPeers[] = {"1", "3", "16"};
        static const char* const kSeconds[] = {"0", "1", "2", "60"};
        static const char* const kRates[] = {"100000", "4000000"};
        return {"--peers", m_random.OneOf(kPeers),
                "--idle",  m_random.OneOf(kSeconds),
                "--stuck", m_random.OneOf(kSeconds),
                "--env",   "zu.codec.bitrate=" + std::string(m_random.OneOf(kRates))};
    }

    static bool EndHost(Host& host) {
        host.Process().Signal(SIGTERM);
        const int status = host.Process().Wait();
        return status == 0 || Complain("a host ended with status " + std::to_string(status));
    }

    // One action, and some time in which the peers read.
    bool Act() {
        switch (m_random.Below(16)) {
            case 0:
            case 1:
            case 2:
                if (m_peers.size() < kMostPeers) {
                    m_peers.push_back(std::make_unique<Peer>(m_random.OneOf(m_hosts)->Socket(), m_figures));
                }
                break;
            case 3:
                if (!m_peers.empty()) {
                    m_peers.erase(m_peers.begin() + m_random.Below(static_cast<uint32_t>(m_peers.size())));
                }
                break;
            case 4:
                if (!m_peers.empty()) {
                    m_random.OneOf(m_peers)->Stall(Clock::now() + milliseconds(m_random.Below(6000)));
                }
                break;
            case 5:
                StartProgram();
                break;
            case 6:
                if (m_random.OneIn(3)) {
                    KillPrograms();
                }
                break;
            case 7:
            case 8:
                InjectFault(m_cameras.At(m_random.Below(kCameras)));
                break;
            default:
                if (!m_peers.empty()) {
                    Ask(*m_random.OneOf(m_peers));
                }
        }
        return ReadFor(milliseconds(m_random.Below(150)));
    }

    void Ask(Peer& peer) {
        static constexpr uint32_t kSizes[][2] = {{320, 240}, {160, 120}, {321, 241}};
        const uint32_t id = m_random.Below(kCameras + 1);  // one more than there are
        // Mostly the same format, so that peers watch a camera together.
        const auto& size = m_random.OneIn(3) ? m_random.OneOf(kSizes) : kSizes[1];
        const uint32_t rate = m_random.OneIn(4) ? 15 : 30;
        switch (m_random.Below(10)) {
            case 0:
                peer.Send(SetFormatBytes(id, size[0], size[1], rate));
                break;
            case 1:
            case 2:
                peer.Send(CloseBytes(id));
                break;
            case 3:
                peer.Send(kGetListBytes + kVersionRequestBytes);
                break;
            case 4:
                peer.Send(MessageBytes(99, {1, 2}) + SetPropertyBytes(static_cast<uint8_t>(id)));
                break;
            case 5: {
                Bytes half = OpenBytes(id);
                half.resize(1 + m_random.Below(20));
                // Completed by the next request, whatever that makes of the two.
                if (m_random.OneIn(4)) {
                    peer.Send(half);
                }
                break;
            }
            default:
                peer.Send(OpenBytes(id, size[0], size[1], rate));
        }
    }

    // The reference peer, which will be killed.
    void StartProgram() {
        if (m_programs.size() == kMostPrograms) {
            return;
        }
        ++m_figures.programs;
        const std::string name = m_work / ("program" + std::to_string(m_figures.programs % kMostPrograms));
        std::vector<std::string> words = {ZU_PEER_FILE, "--socket", m_random.OneOf(m_hosts)->Socket()};
        if (m_random.OneIn(2)) {
            words.insert(words.end(), {"stats", std::to_string(m_random.Below(kCameras))});
        } else {
            words.insert(words.end(),
                         {"record", std::to_string(m_random.Below(kCameras)), name + ".mkv", "--force"});
        }
        m_programs.push_back(std::make_unique<ChildProcess>(std::move(words), name + ".errors"));
    }

    void KillPrograms() {
        for (const auto& program : m_programs) {
            if (!program->HasEnded()) {
                program->Signal(SIGKILL);
                program->Wait();
                ++m_figures.killed;
            }
        }
        m_programs.clear();
    }

    bool ReadFor(milliseconds time) {
        const auto end = Clock::now() + time;
        do {
            for (const auto& peer : m_peers) {
                peer->Read();
                if (!peer->Complaint().empty()) {
                    return Complain(peer->Complaint());
                }
            }
            std::erase_if(m_peers, [](const auto& peer) { return !peer->IsOpen(); });
            std::this_thread::sleep_for(milliseconds(2));
        } while (Clock::now() < end);
        for (const auto& host : m_hosts) {
            if (host->Process().HasEnded()) {
                return Complain("a host has ended: " + host->Process().Errors());
            }
        }
        return true;
    }

    static void Inject(vcam::Camera& camera, const std::string& fault) {
        camera.Inject(vcam::ParseFault(fault).value());
    }

    void InjectFault(vcam::Camera& camera) {
        static const char* const kFaults[] = {
            "short/1/3", "zero/1/3",     "long/0/3/4096", "error-flag/1/3", "eintr-storm", "errno/DQBUF/EIO",
            "open-busy", "buffers-busy", "format-busy",   "stall/1000",     "bad-index/2"};
        ++m_figures.faults;
        if (m_random.OneIn(4)) {
            Inject(camera, "unplug");
            Inject(camera, "replug/" + std::to_string(m_random.Below(1000)));
        } else {
            Inject(camera, m_random.OneOf(kFaults));
        }
    }

    // Plugs every camera in, removes its faults, and lets a new peer of the host see every camera. Afterwards
    // nobody uses a camera.
    bool Settle(const Host& host) {
        for (uint32_t id = 0; id < kCameras; ++id) {
            vcam::Camera& camera = m_cameras.At(id);
            camera.ClearFaults();
            if (!WaitUntil([&] { return !camera.Status().streaming && camera.Status().open_files == 0; })) {
                return Complain("camera " + std::to_string(id) + " is still in use");
            }
            Inject(camera, "unplug");
            Inject(camera, "replug");
            WaitUntil([&camera] { return camera.Number() >= 0; });
            camera.ClearFaults();
        }
        Peer peer(host.Socket(), m_figures);
        peer.Send(OpenBytes(0, 160, 120, 30));
        const bool served = WaitUntil([&] {
            peer.Read();
            return peer.Frames() >= 5 || !peer.IsOpen();
        });
        return (served && peer.IsOpen()) || Complain("a host does not serve a new peer: " + peer.Complaint());
    }

    // The least that it holds for some seconds: the session of the last peer takes a moment to end.
    static Holdings HoldsWithoutPeer(const Host& host) {
        Holdings least = host.Holds();
        const auto end = Clock::now() + seconds(8);
        while (Clock::now() < end) {
            std::this_thread::sleep_for(milliseconds(50));
            const Holdings now = host.Holds();
            least.threads = std::min(least.threads, now.threads);
            least.descriptors = std::min(least.descriptors, now.descriptors);
            least.kibibytes = now.kibibytes;
        }
        return least;
    }

    std::string Difference(const Host& host) const {
        const Holdings now = host.Holds();
        char text[100];
        std::snprintf(text, sizeof text, "threads %+td, descriptors %+td, memory %+ld KiB",
                      now.threads - m_idle.threads, now.descriptors - m_idle.descriptors,
                      now.kibibytes - m_idle.kibibytes);
        return text;
    }

    bool IsQuiet(const Host& host) const {
        const auto is_quiet = [&] {
            const Holdings now = host.Holds();
            return now.threads <= m_idle.threads && now.descriptors <= m_idle.descriptors &&
                   now.kibibytes <= m_idle.kibibytes + kMoreMemory;
        };
        return WaitUntil(is_quiet) || Complain("left in a host: " + Difference(host));
    }

    void Print(int minute) const {
        std::printf(
            "host soak: minute %d: %lu hosts, %lu peers, %lu not connected, %lu requests, %lu answers, %lu "
            "notices, "
            "%lu frames, %lu stalls, %lu programs, %lu killed, %lu faults; first host: %s\n",
            minute, m_figures.hosts, m_figures.peers, m_figures.refused, m_figures.requests,
            m_figures.answers, m_figures.notices, m_figures.frames, m_figures.stalls, m_figures.programs,
            m_figures.killed, m_figures.faults, Difference(*m_hosts[0]).c_str());
        std::fflush(stdout);
    }

    Random m_random;
    const WorkDirectory m_work;
    vcam::PreloadedCameras m_cameras;
    Figures m_figures;
    std::array<std::unique_ptr<Host>, 2> m_hosts;
    Holdings m_idle;
    std::vector<std::unique_ptr<Peer>> m_peers;
    std::vector<std::unique_ptr<ChildProcess>> m_programs;
};

}  // namespace
}  // namespace zumod::testing

int main(int argc, char** argv) {
    int minutes = 10;
    uint64_t seed = std::random_device{}();
    CLI::App app("Uses two hosts at random and prints once per minute what is left behind.", "host_soak");
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
        return zumod::ReportError("host_soak", parsed.error());
    }
    return zumod::testing::HostSoak(seed).Run(std::chrono::minutes(minutes), seed) ? 0 : 1;
}
